// NV21 to BGR: the library's converter against libyuv (full-range constants), OpenCV's
// cvtColor on one thread and on all, and a memcpy that moves the same bytes.
#include <benchmark/benchmark.h>
#include <libyuv/convert_argb.h>

#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench.h"
#include "frames.h"
#include "utils/image_utils.h"
#include "utils/image_utils_neon.h"

namespace ad_bench {
namespace {

constexpr int kBgrBytes = 3;

struct Nv21Input {
  cv::Size size;
  std::vector<unsigned char> bytes;
  const unsigned char* luma() const { return bytes.data(); }
  const unsigned char* chroma() const { return bytes.data() + size.area(); }
};

Nv21Input nv21_input(cv::Size size) { return {size, to_nv21(photo_frame(size))}; }

// Bytes the conversion reads plus bytes it writes, for a bandwidth figure.
void count_bytes(benchmark::State& state, cv::Size size) {
  state.SetBytesProcessed(int64_t(state.iterations()) * size.area() * (kBgrBytes * 2 + 3) / 2);
}

void ours(benchmark::State& state, cv::Size size) {
  cv::setNumThreads(1);
  Nv21Input in = nv21_input(size);
  cv::Mat bgr(size, CV_8UC3);
  for (auto _ : state) {
    tqr_arm_neon::ics_fconvert_nv21torgb_neon(in.bytes.data(), bgr.data, size.width, size.height);
    benchmark::DoNotOptimize(bgr.data);
    benchmark::ClobberMemory();
  }
  count_bytes(state, size);
}

void libyuv_jpeg(benchmark::State& state, cv::Size size) {
  Nv21Input in = nv21_input(size);
  cv::Mat bgr(size, CV_8UC3);
  for (auto _ : state) {
    libyuv::NV21ToRGB24Matrix(in.luma(), size.width, in.chroma(), size.width, bgr.data,
                              size.width * kBgrBytes, &libyuv::kYuvJPEGConstants, size.width,
                              size.height);
    benchmark::DoNotOptimize(bgr.data);
    benchmark::ClobberMemory();
  }
  count_bytes(state, size);
}

void opencv(benchmark::State& state, cv::Size size, int threads) {
  cv::setNumThreads(threads);
  Nv21Input in = nv21_input(size);
  const cv::Mat view(size.height * 3 / 2, size.width, CV_8UC1, in.bytes.data());
  cv::Mat bgr(size, CV_8UC3);
  for (auto _ : state) {
    cv::cvtColor(view, bgr, cv::COLOR_YUV2BGR_NV21);
    benchmark::DoNotOptimize(bgr.data);
    benchmark::ClobberMemory();
  }
  cv::setNumThreads(1);
  count_bytes(state, size);
}

// The floor: per row pair, the two luma rows and the chroma row are read once and written
// twice, filling the two BGR rows, so memory sees the converter's traffic without its work.
void memcpy_floor(benchmark::State& state, cv::Size size) {
  Nv21Input in = nv21_input(size);
  cv::Mat bgr(size, CV_8UC3);
  const std::size_t w = size.width;
  for (auto _ : state) {
    for (int y = 0; y < size.height; y += 2) {
      const unsigned char* luma = in.luma() + w * y;
      const unsigned char* chroma = in.chroma() + w * (y / 2);
      unsigned char* out = bgr.ptr(y);
      std::memcpy(out, luma, 2 * w);
      std::memcpy(out + 2 * w, chroma, w);
      std::memcpy(out + 3 * w, luma, 2 * w);
      std::memcpy(out + 5 * w, chroma, w);
    }
    benchmark::DoNotOptimize(bgr.data);
    benchmark::ClobberMemory();
  }
  count_bytes(state, size);
}

void ours_rotate(benchmark::State& state, cv::Size size) {
  cv::setNumThreads(1);
  Nv21Input in = nv21_input(size);
  for (auto _ : state) {
    cv::Mat upright = tqr_arm_neon::nv21_convert_rotate(reinterpret_cast<char*>(in.bytes.data()),
                                                        size.width, size.height, 90);
    benchmark::DoNotOptimize(upright.data);
  }
  count_bytes(state, size);
}

// What a user would write with OpenCV alone: convert, then turn the result upright.
void opencv_rotate(benchmark::State& state, cv::Size size, int threads) {
  cv::setNumThreads(threads);
  Nv21Input in = nv21_input(size);
  const cv::Mat view(size.height * 3 / 2, size.width, CV_8UC1, in.bytes.data());
  for (auto _ : state) {
    cv::Mat bgr, upright;
    cv::cvtColor(view, bgr, cv::COLOR_YUV2BGR_NV21);
    cv::rotate(bgr, upright, cv::ROTATE_90_CLOCKWISE);
    benchmark::DoNotOptimize(upright.data);
  }
  cv::setNumThreads(1);
  count_bytes(state, size);
}

// NV21 straight to the network's input: turned upright by 90 and shrunk by area to 224x224.
constexpr int kNetworkSide = 224;

void ours_shrink(benchmark::State& state, cv::Size size) {
  cv::setNumThreads(1);
  Nv21Input in = nv21_input(size);
  for (auto _ : state) {
    cv::Mat small;
    image_utils::shrink_upright_nv21(reinterpret_cast<char*>(in.bytes.data()), size.width,
                                     size.height, 90, cv::Size(kNetworkSide, kNetworkSide), small);
    benchmark::DoNotOptimize(small.data);
  }
  count_bytes(state, size);
}

void opencv_shrink(benchmark::State& state, cv::Size size, int threads) {
  cv::setNumThreads(threads);
  Nv21Input in = nv21_input(size);
  const cv::Mat view(size.height * 3 / 2, size.width, CV_8UC1, in.bytes.data());
  for (auto _ : state) {
    cv::Mat bgr, upright, small;
    cv::cvtColor(view, bgr, cv::COLOR_YUV2BGR_NV21);
    cv::rotate(bgr, upright, cv::ROTATE_90_CLOCKWISE);
    cv::resize(upright, small, cv::Size(kNetworkSide, kNetworkSide), 0, 0, cv::INTER_AREA);
    benchmark::DoNotOptimize(small.data);
  }
  cv::setNumThreads(1);
  count_bytes(state, size);
}

}  // namespace

const std::vector<cv::Size>& conversion_sizes() {
  static const std::vector<cv::Size> sizes{{640, 480}, {1920, 1080}, {4000, 3000}};
  return sizes;
}

void register_convert_benchmarks() {
  const int all_threads = cv::getNumberOfCPUs();
  for (cv::Size size : conversion_sizes()) {
    const std::string s = size_name(size);
    add("convert/ours/" + s, ours, size);
    add("convert/libyuv/" + s, libyuv_jpeg, size);
    add("convert/opencv_1t/" + s, opencv, size, 1);
    add("convert/opencv_mt/" + s, opencv, size, all_threads);
    add("convert/memcpy/" + s, memcpy_floor, size);
  }
  for (cv::Size size : conversion_sizes()) {
    const std::string s = size_name(size);
    add("rotate90/ours/" + s, ours_rotate, size);
    add("rotate90/opencv_1t/" + s, opencv_rotate, size, 1);
    add("rotate90/opencv_mt/" + s, opencv_rotate, size, all_threads);
  }
  for (cv::Size size : conversion_sizes()) {
    const std::string s = size_name(size);
    add("shrink/ours/" + s, ours_shrink, size);
    add("shrink/opencv_1t/" + s, opencv_shrink, size, 1);
    add("shrink/opencv_mt/" + s, opencv_shrink, size, all_threads);
  }
}

}  // namespace ad_bench

// What the camera-native Detector pays before the one conversion kernel: repacking a
// YUV_420_888 frame with padded rows (pixel stride 2, and planar) into tight NV21, in full
// and video range, next to the fused NV21 shrink it feeds and a plain copy of the same bytes.
#include <benchmark/benchmark.h>

#include <cstring>

#include "bench.h"
#include "frame_input.h"
#include "frames.h"
#include "utils/image_utils.h"

namespace ad_bench {
namespace {

using artifact_detector::Frame;
using artifact_detector::YuvRange;

constexpr int kPad = 64;

// A photograph as camera planes: luma rows and V,U rows `kPad` bytes longer than the width;
// planar: U and V each in half-width rows, also padded.
struct CameraPlanes {
  cv::Size size;
  bool planar;
  int stride, chroma_stride;
  std::vector<unsigned char> nv21, luma, chroma;
  CameraPlanes(cv::Size s, bool is_planar)
      : size(s),
        planar(is_planar),
        stride(s.width + kPad),
        chroma_stride(planar ? s.width / 2 + kPad : stride),
        nv21(to_nv21(photo_frame(s))) {
    const int rows = s.height / 2;
    luma.resize(size_t(stride) * s.height);
    chroma.resize(size_t(chroma_stride) * rows * (planar ? 2 : 1));
    for (int r = 0; r < s.height; ++r) {
      std::memcpy(&luma[size_t(r) * stride], &nv21[size_t(r) * s.width], s.width);
    }
    const unsigned char* vu = nv21.data() + s.area();
    for (int r = 0; r < rows; ++r) {
      for (int k = 0; k < s.width / 2; ++k) {
        const unsigned char v = vu[r * s.width + 2 * k], u = vu[r * s.width + 2 * k + 1];
        if (planar) {
          chroma[size_t(r) * chroma_stride + k] = u;
          chroma[size_t(rows + r) * chroma_stride + k] = v;
        } else {
          chroma[size_t(r) * stride + 2 * k] = v;
          chroma[size_t(r) * stride + 2 * k + 1] = u;
        }
      }
    }
  }
  Frame frame(YuvRange range) const {
    const unsigned char* c = chroma.data();
    const size_t half = size_t(chroma_stride) * (size.height / 2);
    return planar ? Frame::yuv_420_888(luma.data(), stride, c, c + half, chroma_stride, 1,
                                       size.width, size.height, 90, range)
                  : Frame::yuv_420_888(luma.data(), stride, c + 1, c, stride, 2, size.width,
                                       size.height, 90, range);
  }
};

void count_bytes(benchmark::State& state, cv::Size size) {
  state.SetBytesProcessed(int64_t(state.iterations()) * size.area() * 3 / 2);
}

void repack(benchmark::State& state, cv::Size size, bool planar, YuvRange range) {
  const CameraPlanes planes(size, planar);
  const Frame frame = planes.frame(range);
  std::vector<unsigned char> out(size_t(size.area()) * 3 / 2);
  for (auto _ : state) {
    artifact_detector::repack_nv21(frame, out.data());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  count_bytes(state, size);
}

void copy_floor(benchmark::State& state, cv::Size size) {
  const std::vector<unsigned char> in = to_nv21(photo_frame(size));
  std::vector<unsigned char> out(in.size());
  for (auto _ : state) {
    std::memcpy(out.data(), in.data(), in.size());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  count_bytes(state, size);
}

// The step the repacked frame goes on to: converted, turned and shrunk to 224x224.
void shrink_after(benchmark::State& state, cv::Size size) {
  std::vector<unsigned char> in = to_nv21(photo_frame(size));
  for (auto _ : state) {
    cv::Mat small;
    image_utils::shrink_upright_nv21(reinterpret_cast<char*>(in.data()), size.width, size.height,
                                     90, cv::Size(224, 224), small);
    benchmark::DoNotOptimize(small.data);
  }
  count_bytes(state, size);
}

}  // namespace

void register_repack_benchmarks() {
  for (cv::Size size : conversion_sizes()) {
    const std::string s = size_name(size);
    add("repack/stride2_full/" + s, repack, size, false, YuvRange::kFull);
    add("repack/stride2_video/" + s, repack, size, false, YuvRange::kVideo);
    add("repack/planar_full/" + s, repack, size, true, YuvRange::kFull);
    add("repack/memcpy/" + s, copy_floor, size);
    add("repack/then_shrink/" + s, shrink_after, size);
  }
}

}  // namespace ad_bench

#include "frames.h"

#include <cstring>
#include <map>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string>

namespace ad_bench {
namespace {

constexpr double kNoiseSigma = 4.0;  // a well-lit phone sensor, in 8-bit steps
constexpr std::uint64_t kNoiseSeed = 2024;

}  // namespace

cv::Mat photo_frame(cv::Size size) {
  static std::map<std::pair<int, int>, cv::Mat> cache;
  cv::Mat& frame = cache[{size.width, size.height}];
  if (frame.empty()) {
    const std::string path = std::string(AD_SAMPLES_DIR) + "/coffee.jpg";
    const cv::Mat photo = cv::imread(path, cv::IMREAD_COLOR);
    if (photo.empty()) throw std::runtime_error("cannot read " + path);
    cv::resize(photo, frame, size, 0, 0, cv::INTER_CUBIC);
    cv::Mat noise(size, CV_16SC3);
    cv::RNG rng(kNoiseSeed);
    rng.fill(noise, cv::RNG::NORMAL, 0, kNoiseSigma);
    cv::add(frame, noise, frame, cv::noArray(), CV_8UC3);
  }
  return frame;
}

std::vector<unsigned char> to_nv21(const cv::Mat& bgr) {
  cv::Mat i420;
  cv::cvtColor(bgr, i420, cv::COLOR_BGR2YUV_I420);
  const std::size_t luma = bgr.total();
  const std::size_t quarter = luma / 4;
  const unsigned char* y = i420.data;
  const unsigned char* u = y + luma;
  const unsigned char* v = u + quarter;
  std::vector<unsigned char> nv21(luma + 2 * quarter);
  std::memcpy(nv21.data(), y, luma);
  for (std::size_t k = 0; k < quarter; ++k) {
    nv21[luma + 2 * k] = v[k];
    nv21[luma + 2 * k + 1] = u[k];
  }
  return nv21;
}

std::vector<unsigned char> to_rgba(const cv::Mat& bgr) {
  cv::Mat rgba;
  cv::cvtColor(bgr, rgba, cv::COLOR_BGR2RGBA);
  return std::vector<unsigned char>(rgba.datastart, rgba.dataend);
}

std::string size_name(cv::Size size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

}  // namespace ad_bench

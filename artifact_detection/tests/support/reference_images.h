// The oracle of the image kernels: the NV21 conversion pixel by pixel in its fixed arithmetic,
// and OpenCV's rotation and INTER_AREA resize. Optimised routines must give exactly these bytes.
#pragma once

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace ad_test {

// Columns of whole 16-column blocks in single precision, each product rounded before the sum;
// the rest in double precision with fused multiply-adds; truncated, then saturated. Built with
// contraction off.
inline cv::Mat reference_nv21_to_bgr(const unsigned char* nv21, int width, int height) {
  cv::Mat bgr(height, width, CV_8UC3);
  const auto byte = [](double v) { return uchar(std::clamp(long(v), 0L, 255L)); };
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const unsigned char* vu = nv21 + std::size_t(width) * (height + y / 2) + (x & ~1);
      const int luma = nv21[std::size_t(y) * width + x];
      cv::Vec3b& out = bgr.at<cv::Vec3b>(y, x);
      if (x < width / 16 * 16) {
        const float fy = float(luma), v = float(vu[0]) + -128.0f, u = float(vu[1]) + -128.0f;
        out = {byte(fy + u * 1.773f), byte((fy - u * 0.344f) - v * 0.714f), byte(fy + v * 1.403f)};
      } else {
        const double dy = luma, v = vu[0] + -128.0, u = vu[1] + -128.0;
        out = {byte(std::fma(double(1.773f), u, dy)),
               byte(std::fma(-double(0.344f), u, std::fma(-double(0.714f), v, dy))),
               byte(std::fma(double(1.403f), v, dy))};
      }
    }
  }
  return bgr;
}

// rotate_image's turn: 90, 180, 270 clockwise; anything else unchanged.
inline cv::Mat reference_turn(const cv::Mat& image, int rotation) {
  cv::Mat out = image.clone();
  if (rotation == 90) cv::rotate(image, out, cv::ROTATE_90_CLOCKWISE);
  if (rotation == 180) cv::rotate(image, out, cv::ROTATE_180);
  if (rotation == 270) cv::rotate(image, out, cv::ROTATE_90_COUNTERCLOCKWISE);
  return out;
}

inline cv::Mat reference_shrink(const cv::Mat& upright, cv::Size size) {
  cv::Mat out;
  cv::resize(upright, out, size, 0, 0, cv::INTER_AREA);
  return out;
}

inline bool same_bytes(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

}  // namespace ad_test

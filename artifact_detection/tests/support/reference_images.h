// The oracle for the image kernels: the NV21 conversion written out pixel by pixel in its
// fixed arithmetic, and OpenCV's own rotation and INTER_AREA resize. Optimised routines must
// give exactly these bytes.
#pragma once

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace ad_test {

// NV21 to B,G,R: columns of the whole 16-column blocks in single precision (each product
// rounded before the sum), the columns after them in double precision with fused
// multiply-adds; truncated toward zero, then saturated. Built with contraction off.
inline cv::Mat reference_nv21_to_bgr(const unsigned char* nv21, int width, int height) {
  cv::Mat bgr(height, width, CV_8UC3);
  const int vector_columns = width / 16 * 16;
  const auto saturate = [](long v) { return static_cast<uchar>(std::clamp(v, 0L, 255L)); };
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const unsigned char* pair =
          nv21 + std::size_t(width) * height + std::size_t(y / 2) * width + (x & ~1);
      const int luma = nv21[std::size_t(y) * width + x];
      cv::Vec3b& out = bgr.at<cv::Vec3b>(y, x);
      if (x < vector_columns) {
        const float fy = static_cast<float>(luma);
        const float v = static_cast<float>(pair[0]) + -128.0f;
        const float u = static_cast<float>(pair[1]) + -128.0f;
        out[0] = saturate(static_cast<long>(fy + u * 1.773f));
        out[1] = saturate(static_cast<long>((fy - u * 0.344f) - v * 0.714f));
        out[2] = saturate(static_cast<long>(fy + v * 1.403f));
      } else {
        const double dy = luma, v = pair[0] + -128.0, u = pair[1] + -128.0;
        out[0] = saturate(static_cast<long>(std::fma(double(1.773f), u, dy)));
        out[1] = saturate(
            static_cast<long>(std::fma(-double(0.344f), u, std::fma(-double(0.714f), v, dy))));
        out[2] = saturate(static_cast<long>(std::fma(double(1.403f), v, dy)));
      }
    }
  }
  return bgr;
}

// rotate_image's turn: 90, 180, 270 clockwise; anything else unchanged.
inline cv::Mat reference_turn(const cv::Mat& image, int rotation) {
  cv::Mat out;
  switch (rotation) {
    case 90:
      cv::rotate(image, out, cv::ROTATE_90_CLOCKWISE);
      return out;
    case 180:
      cv::rotate(image, out, cv::ROTATE_180);
      return out;
    case 270:
      cv::rotate(image, out, cv::ROTATE_90_COUNTERCLOCKWISE);
      return out;
    default:
      return image.clone();
  }
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

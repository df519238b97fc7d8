#include "utils/image_utils.h"

#include <cstddef>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <utility>

#include "core/utils/logging.h"

using ImageFormat = artifact_detector::ArtifactDetector::ImageFormat;

namespace image_utils {

cv::Mat view_buffer(char* buffer, int width, int height, ImageFormat format) {
  switch (format) {
    case ImageFormat::NV21:
      return cv::Mat(height + height / 2, width, CV_8UC1, buffer);
    case ImageFormat::RGBA:
      return cv::Mat(height, width, CV_8UC4, buffer);
    default:
      return cv::Mat(height, width, CV_8UC3, buffer);
  }
}

}  // namespace image_utils

cv::Mat get_bgr_mat_from_buffer(char* buffer, int width, int height, ImageFormat format) {
  if (format == ImageFormat::RGBA) {
    AD_LOG_INFO << "TQ Debug: Converting image format - RGBA";
    cv::Mat bgr(height, width, CV_8UC3);
    cv::cvtColor(image_utils::view_buffer(buffer, width, height, format), bgr, cv::COLOR_RGBA2BGR,
                 0);
    return bgr;
  }
  if (format == ImageFormat::NV21) {
    AD_LOG_INFO << "TQ Debug: Converting image format - NV21";
    cv::Mat bgr(height, width, CV_8UC3);
    cv::cvtColor(image_utils::view_buffer(buffer, width, height, format), bgr,
                 cv::COLOR_YUV2BGR_NV21);
    return bgr;
  }
  AD_LOG_INFO << "TQ Debug: Converting image format - BGR";
  // Deliberately no copy: the caller's buffer is the image.
  return image_utils::view_buffer(buffer, width, height, ImageFormat::BGR);
}

cv::Mat rotate_image(cv::Mat image, int rotation) {
  int code;
  switch (rotation) {
    case 90:
      code = cv::ROTATE_90_CLOCKWISE;
      break;
    case 180:
      code = cv::ROTATE_180;
      break;
    case 270:
      code = cv::ROTATE_90_COUNTERCLOCKWISE;
      break;
    default:
      return image;  // already upright: the same pixels, moved out
  }
  cv::Mat rotated;
  cv::rotate(image, rotated, code);
  return rotated;
}

bool checkSimilarColor(const cv::Mat& image) {
  constexpr int kHueTolerance = 10;
  cv::Mat hsv;
  cv::cvtColor(image, hsv, cv::COLOR_BGR2HSV, 0);
  cv::Mat hue;
  cv::extractChannel(hsv, hue, 0);
  const double mean = cv::mean(hue)[0];
  const int truncated = static_cast<int>(mean);
  const int lower = truncated - kHueTolerance;
  const int upper = truncated + kHueTolerance;
  AD_LOG_INFO << "lower bound: " << lower << " upper bound: " << upper << "meanVal[0] : " << mean;

  for (int row = 0; row < hue.rows; ++row) {
    const unsigned char* pixels = hue.ptr<unsigned char>(row);
    for (int col = 0; col < hue.cols; ++col) {
      if (pixels[col] < lower || pixels[col] > upper) return false;
    }
  }
  return true;
}

void fill_mask_buffer(std::string& buffer, cv::Mat mask) {
  if (mask.data == nullptr || mask.total() == 0) {
    AD_LOG_INFO << "TQ Debug: Cannot fill mask buffer as given mask is empty.";
  }
  buffer.clear();
  for (int row = 0; row < mask.rows; ++row) {
    const unsigned char* start = mask.data + static_cast<std::size_t>(row) * mask.step[0];
    for (int col = 0; col < mask.cols; ++col) buffer.push_back(static_cast<char>(start[col]));
  }
}

namespace tqr_arm_neon {
namespace {

// The frame converted into a new image of its own size.
cv::Mat convert(char* nv21, int width, int height) {
  cv::Mat bgr(height, width, CV_8UC3);
  ics_fconvert_nv21torgb_neon(reinterpret_cast<unsigned char*>(nv21), bgr.data, width, height);
  return bgr;
}

}  // namespace

cv::Mat nv21_convert_rotate(char* nv21, int width, int height, int rotation) {
  cv::Mat bgr = convert(nv21, width, height);
  if (rotation == 0) return bgr;
  return rotate_image(std::move(bgr), rotation);
}

cv::Mat nv21_resize_convert_rotate(char* nv21, int srcWidth, int srcHeight, int dstWidth,
                                   int dstHeight, int rotation) {
  // A target with pixels needs a frame with pixels to sample, as cv::resize does.
  if (dstWidth > 0 && dstHeight > 0) CV_Assert(srcWidth > 0 && srcHeight > 0);
  cv::Mat bgr;
  {
    const auto size = static_cast<std::size_t>(dstHeight * 1.5 * dstWidth);
    std::unique_ptr<char[]> resized(new char[size]);
    resize_nv21_buffer(nv21, resized.get(), srcWidth, srcHeight, dstWidth, dstHeight);
    bgr = convert(resized.get(), dstWidth, dstHeight);
  }  // the temporary frame goes before the rotation allocates
  if (rotation == 0) return bgr;
  return rotate_image(std::move(bgr), rotation);
}

cv::Mat nv21_convert_resize_rotate(char* nv21, int width, int height, int dstWidth, int dstHeight,
                                   int rotation) {
  cv::Mat bgr = convert(nv21, width, height);
  if (dstWidth != width || dstHeight != height) {
    cv::resize(bgr, bgr, cv::Size(dstWidth, dstHeight), 0, 0, cv::INTER_LINEAR);
  }
  if (rotation == 0) return bgr;
  return rotate_image(std::move(bgr), rotation);
}

}  // namespace tqr_arm_neon

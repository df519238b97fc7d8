#include "utils/image_utils.h"

#include <cstddef>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <utility>

#include "core/utils/logging.h"
#include "utils/neon_kernels.h"

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

namespace {

// 90, 180 and 270 turn; every other value leaves the frame as it is.
int turning(int rotation) {
  return rotation == 90 || rotation == 180 || rotation == 270 ? rotation : 0;
}

bool shrink(tqr_arm_neon::kernels::Pixels pixels, const unsigned char* src, std::ptrdiff_t step,
            int width, int height, int rotation, cv::Size size, cv::Mat& out) {
  namespace k = tqr_arm_neon::kernels;
  rotation = turning(rotation);
  const cv::Size upright = upright_size(width, height, rotation);
  k::AreaAxis columns, rows;
  if (!k::plan_area(upright.width, upright.height, size.width, size.height, columns, rows)) {
    return false;
  }
  cv::Mat small(size, CV_8UC3);
  k::AreaJob job;
  job.pixels = pixels;
  job.src = src;
  job.step = step;
  job.width = width;
  job.height = height;
  job.rotation = rotation;
  job.columns = &columns;
  job.rows = &rows;
  job.dst = small.data;
  job.dst_step = static_cast<std::ptrdiff_t>(small.step[0]);
  k::selected().area(job);
  out = small;
  return true;
}

}  // namespace

bool nv21_size_supported(int width, int height) { return width % 2 == 0 && height % 2 == 0; }

cv::Size upright_size(int width, int height, int rotation) {
  const int turn = turning(rotation);
  return turn == 90 || turn == 270 ? cv::Size(height, width) : cv::Size(width, height);
}

bool shrink_upright(const cv::Mat& frame, int rotation, cv::Size size, cv::Mat& out) {
  if (frame.type() != CV_8UC3 || frame.dims != 2 || frame.empty()) return false;
  return shrink(tqr_arm_neon::kernels::Pixels::kBgr, frame.data,
                static_cast<std::ptrdiff_t>(frame.step[0]), frame.cols, frame.rows, rotation, size,
                out);
}

bool shrink_upright_nv21(const char* nv21, int width, int height, int rotation, cv::Size size,
                         cv::Mat& out) {
  if (nv21 == nullptr || width <= 0 || height <= 0 || width % 2 != 0 || height % 2 != 0) {
    return false;
  }
  return shrink(tqr_arm_neon::kernels::Pixels::kNv21,
                reinterpret_cast<const unsigned char*>(nv21), width, width, height, rotation, size,
                out);
}

namespace {

// The area kernels declined these sizes, so cv::resize would not average by area either.
cv::Mat resize_declined(cv::Mat upright, cv::Size size) {
  if (upright.empty()) return upright;  // refused by the pipeline, after the frame's log lines
  if (size.width > 0 && size.height > 0) {
    cv::resize(upright, upright, size, 0, 0, cv::INTER_AREA);
  }
  return upright;
}

}  // namespace

cv::Mat upright_at_size(char* buffer, int width, int height, int rotation, ImageFormat format,
                        cv::Size size) {
  cv::Mat small;
  if (format == ImageFormat::NV21) {
    if (shrink_upright_nv21(buffer, width, height, rotation, size, small)) return small;
    return resize_declined(tqr_arm_neon::nv21_convert_rotate(buffer, width, height, rotation),
                           size);
  }
  cv::Mat frame = get_bgr_mat_from_buffer(buffer, width, height, format);
  if (shrink_upright(frame, rotation, size, small)) return small;
  return resize_declined(rotate_image(std::move(frame), rotation), size);
}

cv::Mat upright_at_size(cv::Mat upright, cv::Size size) {
  cv::Mat small;
  if (shrink_upright(upright, 0, size, small)) return small;
  return resize_declined(std::move(upright), size);
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
  if ((rotation == 90 || rotation == 180 || rotation == 270) && width > 0 && height > 0) {
    // Converted straight into the turned image: the bytes of converting, then turning.
    cv::Mat bgr(image_utils::upright_size(width, height, rotation), CV_8UC3);
    kernels::selected().convert_rotate(reinterpret_cast<unsigned char*>(nv21), bgr.data, width,
                                       height, rotation);
    return bgr;
  }
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

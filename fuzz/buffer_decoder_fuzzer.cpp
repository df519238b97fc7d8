// The buffer decoders over arbitrary sizes, rotations, formats and pixels, each with a buffer
// of exactly the size its format needs (so any read past it is caught), and the uniform-colour
// check on what they produce. The one-pass shrinks of a detection run must give the very bytes
// of turning and then resizing by area, or decline.
//
// Within the contract: sizes from 0 up, even for NV21, and a bounded pixel count so that the
// fuzzer looks for faults rather than for the allocator's limit. OpenCV may refuse an image
// with no pixels by its exception; a frame with pixels must decode without any exception.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "fuzz_support.h"
#include "utils/image_utils.h"

namespace {

using ImageFormat = artifact_detector::ArtifactDetector::ImageFormat;

constexpr int kMaxSide = 384;
constexpr int kMaxPixels = 256 * 256;

enum Routine : int {
  kGetBgrMatThenRotate,  // the per-frame path of every format but NV21
  kNv21ConvertRotate,    // the per-frame path of NV21
  kNv21ResizeConvertRotate,
  kNv21ConvertResizeRotate,
  kShrinkUpright,  // a run's frame of any format but NV21, after its conversion
  kShrinkUprightNv21,
  kRoutineCount
};

// Rotations that matter, plus any value at all.
int take_rotation(FuzzedDataProvider& input) {
  static const int kRotations[] = {0, 90, 180, 270, -90, 360, 45};
  const std::size_t pick = input.ConsumeIntegralInRange<std::size_t>(0, std::size(kRotations));
  return pick < std::size(kRotations) ? kRotations[pick] : input.ConsumeIntegral<int>();
}

// A size within the bounds; even when `even`.
cv::Size take_size(FuzzedDataProvider& input, bool even) {
  int width = input.ConsumeIntegralInRange<int>(0, kMaxSide);
  int height = input.ConsumeIntegralInRange<int>(0, kMaxSide);
  if (width > 0 && width * height > kMaxPixels) height = kMaxPixels / width;
  if (even) {
    width &= ~1;
    height &= ~1;
  }
  return {width, height};
}

// Exactly `size` bytes of pixels, the input's remaining bytes repeated (zeros without any).
std::vector<char> take_pixels(FuzzedDataProvider& input, std::size_t size) {
  const std::vector<char> pattern = input.ConsumeRemainingBytes<char>();
  std::vector<char> pixels(size, 0);
  if (!pattern.empty()) {
    for (std::size_t i = 0; i < size; ++i) pixels[i] = pattern[i % pattern.size()];
  }
  return pixels;
}

// The upright size of a `size` frame after `rotation`.
cv::Size upright(cv::Size size, int rotation) {
  return rotation == 90 || rotation == 270 ? cv::Size(size.height, size.width) : size;
}

void check_image(const cv::Mat& image, cv::Size expected) {
  if (expected.empty()) {
    ad_fuzz::check(image.empty(), "no pixels from a frame without pixels");
    return;
  }
  ad_fuzz::check(image.type() == CV_8UC3, "a BGR image");
  ad_fuzz::check(image.size() == expected, "the upright size of the frame");
  checkSimilarColor(image);
}

// One call, as read from the fuzzer's bytes.
struct Request {
  Routine routine;
  int rotation;
  ImageFormat format = ImageFormat::NV21;
  cv::Size size;
  cv::Size target;  // the composites' destination size (unrotated), the shrinks' (upright)

  explicit Request(FuzzedDataProvider& input)
      : routine(static_cast<Routine>(input.ConsumeIntegralInRange<int>(0, kRoutineCount - 1))),
        rotation(take_rotation(input)) {
    if (routine == kGetBgrMatThenRotate || routine == kShrinkUpright) {
      format = static_cast<ImageFormat>(input.ConsumeIntegral<std::int32_t>());
    }
    size = take_size(input, format == ImageFormat::NV21);
    if (routine == kNv21ResizeConvertRotate || routine == kNv21ConvertResizeRotate) {
      target = take_size(input, true);
    } else if (routine == kShrinkUpright || routine == kShrinkUprightNv21) {
      target = take_size(input, false);
    } else {
      target = size;
    }
  }

  bool shrinks() const { return routine == kShrinkUpright || routine == kShrinkUprightNv21; }

  // The size of the image the routine gives.
  cv::Size result_size() const { return shrinks() ? target : upright(target, rotation); }

  std::size_t buffer_bytes() const {
    const std::size_t pixels = static_cast<std::size_t>(size.area());
    switch (format) {
      case ImageFormat::NV21:
        return pixels * 3 / 2;
      case ImageFormat::RGBA:
        return pixels * 4;
      default:
        return pixels * 3;
    }
  }
};

cv::Mat decode(const Request& r, char* buffer) {
  const int w = r.size.width;
  const int h = r.size.height;
  switch (r.routine) {
    case kGetBgrMatThenRotate:
      return rotate_image(get_bgr_mat_from_buffer(buffer, w, h, r.format), r.rotation);
    case kNv21ConvertRotate:
      return tqr_arm_neon::nv21_convert_rotate(buffer, w, h, r.rotation);
    case kNv21ResizeConvertRotate:
      return tqr_arm_neon::nv21_resize_convert_rotate(buffer, w, h, r.target.width, r.target.height,
                                                      r.rotation);
    case kNv21ConvertResizeRotate:
      return tqr_arm_neon::nv21_convert_resize_rotate(buffer, w, h, r.target.width, r.target.height,
                                                      r.rotation);
    case kShrinkUpright:
    case kShrinkUprightNv21: {
      // The long way of a run: the upright image, resized by area.
      const cv::Mat turned =
          r.routine == kShrinkUpright
              ? rotate_image(get_bgr_mat_from_buffer(buffer, w, h, r.format), r.rotation)
              : tqr_arm_neon::nv21_convert_rotate(buffer, w, h, r.rotation);
      cv::Mat shrunk;
      const bool one_pass =
          r.routine == kShrinkUpright
              ? image_utils::shrink_upright(get_bgr_mat_from_buffer(buffer, w, h, r.format),
                                            r.rotation, r.target, shrunk)
              : image_utils::shrink_upright_nv21(buffer, w, h, r.rotation, r.target, shrunk);
      cv::Mat resized;
      cv::resize(turned, resized, r.target, 0, 0, cv::INTER_AREA);
      if (one_pass) {
        ad_fuzz::check(shrunk.size() == resized.size() && shrunk.type() == resized.type() &&
                           cv::norm(shrunk, resized, cv::NORM_INF) == 0,
                       "a one-pass shrink gives the bytes of turning, then resizing by area");
      }
      return resized;
    }
    case kRoutineCount:
      break;
  }
  ad_fuzz::fail("unknown routine");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ad_fuzz::silence_log();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const Request request(input);
  std::vector<char> buffer = take_pixels(input, request.buffer_bytes());
  try {
    check_image(decode(request, buffer.data()), request.result_size());
  } catch (const cv::Exception&) {
    // OpenCV may refuse a frame or a target without pixels, and nothing else.
    ad_fuzz::check(request.size.empty() || request.target.empty(),
                   "a frame with pixels decodes without exception");
  }
  return 0;
}

// The buffer decoders over arbitrary sizes, rotations, formats and pixels, each with a buffer
// of exactly the size its format needs (so any read past it is caught), and the uniform-colour
// check on what they produce. The one-pass shrinks of a detection run must give the very bytes
// of turning and then resizing by area, or decline.
//
// Within the contract: sizes from 0 up, even for NV21, and a bounded pixel count so that the
// fuzzer looks for faults rather than for the allocator's limit. OpenCV may refuse an image
// with no pixels by its exception; a frame with pixels must decode without any exception.
#include <fuzzer/FuzzedDataProvider.h>

#include <iterator>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "fuzz_support.h"
#include "utils/image_utils.h"

namespace {

using ImageFormat = artifact_detector::ArtifactDetector::ImageFormat;

// In the order of the input's first choice; the first is the per-frame path of every format but
// NV21, the shrinks those of a detection run.
enum Routine {
  kGetBgrMatThenRotate,
  kNv21ConvertRotate,
  kNv21ResizeConvertRotate,
  kNv21ConvertResizeRotate,
  kShrinkUpright,
  kShrinkUprightNv21
};

// At most 384 pixels a side and 256 x 256 in all; even when `even`.
cv::Size take_size(FuzzedDataProvider& input, bool even) {
  const int width = input.ConsumeIntegralInRange<int>(0, 384);
  int height = input.ConsumeIntegralInRange<int>(0, 384);
  if (width > 0 && width * height > 256 * 256) height = 256 * 256 / width;
  return even ? cv::Size(width & ~1, height & ~1) : cv::Size(width, height);
}

// The routine's image; for a shrink, that of the long way (turned, then resized by area),
// which a one-pass shrink must match byte for byte.
cv::Mat decode(Routine routine, char* b, ImageFormat format, cv::Size frame, cv::Size target,
               int rotation) {
  const int w = frame.width, h = frame.height;
  if (routine == kNv21ResizeConvertRotate) {
    return tqr_arm_neon::nv21_resize_convert_rotate(b, w, h, target.width, target.height, rotation);
  }
  if (routine == kNv21ConvertResizeRotate) {
    return tqr_arm_neon::nv21_convert_resize_rotate(b, w, h, target.width, target.height, rotation);
  }
  const bool nv21 = routine == kNv21ConvertRotate || routine == kShrinkUprightNv21;
  const cv::Mat turned = nv21 ? tqr_arm_neon::nv21_convert_rotate(b, w, h, rotation)
                              : rotate_image(get_bgr_mat_from_buffer(b, w, h, format), rotation);
  if (routine == kGetBgrMatThenRotate || routine == kNv21ConvertRotate) return turned;
  cv::Mat shrunk, resized;
  const bool one_pass = nv21 ? image_utils::shrink_upright_nv21(b, w, h, rotation, target, shrunk)
                             : image_utils::shrink_upright(get_bgr_mat_from_buffer(b, w, h, format),
                                                           rotation, target, shrunk);
  cv::resize(turned, resized, target, 0, 0, cv::INTER_AREA);
  ad_fuzz::check(!one_pass || (shrunk.size() == resized.size() && shrunk.type() == resized.type() &&
                               cv::norm(shrunk, resized, cv::NORM_INF) == 0),
                 "a one-pass shrink gives the bytes of turning, then resizing by area");
  return resized;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const auto routine = Routine(input.ConsumeIntegralInRange<int>(0, kShrinkUprightNv21));
  static const int kRotations[] = {0, 90, 180, 270, -90, 360, 45};  // and any value at all
  const std::size_t pick = input.ConsumeIntegralInRange<std::size_t>(0, std::size(kRotations));
  const int rotation =
      pick < std::size(kRotations) ? kRotations[pick] : input.ConsumeIntegral<int>();
  const ImageFormat format = routine == kGetBgrMatThenRotate || routine == kShrinkUpright
                                 ? ImageFormat(input.ConsumeIntegral<std::int32_t>())
                                 : ImageFormat::NV21;
  const cv::Size frame = take_size(input, format == ImageFormat::NV21);
  const bool shrinks = routine == kShrinkUpright || routine == kShrinkUprightNv21;
  const cv::Size target = routine == kNv21ResizeConvertRotate || routine == kNv21ConvertResizeRotate
                              ? take_size(input, true)
                          : shrinks ? take_size(input, false)
                                    : frame;
  // Exactly the bytes the format needs: the input's remaining bytes repeated, zeros without any.
  const std::size_t pixels = frame.area();
  std::vector<char> buffer(format == ImageFormat::NV21   ? pixels * 3 / 2
                           : format == ImageFormat::RGBA ? pixels * 4
                                                         : pixels * 3);
  const std::vector<char> pattern = input.ConsumeRemainingBytes<char>();
  for (std::size_t i = 0; i < buffer.size() && !pattern.empty(); ++i) {
    buffer[i] = pattern[i % pattern.size()];
  }
  const bool quarter = !shrinks && (rotation == 90 || rotation == 270);
  const cv::Size expected = quarter ? cv::Size(target.height, target.width) : target;
  try {
    const cv::Mat image = decode(routine, buffer.data(), format, frame, target, rotation);
    if (expected.empty()) {
      ad_fuzz::check(image.empty(), "no pixels from a frame without pixels");
    } else {
      ad_fuzz::check(image.type() == CV_8UC3 && image.size() == expected,
                     "a BGR image of the frame's upright size");
      checkSimilarColor(image);
    }
  } catch (const cv::Exception&) {
    // OpenCV may refuse a frame or a target without pixels, and nothing else.
    ad_fuzz::check(frame.empty() || target.empty(),
                   "a frame with pixels decodes without exception");
  }
  return 0;
}

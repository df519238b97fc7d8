// artifact-detect's image header readers over arbitrary bytes: a size is read without fault,
// and an image that OpenCV decodes within the limit has the size its header states (turned
// by its EXIF orientation at most), so the limit holds for what is decoded.
#include <opencv2/core/utils/logger.hpp>

#include "fuzz_support.h"
#include "image_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // OpenCV's decoders say why they refuse each broken input; the fuzzer needs none of it.
  static const bool quiet = [] {
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
    return true;
  }();
  (void)quiet;
  const artifact_detect::Bytes bytes(data, data + size);
  const auto header = artifact_detect::read_image_header(bytes);
  if (!header) return 0;
  artifact_detect::DecodeLimits limits;
  limits.max_pixels = 1 << 16;
  const artifact_detect::Decoded decoded = artifact_detect::decode_image(bytes, limits);
  if (decoded.image.empty()) return 0;
  const cv::Size got = decoded.image.size(), said = header->size;
  ad_fuzz::check(got == said || got == cv::Size(said.height, said.width),
                 "the decoder and the header reader agree on the size");
  return 0;
}

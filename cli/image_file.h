// Reading image files for artifact-detect, the Python module and the benchmark: regular files
// only, the pixel count read from the header before any decoding, large JPEGs decoded at a
// reduced scale.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

namespace artifact_detect {

using Bytes = std::vector<unsigned char>;

// A whole file, or why it was not read (`error` set, `bytes` empty).
struct FileRead {
  Bytes bytes;
  std::string error;
};

// Reads `path` whole. Anything but a regular file (a FIFO, a device, a folder) is refused
// before a byte is read, so that it can neither block nor run on for ever. A file larger than
// `size_limit` is refused unread; with `exact_size`, so is any size but `size_limit`.
FileRead read_regular_file(const std::string& path, std::uint64_t size_limit, bool exact_size);

// What an image file's header says, for the formats whose size can be had without decoding:
// JPEG, PNG, WebP, BMP, TIFF and the portable any-maps.
struct ImageHeader {
  cv::Size size;
  bool jpeg = false;
};
std::optional<ImageHeader> read_image_header(const Bytes& bytes);

// The largest DCT reduction (1, 2, 4 or 8) that leaves at least `min_side` pixels on each side
// of a `size` JPEG; 1 when `min_side` is 0.
int jpeg_reduction(cv::Size size, int min_side);

struct DecodeLimits {
  std::uint64_t max_pixels = 100'000'000;
  int min_side = 0;  // 0: decode at full size
};

// A BGR image, or why there is none.
struct Decoded {
  cv::Mat image;
  std::string error;
};

// Checks the header's pixel count against the limit, then decodes (reduced where allowed).
Decoded decode_image(const Bytes& bytes, const DecodeLimits& limits);

// Reads `path` (a regular file no larger than an image within the pixel limit can be) and
// decodes it as `decode_image` does; the file's bytes are gone before the image is handed back.
Decoded read_image_file(const std::string& path, const DecodeLimits& limits);

// The imread flags `decode_image` uses for a JPEG of `size`.
int decode_flags(cv::Size size, const DecodeLimits& limits);

// The largest file that may hold an image within `max_pixels`: no format OpenCV reads stores
// more than 16 bytes a pixel, plus headers.
std::uint64_t image_file_limit(std::uint64_t max_pixels);

}  // namespace artifact_detect

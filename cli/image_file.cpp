#include "image_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <opencv2/imgcodecs.hpp>

namespace artifact_detect {
namespace {

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

FileRead failure(std::string error) { return FileRead{{}, std::move(error)}; }

std::string system_error(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

// Big- and little-endian readers over a checked range.
class Reader {
 public:
  explicit Reader(const Bytes& bytes) : b_(bytes) {}
  bool has(std::size_t pos, std::size_t n) const {
    return pos <= b_.size() && n <= b_.size() - pos;
  }
  unsigned at(std::size_t pos) const { return b_[pos]; }
  std::uint32_t be(std::size_t pos, int n) const {
    std::uint32_t v = 0;
    for (int i = 0; i < n; ++i) v = (v << 8) | b_[pos + i];
    return v;
  }
  std::uint32_t le(std::size_t pos, int n) const {
    std::uint32_t v = 0;
    for (int i = n - 1; i >= 0; --i) v = (v << 8) | b_[pos + i];
    return v;
  }
  bool text(std::size_t pos, const char* s) const {
    const std::size_t n = std::strlen(s);
    return has(pos, n) && std::memcmp(b_.data() + pos, s, n) == 0;
  }
  std::size_t size() const { return b_.size(); }

 private:
  const Bytes& b_;
};

std::optional<ImageHeader> sized(std::int64_t width, std::int64_t height, bool jpeg = false) {
  constexpr std::int64_t kMaxSide = 1 << 30;
  if (width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide) return std::nullopt;
  return ImageHeader{cv::Size(static_cast<int>(width), static_cast<int>(height)), jpeg};
}

std::optional<ImageHeader> jpeg_header(const Reader& r) {
  std::size_t pos = 2;
  while (r.has(pos, 2)) {
    if (r.at(pos) != 0xFF) return std::nullopt;
    const unsigned marker = r.at(pos + 1);
    if (marker == 0xFF) {  // fill byte
      ++pos;
      continue;
    }
    pos += 2;
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) continue;  // no length field
    if (marker == 0xD9 || marker == 0xDA || !r.has(pos, 2)) return std::nullopt;
    const std::size_t length = r.be(pos, 2);
    const bool frame =
        marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (frame) {
      if (!r.has(pos, 7)) return std::nullopt;
      return sized(r.be(pos + 5, 2), r.be(pos + 3, 2), true);
    }
    if (length < 2) return std::nullopt;
    pos += length;
  }
  return std::nullopt;
}

std::optional<ImageHeader> webp_header(const Reader& r) {
  if (!r.has(12, 18)) return std::nullopt;
  if (r.text(12, "VP8 ")) return sized(r.le(26, 2) & 0x3FFF, r.le(28, 2) & 0x3FFF);
  if (r.text(12, "VP8L")) {
    const std::uint32_t bits = r.le(21, 4);
    return sized((bits & 0x3FFF) + 1, ((bits >> 14) & 0x3FFF) + 1);
  }
  if (r.text(12, "VP8X")) return sized(r.le(24, 3) + 1, r.le(27, 3) + 1);
  return std::nullopt;
}

std::optional<ImageHeader> bmp_header(const Reader& r) {
  if (!r.has(14, 12)) return std::nullopt;
  if (r.le(14, 4) == 12) return sized(r.le(18, 2), r.le(20, 2));
  const auto height = static_cast<std::int32_t>(r.le(22, 4));  // negative: stored top-down
  return sized(static_cast<std::int32_t>(r.le(18, 4)), height < 0 ? -std::int64_t(height) : height);
}

std::optional<ImageHeader> tiff_header(const Reader& r) {
  const bool big_endian = r.text(0, "MM");
  auto get = [&](std::size_t pos, int n) { return big_endian ? r.be(pos, n) : r.le(pos, n); };
  if (!r.has(4, 4)) return std::nullopt;
  const std::size_t ifd = get(4, 4);
  if (!r.has(ifd, 2)) return std::nullopt;
  std::int64_t width = 0, height = 0;
  const std::size_t count = get(ifd, 2);
  for (std::size_t i = 0; i < count && r.has(ifd + 2 + 12 * i, 12); ++i) {
    const std::size_t entry = ifd + 2 + 12 * i;
    const std::uint32_t tag = get(entry, 2), type = get(entry + 2, 2);
    const std::int64_t value = type == 3 ? get(entry + 8, 2) : type == 4 ? get(entry + 8, 4) : 0;
    if (tag == 256) width = value;
    if (tag == 257) height = value;
  }
  return sized(width, height);
}

// P1-P6 as OpenCV reads them: a number follows white space and '#' comments (to the end of
// the line); any other byte before it ends the header, and the byte after it goes with it.
std::optional<std::int64_t> pnm_number(const Bytes& b, std::size_t& pos) {
  while (pos < b.size() && !std::isdigit(b[pos])) {
    if (b[pos] == '#') {
      while (pos < b.size() && b[pos] != '\n' && b[pos] != '\r') ++pos;
      ++pos;
    } else if (std::isspace(b[pos])) {
      ++pos;
    } else {
      return std::nullopt;
    }
  }
  std::int64_t value = 0;
  bool any = false;
  for (; pos < b.size() && std::isdigit(b[pos]); ++pos, any = true) {
    value = value * 10 + (b[pos] - '0');
    if (value > INT_MAX) return std::nullopt;
  }
  ++pos;
  return any ? std::optional<std::int64_t>(value) : std::nullopt;
}

std::optional<ImageHeader> pnm_header(const Bytes& bytes) {
  std::size_t pos = 2;
  const auto width = pnm_number(bytes, pos);
  const auto height = width ? pnm_number(bytes, pos) : std::nullopt;
  return width && height ? sized(*width, *height) : std::nullopt;
}

// PAM names its sizes, PFM gives them first; both as white-space separated words.
std::optional<ImageHeader> pam_pfm_header(const Bytes& bytes) {
  constexpr std::size_t kHeaderBytes = 1024;
  const std::string head(bytes.begin() + 2, bytes.begin() + std::min(bytes.size(), kHeaderBytes));
  std::vector<std::string> words;
  for (std::size_t pos = 0; pos < head.size() && words.size() < 16;) {
    const std::size_t start = head.find_first_not_of(" \t\r\n", pos);
    if (start == std::string::npos) break;
    pos = std::min(head.find_first_of(" \t\r\n", start), head.size());
    words.push_back(head.substr(start, pos - start));
  }
  auto number = [](const std::string& s) -> std::int64_t {
    const bool digits =
        !s.empty() && s.size() < 10 && s.find_first_not_of("0123456789") == std::string::npos;
    return digits ? std::stoll(s) : -1;
  };
  if (bytes[1] != '7')
    return words.size() < 2 ? std::nullopt : sized(number(words[0]), number(words[1]));
  std::int64_t width = -1, height = -1;
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    if (words[i] == "WIDTH") width = number(words[i + 1]);
    if (words[i] == "HEIGHT") height = number(words[i + 1]);
  }
  return sized(width, height);
}

}  // namespace

FileRead read_regular_file(const std::string& path, std::uint64_t size_limit, bool exact_size) {
  struct stat st {};
  // Looked at before opening: opening a FIFO blocks, and a device may never end.
  if (stat(path.c_str(), &st) != 0) return failure(system_error("cannot open file"));
  if (!S_ISREG(st.st_mode)) return failure("not a regular file");
  const FileDescriptor fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (fd.get() < 0) return failure(system_error("cannot open file"));
  if (fstat(fd.get(), &st) != 0) return failure(system_error("cannot read file"));
  if (!S_ISREG(st.st_mode)) return failure("not a regular file");  // replaced meanwhile
  const auto size = static_cast<std::uint64_t>(st.st_size);
  if (exact_size ? size != size_limit : size > size_limit) {
    return failure("file holds " + std::to_string(size) + " bytes, expected " +
                   (exact_size ? "" : "at most ") + std::to_string(size_limit));
  }
  FileRead result;
  result.bytes.resize(size);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = read(fd.get(), result.bytes.data() + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return failure(system_error("cannot read file"));
    if (n == 0) break;  // shrank while being read
    done += static_cast<std::size_t>(n);
  }
  result.bytes.resize(done);
  return result;
}

// OpenCV hands a file to the first decoder whose signature matches, and falls through to the
// next when a check fails. Only the DICOM decoder looks past the first bytes (at 128), and it
// aborts the process on a broken file: beyond JPEG and PNG, whose checks are OpenCV's own, a
// file that carries its signature is never handed on, and the other signatures are checked
// at least as strictly as OpenCV checks them.
std::optional<ImageHeader> read_image_header(const Bytes& bytes) {
  const Reader r(bytes);
  const bool tiff = r.has(0, 4) && ((r.text(0, "II") && r.le(2, 2) == 42) ||
                                    (r.text(0, "MM") && r.be(2, 2) == 42));
  const bool any_map = r.has(0, 3) && r.at(0) == 'P' && std::isspace(r.at(2));
  if (r.has(0, 3) && r.at(0) == 0xFF && r.at(1) == 0xD8 && r.at(2) == 0xFF) return jpeg_header(r);
  if (r.text(0, "\x89PNG\r\n\x1a\n") && r.text(12, "IHDR") && r.has(16, 8)) {
    return sized(r.be(16, 4), r.be(20, 4));
  }
  if (r.text(128, "DICM")) return std::nullopt;
  if (r.text(0, "RIFF") && r.text(8, "WEBP")) return webp_header(r);
  if (r.text(0, "BM")) return bmp_header(r);
  if (tiff) return tiff_header(r);
  if (any_map && r.at(1) >= '1' && r.at(1) <= '6') return pnm_header(bytes);
  if (any_map && (r.at(1) == '7' || r.at(1) == 'f' || r.at(1) == 'F')) return pam_pfm_header(bytes);
  return std::nullopt;
}

int jpeg_reduction(cv::Size size, int min_side) {
  if (min_side <= 0) return 1;
  for (int reduction : {8, 4, 2}) {
    // libjpeg rounds a reduced side up.
    if ((size.width + reduction - 1) / reduction >= min_side &&
        (size.height + reduction - 1) / reduction >= min_side) {
      return reduction;
    }
  }
  return 1;
}

int decode_flags(cv::Size size, const DecodeLimits& limits) {
  switch (jpeg_reduction(size, limits.min_side)) {
    case 8:
      return cv::IMREAD_REDUCED_COLOR_8;
    case 4:
      return cv::IMREAD_REDUCED_COLOR_4;
    case 2:
      return cv::IMREAD_REDUCED_COLOR_2;
    default:
      return cv::IMREAD_COLOR;
  }
}

std::uint64_t image_file_limit(std::uint64_t max_pixels) {
  constexpr std::uint64_t kBytesPerPixel = 16, kHeaders = 16 << 20;
  return max_pixels > (UINT64_MAX - kHeaders) / kBytesPerPixel
             ? UINT64_MAX
             : max_pixels * kBytesPerPixel + kHeaders;
}

Decoded decode_image(const Bytes& bytes, const DecodeLimits& limits) {
  const std::optional<ImageHeader> header = read_image_header(bytes);
  if (!header) return {{}, "not a JPEG, PNG, WebP, BMP, TIFF or PNM image"};
  const std::uint64_t pixels = static_cast<std::uint64_t>(header->size.width) * header->size.height;
  if (pixels > limits.max_pixels) {
    return {{},
            "image of " + std::to_string(header->size.width) + "x" +
                std::to_string(header->size.height) + " pixels is over the limit of " +
                std::to_string(limits.max_pixels)};
  }
  // Only libjpeg reduces while decoding; other formats would be decoded whole, then shrunk.
  if (bytes.size() > INT_MAX) return {{}, "file too large to decode"};
  const int flags = header->jpeg ? decode_flags(header->size, limits) : cv::IMREAD_COLOR;
  Decoded decoded;
  try {
    decoded.image = cv::imdecode(
        cv::Mat(1, static_cast<int>(bytes.size()), CV_8U, const_cast<unsigned char*>(bytes.data())),
        flags);
  } catch (const cv::Exception& e) {
    decoded.error = std::string("cannot decode the image: ") + e.what();
    return decoded;
  }
  if (decoded.image.empty()) decoded.error = "cannot decode the image";
  return decoded;
}

Decoded read_image_file(const std::string& path, const DecodeLimits& limits) {
  const FileRead file = read_regular_file(path, image_file_limit(limits.max_pixels), false);
  if (!file.error.empty()) return {{}, file.error};
  return decode_image(file.bytes, limits);
}

}  // namespace artifact_detect

#include "frame_input.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace artifact_detector {
namespace {

// Frames beyond this many pixels are refused: far above any camera, and their byte counts
// stay well inside 32-bit signed arithmetic of the routines downstream.
constexpr int64_t kMaxPixels = int64_t(1) << 26;

bool is_yuv(PixelFormat format) {
  return format == PixelFormat::kNv21 || format == PixelFormat::kNv12 ||
         format == PixelFormat::kYuv420888;
}

int bytes_per_pixel(PixelFormat format) { return format == PixelFormat::kRgba ? 4 : 3; }

int32_t stride_or(int32_t stride, int32_t tight) { return stride == 0 ? tight : stride; }

// Video range to full range, rounded: luma 16..235 and chroma 16..240 onto 0..255.
struct RangeTables {
  std::array<uint8_t, 256> luma, chroma;
  RangeTables() {
    for (int i = 0; i < 256; ++i) {
      const double y = std::lround((i - 16) * 255.0 / 219.0);
      const double c = std::lround((i - 128) * 255.0 / 224.0 + 128.0);
      luma[i] = static_cast<uint8_t>(std::clamp(y, 0.0, 255.0));
      chroma[i] = static_cast<uint8_t>(std::clamp(c, 0.0, 255.0));
    }
  }
};

const RangeTables& range_tables() {
  static const RangeTables tables;  // immutable once built
  return tables;
}

// Where the chroma samples of a YUV frame lie: U and V of pair k in chroma row r at
// u + r * row_stride + k * pixel_stride (likewise v).
struct Chroma {
  const uint8_t* u;
  const uint8_t* v;
  int32_t row_stride;
  int32_t pixel_stride;
};

Chroma chroma_of(const Frame& f) {
  const Plane& c = f.planes[1];
  const int32_t stride = stride_or(c.row_stride, f.width);
  switch (f.format) {
    case PixelFormat::kNv21:
      return {c.data + 1, c.data, stride, 2};
    case PixelFormat::kNv12:
      return {c.data, c.data + 1, stride, 2};
    default:
      return {c.data, f.planes[2].data, stride, c.pixel_stride == 0 ? 1 : c.pixel_stride};
  }
}

// True when the frame already is tightly packed full-range NV21 in one block.
bool is_tight_nv21(const Frame& f) {
  if (f.range != YuvRange::kFull) return false;
  const Chroma c = chroma_of(f);
  const uint8_t* y = f.planes[0].data;
  return stride_or(f.planes[0].row_stride, f.width) == f.width && c.row_stride == f.width &&
         c.pixel_stride == 2 && c.v == y + int64_t(f.width) * f.height && c.u == c.v + 1;
}

// One chroma row as V,U pairs, `pairs` of them; the stride is a constant so that the loop
// vectorises.
template <int kPixelStride>
void interleave(const uint8_t* v, const uint8_t* u, int32_t pairs, const RangeTables* tables,
                uint8_t* out) {
  if (tables == nullptr) {
    for (int32_t k = 0; k < pairs; ++k) {
      out[2 * k] = v[k * kPixelStride];
      out[2 * k + 1] = u[k * kPixelStride];
    }
    return;
  }
  for (int32_t k = 0; k < pairs; ++k) {
    out[2 * k] = tables->chroma[v[k * kPixelStride]];
    out[2 * k + 1] = tables->chroma[u[k * kPixelStride]];
  }
}

}  // namespace

std::string frame_problem(const Frame& f) {
  const auto format = static_cast<int32_t>(f.format);
  if (format < 0 || format > static_cast<int32_t>(PixelFormat::kRgb)) {
    return "unknown pixel format " + std::to_string(format);
  }
  if (f.width <= 0 || f.height <= 0) {
    return "frame size " + std::to_string(f.width) + "x" + std::to_string(f.height) +
           " is not positive";
  }
  if (int64_t(f.width) * f.height > kMaxPixels) return "frame larger than 64 megapixels";
  if (f.rotation != 0 && f.rotation != 90 && f.rotation != 180 && f.rotation != 270) {
    return "rotation " + std::to_string(f.rotation) + " is not 0, 90, 180 or 270";
  }
  if (!is_yuv(f.format)) {
    if (f.planes[0].data == nullptr) return "plane 0 is null";
    const int32_t row = f.width * bytes_per_pixel(f.format);
    if (f.planes[0].row_stride != 0 && f.planes[0].row_stride < row) {
      return "row stride " + std::to_string(f.planes[0].row_stride) + " is less than " +
             std::to_string(row) + " bytes";
    }
    return "";
  }
  if (f.range != YuvRange::kFull && f.range != YuvRange::kVideo) return "unknown YUV range";
  if (f.width % 2 != 0 || f.height % 2 != 0) {
    return "YUV frame size " + std::to_string(f.width) + "x" + std::to_string(f.height) +
           " is not even";
  }
  const int planes = f.format == PixelFormat::kYuv420888 ? 3 : 2;
  for (int i = 0; i < planes; ++i) {
    if (f.planes[i].data == nullptr) return "plane " + std::to_string(i) + " is null";
  }
  if (f.planes[0].row_stride != 0 && f.planes[0].row_stride < f.width) {
    return "luma row stride " + std::to_string(f.planes[0].row_stride) + " is less than the width";
  }
  const Chroma c = chroma_of(f);
  if (c.pixel_stride != 1 && c.pixel_stride != 2) {
    return "chroma pixel stride " + std::to_string(c.pixel_stride) + " is not 1 or 2";
  }
  const int64_t chroma_row = int64_t(f.width / 2 - 1) * c.pixel_stride + 1;
  if (c.row_stride < chroma_row ||
      (f.format != PixelFormat::kYuv420888 && c.row_stride < f.width)) {
    return "chroma row stride " + std::to_string(c.row_stride) + " is too small";
  }
  return "";
}

void repack_nv21(const Frame& f, uint8_t* nv21) {
  const bool video = f.range == YuvRange::kVideo;
  const RangeTables* tables = video ? &range_tables() : nullptr;
  const int32_t y_stride = stride_or(f.planes[0].row_stride, f.width);
  for (int32_t r = 0; r < f.height; ++r) {
    const uint8_t* in = f.planes[0].data + int64_t(y_stride) * r;
    uint8_t* out = nv21 + int64_t(f.width) * r;
    if (tables == nullptr) {
      std::memcpy(out, in, static_cast<size_t>(f.width));
    } else {
      for (int32_t x = 0; x < f.width; ++x) out[x] = tables->luma[in[x]];
    }
  }
  const Chroma c = chroma_of(f);
  uint8_t* vu = nv21 + int64_t(f.width) * f.height;
  for (int32_t r = 0; r < f.height / 2; ++r) {
    const uint8_t* u = c.u + int64_t(c.row_stride) * r;
    const uint8_t* v = c.v + int64_t(c.row_stride) * r;
    uint8_t* out = vu + int64_t(f.width) * r;
    if (tables == nullptr && c.pixel_stride == 2 && u == v + 1) {
      std::memcpy(out, v, static_cast<size_t>(f.width));  // already V,U pairs
      continue;
    }
    if (c.pixel_stride == 1) {
      interleave<1>(v, u, f.width / 2, tables, out);
    } else {
      interleave<2>(v, u, f.width / 2, tables, out);
    }
  }
}

EngineInput engine_input(const Frame& f, std::vector<uint8_t>& scratch) {
  EngineInput in;
  if (is_yuv(f.format)) {
    in.format = ArtifactDetector::NV21;
    if (is_tight_nv21(f)) {
      in.bytes = f.planes[0].data;
      return in;
    }
    scratch.resize(size_t(f.width) * size_t(f.height) * 3 / 2);
    repack_nv21(f, scratch.data());
    in.bytes = scratch.data();
    in.copied = true;
    return in;
  }
  const int bpp = bytes_per_pixel(f.format);
  const size_t row = size_t(f.width) * bpp;
  const size_t stride = size_t(stride_or(f.planes[0].row_stride, static_cast<int32_t>(row)));
  in.format = f.format == PixelFormat::kRgba ? ArtifactDetector::RGBA : ArtifactDetector::BGR;
  if (f.format != PixelFormat::kRgb && stride == row) {
    in.bytes = f.planes[0].data;
    return in;
  }
  scratch.resize(row * size_t(f.height));
  for (int32_t r = 0; r < f.height; ++r) {
    const uint8_t* src = f.planes[0].data + stride * size_t(r);
    uint8_t* dst = scratch.data() + row * size_t(r);
    if (f.format == PixelFormat::kRgb) {
      for (size_t x = 0; x < row; x += 3) {
        dst[x] = src[x + 2];
        dst[x + 1] = src[x + 1];
        dst[x + 2] = src[x];
      }
    } else {
      std::memcpy(dst, src, row);
    }
  }
  in.bytes = scratch.data();
  in.copied = true;
  return in;
}

}  // namespace artifact_detector

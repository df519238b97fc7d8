#include "utils/image_utils_neon.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "utils/neon.h"

// This file is built with floating-point contraction off: every product below is rounded
// before it is added, on every compiler and processor, so all builds give the same bytes.

namespace tqr_arm_neon {
namespace {

// Full-range YUV to RGB constants, as single-precision numbers; the scalar columns widen
// these very values to double.
constexpr float kChromaOffset = -128.0f;
constexpr float kVToR = 1.403f;
constexpr float kUToG = 0.344f;
constexpr float kVToG = 0.714f;
constexpr float kUToB = 1.773f;

// Pixels of one row converted per vector step; the rest of a row goes through the scalar path.
constexpr int kVectorStep = 16;
constexpr int kBgrBytes = 3;

// 16 values as four vectors of four single-precision lanes.
struct Lanes16 {
  float32x4_t q[4];
};

// Widens 16 bytes to floats, lane order kept.
inline Lanes16 widen(uint8x16_t bytes) {
  const uint16x8_t lo = vmovl_u8(vget_low_u8(bytes));
  const uint16x8_t hi = vmovl_u8(vget_high_u8(bytes));
  return {{vcvtq_f32_u32(vmovl_u16(vget_low_u16(lo))), vcvtq_f32_u32(vmovl_u16(vget_high_u16(lo))),
           vcvtq_f32_u32(vmovl_u16(vget_low_u16(hi))),
           vcvtq_f32_u32(vmovl_u16(vget_high_u16(hi)))}};
}

// Eight chroma samples, each repeated for the two pixels that share it, minus the offset.
inline Lanes16 chroma_lanes(uint8x8_t samples) {
  const uint8x8x2_t doubled = vzip_u8(samples, samples);
  Lanes16 lanes = widen(vcombine_u8(doubled.val[0], doubled.val[1]));
  const float32x4_t offset = vdupq_n_f32(kChromaOffset);
  for (float32x4_t& q : lanes.q) q = vaddq_f32(q, offset);
  return lanes;
}

// Truncates eight floats toward zero (negatives become 0) and narrows them with saturation.
inline uint8x8_t to_bytes(float32x4_t first, float32x4_t second) {
  const uint16x8_t words =
      vcombine_u16(vqmovn_u32(vcvtq_u32_f32(first)), vqmovn_u32(vcvtq_u32_f32(second)));
  return vqmovn_u16(words);
}

// 16 pixels of one row: luma from `luma`, chroma already offset, B,G,R written to `out`.
// Multiplies and adds stay separate instructions so no build fuses them.
inline void convert_16(const unsigned char* luma, const Lanes16& u, const Lanes16& v,
                       unsigned char* out) {
  const Lanes16 y = widen(vld1q_u8(luma));
  const float32x4_t v_to_r = vdupq_n_f32(kVToR);
  const float32x4_t u_to_g = vdupq_n_f32(kUToG);
  const float32x4_t v_to_g = vdupq_n_f32(kVToG);
  const float32x4_t u_to_b = vdupq_n_f32(kUToB);
  Lanes16 r, g, b;
  for (int i = 0; i < 4; ++i) {
    r.q[i] = vaddq_f32(y.q[i], vmulq_f32(v.q[i], v_to_r));
    g.q[i] = vsubq_f32(vsubq_f32(y.q[i], vmulq_f32(u.q[i], u_to_g)), vmulq_f32(v.q[i], v_to_g));
    b.q[i] = vaddq_f32(y.q[i], vmulq_f32(u.q[i], u_to_b));
  }
  for (int half = 0; half < 2; ++half) {
    uint8x8x3_t pixels;
    pixels.val[0] = to_bytes(b.q[2 * half], b.q[2 * half + 1]);
    pixels.val[1] = to_bytes(g.q[2 * half], g.q[2 * half + 1]);
    pixels.val[2] = to_bytes(r.q[2 * half], r.q[2 * half + 1]);
    vst3_u8(out + half * (kVectorStep / 2) * kBgrBytes, pixels);
  }
}

inline unsigned char clamp_to_byte(double value) {
  const int truncated = static_cast<int>(value);
  return static_cast<unsigned char>(truncated < 0 ? 0 : (truncated > 255 ? 255 : truncated));
}

// One pixel in double precision with explicit fused multiply-adds.
inline void convert_pixel(unsigned char luma, double u, double v, unsigned char* out) {
  const double y = luma;
  out[0] = clamp_to_byte(std::fma(static_cast<double>(kUToB), u, y));
  out[1] = clamp_to_byte(
      std::fma(-static_cast<double>(kUToG), u, std::fma(-static_cast<double>(kVToG), v, y)));
  out[2] = clamp_to_byte(std::fma(static_cast<double>(kVToR), v, y));
}

}  // namespace

int ics_fconvert_nv21torgb_neon(unsigned char* nv21, unsigned char* bgr, int width, int height) {
  if (height < 1 || width < 1) return 0;
  const std::ptrdiff_t stride = width;
  const std::ptrdiff_t out_stride = stride * kBgrBytes;
  const int vector_width = width / kVectorStep * kVectorStep;
  const unsigned char* chroma_plane = nv21 + stride * height;

  // Two rows per pass so that each chroma row is read once.
  for (int y = 0; y < height; y += 2) {
    const unsigned char* luma0 = nv21 + stride * y;
    const unsigned char* luma1 = luma0 + stride;
    const unsigned char* chroma = chroma_plane + stride * (y / 2);
    unsigned char* out0 = bgr + out_stride * y;
    unsigned char* out1 = out0 + out_stride;

    int x = 0;
    for (; x < vector_width; x += kVectorStep) {
      const uint8x8x2_t vu = vld2_u8(chroma + x);  // V at even bytes, U at odd bytes
      const Lanes16 v = chroma_lanes(vu.val[0]);
      const Lanes16 u = chroma_lanes(vu.val[1]);
      convert_16(luma0 + x, u, v, out0 + x * kBgrBytes);
      convert_16(luma1 + x, u, v, out1 + x * kBgrBytes);
    }
    for (; x < width; x += 2) {
      const double v = chroma[x] + static_cast<double>(kChromaOffset);
      const double u = chroma[x + 1] + static_cast<double>(kChromaOffset);
      convert_pixel(luma0[x], u, v, out0 + x * kBgrBytes);
      convert_pixel(luma0[x + 1], u, v, out0 + (x + 1) * kBgrBytes);
      convert_pixel(luma1[x], u, v, out1 + x * kBgrBytes);
      convert_pixel(luma1[x + 1], u, v, out1 + (x + 1) * kBgrBytes);
    }
  }
  return 0;
}

int resize_nv21_buffer(char* src, char* dst, int srcWidth, int srcHeight, int dstWidth,
                       int dstHeight) {
  // Nothing to write, or a frame without pixels: nothing to sample.
  if (dstWidth < 1 || dstHeight < 1 || srcWidth < 1 || srcHeight < 1) return 1;
  // Bytes are read unsigned whatever the signedness of char, so chroma sums never go negative.
  const auto* in = reinterpret_cast<const unsigned char*>(src);
  auto* out = reinterpret_cast<unsigned char*>(dst);
  const std::ptrdiff_t in_stride = srcWidth;
  const std::ptrdiff_t out_stride = dstWidth;

  // One V and one U sum per 2x2 destination block, laid out like the chroma plane.
  std::vector<std::uint32_t> sums(
      static_cast<std::size_t>(static_cast<double>(dstWidth) * dstHeight * 0.5), 0);
  const float scale_x = static_cast<float>(srcWidth) / static_cast<float>(dstWidth);
  const float scale_y = static_cast<float>(srcHeight) / static_cast<float>(dstHeight);

  for (int y = 0; y < dstHeight; ++y) {
    const int src_y = static_cast<int>(scale_y * static_cast<float>(y));
    const unsigned char* src_luma = in + in_stride * src_y;
    const unsigned char* src_chroma = in + in_stride * (srcHeight + src_y / 2);
    std::uint32_t* sum_row = sums.data() + out_stride * (y / 2);
    for (int x = 0; x < dstWidth; ++x) {
      const int src_x = static_cast<int>(scale_x * static_cast<float>(x));
      out[out_stride * y + x] = src_luma[src_x];
      // Each pixel's chroma comes from where its luma came from.
      const unsigned char* pair = src_chroma + (src_x & ~1);
      sum_row[x & ~1] += pair[0];
      sum_row[x | 1] += pair[1];
    }
  }

  constexpr std::uint32_t kBlockPixels = 4;
  unsigned char* dst_chroma = out + out_stride * dstHeight;
  for (int y = 0; y < dstHeight; y += 2) {
    for (int x = 0; x < dstWidth; x += 2) {
      const std::ptrdiff_t k = x + out_stride * (y / 2);
      dst_chroma[k] = static_cast<unsigned char>(sums[k] / kBlockPixels);
      dst_chroma[k + 1] = static_cast<unsigned char>(sums[k + 1] / kBlockPixels);
    }
  }
  return 1;
}

}  // namespace tqr_arm_neon

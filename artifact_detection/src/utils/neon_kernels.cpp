// The one Advanced SIMD source of the image kernels (see neon_kernels.h).
//
// Built with floating-point contraction off: every product is rounded before it is added, on
// every compiler and processor, so every build gives the same bytes. The conversion arithmetic
// is fixed: single precision in 16-column vector blocks, double precision with fused
// multiply-adds for the columns after the last whole block. Area reductions repeat OpenCV's
// INTER_AREA arithmetic operation for operation, in its order.
#include "utils/neon_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "utils/neon.h"

#ifndef AD_KERNEL_VARIANT
#define AD_KERNEL_VARIANT native
#endif
#define AD_KERNEL_NAME_(x) #x
#define AD_KERNEL_NAME(x) AD_KERNEL_NAME_(x)

namespace tqr_arm_neon {
namespace kernels {
namespace AD_KERNEL_VARIANT {
namespace {

// Full-range YUV to RGB constants, as single-precision numbers; the scalar columns widen
// these very values to double.
constexpr float kChromaOffset = -128.0f;
constexpr float kVToR = 1.403f;
constexpr float kUToG = 0.344f;
constexpr float kVToG = 0.714f;
constexpr float kUToB = 1.773f;

constexpr int kBlock = 16;  // pixels per vector step; rows per area-kernel pass
constexpr int kBgrBytes = 3;
constexpr int kByteMax = 255;

// B, G and R of 16 pixels.
struct Planes {
  uint8x16_t c[kBgrBytes];
};

struct Quads {
  float32x4_t q[4];
};

// --- moving bytes --------------------------------------------------------------------------

#if AD_NEON_FAST_TABLES
// Table index that reads as zero.
constexpr uint8_t kZ = 0xFF;
// Quad j takes bytes 4j .. 4j+3.
alignas(16) const uint8_t kInOrder[4][16] = {
    {0, kZ, kZ, kZ, 1, kZ, kZ, kZ, 2, kZ, kZ, kZ, 3, kZ, kZ, kZ},
    {4, kZ, kZ, kZ, 5, kZ, kZ, kZ, 6, kZ, kZ, kZ, 7, kZ, kZ, kZ},
    {8, kZ, kZ, kZ, 9, kZ, kZ, kZ, 10, kZ, kZ, kZ, 11, kZ, kZ, kZ},
    {12, kZ, kZ, kZ, 13, kZ, kZ, kZ, 14, kZ, kZ, kZ, 15, kZ, kZ, kZ}};
// Quad 0 takes bytes 0,4,8,12; quad 1 2,6,10,14; quad 2 1,5,9,13; quad 3 3,7,11,15: the order
// in which narrow() packs them back with shifts alone.
alignas(16) const uint8_t kStrided[4][16] = {
    {0, kZ, kZ, kZ, 4, kZ, kZ, kZ, 8, kZ, kZ, kZ, 12, kZ, kZ, kZ},
    {2, kZ, kZ, kZ, 6, kZ, kZ, kZ, 10, kZ, kZ, kZ, 14, kZ, kZ, kZ},
    {1, kZ, kZ, kZ, 5, kZ, kZ, kZ, 9, kZ, kZ, kZ, 13, kZ, kZ, kZ},
    {3, kZ, kZ, kZ, 7, kZ, kZ, kZ, 11, kZ, kZ, kZ, 15, kZ, kZ, kZ}};
#endif

inline float32x4_t to_float(uint32x4_t small, int32_t bias = 0) {
  // Every value is a byte, so the signed conversion is exact and the cheapest everywhere. A
  // bias added to the integers is exact too, and keeps the floating-point units free.
  int32x4_t value = vreinterpretq_s32_u32(small);
  if (bias != 0) value = vaddq_s32(value, vdupq_n_s32(bias));
  return vcvtq_f32_s32(value);
}

#if !AD_NEON_FAST_TABLES
// The first four bytes as 32-bit lanes.
inline uint32x4_t widen_first4(uint8x16_t bytes) {
  const uint8x16_t lo = vzip1q_u8(bytes, vdupq_n_u8(0));
  return vreinterpretq_u32_u16(vzip1q_u16(vreinterpretq_u16_u8(lo), vdupq_n_u16(0)));
}
#endif

inline Quads in_order(uint8x16_t bytes) {
  Quads out;
#if AD_NEON_FAST_TABLES
  for (int j = 0; j < 4; ++j) {
    out.q[j] = to_float(vreinterpretq_u32_u8(vqtbl1q_u8(bytes, vld1q_u8(kInOrder[j]))));
  }
#else
  const uint8x16_t z8 = vdupq_n_u8(0);
  const uint16x8_t z16 = vdupq_n_u16(0);
  const uint16x8_t lo = vreinterpretq_u16_u8(vzip1q_u8(bytes, z8));
  const uint16x8_t hi = vreinterpretq_u16_u8(vzip2q_u8(bytes, z8));
  out.q[0] = to_float(vreinterpretq_u32_u16(vzip1q_u16(lo, z16)));
  out.q[1] = to_float(vreinterpretq_u32_u16(vzip2q_u16(lo, z16)));
  out.q[2] = to_float(vreinterpretq_u32_u16(vzip1q_u16(hi, z16)));
  out.q[3] = to_float(vreinterpretq_u32_u16(vzip2q_u16(hi, z16)));
#endif
  return out;
}

inline Quads strided(uint8x16_t bytes, int32_t bias = 0) {
  Quads out;
#if AD_NEON_FAST_TABLES
  for (int j = 0; j < 4; ++j) {
    out.q[j] = to_float(vreinterpretq_u32_u8(vqtbl1q_u8(bytes, vld1q_u8(kStrided[j]))), bias);
  }
#else
  const uint8x16_t even = vuzp1q_u8(bytes, bytes);
  const uint8x16_t odd = vuzp2q_u8(bytes, bytes);
  out.q[0] = to_float(widen_first4(vuzp1q_u8(even, even)), bias);
  out.q[1] = to_float(widen_first4(vuzp2q_u8(even, even)), bias);
  out.q[2] = to_float(widen_first4(vuzp1q_u8(odd, odd)), bias);
  out.q[3] = to_float(widen_first4(vuzp2q_u8(odd, odd)), bias);
#endif
  return out;
}

// Strided quads back to 16 bytes in pixel order, each value truncated toward zero and
// saturated to 0..255. Packing quads 0 and 2, then 1 and 3, leaves pixel r + 4c at byte
// 4r + c: a 4x4 transpose away from pixel order.
inline uint8x16_t narrow(const Quads& x) {
  int32x4_t w[4];
  for (int j = 0; j < 4; ++j) w[j] = vcvtq_s32_f32(x.q[j]);
  const uint8x16_t packed =
      qmovun_pair_s16(qmovn_pair_s32(w[0], w[2]), qmovn_pair_s32(w[1], w[3]));
#if AD_NEON_FAST_TABLES
  alignas(16) static constexpr uint8_t kTranspose[kBlock] = {0, 4, 8,  12, 1, 5, 9,  13,
                                                             2, 6, 10, 14, 3, 7, 11, 15};
  return vqtbl1q_u8(packed, vld1q_u8(kTranspose));
#else
  // Interleaving the halves turns each byte's index left by one bit; twice swaps its halves.
  const uint8x16_t once = vzip1q_u8(packed, vextq_u8(packed, packed, 8));
  return vzip1q_u8(once, vextq_u8(once, once, 8));
#endif
}

inline uint8x16_t reverse16(uint8x16_t x) {
#if AD_NEON_FAST_TABLES
  alignas(16) static constexpr uint8_t kBackwards[kBlock] = {15, 14, 13, 12, 11, 10, 9, 8,
                                                             7,  6,  5,  4,  3,  2,  1, 0};
  return vqtbl1q_u8(x, vld1q_u8(kBackwards));
#else
  const uint8x16_t halves = vrev64q_u8(x);
  return vextq_u8(halves, halves, 8);
#endif
}

inline Planes reversed(const Planes& p) {
  return {{reverse16(p.c[0]), reverse16(p.c[1]), reverse16(p.c[2])}};
}

inline Planes load_bgr16(const unsigned char* pixels) {
  const uint8x16x3_t v = vld3q_u8(pixels);
  return {{v.val[0], v.val[1], v.val[2]}};
}

inline void store_bgr16(unsigned char* pixels, const Planes& p) {
  uint8x16x3_t v;
  v.val[0] = p.c[0];
  v.val[1] = p.c[1];
  v.val[2] = p.c[2];
  vst3q_u8(pixels, v);
}

// Row i becomes column i of 16 rows of 16 bytes. Each round interleaves row i with row i+8;
// it turns the 8-bit index (row, column) of every byte left by one bit, so four rounds swap
// row and column. (Zips rather than transposing pairs: SIMDe maps zips to single x86
// instructions.)
inline void transpose16(uint8x16_t m[kBlock]) {
  uint8x16_t t[kBlock];
  for (int round = 0; round < 4; ++round) {
    for (int i = 0; i < kBlock / 2; ++i) {
      t[2 * i] = vzip1q_u8(m[i], m[i + kBlock / 2]);
      t[2 * i + 1] = vzip2q_u8(m[i], m[i + kBlock / 2]);
    }
    for (int i = 0; i < kBlock; ++i) m[i] = t[i];
  }
}

// Planes of 16 rows turned into planes of 16 columns: out[j] holds column j, row i in lane i.
inline void transpose_planes(Planes rows[kBlock], Planes columns[kBlock]) {
  uint8x16_t m[kBlock];
  for (int ch = 0; ch < kBgrBytes; ++ch) {
    for (int i = 0; i < kBlock; ++i) m[i] = rows[i].c[ch];
    transpose16(m);
    for (int j = 0; j < kBlock; ++j) columns[j].c[ch] = m[j];
  }
}

// `lanes` pixels, `stride` bytes apart from `first`, as planes; other lanes 0.
inline Planes gather(const unsigned char* first, std::ptrdiff_t stride, int lanes) {
  alignas(16) unsigned char bytes[kBgrBytes][kBlock] = {};
  for (int l = 0; l < lanes; ++l) {
    for (int ch = 0; ch < kBgrBytes; ++ch) bytes[ch][l] = first[stride * l + ch];
  }
  return {{vld1q_u8(bytes[0]), vld1q_u8(bytes[1]), vld1q_u8(bytes[2])}};
}

// --- NV21 to BGR -----------------------------------------------------------------------------

// The chroma products of one 16-column block, for pixel quads in the strided order: [0] for
// the even chroma pairs (0, 2, 4, 6), [1] for the odd ones.
struct ChromaTerms {
  float32x4_t vr[2], ug[2], vg[2], ub[2];
};

inline ChromaTerms chroma_terms(const unsigned char* vu) {
  // Strided: V of the even pairs, V of the odd pairs, U of the even pairs, U of the odd pairs.
  const Quads c = strided(vld1q_u8(vu), static_cast<int32_t>(kChromaOffset));
  const float32x4_t v_to_r = vdupq_n_f32(kVToR), u_to_g = vdupq_n_f32(kUToG);
  const float32x4_t v_to_g = vdupq_n_f32(kVToG), u_to_b = vdupq_n_f32(kUToB);
  ChromaTerms t;
  for (int h = 0; h < 2; ++h) {
    const float32x4_t v = c.q[h], u = c.q[2 + h];
    t.vr[h] = vmulq_f32(v, v_to_r);
    t.ug[h] = vmulq_f32(u, u_to_g);
    t.vg[h] = vmulq_f32(v, v_to_g);
    t.ub[h] = vmulq_f32(u, u_to_b);
  }
  return t;
}

// B, G and R of 16 pixels of one row before truncation, in the strided order (strided quad j
// holds pixels of the even chroma pairs for even j).
inline void convert16_sums(const unsigned char* luma, const ChromaTerms& t, Quads bgr[kBgrBytes]) {
  const Quads y = strided(vld1q_u8(luma));
  for (int j = 0; j < 4; ++j) {
    const int h = j & 1;
    bgr[0].q[j] = vaddq_f32(y.q[j], t.ub[h]);
    bgr[1].q[j] = vsubq_f32(vsubq_f32(y.q[j], t.ug[h]), t.vg[h]);
    bgr[2].q[j] = vaddq_f32(y.q[j], t.vr[h]);
  }
}

// 16 converted pixels of one row.
inline Planes convert16(const unsigned char* luma, const ChromaTerms& t) {
  Quads bgr[kBgrBytes];
  convert16_sums(luma, t, bgr);
  return {{narrow(bgr[0]), narrow(bgr[1]), narrow(bgr[2])}};
}

// The same pixels as the float values of the bytes convert16 gives, strided: truncation of
// the value clamped to 0..255 is exactly the byte the saturating conversion makes.
inline void convert16_values(const unsigned char* luma, const ChromaTerms& t,
                             Quads bgr[kBgrBytes]) {
  convert16_sums(luma, t, bgr);
  const float32x4_t zero = vdupq_n_f32(0.0f), top = vdupq_n_f32(float(kByteMax));
  for (int ch = 0; ch < kBgrBytes; ++ch) {
    for (float32x4_t& q : bgr[ch].q) q = vrndq_f32(vminq_f32(vmaxq_f32(q, zero), top));
  }
}

inline unsigned char clamp_to_byte(double value) {
  const int truncated = static_cast<int>(value);
  return static_cast<unsigned char>(truncated < 0 ? 0
                                                  : (truncated > kByteMax ? kByteMax : truncated));
}

// One pixel in double precision with explicit fused multiply-adds.
inline void convert_pixel(unsigned char luma, double u, double v, unsigned char* out) {
  const double y = luma;
  out[0] = clamp_to_byte(std::fma(static_cast<double>(kUToB), u, y));
  out[1] = clamp_to_byte(
      std::fma(-static_cast<double>(kUToG), u, std::fma(-static_cast<double>(kVToG), v, y)));
  out[2] = clamp_to_byte(std::fma(static_cast<double>(kVToR), v, y));
}

// Columns `x` (even) to `width` of a row pair by the double-precision path, into B,G,R rows.
inline void convert_tail(const unsigned char* luma0, const unsigned char* luma1,
                         const unsigned char* chroma, int x, int width, unsigned char* out0,
                         unsigned char* out1) {
  for (; x < width; x += 2) {
    const double v = chroma[x] + static_cast<double>(kChromaOffset);
    const double u = chroma[x + 1] + static_cast<double>(kChromaOffset);
    convert_pixel(luma0[x], u, v, out0 + x * kBgrBytes);
    convert_pixel(luma0[x + 1], u, v, out0 + (x + 1) * kBgrBytes);
    convert_pixel(luma1[x], u, v, out1 + x * kBgrBytes);
    convert_pixel(luma1[x + 1], u, v, out1 + (x + 1) * kBgrBytes);
  }
}

// One NV21 frame's geometry.
struct Frame {
  const unsigned char* nv21;
  int width, height;
  int vector_width() const { return width / kBlock * kBlock; }
  const unsigned char* luma(int y) const { return nv21 + std::ptrdiff_t(width) * y; }
  const unsigned char* chroma(int y) const {
    return nv21 + std::ptrdiff_t(width) * height + std::ptrdiff_t(width) * (y / 2);
  }
};

// Rows `y_begin` (even) to `y_end` into `out` (row y_begin first), two rows per pass so that
// each chroma row is read once.
void convert_rows(const Frame& f, int y_begin, int y_end, unsigned char* out,
                  std::ptrdiff_t out_step) {
  const int vector_width = f.vector_width();
  for (int y = y_begin; y < y_end; y += 2) {
    const unsigned char* luma0 = f.luma(y);
    const unsigned char* luma1 = luma0 + f.width;
    const unsigned char* chroma = f.chroma(y);
    unsigned char* out0 = out + out_step * (y - y_begin);
    unsigned char* out1 = out0 + out_step;
    int x = 0;
    for (; x < vector_width; x += kBlock) {
      const ChromaTerms t = chroma_terms(chroma + x);
      store_bgr16(out0 + x * kBgrBytes, convert16(luma0 + x, t));
      store_bgr16(out1 + x * kBgrBytes, convert16(luma1 + x, t));
    }
    convert_tail(luma0, luma1, chroma, x, f.width, out0, out1);
  }
}

void convert(const unsigned char* nv21, unsigned char* bgr, int width, int height) {
  if (height < 1 || width < 1) return;
  convert_rows({nv21, width, height}, 0, height, bgr, std::ptrdiff_t(width) * kBgrBytes);
}

// --- turning converted rows ------------------------------------------------------------------

inline void copy_pixel(const unsigned char* from, unsigned char* to) {
  to[0] = from[0];
  to[1] = from[1];
  to[2] = from[2];
}

// `n` converted rows (frame rows y0 ..), `width` pixels each, written turned into the
// `height`-row frame's turned image.
void turn_strip(const unsigned char* strip, int width, int n, int y0, int height, int rotation,
                unsigned char* out, std::ptrdiff_t out_step) {
  const std::ptrdiff_t strip_step = std::ptrdiff_t(width) * kBgrBytes;
  const auto in_px = [&](int l, int x) { return strip + strip_step * l + x * kBgrBytes; };
  if (rotation == 180) {  // row y becomes row height-1-y, read backwards
    for (int l = 0; l < n; ++l) {
      unsigned char* row = out + out_step * (height - 1 - y0 - l);
      int x = 0;
      for (; x + kBlock <= width; x += kBlock) {
        store_bgr16(row + (width - kBlock - x) * kBgrBytes, reversed(load_bgr16(in_px(l, x))));
      }
      for (; x < width; ++x) copy_pixel(in_px(l, x), row + (width - 1 - x) * kBgrBytes);
    }
    return;
  }
  // A quarter turn: column x of the strip becomes (part of) row x (270) or width-1-x (90).
  const bool clockwise = rotation == 90;
  const auto out_px = [&](int l, int x) {
    return clockwise ? out + out_step * x + (height - 1 - y0 - l) * kBgrBytes
                     : out + out_step * (width - 1 - x) + (y0 + l) * kBgrBytes;
  };
  int x = 0;
  if (n == kBlock) {
    Planes rows[kBlock], columns[kBlock];
    for (; x + kBlock <= width; x += kBlock) {
      for (int l = 0; l < kBlock; ++l) rows[l] = load_bgr16(in_px(l, x));
      transpose_planes(rows, columns);
      for (int j = 0; j < kBlock; ++j) {
        // Lane l is strip row l; clockwise it lands at output column height-1-y0-l.
        if (clockwise) {
          store_bgr16(out_px(kBlock - 1, x + j), reversed(columns[j]));
        } else {
          store_bgr16(out_px(0, x + j), columns[j]);
        }
      }
    }
  }
  for (int l = 0; l < n; ++l) {
    for (int xs = x; xs < width; ++xs) copy_pixel(in_px(l, xs), out_px(l, xs));
  }
}

void convert_rotate(const unsigned char* nv21, unsigned char* bgr, int width, int height,
                    int rotation) {
  if (rotation != 90 && rotation != 180 && rotation != 270) {
    convert(nv21, bgr, width, height);
    return;
  }
  if (height < 1 || width < 1) return;
  const Frame f{nv21, width, height};
  // One strip of rows at a time, small enough to stay in cache while it is turned. The strip
  // has room for a whole row pair even when an odd height leaves half of one.
  std::vector<unsigned char> strip(std::size_t(width) * kBgrBytes * kBlock);
  const std::ptrdiff_t out_step = std::ptrdiff_t(rotation == 180 ? width : height) * kBgrBytes;
  for (int y0 = 0; y0 < height; y0 += kBlock) {
    const int n = std::min(kBlock, height - y0);
    convert_rows(f, y0, y0 + n, strip.data(), std::ptrdiff_t(width) * kBgrBytes);
    turn_strip(strip.data(), width, n, y0, height, rotation, bgr, out_step);
  }
}

// --- area reduction --------------------------------------------------------------------------
//
// The upright image is reduced in passes of up to 16 consecutive upright rows, one row per
// vector lane. A pass walks the destination columns in order; the 16 pixels of each upright
// column come from a fetcher that reads them straight out of the stored frame, turned (and,
// for NV21, converted) on the way, so the upright full-size image is never made. Each
// destination column sums its source columns times OpenCV's weights (the horizontal step);
// the finished rows are then added with the row weights into the destination rows (the
// vertical step).

// Horizontal sums of one pass: out[(d * 3 + ch) * 16 + lane] for destination column d, each
// built in registers over its source columns in table order. A column shared by two
// destinations is fetched once.
template <typename Fetch>
void horizontal(Fetch& fetch, const AreaAxis& axis, float* out) {
  int fetched = -1;
  const Quads* px = nullptr;
  for (int d = 0; d < axis.dst_size; ++d) {
    float32x4_t acc[kBgrBytes][4];
    for (auto& ch : acc) {
      for (float32x4_t& q : ch) q = vdupq_n_f32(0.0f);
    }
    for (int e = axis.dst_first[d]; e < axis.dst_first[d + 1]; ++e) {
      if (axis.src[e] != fetched) {
        fetched = axis.src[e];
        px = fetch.column(fetched);
      }
      const float32x4_t w = vdupq_n_f32(axis.weight[e]);
      for (int ch = 0; ch < kBgrBytes; ++ch) {
        for (int q = 0; q < 4; ++q) acc[ch][q] = vaddq_f32(acc[ch][q], vmulq_f32(px[ch].q[q], w));
      }
    }
    float* o = out + std::ptrdiff_t(d) * kBgrBytes * kBlock;
    for (int ch = 0; ch < kBgrBytes; ++ch) {
      for (int q = 0; q < 4; ++q) vst1q_f32(o + ch * kBlock + q * 4, acc[ch][q]);
    }
  }
}

// Lane-major sums (k-th value of lane l at in[k * 16 + l]) to row-major rows of `count`; lane
// l holds row lane_rows[l], rows from `lanes` on are not kept.
void lanes_to_rows(const float* in, int count, int lanes, const int* lane_rows, float* rows) {
  int k = 0;
  for (; k + 4 <= count; k += 4) {
    for (int q = 0; q < 4; ++q) {
      const float32x4_t a0 = vld1q_f32(in + (k + 0) * kBlock + 4 * q);
      const float32x4_t a1 = vld1q_f32(in + (k + 1) * kBlock + 4 * q);
      const float32x4_t a2 = vld1q_f32(in + (k + 2) * kBlock + 4 * q);
      const float32x4_t a3 = vld1q_f32(in + (k + 3) * kBlock + 4 * q);
      // A 4x4 transpose by zips.
      const float32x4_t t0 = vzip1q_f32(a0, a2), t1 = vzip2q_f32(a0, a2);
      const float32x4_t t2 = vzip1q_f32(a1, a3), t3 = vzip2q_f32(a1, a3);
      const float32x4_t r[4] = {vzip1q_f32(t0, t2), vzip2q_f32(t0, t2), vzip1q_f32(t1, t3),
                                vzip2q_f32(t1, t3)};
      for (int i = 0; i < 4; ++i) {
        const int row = lane_rows[4 * q + i];
        if (row < lanes) vst1q_f32(rows + std::ptrdiff_t(row) * count + k, r[i]);
      }
    }
  }
  for (; k < count; ++k) {
    for (int l = 0; l < kBlock; ++l) {
      if (lane_rows[l] < lanes) rows[std::ptrdiff_t(lane_rows[l]) * count + k] = in[k * kBlock + l];
    }
  }
}

// Vertical sums over the upright rows, in order, into the destination rows.
class Vertical {
 public:
  Vertical(const AreaAxis& rows, int count, unsigned char* dst, std::ptrdiff_t dst_step)
      : axis_(rows), count_(count), sum_(count), dst_(dst), dst_step_(dst_step) {}

  void add(int row, const float* values) {
    for (int e = axis_.src_first[row]; e < axis_.src_first[row + 1]; ++e) {
      const int d = axis_.dst[e];
      const float beta = axis_.weight[e];
      if (d != current_) {
        if (current_ >= 0) emit();
        current_ = d;
        scale(values, beta);
      } else {
        accumulate(values, beta);
      }
    }
  }

  void finish() {
    if (current_ >= 0) emit();
  }

 private:
  void scale(const float* values, float beta) {
    const float32x4_t b = vdupq_n_f32(beta);
    int k = 0;
    for (; k + 4 <= count_; k += 4) vst1q_f32(&sum_[k], vmulq_f32(vld1q_f32(values + k), b));
    for (; k < count_; ++k) sum_[k] = beta * values[k];
  }

  void accumulate(const float* values, float beta) {
    const float32x4_t b = vdupq_n_f32(beta);
    int k = 0;
    for (; k + 4 <= count_; k += 4) {
      vst1q_f32(&sum_[k], vaddq_f32(vld1q_f32(&sum_[k]), vmulq_f32(vld1q_f32(values + k), b)));
    }
    for (; k < count_; ++k) sum_[k] = sum_[k] + beta * values[k];
  }

  // Rounded to nearest, ties to even, then saturated: OpenCV's float-to-byte cast.
  void emit() {
    unsigned char* out = dst_ + dst_step_ * current_;
    for (int k = 0; k < count_; ++k) {
      const long v = std::lrint(sum_[k]);
      out[k] = static_cast<unsigned char>(v < 0 ? 0 : (v > kByteMax ? kByteMax : v));
    }
  }

  const AreaAxis& axis_;
  int count_;
  std::vector<float> sum_;
  unsigned char* dst_;
  std::ptrdiff_t dst_step_;
  int current_ = -1;
};

// Fetchers: column(c) gives upright column c of the pass's upright rows r0 .. r0+lanes-1 as
// the floats of its bytes, for ascending c (a column may be asked for twice in a row); lane
// l (quad l/4, lane l%4) holds upright row r0 + lane_rows[l].

// Row of each lane when quads hold lanes in order, when they hold the strided order, and the
// strided order running backwards.
constexpr int kInOrderRows[kBlock] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
constexpr int kStridedRows[kBlock] = {0, 4, 8, 12, 2, 6, 10, 14, 1, 5, 9, 13, 3, 7, 11, 15};
constexpr int kStridedBackwardsRows[kBlock] = {15, 11, 7, 3, 13, 9, 5, 1,
                                               14, 10, 6, 2, 12, 8, 4, 0};

inline void widen_planes(const Planes& p, Quads px[kBgrBytes]) {
  for (int ch = 0; ch < kBgrBytes; ++ch) px[ch] = in_order(p.c[ch]);
}

// A pass over a B,G,R frame: `lanes` upright rows from `r0`, widened into `px`.
struct BgrPass {
  const unsigned char* src;
  std::ptrdiff_t step;
  int width, height, r0, lanes;
  const int* lane_rows = kInOrderRows;
  Quads px[kBgrBytes] = {};
};

// B,G,R frame turned 90 (clockwise) or 270: the pass's rows are frame columns, contiguous.
struct QuarterTurnBgr : BgrPass {
  bool clockwise;

  QuarterTurnBgr(const BgrPass& pass, bool cw) : BgrPass(pass), clockwise(cw) {}

  const Quads* column(int c) {
    Planes p;
    if (clockwise) {  // upright (r, c) is frame (height-1-c, r)
      const unsigned char* first = src + step * (height - 1 - c) + r0 * kBgrBytes;
      p = lanes == kBlock ? load_bgr16(first) : gather(first, kBgrBytes, lanes);
    } else {  // upright (r, c) is frame (c, width-1-r)
      const unsigned char* first = src + step * c + (width - 1 - r0) * kBgrBytes;
      p = lanes == kBlock ? reversed(load_bgr16(first - (kBlock - 1) * kBgrBytes))
                          : gather(first, -kBgrBytes, lanes);
    }
    widen_planes(p, px);
    return px;
  }
};

// B,G,R frame upright or turned 180: the pass's rows are frame rows, read in 16x16 tiles and
// transposed.
struct TiledBgr : BgrPass {
  bool half_turn;
  Planes tile[kBlock];
  int tile_start = -1;

  TiledBgr(const BgrPass& pass, bool half) : BgrPass(pass), half_turn(half) {}

  // Frame position of upright (r0 + l, c).
  const unsigned char* at(int l, int c) const {
    return half_turn ? src + step * (height - 1 - r0 - l) + (width - 1 - c) * kBgrBytes
                     : src + step * (r0 + l) + c * kBgrBytes;
  }

  const Quads* column(int c) {
    const int start = c / kBlock * kBlock;
    if (lanes != kBlock || start + kBlock > width) {
      widen_planes(gather(at(0, c), half_turn ? -step : step, lanes), px);
      return px;
    }
    if (start != tile_start) {
      Planes rows[kBlock];
      for (int l = 0; l < kBlock; ++l) {
        // Half turned, the tile's 16 upright columns are frame columns read backwards.
        rows[l] = load_bgr16(half_turn ? at(l, start + kBlock - 1) : at(l, start));
      }
      transpose_planes(rows, tile);
      tile_start = start;
    }
    const int j = c - start;
    widen_planes(tile[half_turn ? kBlock - 1 - j : j], px);
    return px;
  }
};

// NV21 frame turned 90 or 270: the pass's rows are frame columns; each row pair converted
// once serves two upright columns. Whole blocks come straight from the converter's float
// arithmetic in its strided order; the columns after the last block from its double path.
struct QuarterTurnNv21 {
  Frame f;
  int r0, lanes;
  bool clockwise;
  int x0;  // first frame column of the pass: the lowest of its columns
  const int* lane_rows = kInOrderRows;
  Quads pair[2][kBgrBytes];
  int pair_row = -1;  // frame row of pair[0]

  QuarterTurnNv21(const Frame& frame, int first_row, int n, bool cw)
      : f(frame), r0(first_row), lanes(n), clockwise(cw) {
    x0 = clockwise ? r0 : f.width - r0 - lanes;
    // Clockwise, lane order follows the frame columns; otherwise it runs against them.
    if (whole_block()) lane_rows = clockwise ? kStridedRows : kStridedBackwardsRows;
  }

  bool whole_block() const { return lanes == kBlock && x0 < f.vector_width(); }

  void convert_pair(int y) {
    if (whole_block()) {
      const ChromaTerms t = chroma_terms(f.chroma(y) + x0);
      convert16_values(f.luma(y) + x0, t, pair[0]);
      convert16_values(f.luma(y + 1) + x0, t, pair[1]);
      return;
    }
    alignas(16) unsigned char rows[2][kBlock * kBgrBytes] = {};
    convert_tail(f.luma(y) + x0, f.luma(y + 1) + x0, f.chroma(y) + x0, 0, lanes, rows[0], rows[1]);
    for (int i = 0; i < 2; ++i) {
      // Lane l is frame column x0 + l clockwise, x0 + lanes-1-l otherwise.
      widen_planes(clockwise ? gather(rows[i], kBgrBytes, lanes)
                             : gather(rows[i] + (lanes - 1) * kBgrBytes, -kBgrBytes, lanes),
                   pair[i]);
    }
  }

  const Quads* column(int c) {
    // Clockwise upright column c is frame row height-1-c, counter-clockwise frame row c.
    const int y = clockwise ? f.height - 1 - c : c;
    if ((y & ~1) != pair_row) {
      pair_row = y & ~1;
      convert_pair(pair_row);
    }
    return pair[y & 1];
  }
};

struct Scratch {
  std::vector<float> horizontal, rows;
  explicit Scratch(int count)
      : horizontal(std::size_t(count) * kBlock), rows(std::size_t(count) * kBlock) {}
};

template <typename Fetch>
void run_pass(Fetch& fetch, const AreaJob& job, int r0, int lanes, Scratch& s, Vertical& v) {
  const int count = job.columns->dst_size * kBgrBytes;
  horizontal(fetch, *job.columns, s.horizontal.data());
  lanes_to_rows(s.horizontal.data(), count, lanes, fetch.lane_rows, s.rows.data());
  for (int l = 0; l < lanes; ++l) v.add(r0 + l, s.rows.data() + std::ptrdiff_t(l) * count);
}

void area(const AreaJob& job) {
  const int count = job.columns->dst_size * kBgrBytes;
  const int upright_rows = job.rows->src_size;
  Scratch s(count);
  Vertical v(*job.rows, count, job.dst, job.dst_step);
  const bool quarter = job.rotation == 90 || job.rotation == 270;
  const bool clockwise = job.rotation == 90;

  if (job.pixels == Pixels::kNv21 && quarter) {
    const Frame f{job.src, job.width, job.height};
    // Passes follow the converter's 16-column blocks; the columns after the last block make
    // a narrower pass of their own, first or last in upright order.
    const int tail = f.width - f.vector_width();
    std::vector<std::pair<int, int>> passes;  // (first upright row, lanes)
    if (!clockwise && tail > 0) passes.push_back({0, tail});
    for (int m = 0; m < f.vector_width() / kBlock; ++m) {
      passes.push_back({(clockwise ? 0 : tail) + m * kBlock, kBlock});
    }
    if (clockwise && tail > 0) passes.push_back({f.vector_width(), tail});
    for (const auto& [r0, lanes] : passes) {
      QuarterTurnNv21 fetch(f, r0, lanes, clockwise);
      run_pass(fetch, job, r0, lanes, s, v);
    }
  } else if (job.pixels == Pixels::kNv21) {
    // Upright or half turned: convert 16 frame rows at a time, then read them in tiles.
    const Frame f{job.src, job.width, job.height};
    const bool half = job.rotation == 180;
    const std::ptrdiff_t strip_step = std::ptrdiff_t(f.width) * kBgrBytes;
    std::vector<unsigned char> strip(std::size_t(strip_step) * kBlock);
    for (int r0 = 0; r0 < upright_rows; r0 += kBlock) {
      const int lanes = std::min(kBlock, upright_rows - r0);
      const int y0 = half ? f.height - r0 - lanes : r0;
      convert_rows(f, y0, y0 + lanes, strip.data(), strip_step);
      TiledBgr fetch({strip.data(), strip_step, f.width, lanes, 0, lanes}, half);
      run_pass(fetch, job, r0, lanes, s, v);
    }
  } else {
    for (int r0 = 0; r0 < upright_rows; r0 += kBlock) {
      const int lanes = std::min(kBlock, upright_rows - r0);
      if (quarter) {
        QuarterTurnBgr fetch({job.src, job.step, job.width, job.height, r0, lanes}, clockwise);
        run_pass(fetch, job, r0, lanes, s, v);
      } else {
        TiledBgr fetch({job.src, job.step, job.width, job.height, r0, lanes}, job.rotation == 180);
        run_pass(fetch, job, r0, lanes, s, v);
      }
    }
  }
  v.finish();
}

}  // namespace

extern const Variant kVariant;
const Variant kVariant = {AD_KERNEL_NAME(AD_KERNEL_VARIANT), convert, convert_rotate, area};

}  // namespace AD_KERNEL_VARIANT
}  // namespace kernels
}  // namespace tqr_arm_neon

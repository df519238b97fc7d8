// Advanced SIMD intrinsics for the image kernels: the processor's own on AArch64, SIMDe's
// portable versions of the same intrinsics everywhere else, so one source serves both.
//
// AD_NEON_FAST_TABLES is 1 where a 16-byte table lookup (vqtbl1q_u8) is one instruction:
// AArch64, and x86 from SSSE3 on. Elsewhere the kernels move bytes with zips and unzips.
//
// On x86 a few intrinsics that SIMDe 0.7.4 builds from scalar loops or from clamps and
// shuffles are replaced below by their x86 instructions: the three-way load vld3q_u8 and the
// saturating narrows. A narrow fills one half of a NEON register and x86 packs two whole
// registers at once, so the narrows come as pairs, qmovn_pair_s32 and qmovun_pair_s16, which
// are the two NEON halves on AArch64 and one pack on x86. Every replacement is static: each
// instruction-set level compiles its own copy, and none may stand in for another's.
#pragma once

#if defined(AD_NEON_NATIVE) && AD_NEON_NATIVE
#if !defined(__aarch64__)
#error "AD_NEON_NATIVE is set but the target is not AArch64"
#endif
#include <arm_neon.h>
#define AD_NEON_FAST_TABLES 1

static inline int16x8_t qmovn_pair_s32(int32x4_t low, int32x4_t high) {
  return vqmovn_high_s32(vqmovn_s32(low), high);
}
static inline uint8x16_t qmovun_pair_s16(int16x8_t low, int16x8_t high) {
  return vqmovun_high_s16(vqmovun_s16(low), high);
}

#else
// Every float-to-integer conversion in the kernels is of a value well inside the signed
// 32-bit range, and no value is ever NaN, so SIMDe may drop its fix-ups for both cases.
#define SIMDE_FAST_CONVERSION_RANGE
#define SIMDE_FAST_NANS
#define SIMDE_ENABLE_NATIVE_ALIASES
#include <simde/arm/neon.h>
#if defined(__SSSE3__)
#define AD_NEON_FAST_TABLES 1
#else
#define AD_NEON_FAST_TABLES 0
#endif

#if defined(__SSE2__)
#include <emmintrin.h>

static inline int16x8_t qmovn_pair_s32(int32x4_t low, int32x4_t high) {
  return simde_int16x8_from_m128i(
      _mm_packs_epi32(simde_int32x4_to_m128i(low), simde_int32x4_to_m128i(high)));
}
static inline uint8x16_t qmovun_pair_s16(int16x8_t low, int16x8_t high) {
  return simde_uint8x16_from_m128i(
      _mm_packus_epi16(simde_int16x8_to_m128i(low), simde_int16x8_to_m128i(high)));
}
#else
static inline int16x8_t qmovn_pair_s32(int32x4_t low, int32x4_t high) {
  return vcombine_s16(vqmovn_s32(low), vqmovn_s32(high));
}
static inline uint8x16_t qmovun_pair_s16(int16x8_t low, int16x8_t high) {
  return vcombine_u8(vqmovun_s16(low), vqmovun_s16(high));
}
#endif

#if defined(__SSSE3__)
#include <tmmintrin.h>

// vld3q_u8 by byte shuffles: plane p takes byte 3l+p into lane l from whichever of the three
// 16-byte parts holds it; the other two parts give 0 there (index bit 7 set).
struct AdDeinterleave {
  unsigned char index[3][3][16];
};
static constexpr AdDeinterleave ad_make_deinterleave() {
  AdDeinterleave t{};
  for (int plane = 0; plane < 3; ++plane) {
    for (int part = 0; part < 3; ++part) {
      for (int lane = 0; lane < 16; ++lane) {
        const int byte = 3 * lane + plane;
        t.index[plane][part][lane] = byte / 16 == part ? (unsigned char)(byte % 16) : 0x80;
      }
    }
  }
  return t;
}
alignas(16) static constexpr AdDeinterleave kAdDeinterleave = ad_make_deinterleave();

static inline uint8x16x3_t ad_vld3q_u8(const uint8_t* bytes) {
  __m128i part[3];
  for (int k = 0; k < 3; ++k) part[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes) + k);
  uint8x16x3_t planes;
  for (int p = 0; p < 3; ++p) {
    __m128i plane = _mm_setzero_si128();
    for (int k = 0; k < 3; ++k) {
      const __m128i index =
          _mm_load_si128(reinterpret_cast<const __m128i*>(kAdDeinterleave.index[p][k]));
      plane = _mm_or_si128(plane, _mm_shuffle_epi8(part[k], index));
    }
    planes.val[p] = simde_uint8x16_from_m128i(plane);
  }
  return planes;
}
#undef vld3q_u8
#define vld3q_u8(bytes) ad_vld3q_u8(bytes)
#endif
#endif

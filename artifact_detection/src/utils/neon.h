// Advanced SIMD intrinsics for the image kernels: the processor's own on AArch64, SIMDe's
// portable versions of the same intrinsics everywhere else, so one source serves both.
//
// AD_NEON_FAST_TABLES is 1 where a 16-byte table lookup (vqtbl1q_u8) is one instruction:
// AArch64, and x86 from SSSE3 on. Elsewhere the kernels move bytes with zips and unzips.
#pragma once

#if defined(AD_NEON_NATIVE) && AD_NEON_NATIVE
#if !defined(__aarch64__)
#error "AD_NEON_NATIVE is set but the target is not AArch64"
#endif
#include <arm_neon.h>
#define AD_NEON_FAST_TABLES 1
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
#endif

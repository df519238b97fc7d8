// Advanced SIMD intrinsics for the NV21 converter: the processor's own on AArch64, SIMDe's
// portable versions of the same intrinsics everywhere else, so one source serves both.
#pragma once

#if defined(AD_NEON_NATIVE) && AD_NEON_NATIVE
#if !defined(__aarch64__)
#error "AD_NEON_NATIVE is set but the target is not AArch64"
#endif
#include <arm_neon.h>
#else
#define SIMDE_ENABLE_NATIVE_ALIASES
#include <simde/arm/neon.h>
#endif

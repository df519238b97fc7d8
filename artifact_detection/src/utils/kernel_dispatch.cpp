// Which compiled copy of the image kernels runs: the best one this processor supports.
#include <vector>

#include "utils/neon_kernels.h"

namespace tqr_arm_neon {
namespace kernels {

// Every compiled copy of neon_kernels.cpp.
#if defined(AD_X86_KERNELS) && AD_X86_KERNELS
namespace baseline {
extern const Variant kVariant;
}
namespace sse4_1 {
extern const Variant kVariant;
}
namespace avx2 {
extern const Variant kVariant;
}
#else
namespace native {
extern const Variant kVariant;
}
#endif

std::vector<const Variant*> runnable() {
#if defined(AD_X86_KERNELS) && AD_X86_KERNELS
  std::vector<const Variant*> variants{&baseline::kVariant};
  __builtin_cpu_init();
  if (__builtin_cpu_supports("sse4.1")) variants.push_back(&sse4_1::kVariant);
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
    variants.push_back(&avx2::kVariant);
  }
  return variants;
#else
  return {&native::kVariant};
#endif
}

const Variant& selected() {
  static const Variant* const best = runnable().back();
  return *best;
}

}  // namespace kernels
}  // namespace tqr_arm_neon

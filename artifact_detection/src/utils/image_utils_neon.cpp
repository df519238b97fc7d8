// The exported NV21 converter: the selected copy of the kernels.
#include "utils/image_utils_neon.h"

#include "utils/neon_kernels.h"

namespace tqr_arm_neon {

int ics_fconvert_nv21torgb_neon(unsigned char* nv21, unsigned char* bgr, int width, int height) {
  kernels::selected().convert(nv21, bgr, width, height);
  return 0;
}

}  // namespace tqr_arm_neon

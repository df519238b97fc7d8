// Raw NV21 routines on plain byte buffers. No image library is involved, so this pair of
// files also builds alone, for example with a cross compiler.
//
// NV21 layout of a `width` x `height` frame: `width` x `height` luma bytes, then `height`/2
// chroma rows of `width` bytes holding V,U pairs; pixel (x, y) uses the pair at chroma row
// y/2, byte 2*(x/2). Width and height must be even; nothing is checked.
#pragma once

#include "artifact_detector_export.h"

namespace tqr_arm_neon {

// NV21 to packed B,G,R (3 x width x height bytes in `bgr`), full-range coefficients.
// Always returns 0.
AD_EXPORT int ics_fconvert_nv21torgb_neon(unsigned char* nv21, unsigned char* bgr, int width,
                                          int height);

// NV21 to a smaller (or larger) NV21 frame: nearest-neighbour luma, chroma averaged over
// each 2x2 destination block. `dst` holds dstWidth x dstHeight x 3/2 bytes. Always returns 1.
AD_EXPORT int resize_nv21_buffer(char* src, char* dst, int srcWidth, int srcHeight, int dstWidth,
                                 int dstHeight);

}  // namespace tqr_arm_neon

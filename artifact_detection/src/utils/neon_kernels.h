// The image kernels behind the NV21 routines and the detection run's shrinking step, on plain
// byte buffers. neon_kernels.cpp is their one Advanced SIMD source: compiled natively on
// AArch64, and on x86 once per instruction-set level through SIMDe, each copy in a namespace
// of its own; selected() picks the best copy the processor runs. Every copy produces the
// same bytes.
#pragma once

#include <cstddef>
#include <vector>

namespace tqr_arm_neon {
namespace kernels {

// One axis of an area reduction: OpenCV's INTER_AREA table in its order, entry k adding
// source index src[k] to destination index dst[k] with weight[k]. Destination indices ascend,
// and so do source indices (plan_area declines tables where they would not), so the entries
// of source s are src_first[s] .. src_first[s + 1] - 1 and those of destination d are
// dst_first[d] .. dst_first[d + 1] - 1, each group in table order.
struct AreaAxis {
  int src_size = 0;
  int dst_size = 0;
  std::vector<int> src, dst;
  std::vector<float> weight;
  std::vector<int> src_first, dst_first;
};

enum class Pixels { kBgr, kNv21 };

// An area reduction of a stored frame turned upright first. The frame as stored is
// `width` x `height`; turned by `rotation` (0, 90, 180 or 270 degrees clockwise) it is
// `columns.src_size` x `rows.src_size`, and the result is `columns.dst_size` x
// `rows.dst_size` B,G,R pixels.
struct AreaJob {
  Pixels pixels = Pixels::kBgr;
  const unsigned char* src = nullptr;  // kBgr: B,G,R rows `step` bytes apart; kNv21: a frame
  std::ptrdiff_t step = 0;             // of even width and height, rows without padding
  int width = 0;
  int height = 0;
  int rotation = 0;
  const AreaAxis* columns = nullptr;
  const AreaAxis* rows = nullptr;
  unsigned char* dst = nullptr;
  std::ptrdiff_t dst_step = 0;
};

struct Variant {
  const char* name;
  // NV21 to B,G,R, `width` x 3 bytes per row.
  void (*convert)(const unsigned char* nv21, unsigned char* bgr, int width, int height);
  // The same, written turned by `rotation` (90, 180 or 270; anything else as convert).
  void (*convert_rotate)(const unsigned char* nv21, unsigned char* bgr, int width, int height,
                         int rotation);
  void (*area)(const AreaJob& job);
};

// Fills `columns` and `rows` for reducing a `src_cols` x `src_rows` B,G,R image to
// `dst_cols` x `dst_rows` exactly as cv::resize with INTER_AREA does. False when that call
// would not make a true area reduction (equal sizes are copied, whole-number factors
// averaged, enlargements interpolated) or the tables fall outside what the kernels handle;
// callers then call cv::resize itself.
bool plan_area(int src_cols, int src_rows, int dst_cols, int dst_rows, AreaAxis& columns,
               AreaAxis& rows);

// The copy for this processor, chosen on first use.
const Variant& selected();

// Every copy this processor can run, best last.
std::vector<const Variant*> runnable();

}  // namespace kernels
}  // namespace tqr_arm_neon

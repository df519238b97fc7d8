#include "utils/image_utils_neon.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
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

namespace {

// OpenCV's rounding and flooring helpers on doubles.
int round_half_even(double value) { return static_cast<int>(std::nearbyint(value)); }
int floor_int(double value) {
  const int i = static_cast<int>(value);
  return i - (i > value);
}
int ceil_int(double value) {
  const int i = static_cast<int>(value);
  return i + (i < value);
}

// Cells whose edge lies closer than this to a pixel border do not take that pixel in part.
constexpr double kEdgeTolerance = 1e-3;

struct Entry {
  int src, dst;
  float weight;
};

// OpenCV's INTER_AREA table for one axis, entry for entry, in its order.
std::vector<Entry> area_table(int src_size, int dst_size, double scale) {
  std::vector<Entry> table;
  for (int dx = 0; dx < dst_size; ++dx) {
    const double fsx1 = dx * scale;
    const double fsx2 = fsx1 + scale;
    const double cell_width = std::min(scale, src_size - fsx1);
    int sx1 = ceil_int(fsx1), sx2 = floor_int(fsx2);
    sx2 = std::min(sx2, src_size - 1);
    sx1 = std::min(sx1, sx2);
    if (sx1 - fsx1 > kEdgeTolerance) {
      table.push_back({sx1 - 1, dx, static_cast<float>((sx1 - fsx1) / cell_width)});
    }
    for (int sx = sx1; sx < sx2; ++sx) {
      table.push_back({sx, dx, static_cast<float>(1.0 / cell_width)});
    }
    if (fsx2 - sx2 > kEdgeTolerance) {
      table.push_back(
          {sx2, dx,
           static_cast<float>(std::min(std::min(fsx2 - sx2, 1.0), cell_width) / cell_width)});
    }
  }
  return table;
}

// The table with its two groupings. The kernels walk it by destination for the columns and by
// source for the rows, so source indices must ascend along the table as destination indices
// do; OpenCV's tables for area reductions always do, and any other is declined.
bool build_axis(int src_size, int dst_size, double scale, AreaAxis& axis) {
  const std::vector<Entry> table = area_table(src_size, dst_size, scale);
  axis.src_size = src_size;
  axis.dst_size = dst_size;
  axis.src.clear();
  axis.dst.clear();
  axis.weight.clear();
  axis.src_first.assign(std::size_t(src_size) + 1, 0);
  axis.dst_first.assign(std::size_t(dst_size) + 1, 0);
  for (std::size_t k = 0; k < table.size(); ++k) {
    const Entry& e = table[k];
    if (e.src < 0 || e.src >= src_size || (k > 0 && e.src < table[k - 1].src)) return false;
    axis.src.push_back(e.src);
    axis.dst.push_back(e.dst);
    axis.weight.push_back(e.weight);
    ++axis.src_first[std::size_t(e.src) + 1];
    ++axis.dst_first[std::size_t(e.dst) + 1];
  }
  for (int s = 0; s < src_size; ++s) axis.src_first[s + 1] += axis.src_first[s];
  for (int d = 0; d < dst_size; ++d) axis.dst_first[d + 1] += axis.dst_first[d];
  return true;
}

}  // namespace

bool plan_area(int src_cols, int src_rows, int dst_cols, int dst_rows, AreaAxis& columns,
               AreaAxis& rows) {
  if (src_cols <= 0 || src_rows <= 0 || dst_cols <= 0 || dst_rows <= 0) return false;
  if (src_cols == dst_cols && src_rows == dst_rows) return false;
  // The very computations of cv::resize: inverse scales from the sizes, scales from those.
  const double inv_scale_x = static_cast<double>(dst_cols) / src_cols;
  const double inv_scale_y = static_cast<double>(dst_rows) / src_rows;
  if (round_half_even(src_cols * inv_scale_x) != dst_cols ||
      round_half_even(src_rows * inv_scale_y) != dst_rows) {
    return false;
  }
  const double scale_x = 1. / inv_scale_x, scale_y = 1. / inv_scale_y;
  const bool whole_factors = std::abs(scale_x - round_half_even(scale_x)) < DBL_EPSILON &&
                             std::abs(scale_y - round_half_even(scale_y)) < DBL_EPSILON;
  if (whole_factors || scale_x < 1 || scale_y < 1) return false;
  return build_axis(src_cols, dst_cols, scale_x, columns) &&
         build_axis(src_rows, dst_rows, scale_y, rows);
}

}  // namespace kernels

int ics_fconvert_nv21torgb_neon(unsigned char* nv21, unsigned char* bgr, int width, int height) {
  kernels::selected().convert(nv21, bgr, width, height);
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

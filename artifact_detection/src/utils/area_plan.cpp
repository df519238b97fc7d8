// The area planner: cv::resize's INTER_AREA weight tables for one reduction, or no plan where
// cv::resize would do something else.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <vector>

#include "utils/neon_kernels.h"

namespace tqr_arm_neon {
namespace kernels {

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
}  // namespace tqr_arm_neon

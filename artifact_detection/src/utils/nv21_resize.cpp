// The scalar NV21 resize: nearest luma, chroma averaged per 2x2 block.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "utils/image_utils_neon.h"

namespace tqr_arm_neon {

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

// Raw pixel buffers for the image kernels' tests, without OpenCV so that the cross-compiled
// driver uses them too.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <new>

#include "utils/neon_kernels.h"

namespace ad_test {

enum class Pixels { Random, Extreme, ChromaSweep };

// Bytes that end exactly where an inaccessible page begins: one byte too far faults at once.
class PageEndBuffer {
 public:
  explicit PageEndBuffer(std::size_t size) : size_(size) {
    const std::size_t page = std::size_t(sysconf(_SC_PAGESIZE)), data = (size + page - 1) / page;
    mapped_ = (data + 1) * page;
    void* base = mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) throw std::bad_alloc();
    base_ = static_cast<unsigned char*>(base);
    if (mprotect(base_ + data * page, page, PROT_NONE) != 0) throw std::bad_alloc();
    data_ = base_ + data * page - size;
  }
  // A width x height NV21 frame of SplitMix64 bytes (the same on every platform), of values at
  // the ends of the ranges and around the chroma zero point, or of random luma followed by
  // every (V, U) pair in order (ChromaSweep).
  PageEndBuffer(int width, int height, Pixels kind, std::uint64_t seed)
      : PageEndBuffer(std::size_t(width) * height * 3 / 2) {
    static const unsigned char kExtremes[] = {0, 1, 2, 126, 127, 128, 129, 130, 253, 254, 255};
    for (std::size_t i = 0; i < size_; ++i) {
      std::uint64_t z = (seed += 0x9E3779B97F4A7C15ull);
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
      z ^= z >> 31;
      data_[i] =
          kind == Pixels::Extreme ? kExtremes[z % sizeof kExtremes] : (unsigned char)(z >> 56);
    }
    const std::size_t luma = std::size_t(width) * height;
    for (std::size_t k = 0; kind == Pixels::ChromaSweep && luma + 2 * k + 1 < size_; ++k) {
      data_[luma + 2 * k] = static_cast<unsigned char>(k);
      data_[luma + 2 * k + 1] = static_cast<unsigned char>(k >> 8);
    }
  }
  PageEndBuffer(const PageEndBuffer&) = delete;
  ~PageEndBuffer() { munmap(base_, mapped_); }

  unsigned char* data() { return data_; }
  char* chars() { return reinterpret_cast<char*>(data_); }
  std::size_t size() const { return size_; }
  unsigned char& operator[](std::size_t i) { return data_[i]; }

 private:
  std::size_t size_, mapped_;
  unsigned char *base_, *data_;
};

// `variant`'s area reduction of `src` (NV21, or B,G,R rows `step` bytes apart) turned by
// `rotation`, into dst_cols x dst_rows packed B,G,R; false where plan_area declines.
inline bool run_area(const tqr_arm_neon::kernels::Variant& variant, bool nv21,
                     const unsigned char* src, std::ptrdiff_t step, int width, int height,
                     int rotation, int dst_cols, int dst_rows, unsigned char* dst) {
  namespace k = tqr_arm_neon::kernels;
  const bool quarter = rotation == 90 || rotation == 270;
  k::AreaAxis columns, rows;
  const bool planned = k::plan_area(quarter ? height : width, quarter ? width : height, dst_cols,
                                    dst_rows, columns, rows);
  if (planned) {
    variant.area({nv21 ? k::Pixels::kNv21 : k::Pixels::kBgr, src, step, width, height, rotation,
                  &columns, &rows, dst, std::ptrdiff_t(dst_cols) * 3});
  }
  return planned;
}

}  // namespace ad_test

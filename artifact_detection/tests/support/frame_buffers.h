// Pixel buffers for tests of raw-buffer routines, without any image library so that
// cross-compiled drivers can use them too.
//   PageEndBuffer: bytes that end exactly where an inaccessible page begins, so that
//                  reading or writing one byte too far faults at once.
//   Rng:           the one deterministic generator for test pixels.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

namespace ad_test {

class PageEndBuffer {
 public:
  explicit PageEndBuffer(std::size_t size) : size_(size) {
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t data_pages = (size + page - 1) / page;
    mapped_size_ = (data_pages + 1) * page;
    void* base =
        mmap(nullptr, mapped_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) throw std::bad_alloc();
    base_ = static_cast<unsigned char*>(base);
    if (mprotect(base_ + data_pages * page, page, PROT_NONE) != 0) {
      munmap(base_, mapped_size_);
      throw std::bad_alloc();
    }
    data_ = base_ + data_pages * page - size;
  }
  PageEndBuffer(PageEndBuffer&& other) noexcept
      : size_(other.size_),
        mapped_size_(other.mapped_size_),
        base_(other.base_),
        data_(other.data_) {
    other.base_ = nullptr;
  }
  ~PageEndBuffer() {
    if (base_ != nullptr) munmap(base_, mapped_size_);
  }
  PageEndBuffer(const PageEndBuffer&) = delete;
  PageEndBuffer& operator=(const PageEndBuffer&) = delete;

  unsigned char* data() { return data_; }
  const unsigned char* data() const { return data_; }
  char* chars() { return reinterpret_cast<char*>(data_); }
  std::size_t size() const { return size_; }
  unsigned char& operator[](std::size_t i) { return data_[i]; }
  unsigned char operator[](std::size_t i) const { return data_[i]; }
  void fill(unsigned char value) { std::memset(data_, value, size_); }

 private:
  std::size_t size_;
  std::size_t mapped_size_;
  unsigned char* base_;
  unsigned char* data_;
};

// SplitMix64: small, fast, identical on every platform.
class Rng {
 public:
  explicit Rng(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  unsigned char byte() { return static_cast<unsigned char>(next() >> 56); }
  // Values that sit at the ends of the ranges and around the chroma zero point.
  unsigned char extreme_byte() {
    static const unsigned char kValues[] = {0, 1, 2, 126, 127, 128, 129, 130, 253, 254, 255};
    return kValues[next() % sizeof(kValues)];
  }

 private:
  std::uint64_t state_;
};

enum class Pixels { Random, Extreme, ChromaSweep };

// Fills an NV21 frame: random bytes, values from the ends of the ranges, or random luma with
// the chroma plane running through every (V, U) pair in order (repeating when it is longer).
inline void fill_nv21(PageEndBuffer& frame, int width, int height, Pixels kind,
                      std::uint64_t seed) {
  Rng rng(seed);
  for (std::size_t i = 0; i < frame.size(); ++i) {
    frame[i] = kind == Pixels::Extreme ? rng.extreme_byte() : rng.byte();
  }
  if (kind != Pixels::ChromaSweep) return;
  const std::size_t luma = std::size_t(width) * height;
  for (std::size_t k = 0; luma + 2 * k + 1 < frame.size(); ++k) {
    frame[luma + 2 * k] = static_cast<unsigned char>(k);
    frame[luma + 2 * k + 1] = static_cast<unsigned char>(k >> 8);
  }
}

}  // namespace ad_test

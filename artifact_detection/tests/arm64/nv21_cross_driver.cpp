// Converts, turns, downscales and area-reduces a fixed set of frames and writes every output
// byte to standard output, so that builds for different processors can be compared byte for
// byte. One index line per case ("<offset> <size> <case>") goes to standard error, then "end".
// Buffers end at a guard page: any over-read or over-write faults.
#include <cstdio>
#include <string>

#include "support/kernel_cases.h"
#include "utils/image_utils_neon.h"

namespace {

using ad_test::PageEndBuffer;
using ad_test::Pixels;
namespace kernels = tqr_arm_neon::kernels;

std::string size_text(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

void emit(const std::string& name, PageEndBuffer& bytes) {
  static std::size_t offset = 0;
  std::fwrite(bytes.data(), 1, bytes.size(), stdout);
  std::fprintf(stderr, "%zu %zu %s\n", offset, bytes.size(), name.c_str());
  offset += bytes.size();
}

void convert_case(int width, int height, Pixels kind) {
  static const char* const kNames[] = {"random", "extreme", "sweep"};
  PageEndBuffer nv21(width, height, kind, std::uint64_t(width) << 20 | height);
  PageEndBuffer bgr(std::size_t(width) * height * 3);
  tqr_arm_neon::ics_fconvert_nv21torgb_neon(nv21.data(), bgr.data(), width, height);
  emit("convert " + size_text(width, height) + " " + kNames[int(kind)], bgr);
}

void resize_case(int src_width, int src_height, int dst_width, int dst_height) {
  PageEndBuffer src(src_width, src_height, Pixels::Random, 7);
  PageEndBuffer dst(std::size_t(dst_width) * dst_height * 3 / 2);
  tqr_arm_neon::resize_nv21_buffer(src.chars(), dst.chars(), src_width, src_height, dst_width,
                                   dst_height);
  emit("resize " + size_text(src_width, src_height) + " to " + size_text(dst_width, dst_height),
       dst);
}

void turn_case(int width, int height, int rotation) {
  PageEndBuffer nv21(width, height, Pixels::Random, std::uint64_t(width) * height);
  PageEndBuffer bgr(std::size_t(width) * height * 3);
  kernels::selected().convert_rotate(nv21.data(), bgr.data(), width, height, rotation);
  emit("turn " + size_text(width, height) + " " + std::to_string(rotation), bgr);
}

// An NV21 or B,G,R frame (the bytes of an NV21 frame twice as high) turned and area-reduced;
// nothing where no plan is made (the host test checks where one must be).
void area_case(bool nv21, int width, int height, int rotation, int dst_width, int dst_height) {
  PageEndBuffer src(width, nv21 ? height : 2 * height, Pixels::Random,
                    std::uint64_t(height) << 16 | width);
  PageEndBuffer dst(std::size_t(dst_width) * dst_height * 3);
  if (ad_test::run_area(kernels::selected(), nv21, src.data(), nv21 ? width : width * 3, width,
                        height, rotation, dst_width, dst_height, dst.data())) {
    emit(std::string("area ") + (nv21 ? "nv21 " : "bgr ") + size_text(width, height) + " " +
             std::to_string(rotation) + " to " + size_text(dst_width, dst_height),
         dst);
  }
}

}  // namespace

int main() {
  for (const auto& [width, height, kind] : ad_test::conversion_cases())
    convert_case(width, height, kind);
  convert_case(4000, 3000, Pixels::Random);
  const int resizes[][4] = {
      {8, 8, 4, 4}, {640, 480, 640, 480},   {64, 48, 20, 12},       {1002, 10, 300, 6},
      {4, 4, 8, 8}, {1920, 1080, 640, 480}, {1920, 1080, 224, 224}, {4000, 3000, 1920, 1080}};
  for (const auto& r : resizes) resize_case(r[0], r[1], r[2], r[3]);
  for (int rotation : {90, 180, 270}) {
    for (const auto& [width, height] : ad_test::kTurnSizes) turn_case(width, height, rotation);
  }
  for (const auto& [width, height, dst_width, dst_height] : ad_test::kAreaCases) {
    for (int rotation : {0, 90, 180, 270}) {
      if (width % 2 == 0 && height % 2 == 0)
        area_case(true, width, height, rotation, dst_width, dst_height);
      area_case(false, width, height, rotation, dst_width, dst_height);
    }
  }
  area_case(true, 4000, 3000, 90, 224, 224);
  std::fprintf(stderr, "end\n");
  return 0;
}

// Converts, turns, downscales and area-reduces a fixed set of frames and writes every output
// byte to standard output, so that builds for different processors can be compared byte for byte.
// One index line per case ("<offset> <size> <case>") goes to standard error, then "end". Buffers
// end at a guard page: any over-read or over-write faults.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/frame_buffers.h"
#include "utils/image_utils_neon.h"
#include "utils/neon_kernels.h"

namespace {

using ad_test::PageEndBuffer;
using ad_test::Pixels;

const char* const kPixelNames[] = {"random", "extreme", "sweep"};

std::size_t g_offset = 0;

void emit(const std::string& name, const PageEndBuffer& bytes) {
  std::fwrite(bytes.data(), 1, bytes.size(), stdout);
  std::fprintf(stderr, "%zu %zu %s\n", g_offset, bytes.size(), name.c_str());
  g_offset += bytes.size();
}

std::string size_text(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

PageEndBuffer nv21_frame(int width, int height, Pixels kind, std::uint64_t seed) {
  PageEndBuffer frame(std::size_t(width) * height * 3 / 2);
  ad_test::fill_nv21(frame, width, height, kind, seed);
  return frame;
}

void convert_case(int width, int height, Pixels kind) {
  PageEndBuffer nv21 = nv21_frame(width, height, kind, std::uint64_t(width) << 20 | height);
  PageEndBuffer bgr(std::size_t(width) * height * 3);
  tqr_arm_neon::ics_fconvert_nv21torgb_neon(nv21.data(), bgr.data(), width, height);
  emit("convert " + size_text(width, height) + " " + kPixelNames[int(kind)], bgr);
}

void resize_case(int src_width, int src_height, int dst_width, int dst_height) {
  PageEndBuffer src = nv21_frame(src_width, src_height, Pixels::Random, 7);
  PageEndBuffer dst(std::size_t(dst_width) * dst_height * 3 / 2);
  tqr_arm_neon::resize_nv21_buffer(src.chars(), dst.chars(), src_width, src_height, dst_width,
                                   dst_height);
  emit("resize " + size_text(src_width, src_height) + " to " + size_text(dst_width, dst_height),
       dst);
}

void turn_case(int width, int height, int rotation) {
  PageEndBuffer nv21 = nv21_frame(width, height, Pixels::Random, std::uint64_t(width) * height);
  PageEndBuffer bgr(std::size_t(width) * height * 3);
  tqr_arm_neon::kernels::selected().convert_rotate(nv21.data(), bgr.data(), width, height,
                                                   rotation);
  emit("turn " + size_text(width, height) + " " + std::to_string(rotation), bgr);
}

// NV21 or B,G,R frame turned by `rotation`, area-reduced to dst_width x dst_height.
void area_case(bool nv21, int width, int height, int rotation, int dst_width, int dst_height) {
  namespace k = tqr_arm_neon::kernels;
  PageEndBuffer src(std::size_t(width) * height * (nv21 ? 3 : 6) / 2);
  ad_test::fill_nv21(src, width, height, Pixels::Random, std::uint64_t(height) << 16 | width);
  const bool quarter = rotation == 90 || rotation == 270;
  k::AreaAxis columns, rows;
  if (!k::plan_area(quarter ? height : width, quarter ? width : height, dst_width, dst_height,
                    columns, rows)) {
    std::fprintf(stderr, "no area plan\n");
    std::exit(1);
  }
  PageEndBuffer dst(std::size_t(dst_width) * dst_height * 3);
  k::AreaJob job;
  job.pixels = nv21 ? k::Pixels::kNv21 : k::Pixels::kBgr;
  job.src = src.data();
  job.step = nv21 ? width : width * 3;
  job.width = width;
  job.height = height;
  job.rotation = rotation;
  job.columns = &columns;
  job.rows = &rows;
  job.dst = dst.data();
  job.dst_step = dst_width * 3;
  k::selected().area(job);
  emit(std::string("area ") + (nv21 ? "nv21 " : "bgr ") + size_text(width, height) + " " +
           std::to_string(rotation) + " to " + size_text(dst_width, dst_height),
       dst);
}

}  // namespace

int main() {
  // Every even width through 66 (all vector, all scalar and mixed rows), then larger ragged
  // widths, then full frames.
  for (int width = 2; width <= 66; width += 2) {
    convert_case(width, 6, Pixels::Random);
    convert_case(width, 4, Pixels::Extreme);
  }
  for (int width : {94, 98, 126, 128, 130, 254, 256, 258, 642, 1002}) {
    convert_case(width, 10, Pixels::Random);
    convert_case(width, 2, Pixels::Extreme);
  }
  convert_case(16, 16384, Pixels::ChromaSweep);
  convert_case(8, 32768, Pixels::ChromaSweep);
  convert_case(514, 512, Pixels::ChromaSweep);
  convert_case(1920, 1080, Pixels::Extreme);
  convert_case(4000, 3000, Pixels::Random);

  resize_case(8, 8, 4, 4);
  resize_case(640, 480, 640, 480);
  resize_case(64, 48, 20, 12);
  resize_case(1002, 10, 300, 6);
  resize_case(4, 4, 8, 8);
  resize_case(1920, 1080, 640, 480);
  resize_case(1920, 1080, 224, 224);
  resize_case(4000, 3000, 1920, 1080);
  for (int rotation : {90, 180, 270}) {
    turn_case(18, 34, rotation);
    turn_case(66, 50, rotation);
    turn_case(642, 482, rotation);
  }
  for (bool nv21 : {true, false}) {
    for (int rotation : {0, 90, 180, 270}) {
      area_case(nv21, 66, 50, rotation, 20, 18);
      area_case(nv21, 130, 98, rotation, 17, 23);
      area_case(nv21, 642, 482, rotation, 224, 224);
      area_case(nv21, 1920, 1080, rotation, 224, 224);
    }
  }
  area_case(true, 4000, 3000, 90, 224, 224);
  std::fprintf(stderr, "end\n");
  return 0;
}

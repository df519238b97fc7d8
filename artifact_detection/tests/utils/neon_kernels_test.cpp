// Every compiled copy of the image kernels this processor runs against the oracle: the NV21
// conversion written out pixel by pixel, OpenCV's rotation and OpenCV's INTER_AREA resize.
// Frames are random and extreme, of ragged sizes, in all four orientations; the kernels read
// from and write to buffers that end at an inaccessible page.
#include "utils/neon_kernels.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/frame_buffers.h"
#include "support/reference_images.h"

namespace {

using ad_test::PageEndBuffer;
using ad_test::Pixels;
using tqr_arm_neon::kernels::AreaAxis;
using tqr_arm_neon::kernels::AreaJob;
using tqr_arm_neon::kernels::Variant;
namespace kernels = tqr_arm_neon::kernels;

std::vector<const Variant*> variants() { return kernels::runnable(); }

PageEndBuffer nv21_frame(int width, int height, Pixels kind, std::uint64_t seed) {
  PageEndBuffer frame(std::size_t(width) * height * 3 / 2);
  ad_test::fill_nv21(frame, width, height, kind, seed);
  return frame;
}

cv::Mat as_mat(PageEndBuffer& bytes, int rows, int cols) {
  return cv::Mat(rows, cols, CV_8UC3, bytes.data());
}

// --- conversion ------------------------------------------------------------------------------

struct ConvertCase {
  int width, height;
  Pixels kind;
};

std::vector<ConvertCase> convert_cases() {
  std::vector<ConvertCase> cases;
  for (int w = 2; w <= 66; w += 2) {
    cases.push_back({w, 6, Pixels::Random});
    cases.push_back({w, 4, Pixels::Extreme});
  }
  for (int w : {94, 98, 126, 128, 130, 254, 256, 258, 642, 1002}) {
    cases.push_back({w, 10, Pixels::Random});
    cases.push_back({w, 2, Pixels::Extreme});
  }
  cases.push_back({16, 16384, Pixels::ChromaSweep});  // every chroma pair, vector columns
  cases.push_back({8, 32768, Pixels::ChromaSweep});   // every chroma pair, scalar columns
  cases.push_back({1920, 1080, Pixels::Random});
  return cases;
}

TEST(NeonKernels, ConversionGivesTheReferenceBytes) {
  for (const Variant* v : variants()) {
    for (const ConvertCase& c : convert_cases()) {
      PageEndBuffer frame = nv21_frame(c.width, c.height, c.kind, c.width * 131 + c.height);
      PageEndBuffer out(std::size_t(c.width) * c.height * 3);
      v->convert(frame.data(), out.data(), c.width, c.height);
      ASSERT_TRUE(
          ad_test::same_bytes(as_mat(out, c.height, c.width),
                              ad_test::reference_nv21_to_bgr(frame.data(), c.width, c.height)))
          << v->name << " " << c.width << "x" << c.height;
    }
  }
}

TEST(NeonKernels, TurnedConversionIsConversionThenRotation) {
  const cv::Size sizes[] = {{2, 2},   {16, 16},  {18, 34},  {34, 18},  {48, 64},
                            {66, 50}, {130, 66}, {642, 34}, {32, 100}, {160, 120}};
  for (const Variant* v : variants()) {
    for (cv::Size s : sizes) {
      PageEndBuffer frame = nv21_frame(s.width, s.height, Pixels::Random, s.area());
      const cv::Mat converted = ad_test::reference_nv21_to_bgr(frame.data(), s.width, s.height);
      for (int rotation : {90, 180, 270, 0, 45}) {
        const cv::Mat expected = ad_test::reference_turn(converted, rotation);
        PageEndBuffer out(expected.total() * 3);
        v->convert_rotate(frame.data(), out.data(), s.width, s.height, rotation);
        EXPECT_TRUE(ad_test::same_bytes(as_mat(out, expected.rows, expected.cols), expected))
            << v->name << " " << s << " rotation " << rotation;
      }
    }
  }
}

// --- area reduction --------------------------------------------------------------------------

struct AreaCase {
  cv::Size frame;  // as stored
  cv::Size dst;
};

const AreaCase kAreaCases[] = {{{64, 48}, {40, 30}},     {{66, 50}, {20, 18}},
                               {{130, 98}, {17, 23}},    {{34, 18}, {11, 7}},
                               {{18, 34}, {5, 9}},       {{250, 240}, {224, 224}},
                               {{642, 482}, {224, 224}}, {{320, 180}, {224, 101}},
                               {{48, 1000}, {3, 224}},   {{1000, 48}, {224, 3}}};

AreaJob job_for(kernels::Pixels pixels, const unsigned char* src, std::ptrdiff_t step,
                cv::Size frame, int rotation, const AreaAxis& columns, const AreaAxis& rows,
                PageEndBuffer& out) {
  AreaJob job;
  job.pixels = pixels;
  job.src = src;
  job.step = step;
  job.width = frame.width;
  job.height = frame.height;
  job.rotation = rotation;
  job.columns = &columns;
  job.rows = &rows;
  job.dst = out.data();
  job.dst_step = std::ptrdiff_t(columns.dst_size) * 3;
  return job;
}

cv::Size upright(cv::Size frame, int rotation) {
  return rotation == 90 || rotation == 270 ? cv::Size(frame.height, frame.width) : frame;
}

// Every case reduces both sides in some orientation; turned, some would enlarge one side,
// which cv::resize does not do by area and the kernels must then decline.
bool planned(cv::Size up, cv::Size dst, AreaAxis& columns, AreaAxis& rows) {
  const bool reduces = dst.width <= up.width && dst.height <= up.height;
  const bool plan = kernels::plan_area(up.width, up.height, dst.width, dst.height, columns, rows);
  EXPECT_EQ(plan, reduces) << up << " to " << dst;
  return plan;
}

TEST(NeonKernels, AreaReductionOfNv21GivesOpenCvBytes) {
  for (const Variant* v : variants()) {
    for (const AreaCase& c : kAreaCases) {
      for (Pixels kind : {Pixels::Random, Pixels::Extreme}) {
        PageEndBuffer frame = nv21_frame(c.frame.width, c.frame.height, kind, c.frame.area());
        const cv::Mat converted =
            ad_test::reference_nv21_to_bgr(frame.data(), c.frame.width, c.frame.height);
        for (int rotation : {0, 90, 180, 270}) {
          const cv::Size up = upright(c.frame, rotation);
          AreaAxis columns, rows;
          if (!planned(up, c.dst, columns, rows)) continue;
          PageEndBuffer out(c.dst.area() * 3);
          v->area(job_for(kernels::Pixels::kNv21, frame.data(), c.frame.width, c.frame, rotation,
                          columns, rows, out));
          EXPECT_TRUE(ad_test::same_bytes(
              as_mat(out, c.dst.height, c.dst.width),
              ad_test::reference_shrink(ad_test::reference_turn(converted, rotation), c.dst)))
              << v->name << " " << c.frame << " to " << c.dst << " rotation " << rotation;
        }
      }
    }
  }
}

// A camera frame as the detector gets it: scales far from 1 on both axes.
TEST(NeonKernels, AreaReductionOfAFullHdNv21FrameGivesOpenCvBytes) {
  const cv::Size frame_size(1920, 1080), dst(224, 224);
  PageEndBuffer frame = nv21_frame(frame_size.width, frame_size.height, Pixels::Random, 3);
  const cv::Mat converted =
      ad_test::reference_nv21_to_bgr(frame.data(), frame_size.width, frame_size.height);
  for (int rotation : {90, 0}) {
    const cv::Mat expected =
        ad_test::reference_shrink(ad_test::reference_turn(converted, rotation), dst);
    const cv::Size up = upright(frame_size, rotation);
    AreaAxis columns, rows;
    ASSERT_TRUE(planned(up, dst, columns, rows));
    for (const Variant* v : variants()) {
      PageEndBuffer out(dst.area() * 3);
      v->area(job_for(kernels::Pixels::kNv21, frame.data(), frame_size.width, frame_size, rotation,
                      columns, rows, out));
      EXPECT_TRUE(ad_test::same_bytes(as_mat(out, dst.height, dst.width), expected))
          << v->name << " rotation " << rotation;
    }
  }
}

TEST(NeonKernels, AreaReductionOfBgrGivesOpenCvBytesAlsoForOddSizesAndWindows) {
  cv::RNG rng(17);
  std::vector<AreaCase> cases(std::begin(kAreaCases), std::end(kAreaCases));
  cases.push_back({{101, 77}, {31, 29}});
  cases.push_back({{257, 33}, {19, 32}});
  for (const Variant* v : variants()) {
    for (const AreaCase& c : cases) {
      // The frame is a window of a larger image, so its rows are further apart than its width.
      cv::Mat whole(c.frame.height + 3, c.frame.width + 5, CV_8UC3);
      rng.fill(whole, cv::RNG::UNIFORM, 0, 256);
      const cv::Mat frame = whole(cv::Rect(cv::Point(2, 1), c.frame));
      for (int rotation : {0, 90, 180, 270}) {
        const cv::Size up = upright(c.frame, rotation);
        AreaAxis columns, rows;
        if (!planned(up, c.dst, columns, rows)) continue;
        PageEndBuffer out(c.dst.area() * 3);
        v->area(job_for(kernels::Pixels::kBgr, frame.data, std::ptrdiff_t(frame.step[0]), c.frame,
                        rotation, columns, rows, out));
        EXPECT_TRUE(ad_test::same_bytes(
            as_mat(out, c.dst.height, c.dst.width),
            ad_test::reference_shrink(ad_test::reference_turn(frame, rotation), c.dst)))
            << v->name << " " << c.frame << " to " << c.dst << " rotation " << rotation;
      }
    }
  }
}

// Sizes for which cv::resize copies, averages whole blocks or enlarges: no plan.
TEST(NeonKernels, PlansOnlyTrueAreaReductions) {
  struct Sizes {
    int src_cols, src_rows, dst_cols, dst_rows;
    bool planned;
  };
  const Sizes table[] = {{224, 224, 224, 224, false}, {448, 448, 224, 224, false},
                         {640, 480, 320, 240, false}, {100, 100, 224, 224, false},
                         {300, 100, 224, 224, false}, {0, 10, 5, 5, false},
                         {10, 10, 0, 5, false},       {448, 449, 224, 224, true},
                         {225, 224, 224, 224, true},  {3000, 4000, 224, 224, true}};
  for (const Sizes& s : table) {
    AreaAxis columns, rows;
    EXPECT_EQ(kernels::plan_area(s.src_cols, s.src_rows, s.dst_cols, s.dst_rows, columns, rows),
              s.planned)
        << s.src_cols << "x" << s.src_rows << " to " << s.dst_cols << "x" << s.dst_rows;
  }
}

}  // namespace

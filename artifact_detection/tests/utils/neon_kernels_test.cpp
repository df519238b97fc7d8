// Every compiled copy of the image kernels this processor runs, against the oracle: random and
// extreme frames of ragged sizes in all four orientations, in and out of page-end buffers.
#include "utils/neon_kernels.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/kernel_cases.h"
#include "support/reference_images.h"

namespace {

using ad_test::PageEndBuffer;
using ad_test::Pixels;
namespace kernels = tqr_arm_neon::kernels;

cv::Mat as_mat(PageEndBuffer& bytes, cv::Size size) { return cv::Mat(size, CV_8UC3, bytes.data()); }

TEST(NeonKernels, ConversionGivesTheReferenceBytes) {
  for (const kernels::Variant* v : kernels::runnable()) {
    for (const auto& [width, height, kind] : ad_test::conversion_cases()) {
      const cv::Size s(width, height);
      PageEndBuffer frame(width, height, kind, width * 131 + height);
      PageEndBuffer out(s.area() * 3);
      v->convert(frame.data(), out.data(), s.width, s.height);
      ASSERT_TRUE(ad_test::same_bytes(
          as_mat(out, s), ad_test::reference_nv21_to_bgr(frame.data(), s.width, s.height)))
          << v->name << " " << s;
    }
  }
}

TEST(NeonKernels, TurnedConversionIsConversionThenRotation) {
  for (const kernels::Variant* v : kernels::runnable()) {
    for (const auto& [width, height] : ad_test::kTurnSizes) {
      const cv::Size s(width, height);
      PageEndBuffer frame(s.width, s.height, Pixels::Random, s.area());
      const cv::Mat converted = ad_test::reference_nv21_to_bgr(frame.data(), s.width, s.height);
      for (int rotation : {90, 180, 270, 0, 45}) {
        const cv::Mat expected = ad_test::reference_turn(converted, rotation);
        PageEndBuffer out(expected.total() * 3);
        v->convert_rotate(frame.data(), out.data(), s.width, s.height, rotation);
        EXPECT_TRUE(ad_test::same_bytes(as_mat(out, expected.size()), expected))
            << v->name << " " << s << " rotation " << rotation;
      }
    }
  }
}

// Turned, some cases would enlarge a side, which cv::resize does not do by area: no plan then.
// B,G,R frames are windows of a larger image, so their rows lie further apart than their width.
TEST(NeonKernels, AreaReductionGivesOpenCvBytes) {
  cv::RNG rng(17);
  for (const auto& [width, height, dst_width, dst_height] : ad_test::kAreaCases) {
    const cv::Size size(width, height), dst(dst_width, dst_height);
    for (int pass = 0; pass < 3; ++pass) {  // NV21 random, NV21 extreme, B,G,R
      const bool nv21 = pass < 2;
      const Pixels kind = pass == 1 ? Pixels::Extreme : Pixels::Random;
      if (nv21 && (size.width % 2 != 0 || size.height % 2 != 0)) continue;
      PageEndBuffer frame(size.width, size.height, kind, size.area());
      cv::Mat bgr(size.height + 3, size.width + 5, CV_8UC3);
      if (!nv21) rng.fill(bgr, cv::RNG::UNIFORM, 0, 256);
      bgr = nv21 ? ad_test::reference_nv21_to_bgr(frame.data(), size.width, size.height)
                 : bgr(cv::Rect(cv::Point(2, 1), size));
      for (int rotation : {0, 90, 180, 270}) {
        const cv::Mat turned = ad_test::reference_turn(bgr, rotation);
        const bool reduces = dst.width <= turned.cols && dst.height <= turned.rows;
        const cv::Mat expected = reduces ? ad_test::reference_shrink(turned, dst) : cv::Mat();
        for (const kernels::Variant* v : kernels::runnable()) {
          PageEndBuffer out(dst.area() * 3);
          EXPECT_EQ(ad_test::run_area(*v, nv21, nv21 ? frame.data() : bgr.data,
                                      nv21 ? size.width : std::ptrdiff_t(bgr.step[0]), size.width,
                                      size.height, rotation, dst.width, dst.height, out.data()),
                    reduces);
          if (reduces) {
            EXPECT_TRUE(ad_test::same_bytes(as_mat(out, dst), expected))
                << v->name << (nv21 ? " NV21 " : " BGR ") << size << " to " << dst << " r"
                << rotation;
          }
        }
      }
    }
  }
}

// Sizes for which cv::resize copies, averages whole blocks or enlarges: no plan.
TEST(NeonKernels, PlansOnlyTrueAreaReductions) {
  const std::tuple<cv::Size, cv::Size, bool> table[] = {
      {{224, 224}, {224, 224}, false}, {{448, 448}, {224, 224}, false},
      {{640, 480}, {320, 240}, false}, {{100, 100}, {224, 224}, false},
      {{300, 100}, {224, 224}, false}, {{0, 10}, {5, 5}, false},
      {{10, 10}, {0, 5}, false},       {{448, 449}, {224, 224}, true},
      {{225, 224}, {224, 224}, true},  {{3000, 4000}, {224, 224}, true}};
  for (const auto& [src, dst, planned] : table) {
    kernels::AreaAxis columns, rows;
    EXPECT_EQ(kernels::plan_area(src.width, src.height, dst.width, dst.height, columns, rows),
              planned)
        << src << " to " << dst;
  }
}

}  // namespace

#include "utils/image_utils.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <string>
#include <vector>

#include "support/frame_buffers.h"
#include "support/log_capture.h"
#include "support/reference_images.h"

namespace {

using ad_test::LogCapture;
using ad_test::PageEndBuffer;
using ad_test::Pixels;
using ad_test::same_bytes;
using Format = artifact_detector::ArtifactDetector::ImageFormat;
using Strings = std::vector<std::string>;
using tqr_arm_neon::nv21_convert_resize_rotate;
using tqr_arm_neon::nv21_convert_rotate;
using tqr_arm_neon::nv21_resize_convert_rotate;
using tqr_arm_neon::resize_nv21_buffer;

// The frame converted by the fast routine, written into a page-end buffer.
cv::Mat converted(PageEndBuffer& nv21, int width, int height) {
  PageEndBuffer out(std::size_t(width) * height * 3);
  EXPECT_EQ(tqr_arm_neon::ics_fconvert_nv21torgb_neon(nv21.data(), out.data(), width, height), 0);
  return cv::Mat(height, width, CV_8UC3, out.data()).clone();
}

// A 4 x 2 frame whose pixel p sits at (p % 4, p / 4); per rotation, the frame pixel at each
// upright position, row by row. Values that do not turn give back the very same memory.
const std::tuple<int, cv::Size, std::array<int, 8>> kTurns[] = {
    {0, {4, 2}, {0, 1, 2, 3, 4, 5, 6, 7}},   {90, {2, 4}, {4, 0, 5, 1, 6, 2, 7, 3}},
    {180, {4, 2}, {7, 6, 5, 4, 3, 2, 1, 0}}, {270, {2, 4}, {3, 7, 2, 6, 1, 5, 0, 4}},
    {360, {4, 2}, {0, 1, 2, 3, 4, 5, 6, 7}}, {-90, {4, 2}, {0, 1, 2, 3, 4, 5, 6, 7}},
    {45, {4, 2}, {0, 1, 2, 3, 4, 5, 6, 7}}};

TEST(Decoding, GivesTheUprightPixelsOfEveryFormat) {
  std::vector<cv::Vec3b> pixels;  // B,G,R of frame pixel p
  std::vector<uchar> bgr, rgba;
  for (int p = 0; p < 8; ++p) {
    pixels.emplace_back(30 * p + 1, 30 * p + 2, 30 * p + 3);
    bgr.insert(bgr.end(), {pixels[p][0], pixels[p][1], pixels[p][2]});
    rgba.insert(rgba.end(), {pixels[p][2], pixels[p][1], pixels[p][0], uchar(p * 40)});
  }
  // Luma below 16 counts as 16; the second V,U pair (200, 60) tints the right half.
  const std::vector<uchar> nv21 = {16, 235, 0, 255, 100, 50, 200, 128, 128, 128, 200, 60};
  const std::vector<cv::Vec3b> nv21_pixels = {{0, 0, 0},       {255, 255, 255}, {0, 0, 115},
                                              {141, 246, 255}, {98, 98, 98},    {40, 40, 40},
                                              {77, 182, 255},  {0, 98, 245}};
  // Per format: bytes, pixels, the name it logs, whether the image is a view of the bytes (the
  // others own their pixels). Every unnamed format is B,G,R.
  const std::tuple<Format, std::vector<uchar>, std::vector<cv::Vec3b>, const char*, bool> cases[] =
      {{Format::BGR, bgr, pixels, "BGR", true},
       {Format(7), bgr, pixels, "BGR", true},
       {Format::RGBA, rgba, pixels, "RGBA", false},
       {Format::NV21, nv21, nv21_pixels, "NV21", false}};
  for (const auto& [format, bytes, frame_pixels, name, view] : cases) {
    for (const auto& [rotation, size, from] : kTurns) {
      SCOPED_TRACE(std::string(name) + " " + std::to_string(rotation));
      std::vector<uchar> buffer = bytes;
      LogCapture capture;
      const cv::Mat decoded =
          get_bgr_mat_from_buffer(reinterpret_cast<char*>(buffer.data()), 4, 2, format);
      EXPECT_EQ(capture.info_messages(),
                Strings{std::string("TQ Debug: Converting image format - ") + name});
      EXPECT_EQ(decoded.data == buffer.data(), view);
      if (!view) std::fill(buffer.begin(), buffer.end(), 0);
      const cv::Mat upright = rotate_image(decoded, rotation);
      cv::Mat expected(size, CV_8UC3);
      for (int i = 0; i < 8; ++i)
        expected.at<cv::Vec3b>(i / size.width, i % size.width) = frame_pixels[from[i]];
      EXPECT_TRUE(same_bytes(upright, expected));
      const bool turns = rotation == 90 || rotation == 180 || rotation == 270;
      EXPECT_EQ(upright.data == decoded.data, !turns);
    }
  }
}

// The message comes first; then the conversion refuses a plane of height + height / 2 rows.
TEST(Decoding, OddNv21HeightIsRefused) {
  std::vector<char> buffer(6 * 10);
  LogCapture capture;
  EXPECT_THROW(get_bgr_mat_from_buffer(buffer.data(), 6, 7, Format::NV21), cv::Exception);
  EXPECT_EQ(capture.info_messages(), Strings{"TQ Debug: Converting image format - NV21"});
}

// Width 20: columns 0-15 take the vector path, 16-19 the scalar path; both give these bytes.
TEST(Nv21, ConverterWorkedValuesInVectorAndScalarColumns) {
  const std::tuple<int, int, int, cv::Vec3b> table[] = {
      {128, 128, 128, {128, 128, 128}}, {100, 128, 200, {100, 48, 201}},  // truncated
      {255, 128, 255, {255, 164, 255}}, {0, 0, 128, {0, 44, 0}},          // B clamps at 0
      {0, 0, 0, {0, 135, 0}},           {255, 255, 255, {255, 120, 255}},
      {255, 0, 255, {28, 208, 255}},    {0, 255, 0, {225, 47, 0}}};
  for (const auto& [y, u, v, want] : table) {
    PageEndBuffer frame(20 * 3);
    for (int i = 0; i < 60; ++i) frame[i] = i < 40 ? y : i % 2 == 0 ? v : u;
    const cv::Mat bgr = converted(frame, 20, 2);
    EXPECT_TRUE(same_bytes(bgr, cv::Mat(2, 20, CV_8UC3, cv::Scalar(want[0], want[1], want[2]))))
        << y << " " << u << " " << v;
  }
}

// Luma from the source sample at (x * srcW / dstW, y * srcH / dstH) rounded down; each 2x2
// block's chroma the truncated mean of the pairs under its four pixels. A 4 x 4 frame with luma
// 0 to 15 and V,U pairs (10,20) (11,21) / (13,22) (14,24).
TEST(Nv21, ResizeTakesNearestLumaAndBlockMeanChroma) {
  std::vector<uchar> frame(16);
  for (uchar i = 0; i < 16; ++i) frame[i] = i;
  frame.insert(frame.end(), {10, 20, 11, 21, 13, 22, 14, 24});
  const std::pair<cv::Size, std::vector<uchar>> cases[] = {
      {{2, 2}, {0, 2, 8, 10, 12, 21}},
      {{2, 4}, {0, 2, 4, 6, 8, 10, 12, 14, 10, 20, 13, 23}},
      {{4, 4}, frame}};
  for (const auto& [d, expected] : cases) {
    PageEndBuffer src(frame.size()), dst(expected.size());
    std::copy(frame.begin(), frame.end(), src.data());
    EXPECT_EQ(resize_nv21_buffer(src.chars(), dst.chars(), 4, 4, d.width, d.height), 1);
    EXPECT_EQ(std::vector<uchar>(dst.data(), dst.data() + dst.size()), expected) << d;
  }
}

// A frame without pixels (zero bytes before an inaccessible page) is never read, and a target
// without pixels never written; the composite refuses to sample nothing, as cv::resize does.
TEST(Nv21, NothingToSampleOrToWrite) {
  PageEndBuffer dst(8);
  std::fill_n(dst.data(), 8, 3);
  EXPECT_EQ(tqr_arm_neon::ics_fconvert_nv21torgb_neon(nullptr, dst.data(), 4, 0), 0);  // no rows
  const std::pair<cv::Size, cv::Size> cases[] = {
      {{0, 0}, {2, 2}}, {{0, 4}, {2, 2}}, {{4, 0}, {2, 2}}, {{8, 8}, {0, 4}}};
  for (const auto& [s, d] : cases) {
    PageEndBuffer frame(s.width, s.height, Pixels::Random, 1);
    EXPECT_EQ(resize_nv21_buffer(frame.chars(), dst.chars(), s.width, s.height, d.width, d.height),
              1);
    if (!d.empty()) {
      EXPECT_THROW(
          nv21_resize_convert_rotate(frame.chars(), s.width, s.height, d.width, d.height, 0),
          cv::Exception);
    }
  }
  EXPECT_EQ(std::count(dst.data(), dst.data() + 8, 3), 8);
}

// Each composite gives the image of its steps, turned by rotate_image.
TEST(Nv21, CompositesAreTheirStepsInOrder) {
  PageEndBuffer f(64, 48, Pixels::Random, 1), small(20 * 12 * 3 / 2),
      ragged(34, 10, Pixels::Random, 2);
  resize_nv21_buffer(f.chars(), small.chars(), 64, 48, 20, 12);
  const auto bilinear = [&](cv::Size size) {
    cv::Mat out;
    cv::resize(converted(f, 64, 48), out, size, 0, 0, cv::INTER_LINEAR);
    return out;
  };
  for (int r : {0, 90, 180, 270, 45, -90}) {
    const auto same = [r](const cv::Mat& got, const cv::Mat& steps) {
      return same_bytes(got, rotate_image(steps, r));
    };
    EXPECT_TRUE(same(nv21_convert_rotate(ragged.chars(), 34, 10, r), converted(ragged, 34, 10)));
    EXPECT_TRUE(
        same(nv21_resize_convert_rotate(f.chars(), 64, 48, 20, 12, r), converted(small, 20, 12)));
    for (cv::Size s : {cv::Size(20, 12), cv::Size(64, 24), cv::Size(32, 48), cv::Size(64, 48)}) {
      EXPECT_TRUE(
          same(nv21_convert_resize_rotate(f.chars(), 64, 48, s.width, s.height, r), bilinear(s)));
    }
  }
}

// Where cv::resize would copy, average whole blocks or enlarge, or the input is not what the
// kernels take, nothing is made and the caller's image stays as it was.
TEST(Shrink, DeclinesWhatTheAreaKernelsDoNotDo) {
  PageEndBuffer frame(64, 48, Pixels::Random, 1);
  const cv::Mat bgr(48, 64, CV_8UC3, cv::Scalar(1, 2, 3)), untouched(3, 3, CV_8UC1, cv::Scalar(9));
  const auto bgr_to = [&](cv::Mat image, int r, cv::Size s) {
    return [=](cv::Mat& out) { return image_utils::shrink_upright(image, r, s, out); };
  };
  const auto nv21_to = [&](const char* p, int w, int h, cv::Size s) {
    return [=](cv::Mat& out) { return image_utils::shrink_upright_nv21(p, w, h, 0, s, out); };
  };
  const std::pair<const char*, std::function<bool(cv::Mat&)>> cases[] = {
      {"equal size", bgr_to(bgr, 0, {64, 48})},
      {"whole factors", nv21_to(frame.chars(), 64, 48, {32, 24})},
      {"enlargement once turned", bgr_to(bgr, 90, {60, 30})},
      {"odd NV21 height", nv21_to(frame.chars(), 64, 47, {40, 30})},
      {"odd NV21 width", nv21_to(frame.chars(), 63, 48, {40, 30})},
      {"no NV21 frame", nv21_to(nullptr, 64, 48, {40, 30})},
      {"four channels", bgr_to(cv::Mat(48, 64, CV_8UC4), 0, {40, 30})},
      {"empty", bgr_to(cv::Mat(), 0, {40, 30})}};
  for (const auto& [name, call] : cases) {
    cv::Mat out = untouched;
    EXPECT_FALSE(call(out)) << name;
    EXPECT_EQ(out.data, untouched.data) << name;
  }
}

// Fully saturated, so that the hue survives the way back.
cv::Vec3b pixel_with_hue(int hue) {
  cv::Mat bgr;
  cv::cvtColor(cv::Mat(1, 1, CV_8UC3, cv::Scalar(hue, 255, 255)), bgr, cv::COLOR_HSV2BGR);
  return bgr.at<cv::Vec3b>(0, 0);
}

// Runs of (hue, pixel count) over two rows; hue -1: grey noise, whose hue is 0 however bright.
TEST(SimilarColor, ComparesEveryHueWithTheTruncatedMean) {
  // clang-format off
  const std::tuple<std::vector<std::pair<int, int>>, bool, int, int, const char*> cases[] = {
      {{{60, 10}},                  true,  50, 70, "60"},
      {{{70, 1}, {59, 9}},          true,  50, 70, "60.1"},   // upper bound included
      {{{71, 1}, {60, 99}},         false, 50, 70, "60.11"},  // above it
      {{{50, 1}, {62, 9}},          true,  50, 70, "60.8"},   // lower bound included
      {{{49, 1}, {62, 9}},          false, 50, 70, "60.7"},   // below it
      {{{70, 1}, {59, 8}, {57, 1}}, false, 49, 69, "59.9"},   // mean truncated, not rounded
      {{{2, 8}, {0, 2}},            true,  -9, 11, "1.6"},    // bounds not clamped
      {{{0, 5}, {179, 5}},          false, 79, 99, "89.5"},   // no wrap-around at red
      {{{-1, 120}},                 true, -10, 10, "0"}};
  // clang-format on
  cv::RNG rng(3);
  for (const auto& [runs, similar, lower, upper, mean] : cases) {
    std::vector<cv::Vec3b> pixels;
    for (auto [hue, count] : runs) {
      for (int i = 0; i < count; ++i) {
        const uchar grey = uchar(rng.uniform(0, 256));
        pixels.push_back(hue < 0 ? cv::Vec3b(grey, grey, grey) : pixel_with_hue(hue));
      }
    }
    LogCapture capture;
    EXPECT_EQ(checkSimilarColor(cv::Mat(pixels, true).reshape(3, 2)), similar) << mean;
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(capture.info_messages()[0], "lower bound: " + std::to_string(lower) +
                                              " upper bound: " + std::to_string(upper) +
                                              "meanVal[0] : " + mean);
  }
}

TEST(MaskBuffer, HoldsExactlyTheMaskBytes) {
  static uchar memory[5];
  const cv::Mat whole = (cv::Mat_<uchar>(3, 4) << 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12);
  const std::pair<cv::Mat, std::string> cases[] = {
      {(cv::Mat_<uchar>(2, 3) << 1, 2, 3, 4, 5, 6), "\x01\x02\x03\x04\x05\x06"},
      {whole(cv::Rect(1, 1, 2, 2)), "\x06\x07\x0a\x0b"},                  // row padding skipped
      {cv::Mat(2, 2, CV_8UC3, cv::Scalar(1, 2, 3)), "\x01\x02\x01\x02"},  // cols bytes per row
      {cv::Mat(), ""},
      {cv::Mat(0, 5, CV_8UC1, memory), ""}};  // no rows over memory
  for (const auto& [mask, expected] : cases) {
    std::string buffer = "stale content";
    LogCapture capture;
    fill_mask_buffer(buffer, mask);
    EXPECT_EQ(buffer, expected);
    EXPECT_EQ(capture.info_messages(),
              expected.empty()
                  ? Strings{"TQ Debug: Cannot fill mask buffer as given mask is empty."}
                  : Strings{});
  }
}

}  // namespace

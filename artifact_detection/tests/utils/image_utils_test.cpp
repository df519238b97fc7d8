#include "utils/image_utils.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "support/frame_buffers.h"
#include "support/log_capture.h"
#include "support/reference_images.h"

namespace {

using ad_test::LogCapture;
using ad_test::PageEndBuffer;
using ad_test::Pixels;
using Format = artifact_detector::ArtifactDetector::ImageFormat;
using Strings = std::vector<std::string>;

// Readable case names, made from each parameter's PrintTo.
struct ParamName {
  template <typename T>
  std::string operator()(const ::testing::TestParamInfo<T>& info) const {
    std::string name = ::testing::PrintToString(info.param);
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !std::isalnum(c & 0xFF); }, '_');
    return name;
  }
};

bool same_pixels(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

// --- NV21 to BGR ---------------------------------------------------------------------------

struct Bgr {
  int b, g, r;
  bool operator==(const Bgr& o) const { return b == o.b && g == o.g && r == o.r; }
};
std::ostream& operator<<(std::ostream& os, const Bgr& p) {
  return os << "(" << p.b << "," << p.g << "," << p.r << ")";
}

template <typename T>
int truncate_to_byte(T value) {
  return value <= 0 ? 0 : std::min(255, static_cast<int>(value));
}

// One pixel computed in T from the single-precision constants, every product rounded to T
// before it is summed. In float that is the 16-column blocks' arithmetic; in double every
// step here is exact.
template <typename T>
Bgr model(int y, int u, int v) {
  const T du = T(u) - 128, dv = T(v) - 128;
  const T r_term = T(1.403f) * dv, b_term = T(1.773f) * du;
  const T g_u = T(0.344f) * du, g_v = T(0.714f) * dv;
  const T r = y + r_term, b = y + b_term, g_partial = y - g_u;
  const T g = g_partial - g_v;
  return {truncate_to_byte(b), truncate_to_byte(g), truncate_to_byte(r)};
}

bool within_one(const Bgr& a, const Bgr& b) {
  return std::abs(a.b - b.b) <= 1 && std::abs(a.g - b.g) <= 1 && std::abs(a.r - b.r) <= 1;
}

// An NV21 frame in a page-end buffer, so that the routines fault on any over-read.
struct Nv21Frame {
  int width, height;
  PageEndBuffer bytes;
  Nv21Frame(int w, int h, Pixels kind = Pixels::Random, std::uint64_t seed = 1)
      : width(w), height(h), bytes(std::size_t(w) * h * 3 / 2) {
    ad_test::fill_nv21(bytes, w, h, kind, seed);
  }
  unsigned char& y_at(int x, int y) { return bytes[std::size_t(y) * width + x]; }
  unsigned char& v_at(int x, int y) { return bytes[chroma(x, y)]; }
  unsigned char& u_at(int x, int y) { return bytes[chroma(x, y) + 1]; }
  std::size_t chroma(int x, int y) const {
    return std::size_t(width) * height + std::size_t(y / 2) * width + (x & ~1);
  }
  cv::Mat converted() {  // through a page-end buffer too, for over-writes
    PageEndBuffer out(std::size_t(width) * height * 3);
    EXPECT_EQ(tqr_arm_neon::ics_fconvert_nv21torgb_neon(bytes.data(), out.data(), width, height),
              0);
    return cv::Mat(height, width, CV_8UC3, out.data()).clone();
  }
};

struct WorkedPixel {
  int y, u, v;
  Bgr expected;
};
void PrintTo(const WorkedPixel& p, std::ostream* os) { *os << p.y << "_" << p.u << "_" << p.v; }

class ConverterWorkedValue : public ::testing::TestWithParam<WorkedPixel> {};

// Width 20: columns 0-15 take the vector path, 16-19 the scalar path; both must give these.
TEST_P(ConverterWorkedValue, SameBytesInVectorAndScalarColumns) {
  const WorkedPixel p = GetParam();
  Nv21Frame frame(20, 2);
  for (int x = 0; x < 20; ++x) {
    frame.y_at(x, 0) = frame.y_at(x, 1) = p.y;
    frame.v_at(x, 0) = p.v;
    frame.u_at(x, 0) = p.u;
  }
  const cv::Mat bgr = frame.converted();
  for (auto it = bgr.begin<cv::Vec3b>(); it != bgr.end<cv::Vec3b>(); ++it) {
    EXPECT_EQ((Bgr{(*it)[0], (*it)[1], (*it)[2]}), p.expected) << it.pos();
  }
}

INSTANTIATE_TEST_SUITE_P(Table, ConverterWorkedValue,
                         ::testing::Values(WorkedPixel{128, 128, 128, {128, 128, 128}},
                                           WorkedPixel{100, 128, 200, {100, 48, 201}},  // truncated
                                           WorkedPixel{255, 128, 255, {255, 164, 255}},  // R=255
                                           WorkedPixel{0, 0, 128, {0, 44, 0}},  // B clamps at 0
                                           WorkedPixel{0, 0, 0, {0, 135, 0}},
                                           WorkedPixel{255, 255, 255, {255, 120, 255}},
                                           WorkedPixel{255, 0, 255, {28, 208, 255}},
                                           WorkedPixel{0, 255, 0, {225, 47, 0}}),
                         ParamName());

struct FrameCase {
  int width, height;
  Pixels kind;
};
void PrintTo(const FrameCase& c, std::ostream* os) {
  static const char* kNames[] = {"Random", "Extreme", "ChromaSweep"};
  *os << c.width << "x" << c.height << kNames[int(c.kind)];
}

std::vector<FrameCase> frame_cases() {
  std::vector<FrameCase> cases;
  for (int w : {2,  4,  6,  8,  10, 12, 14, 16, 18,  20,  22,  30,  32,
                34, 46, 48, 50, 62, 64, 66, 98, 126, 128, 130, 254, 642}) {
    cases.push_back({w, 6, Pixels::Random});
    cases.push_back({w, 2, Pixels::Extreme});
  }
  cases.push_back({1920, 1080, Pixels::Random});
  cases.push_back({16, 16384, Pixels::ChromaSweep});  // every pair through the vector path
  cases.push_back({8, 32768, Pixels::ChromaSweep});   // every pair through the scalar path
  return cases;
}

class ConverterFrame : public ::testing::TestWithParam<FrameCase> {};

TEST_P(ConverterFrame, MatchesThePerPixelModels) {
  const FrameCase c = GetParam();
  Nv21Frame frame(c.width, c.height, c.kind, 0xC0FFEE + c.width * 31 + c.height);
  const cv::Mat bgr = frame.converted();
  const int vector_columns = c.width / 16 * 16;
  int failures = 0;
  for (int y = 0; y < c.height && failures < 10; ++y) {
    for (int x = 0; x < c.width && failures < 10; ++x) {
      const int Y = frame.y_at(x, y), U = frame.u_at(x, y), V = frame.v_at(x, y);
      const cv::Vec3b px = bgr.at<cv::Vec3b>(y, x);
      const Bgr got{px[0], px[1], px[2]}, exact = model<double>(Y, U, V);
      const Bgr want = x < vector_columns ? model<float>(Y, U, V) : exact;
      if (!(got == want) || !within_one(got, exact)) {
        ++failures;
        ADD_FAILURE() << "pixel (" << x << "," << y << ") YUV " << Y << "," << U << "," << V
                      << ": got " << got << ", expected " << want << ", exact " << exact;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, ConverterFrame, ::testing::ValuesIn(frame_cases()), ParamName());

TEST(Converter, NoRowsWritesNothing) {
  PageEndBuffer bgr(16);
  bgr.fill(7);
  EXPECT_EQ(tqr_arm_neon::ics_fconvert_nv21torgb_neon(nullptr, bgr.data(), 4, 0), 0);
  EXPECT_EQ(std::count(bgr.data(), bgr.data() + 16, 7), 16);
}

// --- NV21 downscaler -----------------------------------------------------------------------

class ResizeEqualSize : public ::testing::TestWithParam<cv::Size> {};

TEST_P(ResizeEqualSize, ReproducesTheFrame) {
  const cv::Size s = GetParam();
  Nv21Frame src(s.width, s.height), dst(s.width, s.height, Pixels::Extreme);
  EXPECT_EQ(tqr_arm_neon::resize_nv21_buffer(src.bytes.chars(), dst.bytes.chars(), s.width,
                                             s.height, s.width, s.height),
            1);
  EXPECT_EQ(std::memcmp(src.bytes.data(), dst.bytes.data(), dst.bytes.size()), 0);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ResizeEqualSize,
                         ::testing::Values(cv::Size(2, 2), cv::Size(8, 8), cv::Size(18, 6),
                                           cv::Size(642, 10), cv::Size(640, 480)),
                         ParamName());

struct ResizeCase {
  cv::Size src, dst;
};
void PrintTo(const ResizeCase& c, std::ostream* os) { *os << c.src << "to" << c.dst; }

class ResizeSampling : public ::testing::TestWithParam<ResizeCase> {};

// Luma from source (x * srcW / dstW, y * srcH / dstH) rounded down; each 2x2 block's chroma
// the truncated mean of the pairs under its four pixels. (These sizes' single-precision
// scales round the same way as the exact ratios.)
TEST_P(ResizeSampling, NearestLumaAndBlockMeanChroma) {
  const cv::Size s = GetParam().src, d = GetParam().dst;
  Nv21Frame src(s.width, s.height, Pixels::Random, 5), dst(d.width, d.height);
  tqr_arm_neon::resize_nv21_buffer(src.bytes.chars(), dst.bytes.chars(), s.width, s.height, d.width,
                                   d.height);
  for (int by = 0; by < d.height; by += 2) {
    for (int bx = 0; bx < d.width; bx += 2) {
      int v = 0, u = 0;
      for (int y : {by, by + 1}) {
        for (int x : {bx, bx + 1}) {
          const int sx = x * s.width / d.width, sy = y * s.height / d.height;
          EXPECT_EQ(dst.y_at(x, y), src.y_at(sx, sy)) << x << "," << y;
          v += src.v_at(sx, sy);
          u += src.u_at(sx, sy);
        }
      }
      EXPECT_EQ(dst.v_at(bx, by), v / 4) << bx << "," << by;
      EXPECT_EQ(dst.u_at(bx, by), u / 4) << bx << "," << by;
    }
  }
}

// 8x8 to 4x4 takes luma from even source rows and columns 0, 2, 4, 6.
INSTANTIATE_TEST_SUITE_P(Sizes, ResizeSampling,
                         ::testing::Values(ResizeCase{{8, 8}, {4, 4}},
                                           ResizeCase{{64, 48}, {20, 12}},
                                           ResizeCase{{48, 64}, {20, 20}}),
                         ParamName());

TEST(Resize, EmptyDestinationWritesNothing) {
  Nv21Frame src(8, 8);
  PageEndBuffer dst(8);
  dst.fill(3);
  EXPECT_EQ(tqr_arm_neon::resize_nv21_buffer(src.bytes.chars(), dst.chars(), 8, 8, 0, 4), 1);
  EXPECT_EQ(std::count(dst.data(), dst.data() + 8, 3), 8);
}

TEST(Resize, FrameWithoutPixelsIsNeverRead) {
  // The frame's zero bytes end where an inaccessible page begins: any read faults.
  PageEndBuffer empty(0);
  PageEndBuffer dst(6);
  dst.fill(3);
  for (const cv::Size frame : {cv::Size(0, 0), cv::Size(0, 4), cv::Size(4, 0)}) {
    EXPECT_EQ(tqr_arm_neon::resize_nv21_buffer(empty.chars(), dst.chars(), frame.width,
                                               frame.height, 2, 2),
              1);
    EXPECT_EQ(std::count(dst.data(), dst.data() + 6, 3), 6);
    EXPECT_THROW(
        tqr_arm_neon::nv21_resize_convert_rotate(empty.chars(), frame.width, frame.height, 2, 2, 0),
        cv::Exception);
  }
}

// --- Composite NV21 routines ---------------------------------------------------------------

class Composite : public ::testing::TestWithParam<int> {};

TEST_P(Composite, ConvertRotateIsConversionThenRotation) {
  Nv21Frame frame(34, 10);
  EXPECT_TRUE(
      same_pixels(tqr_arm_neon::nv21_convert_rotate(frame.bytes.chars(), 34, 10, GetParam()),
                  rotate_image(frame.converted(), GetParam())));
}

TEST_P(Composite, ResizeFirstConvertsTheDownscaledFrame) {
  Nv21Frame frame(64, 48), small(20, 12);
  tqr_arm_neon::resize_nv21_buffer(frame.bytes.chars(), small.bytes.chars(), 64, 48, 20, 12);
  EXPECT_TRUE(same_pixels(
      tqr_arm_neon::nv21_resize_convert_rotate(frame.bytes.chars(), 64, 48, 20, 12, GetParam()),
      rotate_image(small.converted(), GetParam())));
}

TEST_P(Composite, ConvertFirstResizesBilinearlyOnlyWhenTheSizeChanges) {
  Nv21Frame frame(64, 48);
  cv::Mat resized;
  cv::resize(frame.converted(), resized, cv::Size(20, 12), 0, 0, cv::INTER_LINEAR);
  EXPECT_TRUE(same_pixels(
      tqr_arm_neon::nv21_convert_resize_rotate(frame.bytes.chars(), 64, 48, 20, 12, GetParam()),
      rotate_image(resized, GetParam())));
  EXPECT_TRUE(same_pixels(
      tqr_arm_neon::nv21_convert_resize_rotate(frame.bytes.chars(), 64, 48, 64, 48, GetParam()),
      rotate_image(frame.converted(), GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Rotations, Composite, ::testing::Values(0, 90, 180, 270, 45, -90),
                         ParamName());

// --- Buffer decoding and rotation ----------------------------------------------------------

TEST(BufferDecoding, BgrIsAViewOfTheCallersBuffer) {
  for (int format : {1, 7}) {
    LogCapture capture;
    std::vector<char> buffer(4 * 3 * 3, 1);
    const cv::Mat image = get_bgr_mat_from_buffer(buffer.data(), 4, 3, Format(format));
    EXPECT_EQ(image.data, reinterpret_cast<uchar*>(buffer.data()));
    EXPECT_EQ(image.type(), CV_8UC3);
    EXPECT_EQ(image.size(), cv::Size(4, 3));
    buffer[5] = 42;
    EXPECT_EQ(image.at<cv::Vec3b>(0, 1)[2], 42);
    EXPECT_EQ(capture.info_messages(), Strings{"TQ Debug: Converting image format - BGR"});
  }
}

TEST(BufferDecoding, RgbaResultOwnsItsPixelsAndDropsAlpha) {
  LogCapture capture;
  auto buffer = std::make_unique<std::vector<char>>(
      std::vector<char>{10, 20, 30, 0, 40, 50, 60, 127, 70, 80, 90, char(255), 1, 2, 3, 9});
  const cv::Mat image = get_bgr_mat_from_buffer(buffer->data(), 2, 2, Format::RGBA);
  buffer.reset();  // the image must not need the buffer any more
  const cv::Mat expected = (cv::Mat_<cv::Vec3b>(2, 2) << cv::Vec3b(30, 20, 10),
                            cv::Vec3b(60, 50, 40), cv::Vec3b(90, 80, 70), cv::Vec3b(3, 2, 1));
  EXPECT_TRUE(same_pixels(image, expected));
  EXPECT_EQ(capture.info_messages(), Strings{"TQ Debug: Converting image format - RGBA"});
}

TEST(BufferDecoding, Nv21ResultOwnsItsPixels) {
  LogCapture capture;
  auto buffer = std::make_unique<std::vector<char>>(6 * 4 * 3 / 2, char(128));
  const cv::Mat image = get_bgr_mat_from_buffer(buffer->data(), 6, 4, Format::NV21);
  buffer.reset();
  EXPECT_EQ(image.type(), CV_8UC3);
  EXPECT_EQ(image.size(), cv::Size(6, 4));
  EXPECT_EQ(cv::sum(image)[0], cv::sum(image)[1]);  // grey in, grey out, still readable
  EXPECT_EQ(capture.info_messages(), Strings{"TQ Debug: Converting image format - NV21"});
}

TEST(BufferDecoding, OddNv21HeightViewsTruncatedChromaRows) {
  std::vector<char> buffer(6 * 10);
  const cv::Mat view = image_utils::view_buffer(buffer.data(), 6, 7, Format::NV21);
  EXPECT_EQ(view.rows, 7 + 3);
  EXPECT_EQ(view.data, reinterpret_cast<uchar*>(buffer.data()));
  LogCapture capture;  // the message comes first; the conversion then refuses the odd plane
  EXPECT_THROW(get_bgr_mat_from_buffer(buffer.data(), 6, 7, Format::NV21), cv::Exception);
  EXPECT_EQ(capture.info_messages(), Strings{"TQ Debug: Converting image format - NV21"});
}

TEST(Rotation, NonRotatingValuesReturnTheSameMemory) {
  for (int rotation : {0, 360, -90, 45}) {
    cv::Mat image(480, 640, CV_8UC3);
    const uchar* pixels = image.data;
    const cv::Mat result = rotate_image(image, rotation);
    EXPECT_EQ(result.data, pixels) << rotation;
    EXPECT_EQ(result.size(), image.size());
  }
}

// Where output pixel `o` of a clockwise turn comes from in the `s`-sized input.
cv::Point from_quarter_turn(cv::Point o, cv::Size s) { return {o.y, s.height - 1 - o.x}; }
cv::Point from_half_turn(cv::Point o, cv::Size s) {
  return {s.width - 1 - o.x, s.height - 1 - o.y};
}
cv::Point from_three_quarter_turn(cv::Point o, cv::Size s) { return {s.width - 1 - o.y, o.x}; }

struct RotationCase {
  int rotation;
  cv::Size size;  // of a 640 x 480 input
  cv::Point (*source)(cv::Point out, cv::Size in);
};
void PrintTo(const RotationCase& c, std::ostream* os) { *os << c.rotation; }

class Rotation : public ::testing::TestWithParam<RotationCase> {};

TEST_P(Rotation, TurnsClockwiseIntoANewImage) {
  cv::Mat image(480, 640, CV_32SC1);
  for (int y = 0; y < image.rows; ++y) {
    for (int x = 0; x < image.cols; ++x) image.at<int>(y, x) = y * 640 + x;
  }
  const cv::Mat result = rotate_image(image, GetParam().rotation);
  ASSERT_EQ(result.size(), GetParam().size);
  EXPECT_NE(result.data, image.data);
  for (cv::Point out : {cv::Point(0, 0), cv::Point(5, 9), cv::Point(result.cols - 1, 3)}) {
    EXPECT_EQ(result.at<int>(out), image.at<int>(GetParam().source(out, image.size()))) << out;
  }
}

INSTANTIATE_TEST_SUITE_P(Table, Rotation,
                         ::testing::Values(RotationCase{90, {480, 640}, from_quarter_turn},
                                           RotationCase{180, {640, 480}, from_half_turn},
                                           RotationCase{270, {480, 640}, from_three_quarter_turn}),
                         ParamName());

// --- Shrinking to the network's size ---------------------------------------------------------

struct ShrinkCase {
  cv::Size frame, target;
  int rotation;
};
void PrintTo(const ShrinkCase& c, std::ostream* os) {
  *os << c.frame.width << "x" << c.frame.height << "to" << c.target.width << "x"
      << c.target.height << "r" << c.rotation;
}

std::vector<ShrinkCase> shrink_cases() {
  std::vector<ShrinkCase> cases;
  for (int rotation : {0, 90, 180, 270, 45, -90}) {
    cases.push_back({{64, 48}, {40, 30}, rotation});
    cases.push_back({{98, 66}, {31, 23}, rotation});
  }
  cases.push_back({{1920, 1080}, {224, 224}, 90});
  cases.push_back({{642, 482}, {224, 224}, 270});
  return cases;
}

class Shrink : public ::testing::TestWithParam<ShrinkCase> {};

// One pass gives the bytes of converting, turning with rotate_image and resizing with
// INTER_AREA, for NV21 and for B,G,R frames.
TEST_P(Shrink, GivesTheBytesOfTurningThenResizing) {
  const ShrinkCase c = GetParam();
  Nv21Frame frame(c.frame.width, c.frame.height, Pixels::Random, c.frame.area());
  const cv::Mat converted =
      ad_test::reference_nv21_to_bgr(frame.bytes.data(), c.frame.width, c.frame.height);
  const cv::Mat expected =
      ad_test::reference_shrink(ad_test::reference_turn(converted, c.rotation), c.target);
  cv::Mat from_nv21, from_bgr;
  ASSERT_TRUE(image_utils::shrink_upright_nv21(frame.bytes.chars(), c.frame.width, c.frame.height,
                                               c.rotation, c.target, from_nv21));
  ASSERT_TRUE(image_utils::shrink_upright(converted, c.rotation, c.target, from_bgr));
  EXPECT_TRUE(ad_test::same_bytes(from_nv21, expected));
  EXPECT_TRUE(ad_test::same_bytes(from_bgr, expected));
  EXPECT_EQ(image_utils::upright_size(c.frame.width, c.frame.height, c.rotation),
            rotate_image(converted, c.rotation).size());
}

INSTANTIATE_TEST_SUITE_P(Table, Shrink, ::testing::ValuesIn(shrink_cases()), ParamName());

// Where cv::resize would copy, average whole blocks or enlarge, or the input is not what the
// kernels take, nothing is made and the caller goes the long way.
TEST(Shrink, DeclinesWhatTheAreaKernelsDoNotDo) {
  Nv21Frame frame(64, 48);
  const cv::Mat bgr(48, 64, CV_8UC3, cv::Scalar(1, 2, 3));
  const cv::Mat untouched(3, 3, CV_8UC1, cv::Scalar(9));
  const struct {
    const char* name;
    std::function<bool(cv::Mat&)> call;
  } cases[] = {
      {"equal size", [&](cv::Mat& out) {
         return image_utils::shrink_upright(bgr, 0, {64, 48}, out);
       }},
      {"whole factors", [&](cv::Mat& out) {
         return image_utils::shrink_upright_nv21(frame.bytes.chars(), 64, 48, 0, {32, 24}, out);
       }},
      {"enlargement once turned", [&](cv::Mat& out) {
         return image_utils::shrink_upright(bgr, 90, {60, 30}, out);
       }},
      {"odd NV21 height", [&](cv::Mat& out) {
         return image_utils::shrink_upright_nv21(frame.bytes.chars(), 64, 47, 0, {40, 30}, out);
       }},
      {"four channels", [&](cv::Mat& out) {
         return image_utils::shrink_upright(cv::Mat(48, 64, CV_8UC4), 0, {40, 30}, out);
       }},
      {"empty", [&](cv::Mat& out) {
         return image_utils::shrink_upright(cv::Mat(), 0, {40, 30}, out);
       }},
  };
  for (const auto& c : cases) {
    cv::Mat out = untouched;
    EXPECT_FALSE(c.call(out)) << c.name;
    EXPECT_EQ(out.data, untouched.data) << c.name;
  }
}

// --- Uniform-colour check ------------------------------------------------------------------

// A BGR pixel of each 8-bit hue, found among fully saturated colours.
cv::Vec3b pixel_with_hue(int hue) {
  static const std::map<int, cv::Vec3b> table = [] {
    cv::Mat candidates(6, 256, CV_8UC3), hsv;
    for (int i = 0; i < 256; ++i) {
      const uchar c = uchar(i);
      const cv::Vec3b sector[6] = {{0, c, 255}, {0, 255, c}, {c, 255, 0},
                                   {255, c, 0}, {255, 0, c}, {c, 0, 255}};
      for (int s = 0; s < 6; ++s) candidates.at<cv::Vec3b>(s, i) = sector[s];
    }
    cv::cvtColor(candidates, hsv, cv::COLOR_BGR2HSV);
    std::map<int, cv::Vec3b> out;
    for (auto it = hsv.begin<cv::Vec3b>(); it != hsv.end<cv::Vec3b>(); ++it) {
      out.emplace((*it)[0], candidates.at<cv::Vec3b>(it.pos()));
    }
    return out;
  }();
  return table.at(hue);
}

struct HueCase {
  const char* name;
  std::vector<std::pair<int, int>> runs;  // (hue, pixel count), laid out over two rows
  bool similar;
  int lower, upper;
  const char* mean;  // as the log prints it
};
void PrintTo(const HueCase& c, std::ostream* os) { *os << c.name; }

class SimilarColor : public ::testing::TestWithParam<HueCase> {};

TEST_P(SimilarColor, ComparesEveryHueWithTheTruncatedMean) {
  const HueCase& c = GetParam();
  std::vector<cv::Vec3b> pixels;
  for (auto [hue, count] : c.runs) pixels.insert(pixels.end(), count, pixel_with_hue(hue));
  LogCapture capture;
  EXPECT_EQ(checkSimilarColor(cv::Mat(pixels, true).reshape(3, 2)), c.similar);
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].priority, ANDROID_LOG_INFO);
  EXPECT_EQ(capture.info_messages()[0], "lower bound: " + std::to_string(c.lower) +
                                            " upper bound: " + std::to_string(c.upper) +
                                            "meanVal[0] : " + c.mean);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, SimilarColor, ::testing::Values(
    HueCase{"OneColour",               {{60, 10}},                    true,  50, 70, "60"},
    HueCase{"UpperBoundIncluded",      {{70, 1}, {59, 9}},            true,  50, 70, "60.1"},
    HueCase{"AboveUpperBound",         {{71, 1}, {60, 99}},           false, 50, 70, "60.11"},
    HueCase{"LowerBoundIncluded",      {{50, 1}, {62, 9}},            true,  50, 70, "60.8"},
    HueCase{"BelowLowerBound",         {{49, 1}, {62, 9}},            false, 50, 70, "60.7"},
    HueCase{"MeanTruncatedNotRounded", {{70, 1}, {59, 8}, {57, 1}},   false, 49, 69, "59.9"},
    HueCase{"BoundsNotClamped",        {{2, 8}, {0, 2}},              true,  -9, 11, "1.6"},
    HueCase{"NoWrapAroundAtRed",       {{0, 5}, {179, 5}},            false, 79, 99, "89.5"}),
    ParamName());
// clang-format on

TEST(SimilarColor, GreyFramesAreUniformWhateverTheBrightness) {
  cv::Mat noise(12, 10, CV_8UC1), stripes(12, 10, CV_8UC1, cv::Scalar(0)), bgr;
  cv::randu(noise, 0, 256);
  stripes.rowRange(0, 6).setTo(255);
  for (const cv::Mat& grey : {noise, stripes}) {
    cv::cvtColor(grey, bgr, cv::COLOR_GRAY2BGR);
    LogCapture capture;
    EXPECT_TRUE(checkSimilarColor(bgr));
    EXPECT_EQ(capture.info_messages(), Strings{"lower bound: -10 upper bound: 10meanVal[0] : 0"});
  }
}

// --- Mask copy -----------------------------------------------------------------------------

cv::Mat two_by_three() { return (cv::Mat_<uchar>(2, 3) << 1, 2, 3, 4, 5, 6); }
cv::Mat window_with_row_padding() {
  static const cv::Mat whole = (cv::Mat_<uchar>(3, 4) << 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12);
  return whole(cv::Rect(1, 1, 2, 2));
}
cv::Mat three_channels() { return cv::Mat(2, 2, CV_8UC3, cv::Scalar(1, 2, 3)); }
cv::Mat no_image() { return cv::Mat(); }
cv::Mat no_rows_over_memory() {
  static uchar memory[5];
  return cv::Mat(0, 5, CV_8UC1, memory);
}

struct MaskCase {
  const char* name;
  cv::Mat (*mask)();
  std::string expected;
};
void PrintTo(const MaskCase& c, std::ostream* os) { *os << c.name; }

class MaskBuffer : public ::testing::TestWithParam<MaskCase> {};

TEST_P(MaskBuffer, HoldsExactlyTheMaskBytes) {
  std::string buffer = "stale content";
  LogCapture capture;
  fill_mask_buffer(buffer, GetParam().mask());
  EXPECT_EQ(buffer, GetParam().expected);
  EXPECT_EQ(capture.info_messages(),
            GetParam().expected.empty()
                ? Strings{"TQ Debug: Cannot fill mask buffer as given mask is empty."}
                : Strings{});
}

INSTANTIATE_TEST_SUITE_P(
    Table, MaskBuffer,
    ::testing::Values(MaskCase{"RowMajor", two_by_three, "\x01\x02\x03\x04\x05\x06"},
                      MaskCase{"RowPaddingSkipped", window_with_row_padding, "\x06\x07\x0a\x0b"},
                      MaskCase{"ColsBytesOfEachRow", three_channels, "\x01\x02\x01\x02"},
                      MaskCase{"Empty", no_image, ""},
                      MaskCase{"NoRowsOverMemory", no_rows_over_memory, ""}),
    ParamName());

}  // namespace

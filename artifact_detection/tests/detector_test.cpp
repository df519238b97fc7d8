// The camera-native Detector over the reference inference library and a real ONNX model:
// every frame layout gives the results of the same picture as tight NV21 through the
// ArtifactDetector class, each status is reachable, and quiet mode keeps quiet.
#include "detector.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <memory>
#include <set>
#include <tuple>

#include "frame_input.h"
#include "support/detector_fixtures.h"
#include "support/log_capture.h"

namespace {

using namespace ad_test;
using artifact_detector::Detector;
using artifact_detector::Frame;
using artifact_detector::PixelFormat;
using artifact_detector::Result;
using artifact_detector::Status;

const std::string kModel = std::string(TARNLINK_TEST_MODELS) + "/tiny.onnx";

// A sample photograph as planar Y, U, V of an even size.
struct Yuv {
  int w, h;
  std::vector<uint8_t> y, u, v;
  explicit Yuv(const char* name, int w = 320, int h = 240) : w(w), h(h) {
    cv::Mat bgr = cv::imread(std::string(AD_SAMPLES_DIR) + "/" + name, cv::IMREAD_COLOR), i420;
    cv::resize(bgr, bgr, cv::Size(w, h), 0, 0, cv::INTER_AREA);
    cv::cvtColor(bgr, i420, cv::COLOR_BGR2YUV_I420);
    const uint8_t* p = i420.data;
    y.assign(p, p + w * h);
    u.assign(p + w * h, p + w * h * 5 / 4);
    v.assign(p + w * h * 5 / 4, p + w * h * 3 / 2);
  }
  std::vector<uint8_t> nv21() const {
    std::vector<uint8_t> out(y);
    for (size_t k = 0; k < u.size(); ++k) out.insert(out.end(), {v[k], u[k]});
    return out;
  }
};

// Planes laid out as a camera might: luma rows `pad` bytes longer than the width, chroma as
// `order` says ("vu"/"uv" interleaved, "planar" with pixel stride 1) with padded rows too.
struct Layout {
  std::vector<uint8_t> luma, chroma;
  Frame frame;
  Layout(const Yuv& s, PixelFormat format, const std::string& order, int pad, int rotation) {
    const int ys = s.w + pad, cs = (order == "planar" ? s.w / 2 : s.w) + pad, ch = s.h / 2;
    luma.assign(size_t(ys) * s.h, 0xEE);
    for (int r = 0; r < s.h; ++r) std::copy_n(&s.y[size_t(r) * s.w], s.w, &luma[size_t(r) * ys]);
    chroma.assign(size_t(cs) * ch * (order == "planar" ? 2 : 1) + 1, 0xEE);
    uint8_t* u = order == "planar" ? &chroma[size_t(cs) * ch] : &chroma[order == "vu" ? 1 : 0];
    uint8_t* v = order == "planar" ? &chroma[0] : &chroma[order == "vu" ? 0 : 1];
    const int ps = order == "planar" ? 1 : 2;
    for (int r = 0; r < ch; ++r) {
      for (int k = 0; k < s.w / 2; ++k) {
        u[r * cs + k * ps] = s.u[r * s.w / 2 + k];
        v[r * cs + k * ps] = s.v[r * s.w / 2 + k];
      }
    }
    frame = format == PixelFormat::kYuv420888
                ? Frame::yuv_420_888(luma.data(), ys, u, v, cs, ps, s.w, s.h, rotation)
                : Frame::semi_planar(format, luma.data(), ys, order == "vu" ? v : u, cs, s.w, s.h,
                                     rotation);
  }
};

std::vector<Record> records(const Result& r) {
  std::vector<Record> out;
  for (const auto& a : r.artifacts) out.push_back({a.id, a.probability});
  return out;
}

class DetectorRun : public ::testing::Test {
 protected:
  void SetUp() override { write_model_info(models, kModel); }
  TempDir models;
};

// Every camera layout reaches the engine as a tight frame of a format it takes: YUV as NV21,
// packed pixels as B,G,R or RGBA rows without padding (tight ones without a copy).
TEST(FrameInput, EveryLayoutReachesTheEngineAsATightFrame) {
  const Yuv sample("chelsea.jpg", 64, 48);
  const std::vector<uint8_t> nv21 = sample.nv21();
  const cv::Mat bgr = textured(48, 64, 1);
  cv::Mat rgb, rgba, wide(48, 64 + 7, CV_8UC3), wide_rgba(48, 64 + 3, CV_8UC4);
  cv::cvtColor(bgr, rgb, cv::COLOR_BGR2RGB);
  cv::cvtColor(bgr, rgba, cv::COLOR_BGR2RGBA);
  rgb.copyTo(wide(cv::Rect(0, 0, 64, 48)));
  rgba.copyTo(wide_rgba(cv::Rect(0, 0, 64, 48)));
  const std::vector<uint8_t> bgr_bytes(bgr.datastart, bgr.dataend),
      rgba_bytes(rgba.datastart, rgba.dataend);
  std::vector<std::unique_ptr<Layout>> layouts;
  std::vector<std::tuple<Frame, ArtifactDetector::ImageFormat, std::vector<uint8_t>, bool>> cases;
  for (const auto& [format, order, pad] : std::vector<std::tuple<PixelFormat, std::string, int>>{
           {PixelFormat::kYuv420888, "vu", 32},     // Android's usual: V,U interleaved
           {PixelFormat::kYuv420888, "uv", 16},     // pixel stride 2, U first
           {PixelFormat::kYuv420888, "planar", 8},  // pixel stride 1
           {PixelFormat::kYuv420888, "vu", 0},      // no padding
           {PixelFormat::kNv21, "vu", 64},
           {PixelFormat::kNv12, "uv", 2}}) {
    layouts.push_back(std::make_unique<Layout>(sample, format, order, pad, 0));
    cases.emplace_back(layouts.back()->frame, ArtifactDetector::NV21, nv21, true);
  }
  const uint8_t* vu = nv21.data() + 64 * 48;  // tight NV21 seen as three planes
  cases.emplace_back(Frame::yuv_420_888(nv21.data(), 64, vu + 1, vu, 64, 2, 64, 48, 0),
                     ArtifactDetector::NV21, nv21, false);
  cases.emplace_back(Frame::image(bgr), ArtifactDetector::BGR, bgr_bytes, false);
  cases.emplace_back(Frame::image(rgba, 0, PixelFormat::kRgba), ArtifactDetector::RGBA,
                     rgba_bytes, false);
  cases.emplace_back(Frame::image(wide_rgba(cv::Rect(0, 0, 64, 48)), 0, PixelFormat::kRgba),
                     ArtifactDetector::RGBA, rgba_bytes, true);
  cases.emplace_back(Frame::image(wide(cv::Rect(0, 0, 64, 48)), 0, PixelFormat::kRgb),
                     ArtifactDetector::BGR, bgr_bytes, true);
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const auto& [frame, format, expected, copied] = cases[i];
    SCOPED_TRACE(i);
    std::vector<uint8_t> scratch;
    const artifact_detector::EngineInput in = artifact_detector::engine_input(frame, scratch);
    EXPECT_EQ(std::make_tuple(in.format, in.copied), std::make_tuple(format, copied));
    EXPECT_EQ(std::vector<uint8_t>(in.bytes, in.bytes + expected.size()), expected);
  }
}

// The detector hands the engine what it was given: the fixed path's results, every rotation.
TEST_F(DetectorRun, FramesAndImagesGiveTheFixedPathsResults) {
  auto detector = Detector::open(models.path());  // no trailing '/'
  ASSERT_TRUE(detector->ready()) << detector->error();
  EXPECT_EQ(detector->input_size(), cv::Size(64, 48));
  DetectorPtr fixed(ArtifactDetector::Create());
  ASSERT_TRUE(initialize(*fixed, models));
  const Yuv sample("chelsea.jpg");
  std::vector<uint8_t> nv21 = sample.nv21();
  const cv::Mat bgr = cv::imread(std::string(AD_SAMPLES_DIR) + "/coffee.jpg", cv::IMREAD_COLOR);
  size_t accepted = 0;
  for (int rotation : {0, 90, 180, 270}) {
    ASSERT_TRUE(fixed->execute(reinterpret_cast<char*>(nv21.data()), sample.w, sample.h, rotation,
                               ArtifactDetector::NV21));
    const Result r = detector->detect(Frame::nv21(nv21.data(), sample.w, sample.h, rotation));
    ASSERT_EQ(r.status, Status::kAnalysed) << r.reason;
    EXPECT_EQ(records(r), reported(*fixed));
    for (const auto& a : r.artifacts) EXPECT_EQ(a.probability, r.probabilities[a.id - 1]);
    accepted += r.artifacts.size();
    ASSERT_TRUE(fixed->execute(reinterpret_cast<char*>(bgr.data), bgr.cols, bgr.rows, rotation,
                               ArtifactDetector::BGR));
    EXPECT_EQ(records(detector->detect(bgr, rotation)), reported(*fixed));
  }
  EXPECT_GT(accepted, 0u) << "a comparison of empty lists proves nothing";
}

TEST_F(DetectorRun, EachStatusIsReachableWithItsReason) {
  TempDir broken;
  broken.write_file("bad.onnx", "not a model");
  write_model_info(broken, broken.path() + "/bad.onnx");
  auto ready = Detector::open(models.path());
  const Yuv sample("coffee.jpg", 64, 48);
  std::vector<uint8_t> nv21 = sample.nv21(), grey(64 * 48 * 3 / 2, 128);
  const auto frame = [&](int w, int h) { return Frame::nv21(nv21.data(), w, h, 0); };
  Frame null_plane = Layout(sample, PixelFormat::kYuv420888, "planar", 0, 0).frame;
  null_plane.planes[2].data = nullptr;
  Frame short_stride = Frame::packed(PixelFormat::kBgr, nv21.data(), 10, 8, 2, 0);

  struct Case {
    Detector* detector;
    Frame frame;
    Status status;
    std::string reason;
  };
  auto missing = Detector::open(models.base() + "nowhere");
  auto bad = Detector::open(broken.path());
  for (const Case& c : std::vector<Case>{
           {ready.get(), frame(64, 48), Status::kAnalysed, ""},
           {ready.get(), Frame::nv21(grey.data(), 64, 48, 90), Status::kUniformFrame,
            "the frame is one colour"},
           {missing.get(), frame(64, 48), Status::kNotReady,
            "models folder not found: " + models.base() + "nowhere"},
           {bad.get(), frame(64, 48), Status::kNotReady,
            "the model under " + broken.base() + "artifact_detector/ did not open"},
           {ready.get(), frame(63, 48), Status::kInvalidInput, "YUV frame size 63x48 is not even"},
           {ready.get(), frame(64, 0), Status::kInvalidInput, "frame size 64x0 is not positive"},
           {ready.get(), Frame::nv21(nv21.data(), 64, 48, 45), Status::kInvalidInput,
            "rotation 45 is not 0, 90, 180 or 270"},
           {ready.get(), null_plane, Status::kInvalidInput, "plane 2 is null"},
           {ready.get(), short_stride, Status::kInvalidInput,
            "row stride 10 is less than 24 bytes"}}) {
    SCOPED_TRACE(c.reason);
    const Result r = c.detector->detect(c.frame);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.reason, c.reason);
    EXPECT_EQ(c.detector->ready(), c.status != Status::kNotReady);
    if (r.status != Status::kAnalysed) {
      EXPECT_TRUE(r.artifacts.empty());
      EXPECT_EQ(r.probabilities, decltype(r.probabilities){});
    }
  }
  EXPECT_EQ(missing->input_size(), cv::Size());
  EXPECT_EQ(bad->error(), "the model under " + broken.base() + "artifact_detector/ did not open");
}

// The acceptance rule itself is the engine's test: here only whose table applies.
TEST_F(DetectorRun, ThresholdsStartAsTheFixedPathsAndChangeOnlyThisDetector) {
  auto detector = Detector::open(models.path()), other = Detector::open(models.path());
  EXPECT_EQ(detector->thresholds(), Detector::default_thresholds());
  const Yuv sample("chelsea.jpg");
  std::vector<uint8_t> nv21 = sample.nv21();
  const Frame frame = Frame::nv21(nv21.data(), sample.w, sample.h, 0);
  const Result before = detector->detect(frame);
  ASSERT_FALSE(before.artifacts.empty()) << "nothing to compare";
  for (int id = 1; id <= artifact_detector::kClassCount; ++id) detector->set_threshold(id, 1.0f);
  const Result none = detector->detect(frame);
  EXPECT_EQ(none.probabilities, before.probabilities);
  EXPECT_TRUE(none.artifacts.empty());
  detector->set_thresholds({{before.artifacts[0].id, 0.0f}});
  EXPECT_EQ(records(detector->detect(frame)), std::vector<Record>{records(before)[0]});
  EXPECT_EQ(records(other->detect(frame)), records(before));
}

TEST_F(DetectorRun, QuietModeWritesNoStandardOutputAndLogsAtTheChosenPriority) {
  const Yuv sample("coffee.jpg");
  std::vector<uint8_t> nv21 = sample.nv21();
  const Frame frame = Frame::nv21(nv21.data(), 320, 240, 0);
  for (const auto& [quiet, priority, stdout_lines] : std::vector<std::tuple<bool, int, bool>>{
           {false, 0, true}, {true, ANDROID_LOG_DEBUG, false}, {true, ANDROID_LOG_SILENT, false}}) {
    LogCapture log;
    testing::internal::CaptureStdout();
    auto detector = Detector::open(models.path(), {quiet, priority});
    ASSERT_EQ(detector->detect(frame).status, Status::kAnalysed);
    EXPECT_EQ(
        testing::internal::GetCapturedStdout().find("Pixel at (10,10): ") != std::string::npos,
        stdout_lines);
    std::set<int> priorities;
    for (const LogLine& line : log.lines()) {
      if (line.tag != "TQR_ARTIFACT_DET" && line.tag != "ImageSearchJNI_ARTI_DET") continue;
      priorities.insert(line.priority);
    }
    const std::set<int> expected = !quiet ? std::set<int>{ANDROID_LOG_VERBOSE, ANDROID_LOG_INFO}
                                   : priority == ANDROID_LOG_SILENT ? std::set<int>{}
                                                                    : std::set<int>{priority};
    EXPECT_EQ(priorities, expected);
  }
}

TEST(FrameRepack, VideoRangeIsExpandedToFullRange) {
  // A 2x2 frame: luma 16, 235, 0, 255; chroma U 128, V 240.
  const uint8_t luma[] = {16, 235, 0, 255}, u[] = {128}, v[] = {240};
  for (const auto& [range, expected] :
       std::vector<std::pair<artifact_detector::YuvRange, std::vector<uint8_t>>>{
           {artifact_detector::YuvRange::kVideo, {0, 255, 0, 255, 255, 128}},
           {artifact_detector::YuvRange::kFull, {16, 235, 0, 255, 240, 128}}}) {
    std::vector<uint8_t> out(6);
    artifact_detector::repack_nv21(Frame::yuv_420_888(luma, 2, u, v, 1, 1, 2, 2, 0, range),
                                   out.data());
    EXPECT_EQ(out, expected);
  }
}

}  // namespace

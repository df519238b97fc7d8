#include "artifact_detector_impl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <map>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_tarnlink.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "utils/image_utils.h"

namespace {

using ad_test::FakeTarnlink;
using ad_test::LogCapture;
using artifact_detector::ArtifactDetector;
using artifact_detector::ArtifactDetectorImpl;
using artifact_detector::ArtifactInfo;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr int kNetWidth = 40;
constexpr int kNetHeight = 30;

// The smallest logit whose probability reaches `p` (the logistic function is monotonic).
float logit_reaching(float p) {
  float lo = -40.0f, hi = 40.0f;
  while (lo + (hi - lo) / 2 != lo && lo + (hi - lo) / 2 != hi) {
    const float mid = lo + (hi - lo) / 2;
    (artifact_detector::sigmoid({mid})[0] >= p ? hi : lo) = mid;
  }
  return hi;
}

// Twelve logits, all far below acceptance, with `set` overriding class ids.
std::vector<float> logits(const std::map<int, float>& set) {
  std::vector<float> out(12, -50.0f);
  for (const auto& [id, value] : set) out[id] = value;
  return out;
}

std::vector<int> ids(const std::vector<ArtifactInfo>& infos) {
  std::vector<int> out;
  for (const auto& info : infos) out.push_back(info.tag_id);
  return out;
}

cv::Mat textured(int rows, int cols, uint64_t seed) {
  cv::Mat image(rows, cols, CV_8UC3);
  cv::RNG(seed).fill(image, cv::RNG::UNIFORM, 0, 256);
  return image;
}

// ---- scoring and the blur rule ----------------------------------------------------------

struct ScoreCase {
  const char* name;
  std::vector<float> output;
  std::map<int, float> thresholds;  // empty: the built-in table
  std::vector<int> accepted;
};
void PrintTo(const ScoreCase& c, std::ostream* os) { *os << c.name; }

class Scoring : public ::testing::TestWithParam<ScoreCase> {};

TEST_P(Scoring, AcceptsPlausibleScoresStrictlyAboveTheirThreshold) {
  ArtifactDetectorImpl engine;
  engine.set_artifact_thresholds();
  if (!GetParam().thresholds.empty()) engine.replace_artifact_thresholds(GetParam().thresholds);
  std::vector<float> output = GetParam().output;
  engine.getArtifactIno(output);
  EXPECT_EQ(ids(engine.results()), GetParam().accepted);
  const auto& accepted = GetParam().accepted;
  EXPECT_EQ(engine.mild_blur(), std::find(accepted.begin(), accepted.end(), 10) != accepted.end());
  for (const ArtifactInfo& info : engine.results()) {
    EXPECT_EQ(info.score, artifact_detector::sigmoid({output[info.tag_id]})[0]);
  }
}

const float kAtBlurThreshold = logit_reaching(0.52f);

INSTANTIATE_TEST_SUITE_P(
    Cases, Scoring,
    ::testing::Values(
        ScoreCase{"AllVeryNegative", logits({}), {}, {}},
        ScoreCase{"AscendingIdOrder", logits({{9, 3}, {2, 3}, {7, 3}}), {}, {2, 7, 9}},
        ScoreCase{"InfinityIsCertain", logits({{6, kInf}}), {}, {6}},
        ScoreCase{"OtherBlurNeverWithBuiltInTable", logits({{11, kInf}}), {}, {}},
        ScoreCase{"EqualToThresholdIsRejected", logits({{6, kAtBlurThreshold}}), {}, {}},
        ScoreCase{"JustAboveThreshold",
                  logits({{6, logit_reaching(std::nextafter(0.52f, 1.f))}}),
                  {},
                  {6}},
        ScoreCase{"FloorAppliesBelowAnyThreshold", logits({{9, -4.7f}}), {{9, -1.0f}}, {}},
        ScoreCase{"JustAboveTheFloor", logits({{9, -4.5f}}), {{9, 0.0f}}, {9}},
        ScoreCase{
            "ClassWithoutThresholdNeverReported", logits({{1, 9}, {6, 9}}), {{6, 0.45f}}, {6}},
        ScoreCase{"PositionZeroIgnored",
                  [] {
                    auto v = logits({});
                    v[0] = 50;
                    return v;
                  }(),
                  {},
                  {}},
        ScoreCase{"NaNRejected", logits({{3, std::nanf("")}}), {}, {}},
        ScoreCase{"MildBlurSetsTheFlag", logits({{10, 3}}), {}, {10}},
        ScoreCase{"ShortOutputReadsNothingMissing", {0.0f, 3.0f, 3.0f}, {}, {1, 2}},
        ScoreCase{"EmptyOutput", {}, {}, {}}),
    [](const ::testing::TestParamInfo<ScoreCase>& info) { return info.param.name; });

TEST(Scoring, EqualityCaseReallyHitsTheThresholdAndTheTableIsBuiltIn) {
  EXPECT_EQ(artifact_detector::sigmoid({kAtBlurThreshold})[0], 0.52f);
  ArtifactDetectorImpl engine;
  engine.replace_artifact_thresholds({{42, 0.1f}, {6, 0.99f}});
  engine.set_artifact_thresholds();  // overwrites the eleven, keeps the rest
  EXPECT_EQ(engine.thresholds(), (std::map<int, float>{{1, 0.74f},
                                                       {2, 0.64f},
                                                       {3, 0.73f},
                                                       {4, 0.73f},
                                                       {5, 0.69f},
                                                       {6, 0.52f},
                                                       {7, 0.48f},
                                                       {8, 0.72f},
                                                       {9, 0.2f},
                                                       {10, 0.58f},
                                                       {11, 1.0f},
                                                       {42, 0.1f}}));
}

struct BlurCase {
  const char* name;
  std::vector<ArtifactInfo> input;
  std::vector<int> kept;
};
void PrintTo(const BlurCase& c, std::ostream* os) { *os << c.name; }

class BlurRule : public ::testing::TestWithParam<BlurCase> {};

TEST_P(BlurRule, DropsBlurAndMildBlurOnlyAboveConfidentOtherBlur) {
  LogCapture capture;
  const auto out = artifact_detector::post_process_blur_info(GetParam().input);
  EXPECT_EQ(ids(out), GetParam().kept);
  std::vector<std::string> expected;
  for (const auto& i : GetParam().input) {
    expected.push_back("Before post_process_blur_info artifact_infos id : " +
                       std::to_string(i.tag_id) + ", " + std::to_string(i.score));
  }
  for (std::size_t n = GetParam().kept.size(); n < GetParam().input.size(); ++n) {
    expected.push_back("Droping the blur and mild blur because of otherblur confidence is high");
  }
  for (const auto& o : out) {
    expected.push_back("After post_process_blur_info artifact_infos id : " +
                       std::to_string(o.tag_id) + ", " + std::to_string(o.score));
  }
  EXPECT_EQ(capture.verbose_messages(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BlurRule,
    ::testing::Values(
        BlurCase{"ConfidentOtherBlur",
                 {{0.9f, "Blur", 6}, {0.7f, "MildBlur", 10}, {0.61f, "OtherBlur", 11}},
                 {11}},
        BlurCase{"OtherBlurAtTheLimit",
                 {{0.9f, "Blur", 6}, {0.7f, "MildBlur", 10}, {0.6f, "OtherBlur", 11}},
                 {6, 10, 11}},
        BlurCase{"DonutBlurIsNeverDropped",
                 {{0.9f, "DonutBlur", 5}, {0.6f, "Blur", 6}, {0.99f, "OtherBlur", 11}},
                 {5, 11}},
        BlurCase{"NoOtherBlur", {{0.9f, "Blur", 6}, {0.8f, "Moire", 4}}, {6, 4}},
        BlurCase{"EmptyLogsNothing", {}, {}}),
    [](const ::testing::TestParamInfo<BlurCase>& info) { return info.param.name; });

// ---- whole runs against the scripted inference library ----------------------------------

// The engine's own lines, prefixes removed, tagged I (LogMessage) or V (formatted).
std::vector<std::string> engine_lines(const LogCapture& capture) {
  static const std::regex verbose(R"(^artifact_detector_impl\.cpp: [0-9]+: )");
  static const std::regex info(R"(^\[[0-9:]{8}\] artifact_detector_impl\.cpp:[0-9]+: (.*)\n$)");
  std::vector<std::string> out;
  std::smatch m;
  for (const auto& line : capture.lines()) {
    if (std::regex_search(line.text, verbose))
      out.push_back("V " + std::regex_replace(line.text, verbose, ""));
    if (std::regex_match(line.text, m, info)) out.push_back("I " + m[1].str());
  }
  return out;
}

// What the network must receive for an upright frame: INTER_AREA to the network size, one
// JPEG round trip at quality 95, every byte minus 128, channels interleaved.
std::vector<float> expected_tensor(const cv::Mat& upright) {
  cv::Mat small;
  cv::resize(upright, small, cv::Size(kNetWidth, kNetHeight), 0, 0, cv::INTER_AREA);
  std::vector<uchar> jpeg;
  cv::imencode(".jpg", small, jpeg, {cv::IMWRITE_JPEG_QUALITY, 95});
  cv::Mat bytes = cv::imdecode(jpeg, cv::IMREAD_COLOR).reshape(1, 1), floats;
  bytes.convertTo(floats, CV_32F, 1.0, -128.0);
  return std::vector<float>(floats.begin<float>(), floats.end<float>());
}

class EngineRun : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_.set_input_size(kNetWidth, kNetHeight);
    set_logits({});
  }

  bool init(const std::string& model_type = "cpu", const std::string& precision = "float32") {
    models_.write_file("artifact_detector/artifact_detector_cnn.info",
                       "{\n\"model_type\": \"" + model_type + "\",\n\"precision\": \"" + precision +
                           "\",\n\"model_path\": \"" + models_.base() +
                           "artifact_detector/net.onnx\"\n}\n");
    std::string path = models_.base();
    return engine_.initialize(ArtifactDetector::DEFAULT, path.data());
  }

  void set_logits(const std::map<int, float>& set, const char* layer = "Identity") {
    fake_.set_layer_output(layer, logits(set), {1, 12, 1, 1}, 0);
  }

  FakeTarnlink fake_;
  ad_test::TempDir models_;
  ArtifactDetectorImpl engine_;
};

TEST_F(EngineRun, InitializeOpensTheModelAndLogsTheThresholdTable) {
  LogCapture capture;
  ASSERT_TRUE(init("cpu", "float16"));
  std::vector<std::string> expected{
      "I Initializing Semantic Map ...", "I Artiface detector Models path :" + models_.base(),
      "V TQ Debug: setting COMPUTE UNIT to cpu, float16", "V TQ:Debug NNet declared successfully"};
  for (const char* line :
       {"Reflection, Threshold: 0.740000", "Shadow, Threshold: 0.640000",
        "Flare, Threshold: 0.730000", "Moire, Threshold: 0.730000",
        "DonutBlur, Threshold: 0.690000", "Blur, Threshold: 0.520000", "LDR, Threshold: 0.480000",
        "LowLight, Threshold: 0.720000", "Noise, Threshold: 0.200000",
        "MildBlur, Threshold: 0.580000", "OtherBlur, Threshold: 1.000000"}) {
    expected.push_back(std::string("V Artifact: ") + line);
  }
  EXPECT_EQ(engine_lines(capture), expected);
  const auto opens = fake_.calls(FAKE_TARN_OPEN_ZEPH_OPTIONS);
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].path, models_.base() + "artifact_detector/net.onnx");
  EXPECT_EQ(opens[0].options->module, "artifact_Detector");
}

struct UnitCase {
  std::string model_type, precision;
  int unit, precision_code;
  const char* layer;
  bool unit_fallback, precision_fallback;
};
void PrintTo(const UnitCase& c, std::ostream* os) { *os << c.model_type << "/" << c.precision; }

class ComputeUnitChoice : public EngineRun, public ::testing::WithParamInterface<UnitCase> {};

TEST_P(ComputeUnitChoice, PicksUnitPrecisionAndTheLayerEveryRunReads) {
  const UnitCase& c = GetParam();
  set_logits({{4, 5.0f}}, c.layer);
  LogCapture capture;
  ASSERT_TRUE(init(c.model_type, c.precision));
  EXPECT_EQ(capture.contains("TQ Debug: Couldn't identify the COMPUTE UNIT from .info file, so "
                             "setting COMPUTE UNIT to CPU"),
            c.unit_fallback);
  EXPECT_EQ(capture.contains("TQ Debug: Couldn't identify the EXECUTION DATA TYPE from .info "
                             "file, so setting EXECUTION DATA TYPE to FLOAT16"),
            c.precision_fallback);
  const auto opens = fake_.calls(FAKE_TARN_OPEN_ZEPH_OPTIONS);
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].options->compute_unit, c.unit);
  EXPECT_EQ(opens[0].options->precision, c.precision_code);
  EXPECT_EQ(opens[0].options->output_layer_names, std::vector<std::string>{c.layer});

  ASSERT_TRUE(engine_.execute(textured(60, 80, 1), 0));
  const auto reads = fake_.calls(FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].layer_name, c.layer);
  EXPECT_EQ(ids(engine_.results()), std::vector<int>{4});
}

INSTANTIATE_TEST_SUITE_P(
    Table, ComputeUnitChoice,
    ::testing::Values(UnitCase{"gpu", "qasymm8", 1, 3, "Identity", false, false},
                      UnitCase{"dsp", "qasymm16", 2, 2, "prob", false, false},
                      UnitCase{"npu", "float32", 3, 0, "prob", false, false},
                      UnitCase{"NPU", "float16", 0, 1, "Identity", true, false},
                      UnitCase{"", "int8", 0, 1, "Identity", true, true}));

// format -1 stands for the image entry point.
struct FrameCase {
  int format, rotation;
  int width = 64, height = 48;  // 70 x 50 leaves NV21 columns after the last 16-column block
};
void PrintTo(const FrameCase& c, std::ostream* os) {
  *os << "format " << c.format << " rotation " << c.rotation << " " << c.width << "x" << c.height;
}

class FrameToTensor : public EngineRun, public ::testing::WithParamInterface<FrameCase> {};

TEST_P(FrameToTensor, ReachesTheNetworkAsTheExpectedTensor) {
  ASSERT_TRUE(init());
  const auto [format, rotation, kWidth, kHeight] = GetParam();
  const cv::Mat bgr = textured(kHeight, kWidth, 7);
  cv::Mat layout = bgr.clone(), upright = bgr;
  if (format == ArtifactDetector::NV21) {
    cv::cvtColor(bgr, layout, cv::COLOR_BGR2YUV_YV12);  // any bytes of NV21's size will do
    upright =
        tqr_arm_neon::nv21_convert_rotate(reinterpret_cast<char*>(layout.data), kWidth, kHeight, 0);
  } else if (format == ArtifactDetector::RGBA) {
    cv::cvtColor(bgr, layout, cv::COLOR_BGR2RGBA);
  }
  if (rotation == 90 || rotation == 180 || rotation == 270) {
    cv::rotate(upright, upright,
               rotation == 90    ? cv::ROTATE_90_CLOCKWISE
               : rotation == 180 ? cv::ROTATE_180
                                 : cv::ROTATE_90_COUNTERCLOCKWISE);
  }
  const cv::Mat before = layout.clone();

  ASSERT_TRUE(format < 0
                  ? engine_.execute(layout, 0)
                  : engine_.execute(reinterpret_cast<char*>(layout.data), kWidth, kHeight, rotation,
                                    static_cast<ArtifactDetector::ImageFormat>(format), nullptr));
  EXPECT_EQ(fake_.last_input(), expected_tensor(upright));
  const auto runs = fake_.calls(FAKE_TARN_EXECUTE);
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(std::make_tuple(runs[0].width, runs[0].height, runs[0].format),
            std::make_tuple(kNetWidth, kNetHeight, 1));
  EXPECT_EQ(cv::norm(layout, before, cv::NORM_INF), 0.0) << "the caller's pixels were written";
}

INSTANTIATE_TEST_SUITE_P(FormatsAndRotations, FrameToTensor,
                         ::testing::Values(FrameCase{0, 0}, FrameCase{0, 90}, FrameCase{0, 180},
                                           FrameCase{0, 270}, FrameCase{1, 0}, FrameCase{1, 90},
                                           FrameCase{1, 270}, FrameCase{1, 45}, FrameCase{2, 0},
                                           FrameCase{2, 180}, FrameCase{7, 90}, FrameCase{7, -90},
                                           FrameCase{-1, 0}, FrameCase{0, 90, 70, 50},
                                           FrameCase{0, 270, 70, 50}, FrameCase{0, 0, 70, 50},
                                           FrameCase{1, 90, 70, 50}, FrameCase{2, 270, 70, 50},
                                           FrameCase{-1, 0, 70, 50}));

TEST_F(EngineRun, BufferRunsLogTheirStepsInOrder) {
  ASSERT_TRUE(init());
  const cv::Mat bgr = textured(48, 64, 5);
  std::vector<char> nv21(64 * 48 * 3 / 2, 90);
  for (int format : {1, 0}) {
    LogCapture capture;
    char* buffer = format == 1 ? reinterpret_cast<char*>(bgr.data) : nv21.data();
    ASSERT_TRUE(engine_.execute(buffer, 64, 48, 90,
                                static_cast<ArtifactDetector::ImageFormat>(format), nullptr) ||
                format == 0);  // the flat NV21 frame is uniform: the run stops at the colour check
    std::vector<std::string> patterns{
        "I artifact_detector Execute with odd skip called : width : 64 height : 48 image_rotation "
        ": 90 image_format : " +
        std::to_string(format)};
    if (format == 1) {
      patterns.push_back("I Rotation parameter being set to: 90");
    } else {
      patterns.push_back(
          R"(I TQ Debug: pre-processing image, with tqr_arm_neon::nv21_convert_rotate\(\))");
      patterns.push_back(R"(I TQ Debug: pre-processing image\(nv21\): time taken: \d+ms)");
    }
    patterns.insert(patterns.end(),
                    {"I TQ Debug: NV21 Artifact Detector Pre-Process : width: 48  height: 64 "
                     "channels: 3 target_width: 40target_height: 30",
                     R"(I TQ Debug: Artifact Detector Pre-Process : time taken: \d+ ms)",
                     R"(V Compressed buffer size: \d+ bytes)",
                     format == 1 ? "I TQ Debug: image_for_artifact_detection details 40 x 30 x 3"
                                 : "I returning from same color image detection"});
    if (format == 1) {  // then scoring: the tensor size, the count and eleven probabilities
      patterns.insert(patterns.end(), {R"(V Output Tensor size : \[12\])",
                                       R"(V Output result_artifacts size : \[11\])",
                                       "V output result_artifacts id : 0, 0.000000"});
      for (int i = 1; i < 11; ++i) patterns.push_back("V output result_artifacts id : \\d+, .*");
    }
    std::vector<std::string> lines = engine_lines(capture);
    ASSERT_EQ(lines.size(), patterns.size());
    for (std::size_t i = 0; i < patterns.size(); ++i)
      EXPECT_TRUE(std::regex_match(lines[i], std::regex(patterns[i]))) << lines[i];
  }
}

TEST_F(EngineRun, FalseRunsKeepTheResultsAndTheCharactersTheyPointAt) {
  ASSERT_TRUE(init());
  set_logits({{5, 3.0f}, {10, 2.0f}, {11, 50.0f}});
  ASSERT_TRUE(engine_.execute(textured(48, 64, 11), 0));
  ASSERT_EQ(engine_.get_total_artifact_count(), 2);
  ArtifactDetectorImpl::Artifact_Info out[2];
  EXPECT_TRUE(engine_.get_artifact_info(out));
  EXPECT_EQ(std::make_tuple(out[0].tag_id, std::string(out[0].tag), out[0].score),
            std::make_tuple(5, std::string("DonutBlur"), artifact_detector::sigmoid({3.0f})[0]));
  EXPECT_EQ(std::make_tuple(out[1].tag_id, std::string(out[1].tag)),
            std::make_tuple(10, std::string("MildBlur")));

  const struct {
    FakeTarnOp fail;
    cv::Mat image;
    const char* message;
  } cases[] = {
      {FAKE_TARN_OP_COUNT, cv::Mat(48, 64, CV_8UC3, cv::Scalar(40, 90, 160)),
       "returning from same color image detection"},
      {FAKE_TARN_OP_COUNT, cv::Mat(),
       "TQ:Debug artifact_detector execute failed because init was unsuccessful"},
      {FAKE_TARN_EXECUTE, textured(48, 64, 2), "TQ Debug: artifact_detector Forward Pass Failed"},
      {FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT, textured(48, 64, 3),
       "TQ Debug: NNet get layer output with format NULL for Identity"},
  };
  for (const auto& c : cases) {
    if (c.fail != FAKE_TARN_OP_COUNT) fake_.set_failure(c.fail);
    LogCapture capture;
    EXPECT_FALSE(engine_.execute(c.image, 0));
    EXPECT_TRUE(capture.contains(c.message)) << c.message;
    if (c.fail != FAKE_TARN_OP_COUNT) fake_.set_failure(c.fail, FAKE_TARN_SUCCEED);
    ArtifactDetectorImpl::Artifact_Info again[2];
    ASSERT_EQ(engine_.get_total_artifact_count(), 2);
    engine_.get_artifact_info(again);
    EXPECT_EQ(again[0].tag, out[0].tag) << "records must keep pointing at the same characters";
  }
  EXPECT_FALSE(engine_.mild_blur()) << "every run that gets past the first check clears it";

  fake_.set_layer_output("Identity", {9.0f}, {1, 0, 1, 1}, 0);  // values, but no dimensions
  EXPECT_TRUE(engine_.execute(textured(48, 64, 4), 0));
  EXPECT_EQ(engine_.get_total_artifact_count(), 0);
}

TEST_F(EngineRun, SessionLifecycle) {
  fake_.set_failure(FAKE_TARN_OPEN_ZEPH_OPTIONS);
  ASSERT_TRUE(init()) << "a failed open is the session's state, not an exception";
  LogCapture capture;
  EXPECT_FALSE(engine_.execute(textured(48, 64, 5), 0));
  EXPECT_TRUE(capture.contains("TQ Debug: artifact_detector Forward Pass Failed"));

  fake_.set_failure(FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_SUCCEED);
  ASSERT_TRUE(init("gpu", "float32"));
  EXPECT_EQ(fake_.sessions_created(), 2);
  EXPECT_EQ(fake_.sessions_destroyed(), 1) << "a new initialize releases the old session";
  EXPECT_TRUE(engine_.execute(textured(48, 64, 6), 0));
}

TEST_F(EngineRun, DestroyWaitsForARunningExecute) {
  ASSERT_TRUE(init());
  auto* detector = ArtifactDetector::Create();
  std::string models = models_.base();
  ASSERT_TRUE(detector->initialize(ArtifactDetector::DEFAULT, models.data()));

  // The log hook holds execute inside its locked region until the test lets it go.
  std::mutex m;
  std::condition_variable cv;
  bool inside = false, release = false;
  LogCapture capture;
  capture.set_hook([&](const ad_test::LogLine& line) {
    if (line.text.find("TQ Debug: image :") == std::string::npos) return;
    std::unique_lock<std::mutex> lock(m);
    inside = true;
    cv.notify_all();
    cv.wait(lock, [&] { return release; });
  });
  bool ran = false;
  std::thread runner([&] { ran = detector->execute(textured(48, 64, 8), 0); });
  {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [&] { return inside; });
  }
  std::atomic<bool> destroyed{false};
  std::thread destroyer([&] {
    ArtifactDetector::Destroy(detector);
    destroyed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(destroyed) << "Destroy returned while execute was still running";
  {
    std::lock_guard<std::mutex> lock(m);
    release = true;
  }
  cv.notify_all();
  runner.join();
  destroyer.join();
  EXPECT_TRUE(ran && destroyed);
}

}  // namespace

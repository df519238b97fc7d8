#include "artifact_detector_impl.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace {

using artifact_detector::ArtifactDetectorImpl;
using artifact_detector::ArtifactInfo;
using ad_test::LogCapture;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kVeryNegative = -50.0f;

// The smallest logit whose probability is at least `p` (probabilities are monotonic in the
// logit, so a bisection over the floats finds it).
float logit_reaching(float p) {
  float lo = -40.0f, hi = 40.0f;
  for (int i = 0; i < 200; ++i) {
    const float mid = lo + (hi - lo) / 2;
    if (mid == lo || mid == hi) break;
    (artifact_detector::sigmoid({mid})[0] >= p ? hi : lo) = mid;
  }
  return hi;
}

// Twelve logits, all rejected, with `set` overriding positions (class ids).
std::vector<float> logits(std::map<int, float> set) {
  std::vector<float> out(12, kVeryNegative);
  for (const auto& [id, value] : set) out[id] = value;
  return out;
}

std::vector<int> ids(const std::vector<ArtifactInfo>& infos) {
  std::vector<int> out;
  for (const auto& info : infos) out.push_back(info.tag_id);
  return out;
}

TEST(Sigmoid, MatchesTheLogisticFunctionAtItsLandmarks) {
  const auto p = artifact_detector::sigmoid({0.0f, kInf, -kInf, 2.0f, -2.0f});
  ASSERT_EQ(p.size(), 5u);
  EXPECT_EQ(p[0], 0.5f);
  EXPECT_EQ(p[1], 1.0f);
  EXPECT_EQ(p[2], 0.0f);
  EXPECT_FLOAT_EQ(p[3], 0.880797f);
  EXPECT_FLOAT_EQ(p[3] + p[4], 1.0f);
  EXPECT_TRUE(std::isnan(artifact_detector::sigmoid({std::nanf("")})[0]));
}

TEST(Thresholds, BuiltInTableHasElevenClassesAndKeepsOtherEntries) {
  ArtifactDetectorImpl engine;
  engine.replace_artifact_thresholds({{42, 0.1f}, {6, 0.99f}});
  engine.set_artifact_thresholds();
  const std::map<int, float> expected{{1, 0.74f}, {2, 0.64f}, {3, 0.73f},  {4, 0.73f},
                                      {5, 0.69f}, {6, 0.52f}, {7, 0.48f},  {8, 0.72f},
                                      {9, 0.2f},  {10, 0.58f}, {11, 1.0f}, {42, 0.1f}};
  EXPECT_EQ(engine.thresholds(), expected);
}

struct ScoreCase {
  const char* name;
  std::vector<float> output;
  std::map<int, float> thresholds;  // empty: the built-in table
  std::vector<int> accepted;
  bool mild_blur;
};

void PrintTo(const ScoreCase& c, std::ostream* os) { *os << c.name; }

class Scoring : public ::testing::TestWithParam<ScoreCase> {};

TEST_P(Scoring, AcceptsOnlyPlausibleScoresAboveTheirThreshold) {
  ArtifactDetectorImpl engine;
  engine.set_artifact_thresholds();
  if (!GetParam().thresholds.empty()) engine.replace_artifact_thresholds(GetParam().thresholds);
  std::vector<float> output = GetParam().output;
  engine.getArtifactIno(output);
  EXPECT_EQ(ids(engine.results()), GetParam().accepted);
  EXPECT_EQ(engine.mild_blur(), GetParam().mild_blur);
  for (const ArtifactInfo& info : engine.results()) {
    EXPECT_EQ(info.score, artifact_detector::sigmoid({output[info.tag_id]})[0]);
  }
}

const float kAtBlurThreshold = logit_reaching(0.52f);

INSTANTIATE_TEST_SUITE_P(
    Cases, Scoring,
    ::testing::Values(
        ScoreCase{"AllVeryNegative", logits({}), {}, {}, false},
        ScoreCase{"AscendingIdOrder", logits({{9, 3.0f}, {2, 3.0f}, {7, 3.0f}}), {}, {2, 7, 9}, false},
        ScoreCase{"InfinityIsCertain", logits({{6, kInf}}), {}, {6}, false},
        ScoreCase{"OtherBlurNeverWithBuiltInTable", logits({{11, kInf}}), {}, {}, false},
        ScoreCase{"EqualToThresholdIsRejected", logits({{6, kAtBlurThreshold}}), {}, {}, false},
        ScoreCase{"JustAboveThreshold",
                  logits({{6, logit_reaching(std::nextafter(0.52f, 1.0f))}}), {}, {6}, false},
        ScoreCase{"FloorAppliesEvenBelowThreshold", logits({{9, -4.7f}}), {{9, -1.0f}}, {}, false},
        ScoreCase{"AboveFloorWithLowThreshold", logits({{9, -4.5f}}), {{9, 0.0f}}, {9}, false},
        ScoreCase{"ClassWithoutThresholdNeverReported", logits({{1, 9.0f}, {6, 9.0f}}),
                  {{6, 0.45f}}, {6}, false},
        ScoreCase{"PositionZeroIgnored", [] { auto v = logits({}); v[0] = 50.0f; return v; }(),
                  {}, {}, false},
        ScoreCase{"NaNRejected", logits({{3, std::nanf("")}}), {}, {}, false},
        ScoreCase{"MildBlurSetsTheFlag", logits({{10, 3.0f}}), {}, {10}, true},
        ScoreCase{"ShortOutputReadsNothingMissing", {0.0f, 3.0f, 3.0f}, {}, {1, 2}, false},
        ScoreCase{"EmptyOutput", {}, {}, {}, false}),
    [](const ::testing::TestParamInfo<ScoreCase>& info) { return info.param.name; });

TEST(Scoring, EqualityCaseReallyHitsTheThreshold) {
  EXPECT_EQ(artifact_detector::sigmoid({kAtBlurThreshold})[0], 0.52f);
}

TEST(Scoring, LogsTheTensorAndEveryProbability) {
  ArtifactDetectorImpl engine;
  engine.set_artifact_thresholds();
  std::vector<float> output = logits({{6, 0.0f}});
  LogCapture capture;
  engine.getArtifactIno(output);
  const auto lines = capture.verbose_messages();
  ASSERT_EQ(lines.size(), 13u);
  EXPECT_EQ(lines[0], "Output Tensor size : [12]");
  EXPECT_EQ(lines[1], "Output result_artifacts size : [11]");
  EXPECT_EQ(lines[2], "output result_artifacts id : 0, 0.000000");
  EXPECT_EQ(lines[7], "output result_artifacts id : 5, 0.500000");
}

struct BlurCase {
  const char* name;
  std::vector<ArtifactInfo> input;
  std::vector<int> kept;
  int drop_lines;
};

void PrintTo(const BlurCase& c, std::ostream* os) { *os << c.name; }

class BlurRule : public ::testing::TestWithParam<BlurCase> {};

TEST_P(BlurRule, DropsBlurAndMildBlurOnlyAboveConfidentOtherBlur) {
  LogCapture capture;
  const auto out = artifact_detector::post_process_blur_info(GetParam().input);
  EXPECT_EQ(ids(out), GetParam().kept);
  int drops = 0;
  for (const auto& line : capture.verbose_messages()) {
    drops += line == "Droping the blur and mild blur because of otherblur confidence is high";
  }
  EXPECT_EQ(drops, GetParam().drop_lines);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BlurRule,
    ::testing::Values(
        BlurCase{"ConfidentOtherBlur",
                 {{0.9f, "Blur", 6}, {0.7f, "MildBlur", 10}, {0.61f, "OtherBlur", 11}}, {11}, 2},
        BlurCase{"OtherBlurAtTheLimit",
                 {{0.9f, "Blur", 6}, {0.7f, "MildBlur", 10}, {0.6f, "OtherBlur", 11}},
                 {6, 10, 11}, 0},
        BlurCase{"DonutBlurIsNeverDropped",
                 {{0.9f, "DonutBlur", 5}, {0.6f, "Blur", 6}, {0.99f, "OtherBlur", 11}}, {5, 11}, 1},
        BlurCase{"NoOtherBlur", {{0.9f, "Blur", 6}, {0.8f, "Moire", 4}}, {6, 4}, 0},
        BlurCase{"Empty", {}, {}, 0}),
    [](const ::testing::TestParamInfo<BlurCase>& info) { return info.param.name; });

TEST(BlurRule, LogsBeforeAndAfterButNothingForAnEmptyList) {
  {
    LogCapture capture;
    artifact_detector::post_process_blur_info({});
    EXPECT_TRUE(capture.lines().empty());
  }
  LogCapture capture;
  artifact_detector::post_process_blur_info({{0.5f, "Blur", 6}, {0.75f, "OtherBlur", 11}});
  EXPECT_EQ(capture.verbose_messages(),
            (std::vector<std::string>{
                "Before post_process_blur_info artifact_infos id : 6, 0.500000",
                "Before post_process_blur_info artifact_infos id : 11, 0.750000",
                "Droping the blur and mild blur because of otherblur confidence is high",
                "After post_process_blur_info artifact_infos id : 11, 0.750000"}));
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Whole runs against the scripted inference library.

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <regex>
#include <thread>

#include "support/fake_tarnlink.h"
#include "support/temp_dir.h"
#include "utils/image_utils.h"

namespace {

using artifact_detector::ArtifactDetector;
using ad_test::FakeTarnlink;
using ad_test::TempDir;

constexpr int kNetWidth = 40;
constexpr int kNetHeight = 30;

// The engine's own lines of a capture, prefixes removed, in order; tagged I (info) or V.
std::vector<std::string> engine_lines(const LogCapture& capture) {
  static const std::regex verbose(R"(^artifact_detector_impl\.cpp: [0-9]+: )");
  static const std::regex info(R"(^\[[0-9:]{8}\] artifact_detector_impl\.cpp:[0-9]+: )");
  std::vector<std::string> out;
  for (const auto& line : capture.lines()) {
    if (std::regex_search(line.text, verbose)) {
      out.push_back("V " + std::regex_replace(line.text, verbose, ""));
    } else if (std::regex_search(line.text, info)) {
      std::string text = std::regex_replace(line.text, info, "");
      if (!text.empty() && text.back() == '\n') text.pop_back();
      out.push_back("I " + text);
    }
  }
  return out;
}

cv::Mat textured(int rows, int cols, uint64_t seed) {
  cv::Mat image(rows, cols, CV_8UC3);
  cv::RNG rng(seed);
  rng.fill(image, cv::RNG::UNIFORM, 0, 256);
  return image;
}

// What the network must receive for an upright frame: INTER_AREA to the network size, one
// JPEG round trip at quality 95, every byte minus 128 as float, channels interleaved.
std::vector<float> expected_tensor(const cv::Mat& upright) {
  cv::Mat small;
  cv::resize(upright, small, cv::Size(kNetWidth, kNetHeight), 0, 0, cv::INTER_AREA);
  std::vector<uchar> jpeg;
  cv::imencode(".jpg", small, jpeg, {cv::IMWRITE_JPEG_QUALITY, 95});
  const cv::Mat decoded = cv::imdecode(jpeg, cv::IMREAD_COLOR);
  std::vector<float> out;
  const cv::Mat bytes = decoded.reshape(1, 1);
  for (int i = 0; i < bytes.cols; ++i) out.push_back(static_cast<float>(bytes.at<uchar>(i)) - 128.0f);
  return out;
}

cv::Mat rotated(const cv::Mat& image, int rotation) {
  cv::Mat out;
  switch (rotation) {
    case 90: cv::rotate(image, out, cv::ROTATE_90_CLOCKWISE); return out;
    case 180: cv::rotate(image, out, cv::ROTATE_180); return out;
    case 270: cv::rotate(image, out, cv::ROTATE_90_COUNTERCLOCKWISE); return out;
    default: return image;
  }
}

class EngineRun : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_.set_input_size(kNetWidth, kNetHeight);
    set_logits({});
  }

  void write_info(const std::string& model_type, const std::string& precision) {
    models_.write_file("artifact_detector/artifact_detector_cnn.info",
                       "{\n\"model_type\": \"" + model_type + "\",\n\"precision\": \"" +
                           precision + "\",\n\"model_path\": \"" + models_.base() +
                           "artifact_detector/net.onnx\"\n}\n");
  }

  bool init(const std::string& model_type = "cpu", const std::string& precision = "float32") {
    write_info(model_type, precision);
    std::string path = models_.base();
    return engine_.initialize(ArtifactDetector::DEFAULT, path.data());
  }

  // Twelve logits for "Identity" (and "prob"), all rejected unless set.
  void set_logits(std::map<int, float> set, const char* layer = "Identity") {
    fake_.set_layer_output(layer, logits(std::move(set)), {1, 12, 1, 1}, 0);
  }

  FakeTarnlink fake_;
  TempDir models_;
  ArtifactDetectorImpl engine_;
};

TEST_F(EngineRun, InitializeOpensTheModelAndLogsTheThresholdTable) {
  LogCapture capture;
  ASSERT_TRUE(init("cpu", "float16"));
  std::vector<std::string> expected{
      "I Initializing Semantic Map ...",
      "I Artiface detector Models path :" + models_.base(),
      "V TQ Debug: setting COMPUTE UNIT to cpu, float16",
      "V TQ:Debug NNet declared successfully"};
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
  EXPECT_EQ(opens[0].options->output_layer_names, std::vector<std::string>{"Identity"});
  EXPECT_EQ(opens[0].options->compute_unit, 0);
  EXPECT_EQ(opens[0].options->precision, 1);
}

struct UnitCase {
  std::string model_type;
  std::string precision;
  int unit;
  int precision_code;
  const char* layer;
  std::vector<std::string> fallback_lines;
};

void PrintTo(const UnitCase& c, std::ostream* os) { *os << c.model_type << "/" << c.precision; }

class ComputeUnitChoice : public EngineRun, public ::testing::WithParamInterface<UnitCase> {};

TEST_P(ComputeUnitChoice, PicksUnitPrecisionAndOutputLayer) {
  const UnitCase& c = GetParam();
  set_logits({{4, 5.0f}}, c.layer);
  LogCapture capture;
  ASSERT_TRUE(init(c.model_type, c.precision));
  for (const std::string& line : c.fallback_lines) EXPECT_TRUE(capture.contains(line)) << line;
  const auto opens = fake_.calls(FAKE_TARN_OPEN_ZEPH_OPTIONS);
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].options->compute_unit, c.unit);
  EXPECT_EQ(opens[0].options->precision, c.precision_code);
  EXPECT_EQ(opens[0].options->output_layer_names, std::vector<std::string>{c.layer});

  // Every run reads the layer chosen for the unit.
  ASSERT_TRUE(engine_.execute(textured(60, 80, 1), 0));
  const auto reads = fake_.calls(FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].layer_name, c.layer);
  EXPECT_EQ(ids(engine_.results()), std::vector<int>{4});
}

const char kUnitFallback[] =
    "TQ Debug: Couldn't identify the COMPUTE UNIT from .info file, so setting COMPUTE UNIT to CPU";
const char kPrecisionFallback[] =
    "TQ Debug: Couldn't identify the EXECUTION DATA TYPE from .info file, so setting EXECUTION "
    "DATA TYPE to FLOAT16";

INSTANTIATE_TEST_SUITE_P(
    Table, ComputeUnitChoice,
    ::testing::Values(UnitCase{"gpu", "qasymm8", 1, 3, "Identity", {}},
                      UnitCase{"dsp", "qasymm16", 2, 2, "prob", {}},
                      UnitCase{"npu", "float32", 3, 0, "prob", {}},
                      UnitCase{"NPU", "float16", 0, 1, "Identity", {kUnitFallback}},
                      UnitCase{"", "int8", 0, 1, "Identity", {kUnitFallback, kPrecisionFallback}}));

struct FrameCase {
  int format;
  int rotation;
};

void PrintTo(const FrameCase& c, std::ostream* os) {
  *os << "format " << c.format << " rotation " << c.rotation;
}

class FrameToTensor : public EngineRun, public ::testing::WithParamInterface<FrameCase> {};

TEST_P(FrameToTensor, ReachesTheNetworkAsTheExpectedTensor) {
  ASSERT_TRUE(init());
  constexpr int kWidth = 64, kHeight = 48;
  const cv::Mat bgr = textured(kHeight, kWidth, 7);
  std::vector<char> buffer;
  cv::Mat upright;
  switch (GetParam().format) {
    case ArtifactDetector::NV21: {
      cv::Mat yuv;
      cv::cvtColor(bgr, yuv, cv::COLOR_BGR2YUV_YV12);  // any planar bytes will do
      buffer.assign(yuv.datastart, yuv.dataend);
      upright = rotated(tqr_arm_neon::nv21_convert_rotate(buffer.data(), kWidth, kHeight, 0),
                        GetParam().rotation);
      break;
    }
    case ArtifactDetector::RGBA: {
      cv::Mat rgba;
      cv::cvtColor(bgr, rgba, cv::COLOR_BGR2RGBA);
      buffer.assign(rgba.datastart, rgba.dataend);
      upright = rotated(bgr, GetParam().rotation);
      break;
    }
    default:
      buffer.assign(bgr.datastart, bgr.dataend);
      upright = rotated(bgr, GetParam().rotation);
  }
  const std::vector<char> before = buffer;

  ASSERT_TRUE(engine_.execute(buffer.data(), kWidth, kHeight, GetParam().rotation,
                              static_cast<ArtifactDetector::ImageFormat>(GetParam().format),
                              nullptr));
  EXPECT_EQ(fake_.last_input(), expected_tensor(upright));
  const auto runs = fake_.calls(FAKE_TARN_EXECUTE);
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].width, kNetWidth);
  EXPECT_EQ(runs[0].height, kNetHeight);
  EXPECT_EQ(runs[0].format, 1);
  EXPECT_EQ(buffer, before) << "the caller's buffer was written";
}

INSTANTIATE_TEST_SUITE_P(
    FormatsAndRotations, FrameToTensor,
    ::testing::Values(FrameCase{0, 0}, FrameCase{0, 90}, FrameCase{0, 180}, FrameCase{0, 270},
                      FrameCase{1, 0}, FrameCase{1, 90}, FrameCase{1, 270}, FrameCase{1, 45},
                      FrameCase{2, 0}, FrameCase{2, 180}, FrameCase{2, 90}, FrameCase{7, 90},
                      FrameCase{7, -90}));

TEST_F(EngineRun, ImageEntryPointRunsTheSharedPipelineWithoutTouchingTheImage) {
  ASSERT_TRUE(init());
  const cv::Mat image = textured(90, 120, 3);
  const cv::Mat copy = image.clone();
  ASSERT_TRUE(engine_.execute(image, 0));
  EXPECT_EQ(fake_.last_input(), expected_tensor(image));
  EXPECT_EQ(cv::norm(image, copy, cv::NORM_INF), 0.0);
}

TEST_F(EngineRun, BufferRunLogsItsStepsInOrder) {
  ASSERT_TRUE(init());
  const cv::Mat bgr = textured(48, 64, 5);
  std::vector<char> buffer(bgr.datastart, bgr.dataend);
  set_logits({{6, 3.0f}});
  LogCapture capture;
  ASSERT_TRUE(engine_.execute(buffer.data(), 64, 48, 90, ArtifactDetector::BGR, nullptr));
  const auto lines = engine_lines(capture);
  const std::vector<std::string> patterns{
      R"(I artifact_detector Execute with odd skip called : width : 64 height : 48 image_rotation : 90 image_format : 1)",
      R"(I Rotation parameter being set to: 90)",
      R"(I TQ Debug: NV21 Artifact Detector Pre-Process : width: 48  height: 64 channels: 3 target_width: 40target_height: 30)",
      R"(I TQ Debug: Artifact Detector Pre-Process : time taken: \d+ ms)",
      R"(V Compressed buffer size: \d+ bytes)",
      R"(I TQ Debug: image_for_artifact_detection details 40 x 30 x 3)",
      R"(V Output Tensor size : \[12\])",
  };
  std::size_t at = 0;
  for (const std::string& pattern : patterns) {
    while (at < lines.size() && !std::regex_match(lines[at], std::regex(pattern))) ++at;
    ASSERT_LT(at, lines.size()) << "missing or out of order: " << pattern;
  }
  EXPECT_FALSE(capture.contains("TQ Debug: pre-processing image, with tqr_arm_neon::nv21_convert_rotate()"));
}

TEST_F(EngineRun, Nv21RunLogsTheFusedPathAndNoRotationLine) {
  ASSERT_TRUE(init());
  std::vector<char> nv21(64 * 48 * 3 / 2);
  cv::RNG(9).fill(cv::Mat(1, static_cast<int>(nv21.size()), CV_8U, nv21.data()),
                  cv::RNG::UNIFORM, 0, 256);
  LogCapture capture;
  ASSERT_TRUE(engine_.execute(nv21.data(), 64, 48, 90, ArtifactDetector::NV21, nullptr));
  const auto lines = engine_lines(capture);
  EXPECT_TRUE(capture.contains("TQ Debug: pre-processing image, with tqr_arm_neon::nv21_convert_rotate()"));
  for (const auto& line : lines) {
    EXPECT_EQ(line.find("Rotation parameter"), std::string::npos);
  }
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& l) {
    return std::regex_match(l, std::regex(R"(I TQ Debug: pre-processing image\(nv21\): time taken: \d+ms)"));
  }));
}

TEST_F(EngineRun, ResultsAreTheScoredRecordsWithStableTagPointers) {
  ASSERT_TRUE(init());
  set_logits({{5, 3.0f}, {10, 2.0f}, {11, 50.0f}});
  ASSERT_TRUE(engine_.execute(textured(48, 64, 11), 0));
  ASSERT_EQ(engine_.get_total_artifact_count(), 2);
  ArtifactDetectorImpl::Artifact_Info out[2];
  EXPECT_TRUE(engine_.get_artifact_info(out));
  EXPECT_EQ(out[0].tag_id, 5);
  EXPECT_STREQ(out[0].tag, "DonutBlur");
  EXPECT_EQ(out[0].score, artifact_detector::sigmoid({3.0f})[0]);
  EXPECT_EQ(out[1].tag_id, 10);
  EXPECT_STREQ(out[1].tag, "MildBlur");
  EXPECT_TRUE(engine_.mild_blur());

  // Runs that answer false keep the list and the very characters the records point at.
  const char* tag = out[0].tag;
  EXPECT_FALSE(engine_.execute(cv::Mat(48, 64, CV_8UC3, cv::Scalar(40, 90, 160)), 0));
  fake_.set_failure(FAKE_TARN_EXECUTE);
  EXPECT_FALSE(engine_.execute(textured(48, 64, 12), 0));
  fake_.set_failure(FAKE_TARN_EXECUTE, FAKE_TARN_SUCCEED);
  fake_.set_failure(FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT);
  EXPECT_FALSE(engine_.execute(textured(48, 64, 13), 0));
  EXPECT_FALSE(engine_.execute(cv::Mat(), 0));

  ArtifactDetectorImpl::Artifact_Info again[2];
  ASSERT_EQ(engine_.get_total_artifact_count(), 2);
  engine_.get_artifact_info(again);
  EXPECT_EQ(again[0].tag, tag);
  EXPECT_STREQ(tag, "DonutBlur");
  EXPECT_FALSE(engine_.mild_blur()) << "every run that gets past the first check clears it";
}

TEST_F(EngineRun, FalseRunsLogWhyTheyStopped) {
  ASSERT_TRUE(init());
  struct Case {
    std::function<void()> script;
    cv::Mat image;
    const char* message;
  } cases[] = {
      {[] {}, cv::Mat(48, 64, CV_8UC3, cv::Scalar(40, 90, 160)),
       "returning from same color image detection"},
      {[] {}, cv::Mat(), "TQ:Debug artifact_detector execute failed because init was unsuccessful"},
      {[this] { fake_.set_failure(FAKE_TARN_EXECUTE); }, textured(48, 64, 2),
       "TQ Debug: artifact_detector Forward Pass Failed"},
  };
  for (auto& c : cases) {
    c.script();
    LogCapture capture;
    EXPECT_FALSE(engine_.execute(c.image, 0));
    EXPECT_TRUE(capture.contains(c.message)) << c.message;
  }
}

TEST_F(EngineRun, LayerWithoutValuesGivesASuccessfulEmptyRun) {
  ASSERT_TRUE(init());
  set_logits({{6, 9.0f}});
  ASSERT_TRUE(engine_.execute(textured(48, 64, 3), 0));
  ASSERT_EQ(engine_.get_total_artifact_count(), 1);
  fake_.set_layer_output("Identity", {9.0f}, {1, 0, 1, 1}, 0);  // values, but no dimensions
  EXPECT_TRUE(engine_.execute(textured(48, 64, 4), 0));
  EXPECT_EQ(engine_.get_total_artifact_count(), 0);
}

TEST_F(EngineRun, AModelThatDidNotOpenMakesRunsFailQuietly) {
  fake_.set_failure(FAKE_TARN_OPEN_ZEPH_OPTIONS);
  ASSERT_TRUE(init()) << "the session reports a failed open by its state, not by throwing";
  LogCapture capture;
  EXPECT_FALSE(engine_.execute(textured(48, 64, 5), 0));
  EXPECT_TRUE(capture.contains("TQ Debug: artifact_detector Forward Pass Failed"));
}

TEST_F(EngineRun, ARepeatedInitializeReplacesTheSession) {
  ASSERT_TRUE(init());
  ASSERT_TRUE(init("gpu", "float32"));
  EXPECT_EQ(fake_.sessions_created(), 2);
  EXPECT_EQ(fake_.sessions_destroyed(), 1);
  EXPECT_TRUE(engine_.execute(textured(48, 64, 6), 0));
}

TEST_F(EngineRun, DestroyWaitsForARunningExecute) {
  ASSERT_TRUE(init());
  auto* detector = ArtifactDetector::Create();
  std::string models = models_.base();
  ASSERT_TRUE(detector->initialize(ArtifactDetector::DEFAULT, models.data()));

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
  EXPECT_TRUE(ran);
  EXPECT_TRUE(destroyed);
}

}  // namespace

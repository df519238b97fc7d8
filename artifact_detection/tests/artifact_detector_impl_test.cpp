// The engine over the scripted inference library: scoring and the blur rule, initialisation,
// the tensor each entry point hands the network, the log of a run, and runs that fail.
#include "artifact_detector_impl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <map>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "support/detector_fixtures.h"
#include "support/fake_tarnlink.h"
#include "support/frame_buffers.h"
#include "support/log_capture.h"
#include "utils/image_utils.h"

namespace {

using ad_test::LogCapture;
using ad_test::textured;
using artifact_detector::ArtifactDetector;
using artifact_detector::ArtifactDetectorImpl;
using artifact_detector::ArtifactInfo;
using Ids = std::vector<int>;
using Strings = std::vector<std::string>;

constexpr int kNetWidth = 40, kNetHeight = 30;
const char* const kNames[] = {"Reflection", "Shadow",   "Flare", "Moire",    "DonutBlur", "Blur",
                              "LDR",        "LowLight", "Noise", "MildBlur", "OtherBlur"};
const float kBuiltIn[] = {0.74f, 0.64f, 0.73f, 0.73f, 0.69f, 0.52f, 0.48f, 0.72f, 0.2f, 0.58f, 1.f};

float sigmoid(float x) { return artifact_detector::sigmoid({x})[0]; }

// `size` logits, all far below acceptance, with `set` overriding positions (class ids).
std::vector<float> logits(const std::map<int, float>& set, std::size_t size = 12) {
  std::vector<float> out(size, -50.0f);
  for (const auto& [id, value] : set) out[id] = value;
  return out;
}

Ids ids(const std::vector<ArtifactInfo>& infos) {
  Ids out;
  for (const auto& info : infos) out.push_back(info.tag_id);
  return out;
}

TEST(Scoring, AcceptsPlausibleScoresStrictlyAboveTheirThreshold) {
  const float at2 = sigmoid(2.0f), below2 = std::nextafter(at2, 0.0f);
  // Name, network output, thresholds (none: the built-in table), ids accepted.
  // clang-format off
  const std::tuple<const char*, std::vector<float>, std::map<int, float>, Ids> cases[] = {
      {"AllVeryNegative", logits({}), {}, {}},
      {"AscendingIdOrder", logits({{9, 3}, {2, 3}, {7, 3}}), {}, {2, 7, 9}},
      {"InfinityIsCertain", logits({{6, INFINITY}}), {}, {6}},
      {"OtherBlurNeverWithBuiltInTable", logits({{11, INFINITY}}), {}, {}},
      {"EqualToThresholdIsRejected", logits({{6, 2.0f}}), {{6, at2}}, {}},
      {"JustAboveThreshold", logits({{6, 2.0f}}), {{6, below2}}, {6}},
      {"FloorAppliesBelowAnyThreshold", logits({{9, -4.7f}}), {{9, -1.0f}}, {}},
      {"JustAboveTheFloor", logits({{9, -4.5f}}), {{9, 0.0f}}, {9}},
      {"ClassWithoutThresholdNeverReported", logits({{1, 9}, {6, 9}}), {{6, 0.45f}}, {6}},
      {"IdsOutsideTheClassesNeverReported", logits({{0, 9}, {3, 9}, {12, 9}}, 13),
       {{0, 0.0f}, {3, 0.5f}, {12, 0.0f}}, {3}},
      {"NaNRejected", logits({{3, NAN}}), {}, {}},
      {"MildBlurSetsTheFlag", logits({{10, 3}}), {}, {10}},
      {"ShortOutputReadsNothingMissing", {0.0f, 3.0f, 3.0f}, {}, {1, 2}},
      {"EmptyOutput", {}, {}, {}}};
  // clang-format on
  for (const auto& [name, output, thresholds, accepted] : cases) {
    SCOPED_TRACE(name);
    ArtifactDetectorImpl engine;
    engine.set_artifact_thresholds();
    if (!thresholds.empty()) engine.replace_artifact_thresholds(thresholds);
    std::vector<float> out = output;
    engine.getArtifactIno(out);
    EXPECT_EQ(ids(engine.results()), accepted);
    EXPECT_EQ(engine.mild_blur(), std::count(accepted.begin(), accepted.end(), 10) == 1);
    for (const ArtifactInfo& info : engine.results()) {
      EXPECT_NEAR(info.score, 1 / (1 + std::exp(-output[info.tag_id])), 1e-7);
      EXPECT_EQ(info.tag, kNames[info.tag_id - 1]);
    }
  }
}

TEST(BlurRule, DropsBlurAndMildBlurOnlyAboveConfidentOtherBlur) {
  // clang-format off
  const std::pair<std::vector<ArtifactInfo>, Ids> cases[] = {
      {{{0.9f, "Blur", 6}, {0.7f, "MildBlur", 10}, {0.61f, "OtherBlur", 11}}, {11}},
      {{{0.9f, "Blur", 6}, {0.7f, "MildBlur", 10}, {0.6f, "OtherBlur", 11}}, {6, 10, 11}},
      {{{0.9f, "DonutBlur", 5}, {0.6f, "Blur", 6}, {0.99f, "OtherBlur", 11}}, {5, 11}},
      {{{0.9f, "Blur", 6}, {0.8f, "Moire", 4}}, {6, 4}},
      {{}, {}}};
  // clang-format on
  auto line = [](const char* when, const ArtifactInfo& i) {
    return std::string(when) +
           " post_process_blur_info artifact_infos id : " + std::to_string(i.tag_id) + ", " +
           std::to_string(i.score);
  };
  for (const auto& [input, kept] : cases) {
    LogCapture capture;
    const auto out = artifact_detector::post_process_blur_info(input);
    EXPECT_EQ(ids(out), kept);
    Strings expected;
    for (const auto& i : input) expected.push_back(line("Before", i));
    expected.resize(expected.size() + input.size() - out.size(),
                    "Droping the blur and mild blur because of otherblur confidence is high");
    for (const auto& o : out) expected.push_back(line("After", o));
    EXPECT_EQ(capture.verbose_messages(), expected);
  }
}

// The engine's own lines, tagged I (LogMessage) or V (formatted), without file and line.
Strings engine_lines(const LogCapture& capture) {
  Strings out;
  for (const auto& line : capture.lines()) {
    if (ad_test::located(line.text).rfind("artifact_detector_impl.cpp:", 0) != 0) continue;
    out.push_back((line.tag == "TQR_ARTIFACT_DET" ? "I " : "V ") + ad_test::message(line.text));
  }
  return out;
}

class EngineRun : public ::testing::Test {
 protected:
  void SetUp() override { script({}); }
  void script(const std::map<int, float>& set, const char* layer = "Identity") {
    fake_.reset();
    fake_.set_input_size(kNetWidth, kNetHeight);
    fake_.set_layer_output(layer, logits(set), {1, 12, 1, 1}, 0);
  }
  bool init(const std::string& model_type = "cpu", const std::string& precision = "float32") {
    ad_test::write_model_info(models_, models_.base() + "net.onnx", model_type, precision);
    std::string path = models_.base();
    return engine_.initialize(ArtifactDetector::DEFAULT, path.data());
  }

  ad_test::FakeTarnlink fake_;
  ad_test::TempDir models_;
  ArtifactDetectorImpl engine_;
};

// No threshold file here: the built-in table applies, over whatever was there. Ids without a
// class (a threshold file may bring them) are logged without a name.
TEST_F(EngineRun, InitializeOpensTheModelLogsTheThresholdsAndRunsReadItsLayer) {
  const std::string unit_fallback =
      "V TQ Debug: Couldn't identify the COMPUTE UNIT from .info file, so setting COMPUTE UNIT "
      "to CPU";
  const std::string precision_fallback =
      "V TQ Debug: Couldn't identify the EXECUTION DATA TYPE from .info file, so setting "
      "EXECUTION DATA TYPE to FLOAT16";
  // model_type, precision, unit and precision codes, layer, the fallbacks logged
  const std::tuple<std::string, std::string, int, int, std::string, Strings> cases[] = {
      {"gpu", "qasymm8", 1, 3, "Identity", {}},
      {"dsp", "qasymm16", 2, 2, "prob", {}},
      {"NPU", "float16", 0, 1, "Identity", {unit_fallback}},
      {"", "int8", 0, 1, "Identity", {unit_fallback, precision_fallback}}};
  for (const auto& [type, precision, unit, code, layer, fallbacks] : cases) {
    SCOPED_TRACE(type + "/" + precision);
    script({{4, 5.0f}}, layer.c_str());
    engine_.replace_artifact_thresholds({{0, 0.25f}, {6, 0.99f}, {42, 0.125f}});
    LogCapture capture;
    ASSERT_TRUE(init(type, precision));
    Strings expected{"I Initializing Semantic Map ...",
                     "I Artiface detector Models path :" + models_.base(),
                     "V TQ Debug: setting COMPUTE UNIT to " + type + ", " + precision};
    expected.insert(expected.end(), fallbacks.begin(), fallbacks.end());
    expected.insert(expected.end(),
                    {"V TQ:Debug NNet declared successfully", "V Artifact: , Threshold: 0.250000"});
    for (int i = 0; i < 11; ++i) {
      expected.push_back(cv::format("V Artifact: %s, Threshold: %f", kNames[i], kBuiltIn[i]));
    }
    expected.push_back("V Artifact: , Threshold: 0.125000");
    EXPECT_EQ(engine_lines(capture), expected);
    const auto opens = fake_.calls(FAKE_TARN_OPEN_ZEPH_OPTIONS);
    ASSERT_EQ(opens.size(), 1u);
    const FakeTarnCall& o = opens[0];
    EXPECT_EQ(std::tie(o.path, o.module, o.compute_unit, o.precision, o.layer_names),
              std::make_tuple(models_.base() + "net.onnx", "artifact_Detector", unit, code,
                              Strings{layer}));
    ASSERT_TRUE(engine_.execute(textured(60, 80, 1), 0));  // only `layer` has an output
    EXPECT_EQ(ids(engine_.results()), Ids{4});
  }
}

// What the network must receive for an upright frame: INTER_AREA to the network size, one
// JPEG round trip at quality 95, every byte minus 128, channels interleaved.
std::vector<float> expected_tensor(const cv::Mat& upright) {
  cv::Mat small, floats;
  cv::resize(upright, small, cv::Size(kNetWidth, kNetHeight), 0, 0, cv::INTER_AREA);
  std::vector<uchar> jpeg;
  cv::imencode(".jpg", small, jpeg, {cv::IMWRITE_JPEG_QUALITY, 95});
  cv::imdecode(jpeg, cv::IMREAD_COLOR).reshape(1, 1).convertTo(floats, CV_32F, 1.0, -128.0);
  return std::vector<float>(floats.begin<float>(), floats.end<float>());
}

TEST_F(EngineRun, EveryFormatAndRotationReachesTheNetworkAsTheExpectedTensor) {
  ASSERT_TRUE(init());
  const std::map<int, cv::RotateFlags> turns{
      {90, cv::ROTATE_90_CLOCKWISE}, {180, cv::ROTATE_180}, {270, cv::ROTATE_90_COUNTERCLOCKWISE}};
  // Format (-1: the image entry point), rotation, width, height; 70 x 50 leaves NV21 columns
  // after the last 16-column block.
  const std::array<int, 4> cases[] = {
      {0, 0, 64, 48},  {0, 90, 64, 48},  {0, 180, 64, 48}, {0, 270, 64, 48}, {1, 0, 64, 48},
      {1, 90, 64, 48}, {1, 270, 64, 48}, {1, 45, 64, 48},  {2, 0, 64, 48},   {2, 180, 64, 48},
      {7, 90, 64, 48}, {7, -90, 64, 48}, {-1, 0, 64, 48},  {0, 90, 70, 50},  {0, 270, 70, 50},
      {0, 0, 70, 50},  {1, 90, 70, 50},  {2, 270, 70, 50}, {-1, 0, 70, 50}};
  for (const auto& [format, rotation, width, height] : cases) {
    SCOPED_TRACE(cv::format("format %d rotation %d %dx%d", format, rotation, width, height));
    const cv::Mat bgr = textured(height, width, 7);
    cv::Mat layout = bgr.clone(), upright = bgr;
    if (format == ArtifactDetector::NV21) {
      cv::cvtColor(bgr, layout, cv::COLOR_BGR2YUV_YV12);  // any bytes of NV21's size will do
      upright =
          tqr_arm_neon::nv21_convert_rotate(reinterpret_cast<char*>(layout.data), width, height, 0);
    } else if (format == ArtifactDetector::RGBA) {
      cv::cvtColor(bgr, layout, cv::COLOR_BGR2RGBA);
    }
    if (turns.count(rotation)) cv::rotate(upright, upright, turns.at(rotation));
    const cv::Mat before = layout.clone();
    script({});
    ASSERT_TRUE(format < 0
                    ? engine_.execute(layout, 0)
                    : engine_.execute(reinterpret_cast<char*>(layout.data), width, height, rotation,
                                      ArtifactDetector::ImageFormat(format), nullptr));
    EXPECT_EQ(fake_.last_input(), expected_tensor(upright));
    const auto runs = fake_.calls(FAKE_TARN_EXECUTE);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(std::tie(runs[0].width, runs[0].height, runs[0].format),
              std::make_tuple(kNetWidth, kNetHeight, 1));
    EXPECT_EQ(cv::norm(layout, before, cv::NORM_INF), 0.0) << "the caller's pixels were written";
  }
}

TEST_F(EngineRun, BufferRunsLogTheirStepsInOrder) {
  ASSERT_TRUE(init());
  const cv::Mat bgr = textured(48, 64, 5);
  std::vector<char> nv21(64 * 48 * 3 / 2, 90);  // uniform: the run stops at the colour check
  for (int format : {1, 0}) {
    LogCapture capture;
    char* buffer = format == 1 ? reinterpret_cast<char*>(bgr.data) : nv21.data();
    EXPECT_EQ(engine_.execute(buffer, 64, 48, 90, ArtifactDetector::ImageFormat(format), nullptr),
              format == 1);
    Strings expected{
        "I artifact_detector Execute with odd skip called : width : 64 height : 48 "
        "image_rotation : 90 image_format : " +
        std::to_string(format)};
    if (format == 1) expected.push_back("I Rotation parameter being set to: 90");
    if (format == 0) {
      expected.push_back(
          "I TQ Debug: pre-processing image, with tqr_arm_neon::nv21_convert_rotate()");
      expected.push_back("I TQ Debug: pre-processing image(nv21): time taken: Nms");
    }
    expected.insert(expected.end(),
                    {"I TQ Debug: NV21 Artifact Detector Pre-Process : width: 48  height: 64 "
                     "channels: 3 target_width: 40target_height: 30",
                     "I TQ Debug: Artifact Detector Pre-Process : time taken: N ms",
                     "V Compressed buffer size: N bytes",
                     format == 1 ? "I TQ Debug: image_for_artifact_detection details 40 x 30 x 3"
                                 : "I returning from same color image detection"});
    if (format == 1) {  // then scoring: the tensor size, the count and eleven probabilities
      expected.insert(expected.end(),
                      {"V Output Tensor size : [12]", "V Output result_artifacts size : [11]"});
      for (int i = 0; i < 11; ++i)
        expected.push_back("V output result_artifacts id : " + std::to_string(i) + ", 0.000000");
    }
    EXPECT_EQ(engine_lines(capture), expected);
  }
}

TEST_F(EngineRun, FalseRunsKeepTheResultsAndTheCharactersTheyPointAt) {
  script({{5, 3.0f}, {10, 2.0f}, {11, 50.0f}});
  ASSERT_TRUE(init());
  ASSERT_TRUE(engine_.execute(textured(48, 64, 11), 0));
  ASSERT_EQ(engine_.get_total_artifact_count(), 2);
  ArtifactDetectorImpl::Artifact_Info out[2];
  EXPECT_TRUE(engine_.get_artifact_info(out));
  EXPECT_EQ(std::make_tuple(out[0].tag_id, std::string(out[0].tag), out[0].score, out[1].tag_id,
                            std::string(out[1].tag)),
            std::make_tuple(5, "DonutBlur", sigmoid(3.0f), 10, "MildBlur"));

  // Execute and output failures are the fault test's; these stop before the network. NV21
  // of an odd size would make the converters read past the frame (and write past their own
  // image): it is refused before any of them runs.
  auto image = [&](cv::Mat m) { return [&, m] { return engine_.execute(m, 0); }; };
  auto odd_nv21 = [&](int width, int height, int rotation) {
    return [&, width, height, rotation] {
      ad_test::PageEndBuffer frame(std::size_t(width) * height * 3 / 2);
      return engine_.execute(frame.chars(), width, height, rotation, ArtifactDetector::NV21,
                             nullptr);
    };
  };
  const std::string odd =
      "TQ Debug: artifact_detector execute skipped: NV21 needs even width "
      "and height, got width : ";
  const std::pair<std::function<bool()>, std::string> cases[] = {
      {image(cv::Mat(48, 64, CV_8UC3, cv::Scalar(40, 90, 160))),
       "returning from same color image detection"},
      {image(cv::Mat()), "TQ:Debug artifact_detector execute failed because init was unsuccessful"},
      {odd_nv21(641, 481, 0), odd + "641 height : 481"},
      {odd_nv21(641, 481, 270), odd + "641 height : 481"},
      {odd_nv21(641, 480, 90), odd + "641 height : 480"},
      {odd_nv21(64, 47, 180), odd + "64 height : 47"},
      {odd_nv21(1, 1, 0), odd + "1 height : 1"},
      {odd_nv21(3, 2, 0), odd + "3 height : 2"}};
  for (const auto& [run, message] : cases) {
    SCOPED_TRACE(message);
    LogCapture capture;
    EXPECT_FALSE(run());
    const Strings info = capture.info_messages();
    EXPECT_EQ(std::count(info.begin(), info.end(), message), 1);
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

}  // namespace

#include "core/net/NNet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <regex>
#include <tuple>

#include "support/fake_tarnlink.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using ad_test::FakeTarnlink;
using ad_test::FakeVariant;
using ad_test::LogCapture;

const char* const kModule = "artifact_Detector";

// Captured lines as "<file>: <line>: <text>" (verbose) and "<file>:<line>: <text>" (info),
// with elapsed milliseconds replaced by "N".
std::vector<std::string> located(const LogCapture& capture, const std::string& tag) {
  static const std::regex time_header(R"(^\[[0-9:]{8}\] )");
  static const std::regex elapsed(R"(taken: [0-9-]+ ms)");
  std::vector<std::string> out;
  for (std::string text : capture.texts(tag)) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    text = std::regex_replace(text, time_header, "");
    out.push_back(std::regex_replace(text, elapsed, "taken: N ms"));
  }
  return out;
}
std::vector<std::string> verbose(const LogCapture& c) {
  return located(c, "ImageSearchJNI_ARTI_DET");
}
std::vector<std::string> info(const LogCapture& c) { return located(c, "TQR_ARTIFACT_DET"); }

class NNetTest : public ::testing::Test {
 protected:
  void use_variant(FakeVariant variant) {
    fake.reset();
    fake = std::make_unique<FakeTarnlink>(variant);
  }
  std::unique_ptr<NNet> make(const std::string& model = "net.tflite", int compute_unit = 1) {
    return std::make_unique<NNet>(model, kModule, std::vector<std::string>{"Identity"},
                                  std::vector<float>{1.0f, 2.0f, 3.0f}, compute_unit, 1);
  }

  std::unique_ptr<FakeTarnlink> fake = std::make_unique<FakeTarnlink>();
  LogCapture capture;
};

// --- opening --------------------------------------------------------------------------------

struct OpenCase {
  const char* name;
  std::string model;  // "<tmp>" is replaced by a models base directory holding the module
  int compute_unit;
  FakeVariant variant;
  FakeTarnOp open_op;
  std::string opened_path;
  int model_type;  // options-based open only
  const char* input_layer;
  std::vector<std::string> info;
};
void PrintTo(const OpenCase& c, std::ostream* os) { *os << c.name; }

class NNetOpen : public NNetTest, public ::testing::WithParamInterface<OpenCase> {};

TEST_P(NNetOpen, ChoosesTheOpenByTheModelString) {
  const OpenCase& c = GetParam();
  ad_test::TempDir dir;
  dir.make_dir(kModule);
  auto resolve = [&](std::string s) {
    return std::regex_replace(s, std::regex("<tmp>"), dir.base());
  };
  use_variant(c.variant);
  fake->set_input_size(320, 240);
  auto net = make(resolve(c.model), c.compute_unit);

  EXPECT_EQ(fake->call_ops(),
            (std::vector<FakeTarnOp>{FAKE_TARN_CREATE, c.open_op, FAKE_TARN_GET_INPUT_DIMENS}));
  const FakeTarnCall open = fake->calls(c.open_op).at(0);
  EXPECT_EQ(open.session, fake->calls(FAKE_TARN_GET_INPUT_DIMENS).at(0).session);
  EXPECT_EQ(open.path, resolve(c.opened_path));
  EXPECT_EQ(open.layer_names, std::vector<std::string>{"Identity"});
  EXPECT_EQ(open.compute_unit, c.compute_unit);
  EXPECT_EQ(open.precision, 1);
  if (c.open_op == FAKE_TARN_OPEN) {
    EXPECT_EQ(open.module, kModule);
  }
  if (c.open_op == FAKE_TARN_OPEN_ZEPH_OPTIONS) {
    const ZEPHInterface& o = *open.options;
    EXPECT_EQ(o.model_type, c.model_type);
    EXPECT_EQ(o.input_layer_names, std::vector<std::string>{c.input_layer});
    EXPECT_EQ(o.model_name, resolve(c.model));
    EXPECT_EQ(o.model_path, resolve(c.model));
    EXPECT_EQ(o.module, kModule);
    EXPECT_EQ(o.use_options, 1);
    // What the detector leaves alone keeps the record's defaults.
    const ZEPHInterface defaults;
    EXPECT_EQ(o.performance_profile, defaults.performance_profile);
    EXPECT_EQ(o.cache_policy, defaults.cache_policy);
    EXPECT_EQ(o.priority, defaults.priority);
    EXPECT_EQ(o.init_flags, 0);
    EXPECT_TRUE(o.input_means.empty() && o.input_shapes.empty());
  }
  EXPECT_EQ(info(capture), c.info);
  int height = 0, width = 0;
  net->get_target_dimen(height, width);
  EXPECT_EQ(height, 240);
  EXPECT_EQ(width, 320);
}

const std::string kCalling =
    "NNet.cpp:58: TQ Debug: calling TarnWrapper_openDLModel_ptr_zephOptions";
const std::string kLayer = "NNet.cpp:151: TQ Debug: set_zeph_options layername= Identity";
std::string extension_line(const std::string& ext) {
  return "NNet.cpp:124: TQ Debug: set_zeph_options model_extention= " + ext;
}
const std::string kZephLite =
    "NNet.cpp:136: TQ Debug: set_zeph_options setting the model type to ZEPH_ZEPHLITE";
const std::string kOrla = "NNet.cpp:132: TQ Debug: set_zeph_options setting the model type to ORLA";
const std::string kKtv = "NNet.cpp:128: TQ Debug: set_zeph_options setting the model type to KTV";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Models, NNetOpen, ::testing::Values(
    OpenCase{"TfliteOnGpu", "net.tflite", 1, FakeVariant::kFull, FAKE_TARN_OPEN_ZEPH_OPTIONS,
             "net.tflite", 9, "inputs_0", {kCalling, extension_line(".tflite"), kZephLite, kLayer}},
    OpenCase{"DlaOnNpu", "dir/net.dla", 3, FakeVariant::kFull, FAKE_TARN_OPEN_ZEPH_OPTIONS,
             "dir/net.dla", 11, "data", {kCalling, extension_line(".dla"), kKtv, kLayer}},
    OpenCase{"TfliteOnNpu", "net.tflite", 3, FakeVariant::kFull, FAKE_TARN_OPEN_ZEPH_OPTIONS,
             "net.tflite", 2, "data", {kCalling, extension_line(".tflite"), kOrla, kLayer}},
    OpenCase{"UnknownExtension", "net.bin", 0, FakeVariant::kFull, FAKE_TARN_OPEN_ZEPH_OPTIONS,
             "net.bin", 0, "inputs_0", {kCalling, extension_line(".bin"), kZephLite, kLayer}},
    OpenCase{"DotInDirectoryOnDsp", "models.v2/net", 2, FakeVariant::kFull,
             FAKE_TARN_OPEN_ZEPH_OPTIONS, "models.v2/net", 0, "data",
             {kCalling, extension_line(".v2/net"), kLayer}},
    OpenCase{"ExtensionFromTheFirstDot", "a.b.dla", 3, FakeVariant::kFull,
             FAKE_TARN_OPEN_ZEPH_OPTIONS, "a.b.dla", 0, "data",
             {kCalling, extension_line(".b.dla"), kOrla, kLayer}},
    OpenCase{"DirectWhenOptionsOpenMissing", "net.tflite", 1, FakeVariant::kNoZephOptions,
             FAKE_TARN_OPEN_DIRECT, "net.tflite", 0, "",
             {"NNet.cpp:67: TQ Debug: failed to call TarnWrapper_openDLModel_ptr_zephOptions"}},
    OpenCase{"NoDotIsABaseDirectory", "<tmp>", 0, FakeVariant::kRequiredOnly, FAKE_TARN_OPEN,
             "<tmp>", 0, "", {}},
    OpenCase{"NoDotAndNoModelAnywhere", "<tmp>elsewhere/", 0, FakeVariant::kFull, FAKE_TARN_OPEN,
             "", 0, "", {}}),
    [](const ::testing::TestParamInfo<OpenCase>& info) { return info.param.name; });
// clang-format on

TEST_F(NNetTest, SuccessfulOpenLogsInOrderAndReleasesOnce) {
  const std::string path = fake->path();
  {
    auto net = make();
    EXPECT_EQ(
        verbose(capture),
        (std::vector<std::string>{
            "NNet.cpp: 15: TQ Debug: NNet Constructor called for net.tflite, artifact_Detector",
            "NNet.cpp: 22: init_net Mean for channel 0 is 1.000000",
            "NNet.cpp: 22: init_net Mean for channel 1 is 2.000000",
            "NNet.cpp: 22: init_net Mean for channel 2 is 3.000000",
            "dl_loader.cpp: 12: TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR",
            "NNet.cpp: 86: TQ Debug: NNet Contructor Model Dimensions - width=[224], height=[224]",
            "NNet.cpp: 87: TQ Debug: NNet Contructor completed for module - artifact_Detector",
            "NNet.cpp: 90: TQ Debug: engine-compute: Open time taken: N ms for module - "
            "artifact_Detector"}));
    capture.clear();
  }
  EXPECT_EQ(verbose(capture),
            (std::vector<std::string>{
                "NNet.cpp: 374: TQ Debug: Closing of Tarnlink handle completed in ~NNet for "
                "artifact_Detector",
                "NNet.cpp: 376: TQ Debug: engine-compute: Close time taken: N ms for module "
                "artifact_Detector"}));
  const auto destroys = fake->calls(FAKE_TARN_DESTROY);
  ASSERT_EQ(destroys.size(), 1u);
  EXPECT_EQ(destroys[0].session, fake->calls(FAKE_TARN_GET_INPUT_DIMENS).at(0).session);
  EXPECT_EQ(fake->sessions_destroyed(), 1);
  // Still loaded through the fake's own reference, gone with it: one dlclose by the net.
  EXPECT_TRUE(FakeTarnlink::is_loaded(path));
  fake.reset();
  EXPECT_FALSE(FakeTarnlink::is_loaded(path));
}

struct FailureCase {
  const char* name;
  std::string model;
  FakeTarnOp op;
  FakeTarnFailure failure;
  std::vector<FakeTarnOp> ops;  // the calls, destroy included
  std::string log;              // the line that tells why, if any
};
void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class NNetOpenFailure : public NNetTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(NNetOpenFailure, LeavesAClosedButUsableNetAndReleasesItsSession) {
  const FailureCase& c = GetParam();
  fake->set_failure(c.op, c.failure);
  {
    auto net = make(c.model);
    cv::Mat image(224, 224, CV_8UC3, cv::Scalar::all(7));
    int d0 = 0, d1 = 0, d2 = 0, d3 = 0, format = 0;
    capture.clear();
    EXPECT_FALSE(net->forward_pass(image));
    EXPECT_EQ(net->get_layer_output_with_format("Identity", d0, d1, d2, d3, format), nullptr);
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_FALSE(net->init_net(c.model, kModule, {"Identity"}, {}, 1, 1));
    auto lines = verbose(capture);
    EXPECT_EQ(lines.at(lines.size() - 2),
              "NNet.cpp: 87: TQ Debug: NNet Contructor failed for module - artifact_Detector");
    if (!c.log.empty()) {
      const auto all = info(capture);
      lines.insert(lines.end(), all.begin(), all.end());
      EXPECT_NE(std::find(lines.begin(), lines.end(), c.log), lines.end()) << c.log;
    }
  }
  // Two opens, each session (or null) destroyed once.
  std::vector<FakeTarnOp> twice = c.ops;
  twice.insert(twice.end(), c.ops.begin(), c.ops.end());
  EXPECT_EQ(fake->call_ops(), twice);
  EXPECT_EQ(fake->sessions_created(), fake->sessions_destroyed());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Failures, NNetOpenFailure, ::testing::Values(
    FailureCase{"CreateNull", "net.tflite", FAKE_TARN_CREATE, FAKE_TARN_RETURN_FAILURE,
                {FAKE_TARN_CREATE, FAKE_TARN_DESTROY}, ""},
    FailureCase{"OptionsOpenFalse", "net.tflite", FAKE_TARN_OPEN_ZEPH_OPTIONS,
                FAKE_TARN_RETURN_FAILURE,
                {FAKE_TARN_CREATE, FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_DESTROY},
                "NNet.cpp:62: TQ Debug: failed to open models using zeph options api"},
    FailureCase{"OptionsOpenThrows", "net.tflite", FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_THROW,
                {FAKE_TARN_CREATE, FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_DESTROY},
                "NNet.cpp: 78: Tarnlink: ZEPH session returned NULL ! Exception thrown in open "
                "for module artifact_Detector | fake inference library failure"},
    FailureCase{"PlainOpenFalse", "models", FAKE_TARN_OPEN, FAKE_TARN_RETURN_FAILURE,
                {FAKE_TARN_CREATE, FAKE_TARN_OPEN, FAKE_TARN_DESTROY}, ""},
    FailureCase{"InputSizeFalse", "net.tflite", FAKE_TARN_GET_INPUT_DIMENS,
                FAKE_TARN_RETURN_FAILURE,
                {FAKE_TARN_CREATE, FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_GET_INPUT_DIMENS,
                 FAKE_TARN_DESTROY}, ""}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return info.param.name; });
// clang-format on

TEST_F(NNetTest, ForeignExceptionLeavesInitUnlockedAndConstructorReleasesTheSession) {
  auto net = make();
  fake->set_failure(FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_THROW_NON_STD);
  EXPECT_THROW(net->init_net("net.tflite", kModule, {"Identity"}, {}, 1, 1), int);
  fake->set_failure(FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_SUCCEED);
  EXPECT_TRUE(net->init_net("net.tflite", kModule, {"Identity"}, {}, 1, 1));  // lock was freed
  net.reset();
  fake->set_failure(FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_THROW_NON_STD);
  EXPECT_THROW(make(), int);
  EXPECT_EQ(fake->sessions_created(), 4);
  EXPECT_EQ(fake->sessions_destroyed(), 4);
}

// --- forward pass ---------------------------------------------------------------------------

cv::Mat noise(int rows, int cols, int type = CV_8UC3) {
  cv::Mat image(rows, cols, type);
  cv::RNG rng(7);
  rng.fill(image, cv::RNG::UNIFORM, 0, 256);
  image.at<uchar>(0, 0) = 0;
  image.at<uchar>(0, 1) = 255;
  return image;
}

std::vector<float> minus_128(const cv::Mat& image, int count) {
  std::vector<float> out;
  for (int i = 0; i < count; ++i) out.push_back(static_cast<float>(image.data[i]) - 128.0f);
  return out;
}

struct PassCase {
  const char* name;
  int rows, cols;
  bool resized;
};
void PrintTo(const PassCase& c, std::ostream* os) { *os << c.name; }

class NNetForward : public NNetTest, public ::testing::WithParamInterface<PassCase> {};

TEST_P(NNetForward, HandsTheLibraryPixelsMinus128InterleavedAtTheNetworkSize) {
  const PassCase& c = GetParam();
  fake->set_input_size(16, 12);
  auto net = make();
  const cv::Mat image = noise(c.rows, c.cols);
  const cv::Mat before = image.clone();
  capture.clear();
  testing::internal::CaptureStdout();
  EXPECT_TRUE(net->forward_pass(image));
  const std::string out = testing::internal::GetCapturedStdout();

  cv::Mat sent = image;
  if (c.resized) {
    cv::Mat resized;
    cv::resize(image, resized, cv::Size(16, 12), 0, 0, cv::INTER_LINEAR);
    std::vector<uchar> jpeg;
    cv::imencode(".jpg", resized, jpeg, {cv::IMWRITE_JPEG_QUALITY, 95});
    sent = cv::imdecode(jpeg, cv::IMREAD_COLOR);
    ASSERT_GT(cv::norm(sent, resized, cv::NORM_INF), 0.0);  // the round trip shows
    EXPECT_NE(out.find("Compressed buffer size: " + std::to_string(jpeg.size()) + " bytes\n"),
              std::string::npos);
    const auto lines = info(capture);
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(lines.begin() + 1, lines.begin() + 3),
              (std::vector<std::string>{
                  "NNet.cpp:197: TQ Debug: Miss-match in the input-image-size(" +
                      std::to_string(c.cols) + ", " + std::to_string(c.rows) +
                      ") and the target-image-size(16, 12) in forward-pass",
                  "NNet.cpp:198: TQ Debug: Resizing the image to match target input image size"}));
  }
  const auto run = fake->calls(FAKE_TARN_EXECUTE).at(0);
  EXPECT_EQ(std::make_tuple(run.width, run.height, run.format), std::make_tuple(16, 12, 1));
  EXPECT_EQ(fake->last_input(), minus_128(sent, 16 * 12 * 3));
  const cv::Vec3b pixel = sent.at<cv::Vec3b>(10, 10);
  EXPECT_NE(out.find("Pixel at (10,10): [" + std::to_string(pixel[0]) + ", " +
                     std::to_string(pixel[1]) + ", " + std::to_string(pixel[2]) + "]\n"),
            std::string::npos);
  EXPECT_EQ(cv::norm(image, before, cv::NORM_INF), 0.0);
}

INSTANTIATE_TEST_SUITE_P(Sizes, NNetForward,
                         ::testing::Values(PassCase{"NetworkSize", 12, 16, false},
                                           PassCase{"WidthMatchesOnly", 20, 16, false},
                                           PassCase{"HeightMatchesOnly", 12, 30, false},
                                           PassCase{"BothDiffer", 30, 40, true}),
                         [](const ::testing::TestParamInfo<PassCase>& i) { return i.param.name; });

TEST_F(NNetTest, ForwardPassLogsTheTargetAndChannelStatistics) {
  auto net = make();
  capture.clear();
  EXPECT_TRUE(net->forward_pass(cv::Mat(224, 224, CV_8UC3, cv::Scalar(0, 138, 255))));
  EXPECT_EQ(info(capture), (std::vector<std::string>{
                               "NNet.cpp:191: Target image size (CHW): 3, 224, 224",
                               "NNet.cpp:243: Channel 0 - Min: -128, Max: -128",
                               "NNet.cpp:243: Channel 1 - Min: 10, Max: 10",
                               "NNet.cpp:243: Channel 2 - Min: 127, Max: 127",
                               "NNet.cpp:247: Resized image stats - Mean: [-128, 10, 127, 0]"}));
  EXPECT_EQ(
      verbose(capture),
      (std::vector<std::string>{
          "NNet.cpp: 226: TQ Debug: Substracting channels means 128.0, 128.0, 128.0 in library",
          "NNet.cpp: 303: TQ Debug: NNet forward pass completed",
          "NNet.cpp: 305: TQ Debug: engine-compute: Execute time taken: N ms for "
          "artifact_Detector-module"}));
}

struct RejectCase {
  const char* name;
  cv::Mat image;
  std::string line;
};
void PrintTo(const RejectCase& c, std::ostream* os) { *os << c.name; }

class NNetRejects : public NNetTest, public ::testing::WithParamInterface<RejectCase> {};

TEST_P(NNetRejects, ImageItCannotRunWithoutCallingTheLibrary) {
  auto net = make();
  capture.clear();
  EXPECT_FALSE(net->forward_pass(GetParam().image));
  EXPECT_EQ(info(capture).back(), GetParam().line);
  EXPECT_TRUE(fake->calls(FAKE_TARN_EXECUTE).empty());
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, NNetRejects,
    ::testing::Values(
        RejectCase{"Empty", cv::Mat(),
                   "NNet.cpp:182: TQ Debug: Image for forward-pass cannot be empty"},
        RejectCase{"Gray", cv::Mat(224, 224, CV_8UC1, cv::Scalar(1)),
                   "NNet.cpp:193: TQ Debug: Expected 3 channels in the input image, but received "
                   "input image has 1 channels"},
        RejectCase{"Rgba", cv::Mat(224, 224, CV_8UC4, cv::Scalar::all(1)),
                   "NNet.cpp:193: TQ Debug: Expected 3 channels in the input image, but received "
                   "input image has 4 channels"}),
    [](const ::testing::TestParamInfo<RejectCase>& i) { return i.param.name; });

// --- output layers --------------------------------------------------------------------------

struct OutputCase {
  const char* name;
  FakeVariant variant;
  bool run_ok;
  bool output_ok;
  int format;
  std::array<int, 4> reported;
  std::array<int, 4> expected;
  std::vector<std::string> lines;  // after the "called for" line
};
void PrintTo(const OutputCase& c, std::ostream* os) { *os << c.name; }

class NNetOutput : public NNetTest, public ::testing::WithParamInterface<OutputCase> {};

TEST_P(NNetOutput, ReturnsTheLibraryValuesWithDimensionsInChannelLastOrder) {
  const OutputCase& c = GetParam();
  use_variant(c.variant);
  const std::vector<float> values = {0.25f, 0.5f};
  fake->set_layer_output("Identity", values, c.reported, c.format);
  fake->set_failure(FAKE_TARN_EXECUTE, c.run_ok ? FAKE_TARN_SUCCEED : FAKE_TARN_RETURN_FAILURE);
  fake->set_failure(FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT,
                    c.output_ok ? FAKE_TARN_SUCCEED : FAKE_TARN_RETURN_FAILURE);
  auto net = make();
  EXPECT_EQ(net->forward_pass(cv::Mat(224, 224, CV_8UC3, cv::Scalar::all(9))), c.run_ok);
  capture.clear();
  std::array<int, 4> d = {-1, -1, -1, -1};
  int format = -1;
  auto* data = static_cast<float*>(
      net->get_layer_output_with_format("Identity", d[0], d[1], d[2], d[3], format));
  std::vector<std::string> expected = {
      "NNet.cpp: 335: TQ Debug: NNet get layer output with format called for Identity"};
  expected.insert(expected.end(), c.lines.begin(), c.lines.end());
  EXPECT_EQ(verbose(capture), expected);
  if (c.expected[0] < 0) {
    EXPECT_EQ(data, nullptr);
    return;
  }
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(std::vector<float>(data, data + 2), values);
  EXPECT_EQ(d, c.expected);
  EXPECT_EQ(format, c.format);
}

const std::string kNull =
    "NNet.cpp: 349: TQ Debug: NNet get layer output with format NULL for Identity";
const std::string kDimensions =
    "NNet.cpp: 346: TQ Debug: NNet layer output dimensions for Identity are ";
const std::string kDone =
    "NNet.cpp: 353: TQ Debug: NNet get layer output with format completed for Identity";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Layers, NNetOutput, ::testing::Values(
    OutputCase{"Format1Rotated", FakeVariant::kFull, true, true, 1, {1, 8, 2, 3}, {1, 2, 3, 8},
               {kDimensions + "1, 2, 3, 8 and format: 1", kDone}},
    OutputCase{"Format0AsReported", FakeVariant::kFull, true, true, 0, {1, 8, 2, 3},
               {1, 8, 2, 3}, {kDimensions + "1, 8, 2, 3 and format: 0", kDone}},
    OutputCase{"AfterFailedRun", FakeVariant::kFull, false, true, 0, {1, 11, 1, 1}, {-1},
               {kNull}},
    OutputCase{"LibraryHasNoValues", FakeVariant::kFull, true, false, 0, {1, 11, 1, 1}, {-1},
               {kDimensions + "1, 11, 1, 1 and format: 0", kNull}},
    OutputCase{"LibraryWithoutTheOperation", FakeVariant::kNoOutputFormat, true, true, 0,
               {1, 11, 1, 1}, {-1},
               {"dl_loader.cpp: 130: TQ Debug: TarnWrapper_getLayerOutputAndFormat symbol not "
                "found", kNull}}),
    [](const ::testing::TestParamInfo<OutputCase>& i) { return i.param.name; });
// clang-format on

}  // namespace

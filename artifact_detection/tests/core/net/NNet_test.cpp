// The network session over the scripted inference library: which open it calls with what, its
// log lines, the tensor it hands over and the output it reads back. Library faults are the
// fault test's, seen through the detector.
#include "core/net/NNet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>

#include "support/fake_tarnlink.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using ad_test::FakeTarnlink;
using ad_test::FakeVariant;
using Strings = std::vector<std::string>;
using Ops = std::vector<FakeTarnOp>;
constexpr FakeTarnOp kCreate = FAKE_TARN_CREATE, kOpen = FAKE_TARN_OPEN,
                     kDirect = FAKE_TARN_OPEN_DIRECT, kZeph = FAKE_TARN_OPEN_ZEPH_OPTIONS,
                     kDims = FAKE_TARN_GET_INPUT_DIMENS, kRun = FAKE_TARN_EXECUTE,
                     kOutput = FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT, kDestroy = FAKE_TARN_DESTROY;
const std::string kModule = "artifact_Detector";

class NNetTest : public ::testing::Test {
 protected:
  std::unique_ptr<NNet> make(const std::string& model = "net.tflite", int compute_unit = 1) {
    capture.clear();
    return std::make_unique<NNet>(model, kModule, Strings{"Identity"},
                                  std::vector<float>{1.0f, 2.0f, 3.0f}, compute_unit, 1);
  }
  // Captured texts of `tag` as `located` gives them, NNet's own without their file name.
  Strings lines(const char* tag = "ImageSearchJNI_ARTI_DET") const {
    Strings out;
    for (const std::string& text : capture.texts(tag)) {
      const std::string line = ad_test::located(text);
      out.push_back(line.rfind("NNet.cpp:", 0) == 0 ? line.substr(9) : line);
    }
    return out;
  }
  Strings info() const { return lines("TQR_ARTIFACT_DET"); }

  std::optional<FakeTarnlink> fake{std::in_place};
  ad_test::LogCapture capture;
};

TEST_F(NNetTest, ChoosesTheOpenByTheModelString) {
  ad_test::TempDir dir;
  dir.make_dir(kModule);
  const std::string base = dir.base(),
                    type = ": TQ Debug: set_zeph_options setting the model type to ",
                    lite = "136" + type + "ZEPH_ZEPHLITE", orla = "132" + type + "ORLA";
  // Model, compute unit, open, model type and input layer of the options, the extension and
  // model-type lines logged; the library variant; the base handed to the plain open.
  // clang-format off
  struct Case { std::string model; int unit; FakeTarnOp op; int type; const char* input;
    std::string ext, label; FakeVariant variant = FakeVariant::kFull; std::string base = {}; };
  const Case cases[] = {
      {"net.tflite", 1, kZeph, 9, "inputs_0", ".tflite", lite},
      {"dir/net.dla", 3, kZeph, 11, "data", ".dla", "128" + type + "KTV"},
      {"net.tflite", 3, kZeph, 2, "data", ".tflite", orla},
      {"net.bin", 0, kZeph, 0, "inputs_0", ".bin", lite},
      {"models.v2/net", 2, kZeph, 0, "data", ".v2/net", ""},  // no model-type line on the DSP
      {"a.b.dla", 3, kZeph, 0, "data", ".b.dla", orla},
      {"net.tflite", 1, kDirect, 0, "", "",
       "67: TQ Debug: failed to call TarnWrapper_openDLModel_ptr_zephOptions", FakeVariant::kNoZephOptions},
      {base, 0, kOpen, 0, "", "", "", FakeVariant::kRequiredOnly, base},  // needs nothing else
      {base + "elsewhere/", 0, kOpen, 0, "", "", ""}};  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.model + " on unit " + std::to_string(c.unit));
    fake.emplace(c.variant);
    fake->set_input_size(320, 240);
    auto net = make(c.model, c.unit);
    EXPECT_EQ(fake->call_ops(), (Ops{kCreate, c.op, kDims}));
    const FakeTarnCall open = fake->calls(c.op).at(0);
    EXPECT_EQ(std::tie(open.path, open.layer_names, open.compute_unit, open.precision, open.module),
              std::make_tuple(c.op == kOpen ? c.base : c.model, Strings{"Identity"}, c.unit, 1,
                              c.op == kDirect ? "" : kModule));
    Strings expected = {c.label};  // the line of the direct open
    if (c.op == kZeph) {
      const ZEPHInterface& o = *open.options;
      EXPECT_EQ(
          std::tie(o.model_type, o.input_layer_names, o.model_name, o.model_path, o.use_options),
          std::make_tuple(ZEPHModelType(c.type), Strings{c.input}, c.model, c.model, 1));
      expected = {"58: TQ Debug: calling TarnWrapper_openDLModel_ptr_zephOptions",
                  "124: TQ Debug: set_zeph_options model_extention= " + c.ext, c.label,
                  "151: TQ Debug: set_zeph_options layername= Identity"};
    }
    expected.erase(std::remove(expected.begin(), expected.end(), ""), expected.end());
    EXPECT_EQ(info(), expected);
    int height = 0, width = 0;
    net->get_target_dimen(height, width);
    EXPECT_EQ(std::make_pair(height, width), std::make_pair(240, 320));
  }
}

// The library reports the output 1, 8, 2, 3 channels first (format 1); the session hands it on
// channels last.
TEST_F(NNetTest, OpenRunReadAndCloseLogInOrderAndReleaseSessionAndLibraryOnce) {
  const std::vector<float> values = {0.25f, 0.5f};
  fake->set_layer_output("Identity", values, {1, 8, 2, 3}, 1);
  auto net = make();
  // clang-format off
  EXPECT_EQ(lines(), (Strings{
      "15: TQ Debug: NNet Constructor called for net.tflite, artifact_Detector",
      "22: init_net Mean for channel 0 is 1.000000", "22: init_net Mean for channel 1 is 2.000000",
      "22: init_net Mean for channel 2 is 3.000000",
      "dl_loader.cpp:12: TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR",
      "86: TQ Debug: NNet Contructor Model Dimensions - width=[224], height=[224]",
      "87: TQ Debug: NNet Contructor completed for module - artifact_Detector",
      "90: TQ Debug: engine-compute: Open time taken: N ms for module - artifact_Detector"}));
  capture.clear();
  // Pixels 0, 138 and 255 reach the library as -128, 10 and 127.
  EXPECT_TRUE(net->forward_pass(cv::Mat(224, 224, CV_8UC3, cv::Scalar(0, 138, 255))));
  EXPECT_EQ(info(), (Strings{"191: Target image size (CHW): 3, 224, 224",
      "243: Channel 0 - Min: -128, Max: -128", "243: Channel 1 - Min: 10, Max: 10",
      "243: Channel 2 - Min: 127, Max: 127",
      "247: Resized image stats - Mean: [-128, 10, 127, 0]"}));
  std::vector<int> d(5, -1);
  const auto* data = static_cast<const float*>(
      net->get_layer_output_with_format("Identity", d[0], d[1], d[2], d[3], d[4]));
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(std::make_pair(std::vector<float>(data, data + 2), d),
            std::make_pair(values, std::vector<int>{1, 2, 3, 8, 1}));
  net.reset();
  EXPECT_EQ(lines(), (Strings{
      "226: TQ Debug: Substracting channels means 128.0, 128.0, 128.0 in library",
      "303: TQ Debug: NNet forward pass completed",
      "305: TQ Debug: engine-compute: Execute time taken: N ms for artifact_Detector-module",
      "335: TQ Debug: NNet get layer output with format called for Identity",
      "346: TQ Debug: NNet layer output dimensions for Identity are 1, 2, 3, 8 and format: 1",
      "353: TQ Debug: NNet get layer output with format completed for Identity",
      "374: TQ Debug: Closing of Tarnlink handle completed in ~NNet for artifact_Detector",
      "376: TQ Debug: engine-compute: Close time taken: N ms for module artifact_Detector"}));
  // clang-format on
  EXPECT_EQ(fake->call_ops(), (Ops{kCreate, kZeph, kDims, kRun, kOutput, kDestroy}));
  EXPECT_EQ(fake->calls(kDestroy).at(0).session, fake->calls(kDims).at(0).session);
  // Still loaded through the fake's own reference, gone with it: one dlclose by the net.
  const std::string path = fake->path();
  EXPECT_TRUE(FakeTarnlink::is_loaded(path));
  fake.reset();
  EXPECT_FALSE(FakeTarnlink::is_loaded(path));
}

// Only an image whose both sides differ from the network's (16 by 12 here) is resized, then
// JPEG round-tripped; the library gets that image's pixels minus 128, interleaved.
TEST_F(NNetTest, ForwardPassHandsTheLibraryPixelsMinus128) {
  fake->set_input_size(16, 12);
  auto net = make();
  for (const auto& [rows, cols] : {std::pair{12, 16}, {20, 16}, {12, 30}, {30, 40}}) {
    SCOPED_TRACE(testing::Message() << cols << "x" << rows);
    cv::Mat image(rows, cols, CV_8UC3), sent = image;
    cv::randu(image, 0, 256);
    const cv::Mat before = image.clone();
    const bool resized = rows != 12 && cols != 16;
    std::vector<uchar> jpeg;
    Strings head = {"191: Target image size (CHW): 3, 12, 16"};
    if (resized) {
      cv::resize(image, sent, cv::Size(16, 12), 0, 0, cv::INTER_LINEAR);
      cv::imencode(".jpg", sent, jpeg, {cv::IMWRITE_JPEG_QUALITY, 95});
      sent = cv::imdecode(jpeg, cv::IMREAD_COLOR);
      head.push_back(
          cv::format("197: TQ Debug: Miss-match in the input-image-size(%d, %d) and the "
                     "target-image-size(16, 12) in forward-pass",
                     cols, rows));
      head.push_back("198: TQ Debug: Resizing the image to match target input image size");
    }
    fake->reset();
    capture.clear();
    testing::internal::CaptureStdout();
    EXPECT_TRUE(net->forward_pass(image));
    const cv::Vec3i p = sent.at<cv::Vec3b>(10, 10);
    EXPECT_EQ(
        testing::internal::GetCapturedStdout(),
        (resized ? "Compressed buffer size: " + std::to_string(jpeg.size()) + " bytes\n" : "") +
            cv::format("Pixel at (10,10): [%d, %d, %d]\n", p[0], p[1], p[2]));
    const Strings logged = info();
    EXPECT_EQ(Strings(logged.begin(), logged.begin() + head.size()), head);
    const FakeTarnCall run = fake->calls(kRun).at(0);
    EXPECT_EQ(std::make_tuple(run.width, run.height, run.format), std::make_tuple(16, 12, 1));
    std::vector<float> expected(sent.data, sent.data + 16 * 12 * 3);
    for (float& value : expected) value -= 128.0f;
    EXPECT_EQ(fake->last_input(), expected);
    EXPECT_EQ(cv::norm(image, before, cv::NORM_INF), 0.0);  // the caller's pixels are untouched
  }
  fake->reset();
  const std::string channels =
      "193: TQ Debug: Expected 3 channels in the input image, but received input image has ";
  for (const auto& [image, line] :
       {std::pair{cv::Mat(), std::string("182: TQ Debug: Image for forward-pass cannot be empty")},
        {cv::Mat(4, 4, CV_8UC1), channels + "1 channels"},
        {cv::Mat(4, 4, CV_8UC4), channels + "4 channels"}}) {
    capture.clear();
    EXPECT_FALSE(net->forward_pass(image));
    EXPECT_EQ(info().back(), line);
  }
  EXPECT_TRUE(fake->calls(kRun).empty());
}

}  // namespace

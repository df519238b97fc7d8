// Drives the built library through dlopen and its operation table, and holds its answers
// against OpenCV's dnn run directly on the same model and input.
#include <android/log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <opencv2/dnn.hpp>

#include "core/model_interface/tarnlink_api.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

constexpr int kCpu = 0, kFloat32 = 0, kFloat16 = 1;
const std::string kModels = TARNLINK_MODELS "/", kTiny = kModels + "tiny.onnx";  // 64 x 48

// The library, loaded once for the whole run, and its operations.
void* const g_library = dlopen(TARNLINK_LIBRARY, RTLD_NOW | RTLD_LOCAL);
#define TARN(name) reinterpret_cast<TarnWrapper_##name##_t>(dlsym(g_library, "TarnWrapper_" #name))

using Session = std::unique_ptr<void, void (*)(void*)>;
Session new_session() { return Session(TARN(create)(), [](void* s) { TARN(destroy)(s); }); }

struct Model {
  const char *file, *prototxt, *inner, *output;  // prototxt: Caffe only
  int width, height;
  bool channels_last;
};
const Model kOnnx{"tiny.onnx", nullptr, "relu", "Identity", 64, 48, false},
    kNhwc{"tiny_nhwc.onnx", nullptr, "relu", "Identity", 56, 40, true},
    kCaffe{"tiny.caffemodel", "tiny.prototxt", "fc", "prob", 40, 32, false};
void PrintTo(const Model& m, std::ostream* os) { *os << m.file; }
enum Open { kPlain, kDirect, kOptions };

bool open_options(void* s, const std::string& path, int type, int unit, int precision,
                  std::vector<std::string> outs = {}) {
  ZEPHInterface o;
  o.model_type = static_cast<ZEPHModelType>(type);
  o.compute_unit = unit;
  o.precision = precision;
  o.output_layer_names = std::move(outs);
  return TARN(openDLModel_zephOptions)(s, path.c_str(), o);
}

bool open(void* s, const Model& m, Open how, const std::string& base, const char** outs) {
  // Model directories are lower case; the detector names the module with a capital D.
  const std::string path = kModels + m.file, stem = base + "artifact_detector/artifact_detector";
  if (how == kDirect) return TARN(openDLModel_direct)(s, path.c_str(), outs, 2, kCpu, kFloat32);
  const int type = m.prototxt ? ZEPH_CAFFE : ZEPH_ONNX;
  if (how == kOptions) return open_options(s, path, type, kCpu, kFloat16, {outs, outs + 2});
  std::filesystem::create_directories(base + "artifact_detector");
  std::filesystem::copy_file(kTiny, base + "artifact_detector/decoy.onnx");  // not named: ignored
  std::filesystem::copy_file(path, stem + path.substr(path.rfind('.')));
  if (m.prototxt) std::filesystem::copy_file(kModels + m.prototxt, stem + ".prototxt");
  return TARN(openDLModel)(s, base.c_str(), "artifact_Detector", outs, 2, kCpu, kFloat16);
}

// OpenCV's own answer for `image` (HWC floats), the test building the input blob itself.
std::vector<float> opencv(const Model& m, const cv::Mat& image, const std::string& layer) {
  cv::dnn::Net net = m.prototxt ? cv::dnn::readNetFromCaffe(kModels + m.prototxt, kModels + m.file)
                                : cv::dnn::readNetFromONNX(kModels + m.file);
  net.setInput(m.channels_last ? cv::Mat({1, m.height, m.width, 3}, CV_32F, image.data)
                               : cv::dnn::blobFromImage(image));
  const bool inner = net.getLayerId(layer) < 0;  // the importer's name for an inner ONNX tensor
  const cv::Mat out = net.forward(inner ? "onnx_node_output_0!" + layer : layer);
  return std::vector<float>(out.begin<float>(), out.end<float>());
}

std::vector<float> output(void* s, const char* layer) {
  int d0 = 0, d1 = 0, d2 = 0, d3 = 0, format = -1;
  const float* data = TARN(getLayerOutputAndFormat)(s, layer, &d0, &d1, &d2, &d3, &format);
  if (data == nullptr) return {};
  EXPECT_EQ(format, 1);  // channels first
  return std::vector<float>(data, data + d0 * d1 * d2 * d3);
}

class OpenAndRun : public testing::TestWithParam<std::tuple<Model, Open>> {};

// The input size comes from the model; the outputs are OpenCV's for the same input (a fourth
// channel dropped, means subtracted), each kept until the next run, even a failed one.
TEST_P(OpenAndRun, ReportsTheModelsInputAndGivesOpenCvsOutputs) {
  const auto& [m, how] = GetParam();
  ad_test::TempDir dir;
  Session s = new_session();
  const char* outs[2] = {m.inner, m.output};
  ASSERT_TRUE(open(s.get(), m, how, dir.base(), outs));
  int width = 0, height = 0, channels = 0;
  ASSERT_TRUE(TARN(getInputDimens)(s.get(), &width, &height));
  ASSERT_TRUE(TARN(getInputChannels)(s.get(), &channels));
  EXPECT_EQ(std::tuple(width, height, channels), std::tuple(m.width, m.height, 3));

  cv::Mat image(m.height, m.width, CV_32FC3), rgba;
  cv::randu(image, -128.0, 128.0);
  cv::merge(std::vector<cv::Mat>{image, cv::Mat(image.size(), CV_32F, cv::Scalar(55))}, rgba);
  ASSERT_TRUE(TARN(execute)(s.get(), rgba.ptr<float>(), m.width, m.height, TARN_INPUT_4_CHANNELS));
  const std::vector<float> out = output(s.get(), m.output);
  EXPECT_EQ(out, opencv(m, image, m.output));
  EXPECT_EQ(output(s.get(), m.inner), opencv(m, image, m.inner));
  int d[4] = {0, 0, 0, 0};
  const float* kept = TARN(getLayerOutput)(s.get(), m.output, &d[0], &d[1], &d[2], &d[3]);
  ASSERT_EQ(std::vector<int>(d, d + 4), (std::vector<int>{1, 12, 1, 1}));
  EXPECT_EQ(std::vector<float>(kept, kept + 12), out);

  const float means[] = {10.5f, -3.0f, 100.0f};
  ASSERT_TRUE(TARN(setChannelMeans)(s.get(), means, 3));
  ASSERT_TRUE(TARN(execute)(s.get(), image.ptr<float>(), m.width, m.height, 1));
  const cv::Mat shifted = image - cv::Scalar(means[0], means[1], means[2]);
  EXPECT_EQ(output(s.get(), m.output), opencv(m, shifted, m.output));
  EXPECT_FALSE(TARN(execute)(s.get(), image.ptr<float>(), m.width + 1, m.height, 1));
  EXPECT_TRUE(output(s.get(), m.output).empty() && output(s.get(), m.inner).empty());
}

INSTANTIATE_TEST_SUITE_P(Each, OpenAndRun,
                         testing::Combine(testing::Values(kOnnx, kNhwc, kCaffe),
                                          testing::Values(kPlain, kDirect, kOptions)));

std::vector<float> g_input(64 * 48 * 4);  // fits tiny.onnx in either format
bool no_direct(void* s, const std::string& path, int unit = 0, int precision = 0,
               const char* out = "Identity") {
  return !TARN(openDLModel_direct)(s, path.c_str(), &out, 1, unit, precision);
}
bool run(void* s, int width = 64, int height = 48, int format = 1, float* in = g_input.data()) {
  return TARN(execute)(s, in, width, height, format);
}
bool no_output(void* s, const char* layer) {
  int d = 0;
  return TARN(getLayerOutput)(s, layer, &d, &d, &d, &d) == nullptr &&
         TARN(getLayerOutputAndFormat)(s, layer, &d, &d, &d, &d, &d) == nullptr;
}

// Each call answers failure and logs why (an error under the library's tag holding the
// reason). A failed open leaves the session closed; the session stays usable throughout.
TEST(Failures, AnswerFalseAndSayWhy) {
  ad_test::TempDir d;
  Session session = new_session();
  void* s = session.get();
  ad_test::LogCapture capture;
  const auto refused = [&](bool failed, const std::string& reason) {
    bool logged = false;
    for (const ad_test::LogLine& l : capture.lines()) {
      logged |= l.tag == "Tarnlink" && l.priority == ANDROID_LOG_ERROR &&
                l.text.find(reason) != std::string::npos;
    }
    EXPECT_TRUE(failed && logged) << reason << testing::PrintToString(capture.lines());
    capture.clear();
  };
  int n = 0;
  const char* outs[] = {"Identity"};
  refused(!TARN(getInputDimens)(s, &n, &n) && !run(s), "execute: no model open");
  refused(no_direct(s, kModels + "none.onnx"), "cannot read model file");
  refused(no_direct(s, d.write_file("g.onnx", "name: 'x'")), "not an ONNX model");
  d.write_file("g.prototxt", "input: 'data' input_shape { dim: 1 dim: 3 dim: 8 dim: 8 }");
  refused(no_direct(s, d.write_file("g.caffemodel", "\x0a\xff"), 0, 0, "data"), "OpenCV error");
  refused(no_direct(s, d.write_file("c.caffemodel", "x")), "cannot read network description");
  refused(no_direct(s, d.write_file("m.tflite", "x")), ".tflite is neither");
  refused(!TARN(openDLModel)(s, d.path().c_str(), "Module", outs, 1, 0, 0), "no directory");
  d.make_dir("module");
  refused(!TARN(openDLModel)(s, d.path().c_str(), "Module", outs, 1, 0, 0), "holds 0 model files");
  d.write_file("two.prototxt", "input: 'a' input: 'b'");
  refused(no_direct(s, d.write_file("two.caffemodel", "x")), "declares 2 inputs");
  refused(no_direct(s, kTiny, 0, 0, "nope"), "has no output layer nope");
  refused(!no_direct(s, kTiny) && no_direct(s, kModels + "none.onnx") &&
              !TARN(getInputDimens)(s, &n, &n), "getInputDimens: no model open");
  refused(!no_direct(s, kTiny) && !run(s, 64, 48, 3) && !run(s, 64, 48, 1, nullptr) &&
              !run(s, 48, 64), "48 x 64 x 3 does not fit the network's 64 x 48 x 3");
  refused(run(s) && no_output(s, "relu"), "relu is not an output layer");
  refused(!TARN(setChannelMeans)(s, g_input.data(), 5), "5 means rejected");
  for (int t : {ZEPH_DLC, ZEPH_ORLA, ZEPH_ZEPHLITE, ZEPH_KTV, ZEPH_MODEL_TYPE_UNSET}) {
    refused(!open_options(s, kTiny, t, 0, 0), "model type " + std::to_string(t) + " not served");
  }
  for (int unit : {1, 2, 3, 4}) {  // through the direct and the options-based open
    refused(no_direct(s, kTiny, unit) && !open_options(s, kTiny, ZEPH_ONNX, unit, 0),
            "compute unit " + std::to_string(unit) + " not served");
  }
  for (int precision : {2, 3, 5}) {
    refused(no_direct(s, kTiny, 0, precision) && !open_options(s, kTiny, ZEPH_ONNX, 0, precision),
            "precision " + std::to_string(precision) + " not served");
  }
  // A null session everywhere; destroying it is accepted.
  TARN(destroy)(nullptr);
  refused(no_direct(nullptr, kTiny) && !open_options(nullptr, kTiny, ZEPH_ONNX, 0, 0) &&
              !TARN(openDLModel)(nullptr, TARNLINK_MODELS, "m", outs, 1, 0, 0) &&
              !TARN(openDLModel_direct_latency)(nullptr, kTiny.c_str(), outs, 1, 0, 0) &&
              !TARN(getInputDimens)(nullptr, &n, &n) && !TARN(getInputChannels)(nullptr, &n) &&
              !run(nullptr) && !TARN(setChannelMeans)(nullptr, g_input.data(), 1) &&
              no_output(nullptr, "Identity"), "getInputChannels: null session");
}

}  // namespace

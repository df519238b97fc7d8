// Drives the built library through dlopen and its operation table, and holds its answers
// against OpenCV's dnn run directly on the same model and input.
#include <android/log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <opencv2/dnn.hpp>

#include "core/model_interface/tarnlink_api.h"
#include "support/log_capture.h"

namespace {

namespace fs = std::filesystem;

constexpr int kCpu = 0, kFloat32 = 0, kFloat16 = 1;

struct Api {
  TarnWrapper_create_t create;
  TarnWrapper_destroy_t destroy;
  TarnWrapper_openDLModel_t open;
  TarnWrapper_openDLModel_direct_t open_direct;
  TarnWrapper_openDLModel_direct_latency_t open_direct_latency;
  TarnWrapper_openDLModel_zephOptions_t open_options;
  TarnWrapper_getInputDimens_t input_dimens;
  TarnWrapper_getInputChannels_t input_channels;
  TarnWrapper_execute_t execute;
  TarnWrapper_getLayerOutput_t output;
  TarnWrapper_getLayerOutputAndFormat_t output_and_format;
  TarnWrapper_setChannelMeans_t set_means;
};

template <typename T>
void bind(void* handle, const char* symbol, T& fn) {
  fn = reinterpret_cast<T>(dlsym(handle, symbol));
  if (fn == nullptr) throw std::runtime_error(std::string("missing ") + symbol);
}

// The library, loaded once for the whole run.
const Api& api() {
  static const Api table = [] {
    void* handle = dlopen(TARNLINK_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) throw std::runtime_error(dlerror());
    Api a;
    bind(handle, "TarnWrapper_create", a.create);
    bind(handle, "TarnWrapper_destroy", a.destroy);
    bind(handle, "TarnWrapper_openDLModel", a.open);
    bind(handle, "TarnWrapper_openDLModel_direct", a.open_direct);
    bind(handle, "TarnWrapper_openDLModel_direct_latency", a.open_direct_latency);
    bind(handle, "TarnWrapper_openDLModel_zephOptions", a.open_options);
    bind(handle, "TarnWrapper_getInputDimens", a.input_dimens);
    bind(handle, "TarnWrapper_getInputChannels", a.input_channels);
    bind(handle, "TarnWrapper_execute", a.execute);
    bind(handle, "TarnWrapper_getLayerOutput", a.output);
    bind(handle, "TarnWrapper_getLayerOutputAndFormat", a.output_and_format);
    bind(handle, "TarnWrapper_setChannelMeans", a.set_means);
    return a;
  }();
  return table;
}

using Session = std::unique_ptr<void, void (*)(void*)>;
Session new_session() {
  return Session(api().create(), [](void* s) { api().destroy(s); });
}

std::string model_path(const std::string& file) {
  return std::string(TARNLINK_MODELS) + "/" + file;
}

struct Model {
  const char* label;
  const char* file;  // the .caffemodel has its .prototxt beside it
  ZEPHModelType type;
  const char* output;
  int width, height;
  bool channels_last;
};

const Model kModels[] = {
    {"Onnx", "tiny.onnx", ZEPH_ONNX, "Identity", 64, 48, false},
    {"OnnxNhwc", "tiny_nhwc.onnx", ZEPH_ONNX, "Identity", 56, 40, true},
    {"Caffe", "tiny.caffemodel", ZEPH_CAFFE, "prob", 40, 32, false},
};

void PrintTo(const Model& m, std::ostream* os) { *os << m.label; }

enum class OpenPath { kPlain, kDirect, kDirectLatency, kOptions };
const char* const kOpenPathNames[] = {"Plain", "Direct", "DirectLatency", "Options"};
void PrintTo(OpenPath p, std::ostream* os) { *os << kOpenPathNames[static_cast<int>(p)]; }

// A scratch directory removed with the object.
struct ScratchDir {
  fs::path path;
  ScratchDir() {
    std::string name = (fs::temp_directory_path() / "tarnlink_test_XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp");
    path = name;
  }
  ~ScratchDir() { fs::remove_all(path); }
  // Copies a test model (a Caffe model with its prototxt) to `stem` plus its extension.
  std::string install(const Model& m, const std::string& stem) const {
    const fs::path source = model_path(m.file), target = path / stem;
    fs::create_directories(target.parent_path());
    fs::copy_file(source, target.string() + source.extension().string());
    if (m.type == ZEPH_CAFFE) {
      fs::copy_file(fs::path(source).replace_extension(".prototxt"), target.string() + ".prototxt");
    }
    return target.string() + source.extension().string();
  }
  std::string copy(const std::string& source, const std::string& name) const {
    fs::copy_file(source, path / name);
    return (path / name).string();
  }
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream(path / name, std::ios::binary) << bytes;
    return (path / name).string();
  }
};

bool open_model(void* session, const Model& m, OpenPath how, const ScratchDir& scratch,
                std::vector<const char*> outputs) {
  switch (how) {
    case OpenPath::kPlain:
      // Model directories are lower case; the detector names the module with a capital D.
      scratch.install(m, "artifact_detector/artifact_detector");
      return api().open(session, (scratch.path.string() + "/").c_str(), "artifact_Detector",
                        outputs.data(), outputs.size(), kCpu, kFloat16);
    case OpenPath::kDirect:
      return api().open_direct(session, model_path(m.file).c_str(), outputs.data(), outputs.size(),
                               kCpu, kFloat32);
    case OpenPath::kDirectLatency:
      return api().open_direct_latency(session, model_path(m.file).c_str(), outputs.data(),
                                       outputs.size(), kCpu, kFloat16);
    case OpenPath::kOptions:
      ZEPHInterface options;
      options.compute_unit = kCpu;
      options.precision = kFloat16;
      options.model_type = m.type;
      options.output_layer_names.assign(outputs.begin(), outputs.end());
      return api().open_options(session, model_path(m.file).c_str(), options);
  }
  return false;
}

// OpenCV's own answer for `image` (HWC floats), with the test building the input blob.
cv::Mat reference_output(const Model& m, const cv::Mat& image, const std::string& layer) {
  cv::dnn::Net net =
      m.type == ZEPH_ONNX
          ? cv::dnn::readNetFromONNX(model_path(m.file))
          : cv::dnn::readNetFromCaffe(fs::path(model_path(m.file)).replace_extension(".prototxt"),
                                      model_path(m.file));
  cv::Mat blob = m.channels_last
                     ? cv::Mat({1, image.rows, image.cols, image.channels()}, CV_32F, image.data)
                     : cv::dnn::blobFromImage(image);
  net.setInput(blob);
  // The importer's name for the layer behind an inner ONNX tensor.
  const bool inner = net.getLayerId(layer) < 0;
  return net.forward(inner ? "onnx_node_output_0!" + layer : layer).clone();
}

cv::Mat random_image(const Model& m, int channels, uint64_t seed) {
  cv::Mat image(m.height, m.width, CV_32FC(channels));
  cv::RNG(seed).fill(image, cv::RNG::UNIFORM, -128.0, 128.0);
  return image;
}

std::vector<float> read_output(void* session, const char* layer, std::vector<int>* dims = nullptr) {
  int d[4] = {0, 0, 0, 0}, format = -1;
  const float* data = api().output_and_format(session, layer, &d[0], &d[1], &d[2], &d[3], &format);
  if (data == nullptr) return {};
  EXPECT_EQ(format, 1);
  if (dims) dims->assign(d, d + 4);
  return std::vector<float>(data, data + d[0] * d[1] * d[2] * d[3]);
}

std::vector<float> values(const cv::Mat& m) {
  return std::vector<float>(m.begin<float>(), m.end<float>());
}

class OpenAndRun : public testing::TestWithParam<std::tuple<Model, OpenPath>> {
 protected:
  const Model& model() const { return std::get<0>(GetParam()); }
  ScratchDir scratch_;
  Session session_ = new_session();
};

// The input size comes from the model; the output is OpenCV's own for the same input, and a
// four-channel input runs on its first three channels.
TEST_P(OpenAndRun, ReportsTheModelsInputAndGivesOpenCvsOutput) {
  ASSERT_TRUE(
      open_model(session_.get(), model(), std::get<1>(GetParam()), scratch_, {model().output}));
  int width = 0, height = 0, channels = 0;
  ASSERT_TRUE(api().input_dimens(session_.get(), &width, &height));
  EXPECT_EQ(width, model().width);
  EXPECT_EQ(height, model().height);
  ASSERT_TRUE(api().input_channels(session_.get(), &channels));
  EXPECT_EQ(channels, 3);

  const cv::Mat image = random_image(model(), 3, 7);
  const std::vector<float> expected = values(reference_output(model(), image, model().output));
  ASSERT_EQ(expected.size(), 12u);

  cv::Mat with_alpha;
  cv::merge(std::vector<cv::Mat>{image, cv::Mat(image.size(), CV_32F, cv::Scalar(55))}, with_alpha);
  for (auto [input, format] :
       {std::pair{image, TARN_INPUT_3_CHANNELS}, {with_alpha, TARN_INPUT_4_CHANNELS}}) {
    ASSERT_TRUE(
        api().execute(session_.get(), input.ptr<float>(), model().width, model().height, format));
    std::vector<int> dims;
    EXPECT_EQ(read_output(session_.get(), model().output, &dims), expected) << format;
    EXPECT_EQ(dims, (std::vector<int>{1, 12, 1, 1}));
  }
}

std::string open_and_run_name(const testing::TestParamInfo<OpenAndRun::ParamType>& info) {
  return std::string(std::get<0>(info.param).label) +
         kOpenPathNames[static_cast<int>(std::get<1>(info.param))];
}

INSTANTIATE_TEST_SUITE_P(EveryModelEveryOpen, OpenAndRun,
                         testing::Combine(testing::ValuesIn(kModels),
                                          testing::Values(OpenPath::kPlain, OpenPath::kDirect,
                                                          OpenPath::kDirectLatency,
                                                          OpenPath::kOptions)),
                         open_and_run_name);

class Outputs : public testing::TestWithParam<Model> {
 protected:
  ScratchDir scratch_;
  Session session_ = new_session();
};

// Two layers asked for at open are both kept, each until the next run; a failed run drops
// them all.
TEST_P(Outputs, KeepsEveryRequestedLayerUntilTheNextRun) {
  const Model& m = GetParam();
  const char* inner = m.type == ZEPH_CAFFE ? "fc" : "relu";
  ASSERT_TRUE(open_model(session_.get(), m, OpenPath::kDirect, scratch_, {inner, m.output}));
  cv::Mat first = random_image(m, 3, 1), second = random_image(m, 3, 2);

  ASSERT_TRUE(api().execute(session_.get(), first.ptr<float>(), m.width, m.height, 1));
  const float* kept = api().output_and_format(session_.get(), m.output, nullptr, nullptr, nullptr,
                                              nullptr, nullptr);
  const std::vector<float> first_out = read_output(session_.get(), m.output);
  EXPECT_EQ(read_output(session_.get(), inner), values(reference_output(m, first, inner)));
  EXPECT_EQ(std::vector<float>(kept, kept + 12), first_out);  // reading twice changes nothing

  ASSERT_TRUE(api().execute(session_.get(), second.ptr<float>(), m.width, m.height, 1));
  EXPECT_EQ(read_output(session_.get(), m.output), values(reference_output(m, second, m.output)));
  EXPECT_NE(read_output(session_.get(), m.output), first_out);

  EXPECT_FALSE(api().execute(session_.get(), second.ptr<float>(), m.width + 1, m.height, 1));
  EXPECT_EQ(api().output(session_.get(), m.output, nullptr, nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(api().output(session_.get(), inner, nullptr, nullptr, nullptr, nullptr), nullptr);
}

TEST_P(Outputs, SubtractsTheChannelMeansItWasGiven) {
  const Model& m = GetParam();
  ASSERT_TRUE(open_model(session_.get(), m, OpenPath::kDirect, scratch_, {m.output}));
  const float means[] = {10.5f, -3.0f, 100.0f};
  ASSERT_TRUE(api().set_means(session_.get(), means, 3));
  cv::Mat image = random_image(m, 3, 3), shifted;
  cv::subtract(image, cv::Scalar(means[0], means[1], means[2]), shifted);
  ASSERT_TRUE(api().execute(session_.get(), image.ptr<float>(), m.width, m.height, 1));
  EXPECT_EQ(read_output(session_.get(), m.output), values(reference_output(m, shifted, m.output)));
}

INSTANTIATE_TEST_SUITE_P(EveryModel, Outputs, testing::ValuesIn(kModels),
                         [](const auto& info) { return std::string(info.param.label); });

struct PlainCase {
  const char* label;
  std::vector<std::pair<int, std::string>> installed;  // (index in kModels, stem under base)
  int width;                                           // of the model opened; 0: none
};

void PrintTo(const PlainCase& c, std::ostream* os) { *os << c.label; }

class PlainOpen : public testing::TestWithParam<PlainCase> {};

// The base is given without its trailing "/", which the library adds.
TEST_P(PlainOpen, FindsTheModuleModelByTheDocumentedRule) {
  ScratchDir scratch;
  for (const auto& [model, stem] : GetParam().installed) scratch.install(kModels[model], stem);
  Session session = new_session();
  const bool opened = api().open(session.get(), scratch.path.c_str(), "artifact_Detector", nullptr,
                                 0, kCpu, kFloat32);
  ASSERT_EQ(opened, GetParam().width != 0);
  int width = 0, height = 0;
  if (opened) {
    ASSERT_TRUE(api().input_dimens(session.get(), &width, &height));
  }
  EXPECT_EQ(width, GetParam().width);
}

constexpr int kOnnx = 0, kNhwc = 1, kCaffe = 2;
INSTANTIATE_TEST_SUITE_P(
    Layouts, PlainOpen,
    testing::Values(PlainCase{"ModuleCase", {{kOnnx, "artifact_Detector/artifact_Detector"}}, 64},
                    PlainCase{"LowerCase", {{kOnnx, "artifact_detector/artifact_detector"}}, 64},
                    PlainCase{"Caffe", {{kCaffe, "artifact_detector/artifact_detector"}}, 40},
                    PlainCase{"OnnxBeforeCaffe",
                              {{kCaffe, "artifact_detector/artifact_detector"},
                               {kNhwc, "artifact_detector/artifact_detector"}},
                              56},
                    PlainCase{"OnlyModelFile", {{kCaffe, "artifact_detector/net"}}, 40},
                    PlainCase{"NamedAfterDirectory",
                              {{kOnnx, "artifact_detector/net"},
                               {kNhwc, "artifact_detector/artifact_detector"}},
                              56},
                    PlainCase{"TwoUnnamed",
                              {{kOnnx, "artifact_detector/a"}, {kNhwc, "artifact_detector/b"}},
                              0},
                    PlainCase{"OtherModule", {{kOnnx, "other/other"}}, 0}),
    [](const auto& info) { return std::string(info.param.label); });

// Each call must answer failure, log why (an error under the library's tag holding
// `reason`), and leave the session usable.
struct Failure {
  std::string label;
  std::string reason;
  std::function<bool(void* session, const ScratchDir& scratch)> fails;
};

const std::vector<const char*> kIdentity = {"Identity"};

bool direct_fails(void* s, const std::string& path, int unit = kCpu, int precision = kFloat32,
                  std::vector<const char*> outputs = kIdentity) {
  return !api().open_direct(s, path.c_str(), outputs.data(), outputs.size(), unit, precision);
}

bool options_fail(void* s, int type, int unit, int precision) {
  ZEPHInterface options;
  options.model_type = static_cast<ZEPHModelType>(type);
  options.compute_unit = unit;
  options.precision = precision;
  options.output_layer_names = {"Identity"};
  return !api().open_options(s, model_path("tiny.onnx").c_str(), options);
}

bool open_tiny(void* s) { return !direct_fails(s, model_path("tiny.onnx")); }

std::string file_head(const std::string& path, size_t size) {
  std::ifstream in(path, std::ios::binary);
  std::string bytes(size, '\0');
  in.read(bytes.data(), static_cast<std::streamsize>(size));
  return bytes;
}

std::vector<Failure> failures() {
  std::vector<Failure> rows = {
      {"MissingFile", "cannot read model file",
       [](void* s, auto&) { return direct_fails(s, model_path("none.onnx")); }},
      {"GarbageOnnx", "not an ONNX model",
       [](void* s, auto& d) { return direct_fails(s, d.write("g.onnx", "name: \"x\"\n")); }},
      {"TruncatedOnnx", "not an ONNX model",
       [](void* s, auto& d) {
         return direct_fails(s, d.write("t.onnx", file_head(model_path("tiny.onnx"), 600)));
       }},
      {"GarbageCaffemodel", "OpenCV error",
       [](void* s, auto& d) {
         d.copy(model_path("tiny.prototxt"), "g.prototxt");
         return direct_fails(s, d.write("g.caffemodel", "\x0a\xff\x01garbage"), kCpu, kFloat32,
                             {"prob"});
       }},
      {"CaffemodelWithoutPrototxt", "cannot read network description",
       [](void* s, auto& d) {
         return direct_fails(s, d.copy(model_path("tiny.caffemodel"), "c.caffemodel"));
       }},
      {"UnknownExtension", "neither .onnx nor .caffemodel",
       [](void* s, auto& d) { return direct_fails(s, d.write("m.tflite", "x")); }},
      {"UnknownOutputLayer", "has no output layer nope",
       [](void* s, auto&) {
         return direct_fails(s, model_path("tiny.onnx"), kCpu, kFloat32, {"nope"});
       }},
      {"FailedReopenClosesTheModel", "getInputDimens: no model open",
       [](void* s, auto&) {
         int w, h;
         return open_tiny(s) && direct_fails(s, model_path("none.onnx")) &&
                !api().input_dimens(s, &w, &h);
       }},
      {"ExecuteBeforeOpen", "execute: no model open",
       [](void* s, auto&) {
         std::vector<float> input(64 * 48 * 3);
         return !api().execute(s, input.data(), 64, 48, 1);
       }},
      {"ExecuteWithWidthAndHeightSwapped", "48 x 64 x 3 does not fit the network's 64 x 48 x 3",
       [](void* s, auto&) {
         std::vector<float> input(64 * 48 * 3);
         return open_tiny(s) && !api().execute(s, input.data(), 48, 64, 1);
       }},
      {"ExecuteUnknownFormat", "unknown input format",
       [](void* s, auto&) {
         std::vector<float> input(64 * 48 * 4);
         return open_tiny(s) && !api().execute(s, input.data(), 64, 48, 3);
       }},
      {"ExecuteNullInput", "null input",
       [](void* s, auto&) { return open_tiny(s) && !api().execute(s, nullptr, 64, 48, 1); }},
      {"LayerBeforeRun", "no successful run to read Identity",
       [](void* s, auto&) {
         return open_tiny(s) && !api().output(s, "Identity", nullptr, nullptr, nullptr, nullptr);
       }},
      {"UnknownLayerAfterRun", "relu is not an output layer",
       [](void* s, auto&) {
         std::vector<float> input(64 * 48 * 3);
         return open_tiny(s) && api().execute(s, input.data(), 64, 48, 1) &&
                !api().output(s, "relu", nullptr, nullptr, nullptr, nullptr);
       }},
      {"InputDimensBeforeOpen", "getInputDimens: no model open",
       [](void* s, auto&) {
         int w, h;
         return !api().input_dimens(s, &w, &h);
       }},
      {"FiveChannelMeans", "5 means rejected",
       [](void* s, auto&) {
         const float m[5] = {};
         return !api().set_means(s, m, 5);
       }},
  };
  for (int type : {ZEPH_DLC, ZEPH_ORLA, ZEPH_ZEPHLITE, ZEPH_KTV, ZEPH_MODEL_TYPE_UNSET}) {
    rows.push_back({"ModelType" + std::to_string(type),
                    "model type " + std::to_string(type) + " not served",
                    [type](void* s, auto&) { return options_fail(s, type, kCpu, kFloat32); }});
  }
  for (int unit : {1, 2, 3, 4}) {
    rows.push_back({"ComputeUnit" + std::to_string(unit),
                    "compute unit " + std::to_string(unit) + " not served", [unit](void* s, auto&) {
                      return direct_fails(s, model_path("tiny.onnx"), unit) &&
                             options_fail(s, ZEPH_ONNX, unit, kFloat16);
                    }});
  }
  for (int precision : {2, 3, 5}) {
    rows.push_back({"Precision" + std::to_string(precision),
                    "precision " + std::to_string(precision) + " not served",
                    [precision](void* s, auto&) {
                      return direct_fails(s, model_path("tiny.onnx"), kCpu, precision) &&
                             options_fail(s, ZEPH_ONNX, kCpu, precision);
                    }});
  }
  return rows;
}

void PrintTo(const Failure& f, std::ostream* os) { *os << f.label; }

class Failures : public testing::TestWithParam<Failure> {};

TEST_P(Failures, AnswerFalseAndSayWhy) {
  ScratchDir scratch;
  Session session = new_session();
  ASSERT_NE(session.get(), nullptr);
  {
    ad_test::LogCapture capture;
    EXPECT_TRUE(GetParam().fails(session.get(), scratch));
    bool logged = false;
    for (const ad_test::LogLine& line : capture.lines()) {
      logged |= line.tag == "Tarnlink" && line.priority == ANDROID_LOG_ERROR &&
                line.text.find(GetParam().reason) != std::string::npos;
    }
    EXPECT_TRUE(logged) << testing::PrintToString(capture.lines());
  }
  EXPECT_TRUE(open_tiny(session.get()));
}

INSTANTIATE_TEST_SUITE_P(Table, Failures, testing::ValuesIn(failures()),
                         [](const auto& info) { return info.param.label; });

TEST(NullSession, EveryOperationAnswersFailure) {
  int w, h, c, d;
  float value = 0;
  const char* outputs[] = {"Identity"};
  api().destroy(nullptr);
  EXPECT_FALSE(api().open(nullptr, TARNLINK_MODELS, "m", outputs, 1, kCpu, kFloat32));
  EXPECT_FALSE(
      api().open_direct(nullptr, model_path("tiny.onnx").c_str(), outputs, 1, kCpu, kFloat32));
  EXPECT_FALSE(api().open_direct_latency(nullptr, model_path("tiny.onnx").c_str(), outputs, 1, kCpu,
                                         kFloat32));
  EXPECT_FALSE(api().open_options(nullptr, model_path("tiny.onnx").c_str(), ZEPHInterface{}));
  EXPECT_FALSE(api().input_dimens(nullptr, &w, &h));
  EXPECT_FALSE(api().input_channels(nullptr, &c));
  EXPECT_FALSE(api().execute(nullptr, &value, 1, 1, 1));
  EXPECT_FALSE(api().set_means(nullptr, &value, 1));
  EXPECT_EQ(api().output(nullptr, "Identity", &d, &d, &d, &d), nullptr);
  EXPECT_EQ(api().output_and_format(nullptr, "Identity", &d, &d, &d, &d, &d), nullptr);
}

}  // namespace

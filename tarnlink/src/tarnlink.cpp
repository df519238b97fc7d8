// The reference inference library: every operation of the table over OpenCV's dnn module,
// on the CPU. No exception leaves an operation; failures answer false or null and say why
// in the Android log under the tag "Tarnlink".
#include <android/log.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <string>
#include <vector>

#include "core/model_interface/tarnlink_api.h"
#include "model_input.h"

#define TARNLINK_EXPORT __attribute__((visibility("default")))

namespace tarnlink {
namespace {

namespace fs = std::filesystem;

constexpr const char* kLogTag = "Tarnlink";

// Codes of tarnlink_api.h this library serves: the CPU, in float32 or float16. OpenCV's CPU
// target computes in float32 either way, which a float16 request may expect to be as
// accurate as it asked for or better.
constexpr int kComputeUnitCpu = 0;
constexpr int kPrecisionFloat32 = 0;
constexpr int kPrecisionFloat16 = 1;
constexpr size_t kMaxChannelMeans = 4;

// OpenCV's ONNX importer names the layer that makes an inner tensor after the tensor with
// this prefix; graph outputs keep their own names.
constexpr const char* kOnnxInnerLayerPrefix = "onnx_node_output_0!";

enum class ModelKind { kOnnx, kCaffe };

const char* kind_name(ModelKind kind) { return kind == ModelKind::kOnnx ? "ONNX" : "Caffe"; }

__attribute__((format(printf, 2, 3))) void log_line(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  __android_log_vprint(priority, kLogTag, format, args);
  va_end(args);
}

#define TARN_ERROR(...) ::tarnlink::log_line(ANDROID_LOG_ERROR, __VA_ARGS__)
#define TARN_INFO(...) ::tarnlink::log_line(ANDROID_LOG_INFO, __VA_ARGS__)

struct Session {
  cv::dnn::Net net;
  bool open = false;
  std::string model_path;
  InputGeometry input;
  std::vector<std::string> output_names;  // as the caller asked for them
  std::vector<std::string> layer_names;   // OpenCV's layer behind each
  std::vector<cv::Mat> outputs;           // of the last successful run, else empty
  std::vector<float> channel_means;
};

// Runs `body`, turning any exception into a log line and `failure`.
template <typename Result, typename Body>
Result guarded(const char* operation, Result failure, Body body) {
  try {
    return body();
  } catch (const cv::Exception& e) {
    TARN_ERROR("%s: OpenCV error: %s", operation, e.what());
  } catch (const std::exception& e) {
    TARN_ERROR("%s: %s", operation, e.what());
  } catch (...) {
    TARN_ERROR("%s: unknown exception", operation);
  }
  return failure;
}

Session* open_session(InferenceSession session, const char* operation) {
  if (session == nullptr) TARN_ERROR("%s: null session", operation);
  return static_cast<Session*>(session);
}

bool read_file(const std::string& path, std::vector<unsigned char>& bytes) {
  std::error_code ec;
  if (!fs::is_regular_file(path, ec)) return false;
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

bool kind_from_extension(const std::string& path, ModelKind& kind) {
  const std::string extension = lower(fs::path(path).extension().string());
  if (extension == ".onnx") {
    kind = ModelKind::kOnnx;
  } else if (extension == ".caffemodel") {
    kind = ModelKind::kCaffe;
  } else {
    return false;
  }
  return true;
}

std::string join(const std::string& base, const std::string& name) {
  if (base.empty() || base.back() == '/') return base + name;
  return base + "/" + name;
}

// The model of `module` under `base`: its directory is base/module, else base/<module in
// lower case>; in it, <directory name>.onnx, then <directory name>.caffemodel, else the only
// .onnx or .caffemodel file there.
bool find_module_model(const std::string& base, const std::string& module, std::string& path) {
  std::error_code ec;
  std::string dir;
  for (const std::string& name : {module, lower(module)}) {
    if (fs::is_directory(join(base, name), ec)) {
      dir = join(base, name);
      break;
    }
  }
  if (dir.empty()) {
    TARN_ERROR("open: no directory %s or %s", join(base, module).c_str(),
               join(base, lower(module)).c_str());
    return false;
  }
  const std::string stem = fs::path(dir).filename().string();
  for (const char* extension : {".onnx", ".caffemodel"}) {
    const std::string candidate = join(dir, stem + extension);
    if (fs::is_regular_file(candidate, ec)) {
      path = candidate;
      return true;
    }
  }
  std::vector<std::string> models;
  ModelKind kind;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir, ec)) {
    const std::string candidate = entry.path().string();
    if (entry.is_regular_file(ec) && kind_from_extension(candidate, kind)) {
      models.push_back(candidate);
    }
  }
  if (models.size() != 1) {
    TARN_ERROR("open: %s holds %zu model files and none named %s.onnx or %s.caffemodel",
               dir.c_str(), models.size(), stem.c_str(), stem.c_str());
    return false;
  }
  path = models[0];
  return true;
}

bool serves(int compute_unit, int precision) {
  if (compute_unit != kComputeUnitCpu) {
    TARN_ERROR("open: compute unit %d not served, only the CPU (%d)", compute_unit,
               kComputeUnitCpu);
    return false;
  }
  if (precision != kPrecisionFloat32 && precision != kPrecisionFloat16) {
    TARN_ERROR("open: precision %d not served, only float32 (%d) and float16 (%d)", precision,
               kPrecisionFloat32, kPrecisionFloat16);
    return false;
  }
  return true;
}

bool copy_names(const char** names, size_t count, std::vector<std::string>& out) {
  if (count > 0 && names == nullptr) {
    TARN_ERROR("open: %zu output layer names announced but none given", count);
    return false;
  }
  for (size_t i = 0; i < count; ++i) {
    if (names[i] == nullptr) {
      TARN_ERROR("open: output layer name %zu is null", i);
      return false;
    }
    out.emplace_back(names[i]);
  }
  return true;
}

// The network's input blob for one HWC image `src`: its first `input.channels` channels in
// the network's layout.
cv::Mat make_blob(const cv::Mat& src, const InputGeometry& input) {
  std::vector<int> from_to;
  for (int c = 0; c < input.channels; ++c) from_to.insert(from_to.end(), {c, c});
  const size_t pairs = static_cast<size_t>(input.channels);
  if (input.layout == Layout::kChannelsLast) {
    cv::Mat blob({1, input.height, input.width, input.channels}, CV_32F);
    cv::Mat view(input.height, input.width, CV_32FC(input.channels), blob.data);
    cv::mixChannels(&src, 1, &view, 1, from_to.data(), pairs);
    return blob;
  }
  cv::Mat blob({1, input.channels, input.height, input.width}, CV_32F);
  std::vector<cv::Mat> planes;
  for (int c = 0; c < input.channels; ++c) {
    planes.emplace_back(input.height, input.width, CV_32F, blob.ptr<float>(0, c));
  }
  cv::mixChannels(&src, 1, planes.data(), planes.size(), from_to.data(), pairs);
  return blob;
}

// Runs the network on `blob`; the outputs in the order of `layer_names`, each a continuous
// float matrix of its own.
std::vector<cv::Mat> run(cv::dnn::Net& net, const cv::Mat& blob,
                         const std::vector<std::string>& layer_names) {
  net.setInput(blob);
  std::vector<cv::Mat> outs;
  net.forward(outs, layer_names);
  if (outs.size() != layer_names.size()) {
    throw std::runtime_error("the network gave " + std::to_string(outs.size()) + " outputs for " +
                             std::to_string(layer_names.size()) + " layers");
  }
  // The network reuses its buffers on the next forward; the caller's pointers must not move
  // until this session runs again.
  for (cv::Mat& out : outs) {
    cv::Mat owned;
    out.convertTo(owned, CV_32F);
    out = owned;
  }
  return outs;
}

std::vector<unsigned char> to_bytes(const std::string& text) {
  return std::vector<unsigned char>(text.begin(), text.end());
}

// The input `model` (read from `path`) declares; for Caffe, `prototxt` receives the network
// description beside it. False, with the reason logged, where either cannot be read.
bool read_declared_input(const std::string& path, ModelKind kind,
                         const std::vector<unsigned char>& model, ModelInput& declared,
                         std::string& prototxt) {
  std::string error;
  if (kind == ModelKind::kOnnx) {
    if (!read_onnx_input(model, declared, error)) {
      TARN_ERROR("open: %s: %s", path.c_str(), error.c_str());
      return false;
    }
    return true;
  }
  prototxt = fs::path(path).replace_extension(".prototxt").string();
  std::vector<unsigned char> text;
  if (!read_file(prototxt, text)) {
    TARN_ERROR("open: cannot read network description %s", prototxt.c_str());
    return false;
  }
  if (!read_prototxt_input(std::string(text.begin(), text.end()), declared, error)) {
    TARN_ERROR("open: %s: %s", prototxt.c_str(), error.c_str());
    return false;
  }
  prototxt.assign(text.begin(), text.end());
  return true;
}

// The network's layers for the requested outputs; ONNX importers rename inner tensors.
bool find_layers(cv::dnn::Net& net, const std::string& path, ModelKind kind,
                 const std::vector<std::string>& output_names,
                 std::vector<std::string>& layer_names) {
  for (const std::string& name : output_names) {
    std::string layer = name;
    if (net.getLayerId(layer) < 0 && kind == ModelKind::kOnnx) layer = kOnnxInnerLayerPrefix + name;
    if (net.getLayerId(layer) < 0) {
      TARN_ERROR("open: %s has no output layer %s", path.c_str(), name.c_str());
      return false;
    }
    layer_names.push_back(layer);
  }
  return true;
}

// Opens `path` as a model of `kind` into `session`. The session is closed first, so a failed
// open leaves no earlier model behind.
bool open_model(Session& session, const std::string& path, ModelKind kind,
                std::vector<std::string> output_names, int compute_unit, int precision) {
  session.open = false;
  session.outputs.clear();
  if (!serves(compute_unit, precision)) return false;

  std::vector<unsigned char> model;
  if (!read_file(path, model)) {
    TARN_ERROR("open: cannot read model file %s", path.c_str());
    return false;
  }
  ModelInput declared;
  std::string error;
  std::string prototxt;
  if (!read_declared_input(path, kind, model, declared, prototxt)) return false;
  InputGeometry input;
  if (declared.input_count != 1) {
    TARN_ERROR("open: %s declares %d inputs, only single-input networks are served", path.c_str(),
               declared.input_count);
    return false;
  }
  if (!input_geometry(declared, input, error)) {
    TARN_ERROR("open: %s: %s", path.c_str(), error.c_str());
    return false;
  }

  cv::dnn::Net net = kind == ModelKind::kOnnx
                         ? cv::dnn::readNetFromONNX(model)
                         : cv::dnn::readNetFromCaffe(to_bytes(prototxt), model);
  if (net.empty()) {
    TARN_ERROR("open: %s holds no layers", path.c_str());
    return false;
  }
  net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);

  if (output_names.empty()) output_names = net.getUnconnectedOutLayersNames();
  std::vector<std::string> layer_names;
  if (!find_layers(net, path, kind, output_names, layer_names)) return false;

  // One run on zeros at open, so that a model that cannot run is refused here and not at
  // the first frame.
  cv::Mat zeros(input.height, input.width, CV_32FC(input.channels), cv::Scalar::all(0));
  run(net, make_blob(zeros, input), layer_names);

  session.net = net;
  session.model_path = path;
  session.input = input;
  session.output_names = std::move(output_names);
  session.layer_names = std::move(layer_names);
  session.open = true;
  TARN_INFO("opened %s model %s: input '%s' %s %d x %d x %d (width x height x channels)",
            kind_name(kind), path.c_str(), declared.name.c_str(), layout_name(input.layout),
            input.width, input.height, input.channels);
  return true;
}

bool open_by_extension(InferenceSession handle, const char* operation, const char* model_path,
                       const char** names, size_t count, int compute_unit, int precision) {
  return guarded(operation, false, [&] {
    Session* session = open_session(handle, operation);
    if (session == nullptr) return false;
    session->open = false;
    ModelKind kind;
    if (model_path == nullptr || !kind_from_extension(model_path, kind)) {
      TARN_ERROR("%s: model file %s is neither .onnx nor .caffemodel", operation,
                 model_path ? model_path : "(null)");
      return false;
    }
    std::vector<std::string> outputs;
    return copy_names(names, count, outputs) &&
           open_model(*session, model_path, kind, std::move(outputs), compute_unit, precision);
  });
}

// Four dimensions of `out`, padded with trailing ones; dimensions beyond the fourth fold
// into the last.
void four_dims(const cv::Mat& out, int* d0, int* d1, int* d2, int* d3) {
  int dims[4] = {1, 1, 1, 1};
  for (int i = 0; i < out.dims; ++i) {
    if (i < 4) {
      dims[i] = out.size[i];
    } else {
      dims[3] *= out.size[i];
    }
  }
  int* outs[4] = {d0, d1, d2, d3};
  for (int i = 0; i < 4; ++i) {
    if (outs[i] != nullptr) *outs[i] = dims[i];
  }
}

// Output layers hold OpenCV's blobs as they are, so the values follow d0..d3 row-major with
// the channels in d1.
constexpr int kOutputFormatChannelsFirst = 1;

float* layer_output(InferenceSession handle, const char* operation, const char* layer_name, int* d0,
                    int* d1, int* d2, int* d3, int* format) {
  return guarded(operation, static_cast<float*>(nullptr), [&]() -> float* {
    Session* session = open_session(handle, operation);
    if (session == nullptr) return nullptr;
    if (layer_name == nullptr) {
      TARN_ERROR("%s: null layer name", operation);
      return nullptr;
    }
    const auto found =
        std::find(session->output_names.begin(), session->output_names.end(), layer_name);
    if (found == session->output_names.end()) {
      TARN_ERROR("%s: %s is not an output layer of the open model", operation, layer_name);
      return nullptr;
    }
    if (session->outputs.empty()) {
      TARN_ERROR("%s: no successful run to read %s from", operation, layer_name);
      return nullptr;
    }
    const cv::Mat& out =
        session->outputs[static_cast<size_t>(found - session->output_names.begin())];
    four_dims(out, d0, d1, d2, d3);
    if (format != nullptr) *format = kOutputFormatChannelsFirst;
    return const_cast<float*>(out.ptr<float>());
  });
}

}  // namespace
}  // namespace tarnlink

using tarnlink::guarded;
using tarnlink::Session;

extern "C" {

TARNLINK_EXPORT InferenceSession TarnWrapper_create(void) {
  return guarded("create", static_cast<InferenceSession>(nullptr),
                 [] { return static_cast<InferenceSession>(new Session()); });
}

TARNLINK_EXPORT void TarnWrapper_destroy(InferenceSession session) {
  guarded("destroy", false, [&] {
    delete static_cast<Session*>(session);
    return true;
  });
}

TARNLINK_EXPORT bool TarnWrapper_openDLModel(InferenceSession session, const char* models_base_dir,
                                             const char* module, const char** output_layer_names,
                                             size_t output_layer_count, int compute_unit,
                                             int precision) {
  return guarded("openDLModel", false, [&] {
    Session* s = tarnlink::open_session(session, "openDLModel");
    if (s == nullptr) return false;
    s->open = false;
    if (models_base_dir == nullptr || module == nullptr || *module == '\0') {
      TARN_ERROR("openDLModel: base directory and module are required");
      return false;
    }
    std::string path;
    tarnlink::ModelKind kind;
    std::vector<std::string> outputs;
    return tarnlink::find_module_model(models_base_dir, module, path) &&
           tarnlink::kind_from_extension(path, kind) &&
           tarnlink::copy_names(output_layer_names, output_layer_count, outputs) &&
           tarnlink::open_model(*s, path, kind, std::move(outputs), compute_unit, precision);
  });
}

TARNLINK_EXPORT bool TarnWrapper_openDLModel_direct(InferenceSession session,
                                                    const char* model_path,
                                                    const char** output_layer_names,
                                                    size_t output_layer_count, int compute_unit,
                                                    int precision) {
  return tarnlink::open_by_extension(session, "openDLModel_direct", model_path, output_layer_names,
                                     output_layer_count, compute_unit, precision);
}

TARNLINK_EXPORT bool TarnWrapper_openDLModel_direct_latency(InferenceSession session,
                                                            const char* model_path,
                                                            const char** output_layer_names,
                                                            size_t output_layer_count,
                                                            int compute_unit, int precision) {
  // One CPU path: tuning for latency changes nothing here.
  return tarnlink::open_by_extension(session, "openDLModel_direct_latency", model_path,
                                     output_layer_names, output_layer_count, compute_unit,
                                     precision);
}

TARNLINK_EXPORT bool TarnWrapper_openDLModel_zephOptions(InferenceSession session,
                                                         const char* model_path,
                                                         ZEPHInterface options) {
  return guarded("openDLModel_zephOptions", false, [&] {
    Session* s = tarnlink::open_session(session, "openDLModel_zephOptions");
    if (s == nullptr) return false;
    s->open = false;
    tarnlink::ModelKind kind;
    if (options.model_type == ZEPH_ONNX) {
      kind = tarnlink::ModelKind::kOnnx;
    } else if (options.model_type == ZEPH_CAFFE) {
      kind = tarnlink::ModelKind::kCaffe;
    } else {
      TARN_ERROR(
          "openDLModel_zephOptions: model type %d not served, only Caffe (%d) and "
          "ONNX (%d)",
          static_cast<int>(options.model_type), ZEPH_CAFFE, ZEPH_ONNX);
      return false;
    }
    if (model_path == nullptr) {
      TARN_ERROR("openDLModel_zephOptions: null model path");
      return false;
    }
    return tarnlink::open_model(*s, model_path, kind, options.output_layer_names,
                                options.compute_unit, options.precision);
  });
}

TARNLINK_EXPORT bool TarnWrapper_getInputDimens(InferenceSession session, int* width, int* height) {
  return guarded("getInputDimens", false, [&] {
    Session* s = tarnlink::open_session(session, "getInputDimens");
    if (s == nullptr) return false;
    if (!s->open || width == nullptr || height == nullptr) {
      TARN_ERROR("getInputDimens: %s", s->open ? "null output" : "no model open");
      return false;
    }
    *width = s->input.width;
    *height = s->input.height;
    return true;
  });
}

TARNLINK_EXPORT bool TarnWrapper_getInputChannels(InferenceSession session, int* channels) {
  return guarded("getInputChannels", false, [&] {
    Session* s = tarnlink::open_session(session, "getInputChannels");
    if (s == nullptr) return false;
    if (!s->open || channels == nullptr) {
      TARN_ERROR("getInputChannels: %s", s->open ? "null output" : "no model open");
      return false;
    }
    *channels = s->input.channels;
    return true;
  });
}

TARNLINK_EXPORT bool TarnWrapper_setChannelMeans(InferenceSession session, const float* means,
                                                 size_t count) {
  return guarded("setChannelMeans", false, [&] {
    Session* s = tarnlink::open_session(session, "setChannelMeans");
    if (s == nullptr) return false;
    if (count > tarnlink::kMaxChannelMeans || (count > 0 && means == nullptr)) {
      TARN_ERROR("setChannelMeans: %zu means rejected, at most %zu", count,
                 tarnlink::kMaxChannelMeans);
      return false;
    }
    s->channel_means.assign(means, means + count);
    return true;
  });
}

TARNLINK_EXPORT bool TarnWrapper_execute(InferenceSession session, float* input, int width,
                                         int height, int format) {
  return guarded("execute", false, [&] {
    Session* s = tarnlink::open_session(session, "execute");
    if (s == nullptr) return false;
    s->outputs.clear();
    if (!s->open) {
      TARN_ERROR("execute: no model open");
      return false;
    }
    const tarnlink::InputGeometry& net = s->input;
    int channels = 0;
    if (format == TARN_INPUT_3_CHANNELS) channels = 3;
    if (format == TARN_INPUT_4_CHANNELS) channels = 4;
    if (input == nullptr || channels == 0) {
      TARN_ERROR("execute: %s", input == nullptr ? "null input" : "unknown input format");
      return false;
    }
    if (width != net.width || height != net.height || channels < net.channels) {
      TARN_ERROR("execute: input %d x %d x %d does not fit the network's %d x %d x %d", width,
                 height, channels, net.width, net.height, net.channels);
      return false;
    }
    cv::Mat image(height, width, CV_32FC(channels), input);
    if (!s->channel_means.empty()) {
      cv::Scalar means;
      for (size_t c = 0; c < s->channel_means.size(); ++c)
        means[static_cast<int>(c)] = s->channel_means[c];
      cv::Mat shifted;
      cv::subtract(image, means, shifted);
      image = shifted;
    }
    s->outputs = tarnlink::run(s->net, tarnlink::make_blob(image, net), s->layer_names);
    return true;
  });
}

TARNLINK_EXPORT float* TarnWrapper_getLayerOutputAndFormat(InferenceSession session,
                                                           const char* layer_name, int* d0, int* d1,
                                                           int* d2, int* d3, int* format) {
  return tarnlink::layer_output(session, "getLayerOutputAndFormat", layer_name, d0, d1, d2, d3,
                                format);
}

TARNLINK_EXPORT float* TarnWrapper_getLayerOutput(InferenceSession session, const char* layer_name,
                                                  int* d0, int* d1, int* d2, int* d3) {
  return tarnlink::layer_output(session, "getLayerOutput", layer_name, d0, d1, d2, d3, nullptr);
}

}  // extern "C"

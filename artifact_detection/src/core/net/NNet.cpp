#include "core/net/NNet.h"

#include <dlfcn.h>

#include <cstdint>
#include <exception>
#include <iostream>
#include <map>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "core/model_interface/dl_loader.h"
#include "core/utils/logging.h"
#include "core/utils/steady_clock.h"
#include "utils/sys_utils.h"

namespace {

// Compute-unit codes that decide the options record.
constexpr int kComputeUnitCpu = 0;
constexpr int kComputeUnitGpu = 1;
constexpr int kComputeUnitNpu = 3;

// The network is trained on pixels minus 128 in every colour channel, whatever means the
// caller configured; the fourth channel, if any, is left alone.
const cv::Scalar kInputOffset(128.0, 128.0, 128.0, 0.0);
constexpr double kInputScale = 1.0;

// Resized inputs go through JPEG at this quality, as the training images did.
constexpr int kResizedJpegQuality = 95;

// The sample pixel written to standard output after preprocessing.
constexpr int kSamplePixel = 10;

using artifact_detector::steady_ms;

// Milliseconds since a steady_ms() reading, for the %d of a log line.
int elapsed_ms(int64_t start_ms) { return static_cast<int>(steady_ms() - start_ms); }

template <typename F>
F as_operation(void* address) {
  return reinterpret_cast<F>(address);
}

}  // namespace

void NNet::Library::release() {
  if (handle == nullptr) return;
  auto destroy = as_operation<TarnWrapper_destroy_t>(get_destroy_fptr(handle));
  if (destroy != nullptr) destroy(session);
  session = nullptr;
  dlclose(handle);
  handle = nullptr;
}

NNet::NNet(const std::string& model, const std::string& module,
           std::vector<std::string> output_layer_names, std::vector<float> channel_means,
           int compute_unit, int precision) {
  init_net(model, module, output_layer_names, channel_means, compute_unit, precision);
}

NNet::~NNet() {
  const int64_t start = steady_ms();
  library.release();
  AD_LOGV_AT(374, "TQ Debug: Closing of Tarnlink handle completed in ~NNet for %s",
             module_name.c_str());
  AD_LOGV_AT(376, "TQ Debug: engine-compute: Close time taken: %d ms for module %s",
             elapsed_ms(start), module_name.c_str());
}

bool NNet::init_net(const std::string& model, const std::string& module,
                    std::vector<std::string> output_layer_names, std::vector<float> channel_means,
                    int compute_unit, int precision) {
  this->compute_unit = compute_unit;
  const int64_t start = steady_ms();
  std::lock_guard<std::mutex> guard(lock);
  AD_LOGV_AT(15, "TQ Debug: NNet Constructor called for %s, %s", model.c_str(), module.c_str());
  is_open = false;
  last_run_ok = false;
  module_name = module;
  channels = 3;
  for (size_t i = 0; i < channel_means.size(); ++i) {
    AD_LOGV_AT(22, "init_net Mean for channel %d is %f", static_cast<int>(i),
               static_cast<double>(channel_means[i]));
  }

  const bool opened =
      open_model(model, module, output_layer_names, channel_means, compute_unit, precision);

  AD_LOGV_AT(86, "TQ Debug: NNet Contructor Model Dimensions - width=[%d], height=[%d]", width,
             height);
  AD_LOGV_AT(87, "TQ Debug: NNet Contructor %s for module - %s", opened ? "completed" : "failed",
             module.c_str());
  AD_LOGV_AT(90, "TQ Debug: engine-compute: Open time taken: %d ms for module - %s",
             elapsed_ms(start), module.c_str());
  is_open = opened;
  return is_open;
}

bool NNet::open_model(const std::string& model, const std::string& module,
                      const std::vector<std::string>& output_layer_names,
                      const std::vector<float>& channel_means, int compute_unit, int precision) {
  std::vector<const char*> layer_names;
  for (const std::string& name : output_layer_names) layer_names.push_back(name.c_str());

  // A second init_net replaces the session and library reference of the first.
  library.release();
  library.handle = get_tarnlink_lib_handle();
  auto create = as_operation<TarnWrapper_create_t>(get_create_fptr(library.handle));
  auto open = as_operation<TarnWrapper_openDLModel_t>(get_open_fptr(library.handle));
  auto open_direct =
      as_operation<TarnWrapper_openDLModel_direct_t>(get_open_fptr_direct(library.handle));
  auto input_dimens =
      as_operation<TarnWrapper_getInputDimens_t>(get_inputDimens_fptr(library.handle));
  // Looked up so that its absence is logged with the others; the detector never asks.
  get_inputChannels_fptr(library.handle);
  auto open_zeph_options = as_operation<TarnWrapper_openDLModel_zephOptions_t>(
      get_open_fptr_zeph_options(library.handle));

  library.session = create != nullptr ? create() : nullptr;
  if (library.session == nullptr) return false;

  bool opened = false;
  // Any '.' marks a model file, even one in a directory name.
  const bool model_is_file = model.find('.') != std::string::npos;
  if (model_is_file && open_zeph_options != nullptr) {
    AD_LOG_INFO_AT(58) << "TQ Debug: calling TarnWrapper_openDLModel_ptr_zephOptions";
    try {
      set_zeph_options(model, module, output_layer_names, channel_means, compute_unit, precision);
      opened = open_zeph_options(library.session, model.c_str(), options);
      if (!opened) {
        AD_LOG_INFO_AT(62) << "TQ Debug: failed to open models using zeph options api";
      }
    } catch (const std::exception& e) {
      AD_LOGV_AT(78,
                 "Tarnlink: ZEPH session returned NULL ! Exception thrown in open for module %s "
                 "| %s",
                 module.c_str(), e.what());
      opened = false;
    }
  } else if (model_is_file) {
    AD_LOG_INFO_AT(67) << "TQ Debug: failed to call TarnWrapper_openDLModel_ptr_zephOptions";
    opened =
        open_direct != nullptr && open_direct(library.session, model.c_str(), layer_names.data(),
                                              layer_names.size(), compute_unit, precision);
  } else {
    const std::string models_base_path = get_final_models_base_path(model, module);
    opened =
        open != nullptr && open(library.session, models_base_path.c_str(), module.c_str(),
                                layer_names.data(), layer_names.size(), compute_unit, precision);
  }

  return opened && input_dimens != nullptr && input_dimens(library.session, &width, &height);
}

void NNet::set_zeph_options(const std::string& model, const std::string& module,
                            std::vector<std::string> output_layer_names,
                            std::vector<float> /*channel_means*/, int compute_unit, int precision) {
  options.use_options = 1;
  options.compute_unit = compute_unit;
  options.precision = precision;
  options.model_name = model;
  options.module = module;

  // From the first '.' on: "a.b.dla" gives ".b.dla", which names no model type.
  const size_t dot = model.find('.');
  const std::string extension = dot == std::string::npos ? std::string() : model.substr(dot);
  AD_LOG_INFO_AT(124) << "TQ Debug: set_zeph_options model_extention= " << extension;

  std::map<std::string, ZEPHModelType> model_types = {{".dlc", ZEPH_DLC}};
  if (extension == ".dla" && compute_unit == kComputeUnitNpu) {
    AD_LOG_INFO_AT(128) << "TQ Debug: set_zeph_options setting the model type to KTV";
    model_types[".dla"] = ZEPH_KTV;
  } else if (compute_unit == kComputeUnitNpu) {
    AD_LOG_INFO_AT(132) << "TQ Debug: set_zeph_options setting the model type to ORLA";
    model_types[".tflite"] = ZEPH_ORLA;
  } else if (compute_unit == kComputeUnitCpu || compute_unit == kComputeUnitGpu) {
    AD_LOG_INFO_AT(136) << "TQ Debug: set_zeph_options setting the model type to ZEPH_ZEPHLITE";
    model_types[".tflite"] = ZEPH_ZEPHLITE;
  }
  model_types[".caffemodel"] = ZEPH_CAFFE;
  model_types[".onnx"] = ZEPH_ONNX;
  const auto type = model_types.find(extension);
  options.model_type = type != model_types.end() ? type->second : ZEPH_CAFFE;

  const bool cpu_or_gpu = compute_unit == kComputeUnitCpu || compute_unit == kComputeUnitGpu;
  options.input_layer_names = {cpu_or_gpu ? "inputs_0" : "data"};
  for (const std::string& name : output_layer_names) {
    AD_LOG_INFO_AT(151) << "TQ Debug: set_zeph_options layername= " << name;
  }
  options.output_layer_names = output_layer_names;
  options.model_path = model;
  options.init_flags = 0;
}

void NNet::get_target_dimen(int& height, int& width) {
  height = this->height;
  width = this->width;
}

void* NNet::get_layer_output_with_format(const char* layer_name, int& d0, int& d1, int& d2, int& d3,
                                         int& format) {
  if (!is_open) return nullptr;
  AD_LOGV_AT(335, "TQ Debug: NNet get layer output with format called for %s", layer_name);
  auto get_output = as_operation<TarnWrapper_getLayerOutputAndFormat_t>(
      get_output_and_format_fptr(library.handle));
  float* data = nullptr;
  if (last_run_ok && get_output != nullptr) {
    data = get_output(library.session, layer_name, &d0, &d1, &d2, &d3, &format);
    // Format 1 reports the channel dimension first; callers expect it last.
    if (format == 1) {
      const int channel_dimension = d1;
      d1 = d2;
      d2 = d3;
      d3 = channel_dimension;
    }
    AD_LOGV_AT(346,
               "TQ Debug: NNet layer output dimensions for %s are %d, %d, %d, %d and format: %d",
               layer_name, d0, d1, d2, d3, format);
  }
  if (data == nullptr) {
    AD_LOGV_AT(349, "TQ Debug: NNet get layer output with format NULL for %s", layer_name);
    return nullptr;
  }
  AD_LOGV_AT(353, "TQ Debug: NNet get layer output with format completed for %s", layer_name);
  return data;
}

namespace {

// `image` brought to `size` and through JPEG when neither side matches it; one matching side is
// enough to keep it, since the library is told the network's size either way. False when the
// JPEG round trip fails.
bool fit_to_input(cv::Mat& image, cv::Size size, bool quiet) {
  if (image.cols == size.width || image.rows == size.height) return true;
  AD_LOG_INFO_AT(197) << "TQ Debug: Miss-match in the input-image-size"
                      << "(" << image.cols << ", " << image.rows << ")"
                      << " and the target-image-size"
                      << "(" << size.width << ", " << size.height << ")"
                      << " in forward-pass";
  AD_LOG_INFO_AT(198) << "TQ Debug: Resizing the image to match target input image size";
  cv::Mat resized;
  cv::resize(image, resized, size, 0, 0, cv::INTER_LINEAR);
  std::vector<uchar> jpeg;
  if (!cv::imencode(".jpg", resized, jpeg, {cv::IMWRITE_JPEG_QUALITY, kResizedJpegQuality})) {
    if (!quiet) std::cerr << "Error: Failed to compress image." << std::endl;
    return false;
  }
  if (!quiet) std::cout << "Compressed buffer size: " << jpeg.size() << " bytes" << std::endl;
  image = cv::imdecode(jpeg, cv::IMREAD_COLOR);
  if (image.empty()) {
    if (!quiet) std::cerr << "Error: Failed to decode buffer." << std::endl;
    return false;
  }
  return true;
}

// Each channel's range and the means of the network's input, and one pixel of `image`.
void log_input_stats(const cv::Mat& input, const cv::Mat& image, bool quiet) {
  std::vector<cv::Mat> planes;
  cv::split(input, planes);
  for (size_t i = 0; i < planes.size(); ++i) {
    double min = 0.0;
    double max = 0.0;
    cv::minMaxLoc(planes[i], &min, &max);
    AD_LOG_INFO_AT(243) << "Channel " << i << " - Min: " << min << ", Max: " << max;
  }
  const cv::Scalar mean = cv::mean(input);
  AD_LOG_INFO_AT(247) << "Resized image stats - Mean: "
                      << "[" << mean[0] << ", " << mean[1] << ", " << mean[2] << ", " << mean[3]
                      << "]";
  // Smaller images have no sample pixel; reading it would run past the buffer.
  if (!quiet && image.rows > kSamplePixel && image.cols > kSamplePixel) {
    const cv::Vec3b pixel = image.at<cv::Vec3b>(kSamplePixel, kSamplePixel);
    std::cout << "Pixel at (10,10): "
              << "[" << static_cast<int>(pixel[0]) << ", " << static_cast<int>(pixel[1]) << ", "
              << static_cast<int>(pixel[2]) << "]" << std::endl;
  }
}

}  // namespace

bool NNet::forward_pass(cv::Mat image) {
  if (!is_open) return false;
  // A quiet detector keeps standard output to its caller.
  const bool quiet = artifact_detector::current_log_policy().quiet;
  if (image.data == nullptr || image.empty()) {
    AD_LOG_INFO_AT(182) << "TQ Debug: Image for forward-pass cannot be empty";
    return false;
  }
  AD_LOG_INFO_AT(191) << "Target image size (CHW): " << channels << ", " << height << ", " << width;
  if (image.channels() != channels) {
    AD_LOG_INFO_AT(193) << "TQ Debug: Expected " << channels
                        << " channels in the input image, but received input image has "
                        << image.channels() << " channels";
    return false;
  }
  // A failed JPEG round trip has always counted as a pass that ran.
  if (!fit_to_input(image, cv::Size(width, height), quiet)) return true;

  cv::Mat input;
  image.convertTo(input, CV_32FC(image.channels()), 1.0, 0.0);
  AD_LOGV_AT(226, "TQ Debug: Substracting channels means 128.0, 128.0, 128.0 in library");
  cv::subtract(input, kInputOffset, input);
  input /= kInputScale;
  log_input_stats(input, image, quiet);

  const int format = image.channels() == 4 ? TARN_INPUT_4_CHANNELS : TARN_INPUT_3_CHANNELS;
  const int64_t start = steady_ms();
  auto execute = as_operation<TarnWrapper_execute_t>(get_execute_fptr(library.handle));
  last_run_ok = is_open && execute != nullptr &&
                execute(library.session, input.ptr<float>(), width, height, format);
  AD_LOGV_AT(303, "TQ Debug: NNet forward pass completed");
  AD_LOGV_AT(305, "TQ Debug: engine-compute: Execute time taken: %d ms for %s-module",
             elapsed_ms(start), module_name.c_str());
  return last_run_ok;
}

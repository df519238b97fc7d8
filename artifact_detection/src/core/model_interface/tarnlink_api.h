// The inference library's operation table: every operation the detector may look up in
// libTarnlink, with its C signature, and the options record of the options-based open.
//
// The detector and every inference library built for it include this one header. An
// implementation defines the operations with C linkage; "bool" is a one-byte truth value.
// Every operation takes the session made by TarnWrapper_create first. A session is created
// before any open, opened before TarnWrapper_getInputDimens and TarnWrapper_execute, and
// destroyed exactly once (TarnWrapper_destroy must accept a null session).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Opaque session of the inference library.
typedef void* InferenceSession;

// Model formats the options-based open can be asked for, chosen from the model file's
// extension.
enum ZEPHModelType : int {
  ZEPH_CAFFE = 0,          // ".caffemodel" (prototxt beside it)
  ZEPH_DLC = 1,            // ".dlc"
  ZEPH_ORLA = 2,           // ".tflite" on the NPU
  ZEPH_ONNX = 8,           // ".onnx"
  ZEPH_ZEPHLITE = 9,       // ".tflite" on CPU or GPU
  ZEPH_KTV = 11,           // ".dla" on the NPU
  ZEPH_MODEL_TYPE_UNSET = 12,
};

// Options record of TarnWrapper_openDLModel_zephOptions, passed by value. Fields the
// detector does not set keep the defaults below; their meaning belongs to the library.
struct ZEPHInterface {
  int compute_unit = 4;                   // ComputeUnit code: cpu 0, gpu 1, dsp 2, npu 3
  int precision = 5;                      // float32 0, float16 1, qasymm16 2, qasymm8 3
  ZEPHModelType model_type = ZEPH_MODEL_TYPE_UNSET;
  std::vector<std::string> input_layer_names;
  std::vector<std::string> output_layer_names;
  std::vector<float> input_means;
  std::vector<float> input_scales;
  std::vector<float> output_scales;
  std::string model_name;
  std::string model_path;
  int use_options = 0;                    // the detector sets 1
  std::vector<float> quantization_params;
  int performance_profile = 3;
  std::string module;
  std::vector<std::vector<int>> input_shapes;
  int64_t cache_policy = 2;
  int priority = 3;
  int64_t init_flags = 0;
};

// Input format codes of TarnWrapper_execute.
enum TarnInputFormat : int { TARN_INPUT_3_CHANNELS = 1, TARN_INPUT_4_CHANNELS = 2 };

// Each operation is followed by its pointer type, for casting what dlsym returns.
extern "C" {

// New session, null on failure.
InferenceSession TarnWrapper_create(void);
using TarnWrapper_create_t = decltype(&TarnWrapper_create);

// Opens the model of `module` installed under `models_base_dir` (a directory ending in "/").
bool TarnWrapper_openDLModel(InferenceSession session, const char* models_base_dir,
                             const char* module, const char** output_layer_names,
                             size_t output_layer_count, int compute_unit, int precision);
using TarnWrapper_openDLModel_t = decltype(&TarnWrapper_openDLModel);

// Opens the model file at `model_path`.
bool TarnWrapper_openDLModel_direct(InferenceSession session, const char* model_path,
                                    const char** output_layer_names, size_t output_layer_count,
                                    int compute_unit, int precision);
using TarnWrapper_openDLModel_direct_t = decltype(&TarnWrapper_openDLModel_direct);

// As the direct open, tuned for latency. Never called by the detector.
bool TarnWrapper_openDLModel_direct_latency(InferenceSession session, const char* model_path,
                                            const char** output_layer_names,
                                            size_t output_layer_count, int compute_unit,
                                            int precision);
using TarnWrapper_openDLModel_direct_latency_t = decltype(&TarnWrapper_openDLModel_direct_latency);

// Opens the model file at `model_path` as the options record describes.
bool TarnWrapper_openDLModel_zephOptions(InferenceSession session, const char* model_path,
                                         ZEPHInterface options);
using TarnWrapper_openDLModel_zephOptions_t = decltype(&TarnWrapper_openDLModel_zephOptions);

// The network's input size.
bool TarnWrapper_getInputDimens(InferenceSession session, int* width, int* height);
using TarnWrapper_getInputDimens_t = decltype(&TarnWrapper_getInputDimens);

// The network's input channel count. Never called by the detector.
bool TarnWrapper_getInputChannels(InferenceSession session, int* channels);
using TarnWrapper_getInputChannels_t = decltype(&TarnWrapper_getInputChannels);

// Runs the network once on `input`: 32-bit floats, channels interleaved, rows one after
// another; `format` is a TarnInputFormat.
bool TarnWrapper_execute(InferenceSession session, float* input, int width, int height,
                         int format);
using TarnWrapper_execute_t = decltype(&TarnWrapper_execute);

// Output of `layer_name` after the last run: four dimensions. Never called by the detector.
float* TarnWrapper_getLayerOutput(InferenceSession session, const char* layer_name, int* d0,
                                  int* d1, int* d2, int* d3);
using TarnWrapper_getLayerOutput_t = decltype(&TarnWrapper_getLayerOutput);

// Output of `layer_name` after the last run, its four dimensions in the library's order and
// its format code. The values belong to the library and stay valid until the next run;
// null when the layer is unknown or no run succeeded.
float* TarnWrapper_getLayerOutputAndFormat(InferenceSession session, const char* layer_name,
                                           int* d0, int* d1, int* d2, int* d3, int* format);
using TarnWrapper_getLayerOutputAndFormat_t = decltype(&TarnWrapper_getLayerOutputAndFormat);

// Releases the session; a null session is accepted.
void TarnWrapper_destroy(InferenceSession session);
using TarnWrapper_destroy_t = decltype(&TarnWrapper_destroy);

// Per-channel means the library would subtract itself. Never called by the detector.
bool TarnWrapper_setChannelMeans(InferenceSession session, const float* means, size_t count);
using TarnWrapper_setChannelMeans_t = decltype(&TarnWrapper_setChannelMeans);

}  // extern "C"

// The scripted inference library (see fake_tarnlink.h). Variants leave operations out with
// FAKE_TARN_OMIT_<OPERATION> definitions so that the detector meets a library without them.
#include "support/fake_tarnlink.h"

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>

#define FAKE_TARN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct LayerOutput {
  std::vector<float> values;
  int dims[4];
  int format;
};

struct State {
  std::mutex mutex;
  int width = 224;
  int height = 224;
  std::map<std::string, LayerOutput> outputs;
  FakeTarnFailure failures[FAKE_TARN_OP_COUNT] = {};
  std::vector<std::unique_ptr<FakeTarnCall>> calls;
  std::vector<float> last_input;
  std::set<InferenceSession> live_sessions;
  int sessions_created = 0;
  int sessions_destroyed = 0;
};

State& state() {
  static State s;
  return s;
}

// Records the call and reports how the operation is scripted to behave; throws for the
// throwing failures.
FakeTarnFailure record(FakeTarnCall call) {
  State& s = state();
  const FakeTarnOp op = call.op;
  FakeTarnFailure failure;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.calls.push_back(std::make_unique<FakeTarnCall>(std::move(call)));
    failure = s.failures[op];
  }
  if (failure == FAKE_TARN_THROW) throw std::runtime_error(kFakeTarnExceptionText);
  if (failure == FAKE_TARN_THROW_NON_STD) throw 42;
  return failure;
}

FakeTarnCall make_call(FakeTarnOp op, InferenceSession session) {
  FakeTarnCall call;
  call.op = op;
  call.session = session;
  return call;
}

std::vector<std::string> names_of(const char** names, size_t count) {
  std::vector<std::string> out;
  for (size_t i = 0; i < count; ++i) out.emplace_back(names[i] ? names[i] : "<null>");
  return out;
}

[[maybe_unused]] bool record_open(FakeTarnOp op, InferenceSession session, const char* path,
                                  const char* module, const char** names, size_t count,
                                  int compute_unit, int precision) {
  FakeTarnCall call = make_call(op, session);
  call.path = path ? path : "<null>";
  if (module) call.module = module;
  call.layer_names = names_of(names, count);
  call.compute_unit = compute_unit;
  call.precision = precision;
  return record(std::move(call)) == FAKE_TARN_SUCCEED;
}

[[maybe_unused]] float* layer_output(FakeTarnOp op, InferenceSession session,
                                     const char* layer_name, int* d0, int* d1, int* d2, int* d3,
                                     int* format) {
  FakeTarnCall call = make_call(op, session);
  call.layer_name = layer_name ? layer_name : "<null>";
  const bool ok = record(std::move(call)) == FAKE_TARN_SUCCEED;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.outputs.find(layer_name ? layer_name : "");
  if (it == s.outputs.end()) return nullptr;
  LayerOutput& out = it->second;
  // Dimensions are reported even when the output is scripted to be missing.
  *d0 = out.dims[0];
  *d1 = out.dims[1];
  *d2 = out.dims[2];
  *d3 = out.dims[3];
  if (format) *format = out.format;
  return ok ? out.values.data() : nullptr;
}

}  // namespace

// --- operation table -------------------------------------------------------------------------

#ifndef FAKE_TARN_OMIT_CREATE
FAKE_TARN_EXPORT InferenceSession TarnWrapper_create(void) {
  if (record(make_call(FAKE_TARN_CREATE, nullptr)) != FAKE_TARN_SUCCEED) return nullptr;
  InferenceSession session = new int(0);
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.live_sessions.insert(session);
  ++s.sessions_created;
  return session;
}
#endif

#ifndef FAKE_TARN_OMIT_OPEN
FAKE_TARN_EXPORT bool TarnWrapper_openDLModel(InferenceSession session, const char* models_base_dir,
                                              const char* module, const char** output_layer_names,
                                              size_t output_layer_count, int compute_unit,
                                              int precision) {
  return record_open(FAKE_TARN_OPEN, session, models_base_dir, module, output_layer_names,
                     output_layer_count, compute_unit, precision);
}
#endif

#ifndef FAKE_TARN_OMIT_OPEN_DIRECT
FAKE_TARN_EXPORT bool TarnWrapper_openDLModel_direct(InferenceSession session,
                                                     const char* model_path,
                                                     const char** output_layer_names,
                                                     size_t output_layer_count, int compute_unit,
                                                     int precision) {
  return record_open(FAKE_TARN_OPEN_DIRECT, session, model_path, nullptr, output_layer_names,
                     output_layer_count, compute_unit, precision);
}
#endif

#ifndef FAKE_TARN_OMIT_OPEN_DIRECT_LATENCY
FAKE_TARN_EXPORT bool TarnWrapper_openDLModel_direct_latency(InferenceSession session,
                                                             const char* model_path,
                                                             const char** output_layer_names,
                                                             size_t output_layer_count,
                                                             int compute_unit, int precision) {
  return record_open(FAKE_TARN_OPEN_DIRECT_LATENCY, session, model_path, nullptr,
                     output_layer_names, output_layer_count, compute_unit, precision);
}
#endif

#ifndef FAKE_TARN_OMIT_OPEN_ZEPH_OPTIONS
FAKE_TARN_EXPORT bool TarnWrapper_openDLModel_zephOptions(InferenceSession session,
                                                          const char* model_path,
                                                          ZEPHInterface options) {
  FakeTarnCall call = make_call(FAKE_TARN_OPEN_ZEPH_OPTIONS, session);
  call.path = model_path ? model_path : "<null>";
  call.compute_unit = options.compute_unit;
  call.precision = options.precision;
  call.layer_names = options.output_layer_names;
  call.module = options.module;
  call.options = std::move(options);
  return record(std::move(call)) == FAKE_TARN_SUCCEED;
}
#endif

#ifndef FAKE_TARN_OMIT_GET_INPUT_DIMENS
FAKE_TARN_EXPORT bool TarnWrapper_getInputDimens(InferenceSession session, int* width,
                                                 int* height) {
  if (record(make_call(FAKE_TARN_GET_INPUT_DIMENS, session)) != FAKE_TARN_SUCCEED) return false;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  *width = s.width;
  *height = s.height;
  return true;
}
#endif

#ifndef FAKE_TARN_OMIT_GET_INPUT_CHANNELS
FAKE_TARN_EXPORT bool TarnWrapper_getInputChannels(InferenceSession session, int* channels) {
  if (record(make_call(FAKE_TARN_GET_INPUT_CHANNELS, session)) != FAKE_TARN_SUCCEED) {
    return false;
  }
  *channels = 3;
  return true;
}
#endif

#ifndef FAKE_TARN_OMIT_EXECUTE
FAKE_TARN_EXPORT bool TarnWrapper_execute(InferenceSession session, float* input, int width,
                                          int height, int format) {
  FakeTarnCall call = make_call(FAKE_TARN_EXECUTE, session);
  call.width = width;
  call.height = height;
  call.format = format;
  const bool ok = record(std::move(call)) == FAKE_TARN_SUCCEED;
  const int channels = format == TARN_INPUT_4_CHANNELS ? 4 : 3;
  const size_t count = width > 0 && height > 0 ? static_cast<size_t>(width) * height * channels : 0;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.last_input.assign(input, input + (input ? count : 0));
  return ok;
}
#endif

#ifndef FAKE_TARN_OMIT_GET_LAYER_OUTPUT
FAKE_TARN_EXPORT float* TarnWrapper_getLayerOutput(InferenceSession session, const char* layer_name,
                                                   int* d0, int* d1, int* d2, int* d3) {
  return layer_output(FAKE_TARN_GET_LAYER_OUTPUT, session, layer_name, d0, d1, d2, d3, nullptr);
}
#endif

#ifndef FAKE_TARN_OMIT_GET_LAYER_OUTPUT_AND_FORMAT
FAKE_TARN_EXPORT float* TarnWrapper_getLayerOutputAndFormat(InferenceSession session,
                                                            const char* layer_name, int* d0,
                                                            int* d1, int* d2, int* d3,
                                                            int* format) {
  return layer_output(FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT, session, layer_name, d0, d1, d2, d3,
                      format);
}
#endif

#ifndef FAKE_TARN_OMIT_DESTROY
FAKE_TARN_EXPORT void TarnWrapper_destroy(InferenceSession session) {
  record(make_call(FAKE_TARN_DESTROY, session));
  if (session == nullptr) return;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  // A session destroyed twice or never made is a caller fault: it is recorded, not freed.
  if (s.live_sessions.erase(session) == 0) return;
  delete static_cast<int*>(session);
  ++s.sessions_destroyed;
}
#endif

#ifndef FAKE_TARN_OMIT_SET_CHANNEL_MEANS
FAKE_TARN_EXPORT bool TarnWrapper_setChannelMeans(InferenceSession session, const float*, size_t) {
  return record(make_call(FAKE_TARN_SET_CHANNEL_MEANS, session)) == FAKE_TARN_SUCCEED;
}
#endif

// --- control functions -----------------------------------------------------------------------

FAKE_TARN_EXPORT void fake_tarn_reset(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.width = 224;
  s.height = 224;
  s.outputs.clear();
  for (FakeTarnFailure& f : s.failures) f = FAKE_TARN_SUCCEED;
  s.calls.clear();
  s.last_input.clear();
  s.sessions_created = 0;
  s.sessions_destroyed = 0;
}

FAKE_TARN_EXPORT void fake_tarn_set_input_size(int width, int height) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.width = width;
  s.height = height;
}

FAKE_TARN_EXPORT void fake_tarn_set_layer_output(const char* layer, const float* values,
                                                 size_t count, int d0, int d1, int d2, int d3,
                                                 int format) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.outputs[layer] =
      LayerOutput{std::vector<float>(values, values + count), {d0, d1, d2, d3}, format};
}

FAKE_TARN_EXPORT void fake_tarn_set_failure(FakeTarnOp op, FakeTarnFailure failure) {
  if (op < 0 || op >= FAKE_TARN_OP_COUNT) return;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.failures[op] = failure;
}

FAKE_TARN_EXPORT size_t fake_tarn_call_count(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.calls.size();
}

FAKE_TARN_EXPORT const FakeTarnCall* fake_tarn_call_at(size_t index) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return index < s.calls.size() ? s.calls[index].get() : nullptr;
}

FAKE_TARN_EXPORT size_t fake_tarn_last_input(const float** values) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  *values = s.last_input.data();
  return s.last_input.size();
}

FAKE_TARN_EXPORT int fake_tarn_sessions_created(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.sessions_created;
}

FAKE_TARN_EXPORT int fake_tarn_sessions_destroyed(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.sessions_destroyed;
}

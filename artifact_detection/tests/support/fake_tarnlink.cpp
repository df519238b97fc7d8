// The scripted inference library (see fake_tarnlink.h). Variants leave operations out with
// FAKE_TARN_OMIT_<OPERATION> definitions so that the detector meets a library without them.
#include "support/fake_tarnlink.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>

#define FAKE_TARN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct LayerOutput {
  std::vector<float> values;
  int dims[4];
  int format;
};

struct State {
  int width = 224;
  int height = 224;
  std::map<std::string, LayerOutput> outputs;
  FakeTarnFailure failures[FAKE_TARN_OP_COUNT] = {};
  std::vector<std::unique_ptr<FakeTarnCall>> calls;  // stable addresses for fake_tarn_call_at
  std::vector<float> last_input;
  int sessions_created = 0;
  int sessions_destroyed = 0;
};

struct Guarded {
  std::mutex mutex;
  State state;
} guarded;

// Runs `f` on the state under its lock.
template <typename F>
auto locked(F f) {
  std::lock_guard<std::mutex> lock(guarded.mutex);
  return f(guarded.state);
}

// Records the call and tells how the operation is scripted to behave; throws for the
// throwing failures.
bool record(FakeTarnCall call) {
  const FakeTarnFailure failure = locked([&](State& s) {
    s.calls.push_back(std::make_unique<FakeTarnCall>(std::move(call)));
    return s.failures[s.calls.back()->op];
  });
  if (failure == FAKE_TARN_THROW) throw std::runtime_error(kFakeTarnExceptionText);
  if (failure == FAKE_TARN_THROW_NON_STD) throw 42;
  return failure == FAKE_TARN_SUCCEED;
}

FakeTarnCall make_call(FakeTarnOp op, InferenceSession session) {
  FakeTarnCall call;
  call.op = op;
  call.session = session;
  return call;
}

[[maybe_unused]] bool record_open(FakeTarnOp op, InferenceSession session, const char* path,
                                  const char* module, const char** names, size_t count,
                                  int compute_unit, int precision) {
  FakeTarnCall call = make_call(op, session);
  call.path = path;
  if (module) call.module = module;
  call.layer_names.assign(names, names + count);
  call.compute_unit = compute_unit;
  call.precision = precision;
  return record(std::move(call));
}

}  // namespace

// --- operation table -------------------------------------------------------------------------

#ifndef FAKE_TARN_OMIT_CREATE
FAKE_TARN_EXPORT InferenceSession TarnWrapper_create(void) {
  if (!record(make_call(FAKE_TARN_CREATE, nullptr))) return nullptr;
  // Sessions are opaque tokens, never dereferenced: the n-th since the process started.
  static uintptr_t made = 0;
  return locked([](State& s) {
    ++s.sessions_created;
    return reinterpret_cast<InferenceSession>(++made);
  });
}
#endif

#ifndef FAKE_TARN_OMIT_OPEN
FAKE_TARN_EXPORT bool TarnWrapper_openDLModel(InferenceSession session, const char* base_dir,
                                              const char* module, const char** layers, size_t count,
                                              int compute_unit, int precision) {
  return record_open(FAKE_TARN_OPEN, session, base_dir, module, layers, count, compute_unit,
                     precision);
}
#endif

#ifndef FAKE_TARN_OMIT_OPEN_DIRECT
FAKE_TARN_EXPORT bool TarnWrapper_openDLModel_direct(InferenceSession session, const char* path,
                                                     const char** layers, size_t count,
                                                     int compute_unit, int precision) {
  return record_open(FAKE_TARN_OPEN_DIRECT, session, path, nullptr, layers, count, compute_unit,
                     precision);
}
#endif

#ifndef FAKE_TARN_OMIT_OPEN_DIRECT_LATENCY  // never called by the detector, like the three below
FAKE_TARN_EXPORT bool TarnWrapper_openDLModel_direct_latency(InferenceSession session, const char*,
                                                             const char**, size_t, int, int) {
  return record(make_call(FAKE_TARN_OPEN_DIRECT_LATENCY, session));
}
#endif

#ifndef FAKE_TARN_OMIT_OPEN_ZEPH_OPTIONS
FAKE_TARN_EXPORT bool TarnWrapper_openDLModel_zephOptions(InferenceSession session,
                                                          const char* path, ZEPHInterface options) {
  FakeTarnCall call = make_call(FAKE_TARN_OPEN_ZEPH_OPTIONS, session);
  call.path = path;
  call.compute_unit = options.compute_unit;
  call.precision = options.precision;
  call.layer_names = options.output_layer_names;
  call.module = options.module;
  call.options = std::move(options);
  return record(std::move(call));
}
#endif

#ifndef FAKE_TARN_OMIT_GET_INPUT_DIMENS
FAKE_TARN_EXPORT bool TarnWrapper_getInputDimens(InferenceSession session, int* width,
                                                 int* height) {
  if (!record(make_call(FAKE_TARN_GET_INPUT_DIMENS, session))) return false;
  locked([&](State& s) { *width = s.width, *height = s.height; });
  return true;
}
#endif

#ifndef FAKE_TARN_OMIT_GET_INPUT_CHANNELS
FAKE_TARN_EXPORT bool TarnWrapper_getInputChannels(InferenceSession session, int*) {
  record(make_call(FAKE_TARN_GET_INPUT_CHANNELS, session));
  return false;
}
#endif

#ifndef FAKE_TARN_OMIT_EXECUTE
FAKE_TARN_EXPORT bool TarnWrapper_execute(InferenceSession session, float* input, int width,
                                          int height, int format) {
  FakeTarnCall call = make_call(FAKE_TARN_EXECUTE, session);
  call.width = width;
  call.height = height;
  call.format = format;
  const bool ok = record(std::move(call));
  const size_t channels = format == TARN_INPUT_4_CHANNELS ? 4 : 3;
  const size_t count = input && width > 0 && height > 0 ? size_t(width) * height * channels : 0;
  locked([&](State& s) { s.last_input.assign(input, input + count); });
  return ok;
}
#endif

#ifndef FAKE_TARN_OMIT_GET_LAYER_OUTPUT
FAKE_TARN_EXPORT float* TarnWrapper_getLayerOutput(InferenceSession session, const char*, int*,
                                                   int*, int*, int*) {
  record(make_call(FAKE_TARN_GET_LAYER_OUTPUT, session));
  return nullptr;
}
#endif

#ifndef FAKE_TARN_OMIT_GET_LAYER_OUTPUT_AND_FORMAT
FAKE_TARN_EXPORT float* TarnWrapper_getLayerOutputAndFormat(InferenceSession session,
                                                            const char* layer, int* d0, int* d1,
                                                            int* d2, int* d3, int* format) {
  FakeTarnCall call = make_call(FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT, session);
  call.layer_name = layer;
  const bool ok = record(std::move(call));
  return locked([&](State& s) -> float* {
    auto it = s.outputs.find(layer);
    if (it == s.outputs.end()) return nullptr;
    // Dimensions are reported even when the output is scripted to be missing.
    LayerOutput& out = it->second;
    *d0 = out.dims[0], *d1 = out.dims[1], *d2 = out.dims[2], *d3 = out.dims[3],
    *format = out.format;
    return ok ? out.values.data() : nullptr;
  });
}
#endif

#ifndef FAKE_TARN_OMIT_DESTROY
FAKE_TARN_EXPORT void TarnWrapper_destroy(InferenceSession session) {
  record(make_call(FAKE_TARN_DESTROY, session));
  if (session != nullptr) locked([](State& s) { ++s.sessions_destroyed; });
}
#endif

#ifndef FAKE_TARN_OMIT_SET_CHANNEL_MEANS
FAKE_TARN_EXPORT bool TarnWrapper_setChannelMeans(InferenceSession session, const float*, size_t) {
  return record(make_call(FAKE_TARN_SET_CHANNEL_MEANS, session));
}
#endif

// --- control functions -----------------------------------------------------------------------

FAKE_TARN_EXPORT void fake_tarn_reset(void) {
  locked([](State& s) { s = State(); });
}

FAKE_TARN_EXPORT void fake_tarn_set_input_size(int width, int height) {
  locked([&](State& s) { s.width = width, s.height = height; });
}

FAKE_TARN_EXPORT void fake_tarn_set_layer_output(const char* layer, const float* values,
                                                 size_t count, int d0, int d1, int d2, int d3,
                                                 int format) {
  locked([&](State& s) {
    s.outputs[layer] = LayerOutput{{values, values + count}, {d0, d1, d2, d3}, format};
  });
}

FAKE_TARN_EXPORT void fake_tarn_set_failure(FakeTarnOp op, FakeTarnFailure failure) {
  if (op >= 0 && op < FAKE_TARN_OP_COUNT) locked([&](State& s) { s.failures[op] = failure; });
}

FAKE_TARN_EXPORT size_t fake_tarn_call_count(void) {
  return locked([](State& s) { return s.calls.size(); });
}

FAKE_TARN_EXPORT const FakeTarnCall* fake_tarn_call_at(size_t index) {
  return locked([&](State& s) { return index < s.calls.size() ? s.calls[index].get() : nullptr; });
}

FAKE_TARN_EXPORT size_t fake_tarn_last_input(const float** values) {
  return locked([&](State& s) {
    *values = s.last_input.data();
    return s.last_input.size();
  });
}

FAKE_TARN_EXPORT int fake_tarn_sessions_created(void) {
  return locked([](State& s) { return s.sessions_created; });
}

FAKE_TARN_EXPORT int fake_tarn_sessions_destroyed(void) {
  return locked([](State& s) { return s.sessions_destroyed; });
}

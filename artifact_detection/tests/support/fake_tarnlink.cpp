// The scripted inference library (see fake_tarnlink.h). Variants leave operations out with
// FAKE_TARN_OMIT_<OPERATION> definitions so that the detector meets a library without them.
#include "support/fake_tarnlink.h"

#include <cstdint>
#include <stdexcept>

#define FAKE_TARN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

std::mutex state_mutex;
FakeTarnState state;

template <typename F>
auto locked(F f) {
  std::lock_guard<std::mutex> lock(state_mutex);
  return f(state);
}

// Records the call; answers whether the operation is scripted to succeed, or throws.
bool record(FakeTarnCall call) {
  const FakeTarnFailure failure = locked([&](FakeTarnState& s) {
    s.calls.push_back(std::move(call));
    return s.failures[s.calls.back().op];
  });
  if (failure == FAKE_TARN_THROW) throw std::runtime_error(kFakeTarnExceptionText);
  if (failure == FAKE_TARN_THROW_NON_STD) throw 42;
  return failure == FAKE_TARN_SUCCEED;
}

[[maybe_unused]] bool record_open(FakeTarnOp op, InferenceSession session, const char* path,
                                  const char* module, const char** names, size_t count,
                                  int compute_unit, int precision) {
  FakeTarnCall call(op, session);
  call.path = path, call.module = module ? module : "";
  call.layer_names.assign(names, names + count);
  call.compute_unit = compute_unit;
  call.precision = precision;
  return record(std::move(call));
}

}  // namespace

#ifndef FAKE_TARN_OMIT_CREATE
FAKE_TARN_EXPORT InferenceSession TarnWrapper_create(void) {
  if (!record({FAKE_TARN_CREATE})) return nullptr;
  // Opaque tokens, never dereferenced: the n-th session since the process started.
  static uintptr_t made = 0;
  return locked([](FakeTarnState& s) {
    ++s.live_sessions;
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

#ifndef FAKE_TARN_OMIT_OPEN_ZEPH_OPTIONS
FAKE_TARN_EXPORT bool TarnWrapper_openDLModel_zephOptions(InferenceSession session,
                                                          const char* path, ZEPHInterface options) {
  FakeTarnCall call(FAKE_TARN_OPEN_ZEPH_OPTIONS, session);
  call.path = path, call.module = options.module, call.layer_names = options.output_layer_names;
  call.compute_unit = options.compute_unit;
  call.precision = options.precision;
  call.options = std::move(options);
  return record(std::move(call));
}
#endif

#ifndef FAKE_TARN_OMIT_GET_INPUT_DIMENS
FAKE_TARN_EXPORT bool TarnWrapper_getInputDimens(InferenceSession session, int* width,
                                                 int* height) {
  if (!record({FAKE_TARN_GET_INPUT_DIMENS, session})) return false;
  locked([&](FakeTarnState& s) { *width = s.width, *height = s.height; });
  return true;
}
#endif

#ifndef FAKE_TARN_OMIT_EXECUTE
// Reads width * height * (3 or 4) floats, past the end of a smaller buffer.
FAKE_TARN_EXPORT bool TarnWrapper_execute(InferenceSession session, float* input, int width,
                                          int height, int format) {
  FakeTarnCall call(FAKE_TARN_EXECUTE, session);
  call.width = width, call.height = height, call.format = format;
  const bool ok = record(std::move(call));
  const size_t channels = format == TARN_INPUT_4_CHANNELS ? 4 : 3;
  const size_t count = input && width > 0 && height > 0 ? size_t(width) * height * channels : 0;
  locked([&](FakeTarnState& s) { s.last_input.assign(input, input + count); });
  return ok;
}
#endif

#ifndef FAKE_TARN_OMIT_GET_LAYER_OUTPUT_AND_FORMAT
FAKE_TARN_EXPORT float* TarnWrapper_getLayerOutputAndFormat(InferenceSession session,
                                                            const char* layer, int* d0, int* d1,
                                                            int* d2, int* d3, int* format) {
  const bool ok = record({FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT, session});
  return locked([&](FakeTarnState& s) -> float* {
    auto it = s.outputs.find(layer);
    if (it == s.outputs.end()) return nullptr;
    // Dimensions are reported even when the output is scripted to be missing.
    FakeTarnState::Output& out = it->second;
    *d0 = out.dims[0], *d1 = out.dims[1], *d2 = out.dims[2], *d3 = out.dims[3];
    *format = out.format;
    return ok ? out.values.data() : nullptr;
  });
}
#endif

#ifndef FAKE_TARN_OMIT_DESTROY
FAKE_TARN_EXPORT void TarnWrapper_destroy(InferenceSession session) {
  record({FAKE_TARN_DESTROY, session});
  if (session != nullptr) locked([](FakeTarnState& s) { --s.live_sessions; });
}
#endif

// The detector never calls these four: they only have to be there, or not.
#ifndef FAKE_TARN_OMIT_OPEN_DIRECT_LATENCY
FAKE_TARN_EXPORT bool TarnWrapper_openDLModel_direct_latency(InferenceSession, const char*,
                                                             const char**, size_t, int, int) {
  return false;
}
#endif
#ifndef FAKE_TARN_OMIT_GET_INPUT_CHANNELS
FAKE_TARN_EXPORT bool TarnWrapper_getInputChannels(InferenceSession, int*) { return false; }
#endif
#ifndef FAKE_TARN_OMIT_GET_LAYER_OUTPUT
FAKE_TARN_EXPORT float* TarnWrapper_getLayerOutput(InferenceSession, const char*, int*, int*, int*,
                                                   int*) {
  return nullptr;
}
#endif
#ifndef FAKE_TARN_OMIT_SET_CHANNEL_MEANS
FAKE_TARN_EXPORT bool TarnWrapper_setChannelMeans(InferenceSession, const float*, size_t) {
  return false;
}
#endif

// --- control functions ---------------------------------------------------------------------

FAKE_TARN_EXPORT void fake_tarn_reset(void) {
  locked([](FakeTarnState& s) { s = FakeTarnState(); });
}

FAKE_TARN_EXPORT void fake_tarn_set_input_size(int width, int height) {
  locked([&](FakeTarnState& s) { s.width = width, s.height = height; });
}

FAKE_TARN_EXPORT void fake_tarn_set_layer_output(const char* layer, const float* values,
                                                 size_t count, int d0, int d1, int d2, int d3,
                                                 int format) {
  locked([&](FakeTarnState& s) {
    s.outputs[layer] = {{values, values + count}, {d0, d1, d2, d3}, format};
  });
}

FAKE_TARN_EXPORT FakeTarnState* fake_tarn_lock(std::unique_lock<std::mutex>* lock) {
  *lock = std::unique_lock<std::mutex>(state_mutex);
  return &state;
}

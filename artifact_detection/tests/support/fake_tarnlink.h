// Scripted stand-in for the inference library, shared by every test that opens a network.
// fake_tarnlink.cpp builds into libTarnlink.camera.korvane.so (SONAME too), one directory per
// variant. ad_test::FakeTarnlink loads one by path, and the code under test then gets that
// same instance by the bare name; its state scripts input size, outputs and failures and
// records every call.
#pragma once

#include <array>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/model_interface/tarnlink_api.h"

// clang-format off
enum FakeTarnOp : int {  // the operations the detector calls
  FAKE_TARN_CREATE = 0, FAKE_TARN_OPEN, FAKE_TARN_OPEN_DIRECT, FAKE_TARN_OPEN_ZEPH_OPTIONS,
  FAKE_TARN_GET_INPUT_DIMENS, FAKE_TARN_EXECUTE, FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT,
  FAKE_TARN_DESTROY, FAKE_TARN_OP_COUNT
};
enum FakeTarnFailure : int {
  FAKE_TARN_SUCCEED = 0,
  FAKE_TARN_RETURN_FAILURE,  // null session / false / null output
  FAKE_TARN_THROW,           // std::runtime_error(kFakeTarnExceptionText)
  FAKE_TARN_THROW_NON_STD,   // an int
};
// clang-format on

constexpr const char* kFakeTarnExceptionText = "fake inference library failure";
constexpr const char* kFakeTarnLibraryName = "libTarnlink.camera.korvane.so";

// One call as the fake received it; fields the operation does not take stay empty.
struct FakeTarnCall {
  FakeTarnCall(FakeTarnOp op = FAKE_TARN_OP_COUNT, InferenceSession session = nullptr)
      : op(op), session(session) {}
  FakeTarnOp op;
  InferenceSession session;
  std::string path;                      // model path; the plain open's models base directory
  std::string module;                    // plain and options-based opens
  std::vector<std::string> layer_names;  // output layers of the opens
  int compute_unit = -1, precision = -1;
  int width = -1, height = -1, format = -1;  // execute
  std::optional<ZEPHInterface> options;      // options-based open
};

// Everything the fake holds, reached through fake_tarn_lock().
struct FakeTarnState {
  struct Output {
    std::vector<float> values;
    std::array<int, 4> dims;
    int format;
  };
  int width = 224, height = 224;
  std::map<std::string, Output> outputs;
  FakeTarnFailure failures[FAKE_TARN_OP_COUNT] = {};
  std::vector<FakeTarnCall> calls;
  std::vector<float> last_input;  // the floats of the last execute
  int live_sessions = 0;          // created and not yet destroyed
};

extern "C" {
// For C callers too (the C wrapper test, the managed side's test support).
void fake_tarn_reset(void);
void fake_tarn_set_input_size(int width, int height);
void fake_tarn_set_layer_output(const char* layer, const float* values, size_t count, int d0,
                                int d1, int d2, int d3, int format);
// Locks the state into `lock` and returns it.
FakeTarnState* fake_tarn_lock(std::unique_lock<std::mutex>* lock);
}

namespace ad_test {

enum class FakeVariant {
  kFull,
  kNoZephOptions,   // no TarnWrapper_openDLModel_zephOptions
  kNoOutputFormat,  // no TarnWrapper_getLayerOutputAndFormat
  kRequiredOnly,    // without the four operations the detector never calls
  kNoOperations,    // control functions only
};

// Holds one fake loaded (reset on load) and drives it.
class FakeTarnlink {
 public:
  explicit FakeTarnlink(FakeVariant variant = FakeVariant::kFull);
  ~FakeTarnlink();
  FakeTarnlink(const FakeTarnlink&) = delete;
  FakeTarnlink& operator=(const FakeTarnlink&) = delete;

  static std::string path(FakeVariant variant);
  static bool is_loaded(const std::string& path);  // some handle keeps it loaded
  void* handle() const { return handle_; }
  const std::string& path() const { return path_; }

  void reset();
  void set_input_size(int width, int height);
  void set_layer_output(const std::string& layer, const std::vector<float>& values,
                        std::array<int, 4> dims, int format);
  void set_failure(FakeTarnOp op, FakeTarnFailure failure = FAKE_TARN_RETURN_FAILURE);

  std::vector<FakeTarnCall> calls(FakeTarnOp op = FAKE_TARN_OP_COUNT) const;  // default: all
  std::vector<FakeTarnOp> call_ops() const;
  std::vector<float> last_input() const;
  int live_sessions() const;

 private:
  template <typename F>
  auto with_state(F f) const;

  std::string path_;
  void* handle_ = nullptr;
};

}  // namespace ad_test

// Scripted stand-in for the inference library, shared by every test that opens a network.
//
// fake_tarnlink.cpp builds into libTarnlink.camera.korvane.so (SONAME too), in a directory per
// variant; besides the operation table it exports the C control functions below, to script
// input size, layer outputs and failures and to read back every call. ad_test::FakeTarnlink
// loads one by path, and the code under test then gets that same instance by the bare name.
// Execute reads width * height * (3 or 4) floats, past the end of a smaller buffer.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "core/model_interface/tarnlink_api.h"

// The operations, for scripting failures and filtering the call record.
// clang-format off
enum FakeTarnOp : int {
  FAKE_TARN_CREATE = 0, FAKE_TARN_OPEN, FAKE_TARN_OPEN_DIRECT, FAKE_TARN_OPEN_DIRECT_LATENCY,
  FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_GET_INPUT_DIMENS, FAKE_TARN_GET_INPUT_CHANNELS,
  FAKE_TARN_EXECUTE, FAKE_TARN_GET_LAYER_OUTPUT, FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT,
  FAKE_TARN_DESTROY, FAKE_TARN_SET_CHANNEL_MEANS, FAKE_TARN_OP_COUNT
};
// clang-format on

// How a scripted operation misbehaves.
enum FakeTarnFailure : int {
  FAKE_TARN_SUCCEED = 0,
  FAKE_TARN_RETURN_FAILURE,  // null session / false / null output
  FAKE_TARN_THROW,           // throws std::runtime_error(kFakeTarnExceptionText)
  FAKE_TARN_THROW_NON_STD,   // throws an int
};

constexpr const char* kFakeTarnExceptionText = "fake inference library failure";
constexpr const char* kFakeTarnLibraryName = "libTarnlink.camera.korvane.so";

// One operation call as the fake received it. Fields an operation does not take stay empty.
struct FakeTarnCall {
  FakeTarnOp op = FAKE_TARN_OP_COUNT;
  InferenceSession session = nullptr;
  std::string path;                      // model path, or models base directory for the plain open
  std::string module;                    // plain and options-based opens
  std::vector<std::string> layer_names;  // output layer names of the opens
  std::string layer_name;                // layer asked for by the output operations
  int compute_unit = -1;
  int precision = -1;
  int width = -1;  // execute
  int height = -1;
  int format = -1;
  std::optional<ZEPHInterface> options;  // options-based open: the record received
};

extern "C" {
void fake_tarn_reset(void);
void fake_tarn_set_input_size(int width, int height);
// Output of `layer`: `count` values, the four dimensions and the format code reported.
void fake_tarn_set_layer_output(const char* layer, const float* values, size_t count, int d0,
                                int d1, int d2, int d3, int format);
void fake_tarn_set_failure(FakeTarnOp op, FakeTarnFailure failure);  // FAKE_TARN_OP_COUNT: none
size_t fake_tarn_call_count(void);
const FakeTarnCall* fake_tarn_call_at(size_t index);
// The floats of the last execute; returns their number.
size_t fake_tarn_last_input(const float** values);
int fake_tarn_sessions_created(void);
int fake_tarn_sessions_destroyed(void);
}

namespace ad_test {

// Fake builds: the full operation table and variants without some operations.
enum class FakeVariant {
  kFull,
  kNoZephOptions,   // no TarnWrapper_openDLModel_zephOptions
  kNoOutputFormat,  // no TarnWrapper_getLayerOutputAndFormat
  kRequiredOnly,    // without the four operations the detector never calls
  kNoOperations,    // control functions only
};

// Holds one fake loaded (reset on load) and drives it. Not copyable.
class FakeTarnlink {
 public:
  FakeTarnlink();  // the variant the executable's RPATH points at
  explicit FakeTarnlink(FakeVariant variant);
  ~FakeTarnlink();
  FakeTarnlink(const FakeTarnlink&) = delete;
  FakeTarnlink& operator=(const FakeTarnlink&) = delete;

  static std::string path(FakeVariant variant);
  // True while some handle keeps the library at `path` loaded.
  static bool is_loaded(const std::string& path);

  void* handle() const { return handle_; }
  const std::string& path() const { return path_; }

  void reset();
  void set_input_size(int width, int height);
  void set_layer_output(const std::string& layer, const std::vector<float>& values,
                        std::array<int, 4> dims, int format);
  void set_failure(FakeTarnOp op, FakeTarnFailure failure = FAKE_TARN_RETURN_FAILURE);

  std::vector<FakeTarnCall> calls() const;
  std::vector<FakeTarnCall> calls(FakeTarnOp op) const;
  std::vector<FakeTarnOp> call_ops() const;
  std::vector<float> last_input() const;
  int sessions_created() const;
  int sessions_destroyed() const;

 private:
  template <typename F>
  F control(const char* name) const;

  std::string path_;
  void* handle_ = nullptr;
};

}  // namespace ad_test

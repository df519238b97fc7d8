// ad_test::FakeTarnlink: loads a fake inference library and drives it.
#include <dlfcn.h>

#include <stdexcept>

#include "support/fake_tarnlink.h"

namespace ad_test {

std::string FakeTarnlink::path(FakeVariant variant) {
  const char* const suffixes[] = {"", "_no_zeph_options", "_no_output_format", "_required_only",
                                  "_no_operations"};
  return AD_FAKE_TARNLINK_BASE_DIR + std::string(suffixes[static_cast<int>(variant)]) + "/" +
         kFakeTarnLibraryName;
}

bool FakeTarnlink::is_loaded(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

FakeTarnlink::FakeTarnlink(FakeVariant variant)
    : path_(path(variant)), handle_(dlopen(path_.c_str(), RTLD_LAZY)) {
  if (handle_ == nullptr) throw std::runtime_error("cannot load " + path_ + ": " + dlerror());
  // The code under test asks for the bare name: it must get this instance, not one loaded
  // earlier.
  void* by_name = dlopen(kFakeTarnLibraryName, RTLD_LAZY | RTLD_NOLOAD);
  if (by_name != nullptr) dlclose(by_name);
  if (by_name != handle_) {
    dlclose(handle_);
    throw std::runtime_error("another inference library answers to the bare name");
  }
  reset();
}

FakeTarnlink::~FakeTarnlink() { dlclose(handle_); }

template <typename F>
auto FakeTarnlink::with_state(F f) const {
  std::unique_lock<std::mutex> lock;
  return f(*reinterpret_cast<decltype(&fake_tarn_lock)>(dlsym(handle_, "fake_tarn_lock"))(&lock));
}

void FakeTarnlink::reset() {
  with_state([](FakeTarnState& s) { s = FakeTarnState(); });
}

void FakeTarnlink::set_input_size(int width, int height) {
  with_state([&](FakeTarnState& s) { s.width = width, s.height = height; });
}

void FakeTarnlink::set_layer_output(const std::string& layer, const std::vector<float>& values,
                                    std::array<int, 4> dims, int format) {
  with_state([&](FakeTarnState& s) { s.outputs[layer] = {values, dims, format}; });
}

void FakeTarnlink::set_failure(FakeTarnOp op, FakeTarnFailure failure) {
  if (op < FAKE_TARN_OP_COUNT) with_state([&](FakeTarnState& s) { s.failures[op] = failure; });
}

std::vector<FakeTarnCall> FakeTarnlink::calls(FakeTarnOp op) const {
  return with_state([&](FakeTarnState& s) {
    std::vector<FakeTarnCall> out;
    for (const FakeTarnCall& call : s.calls) {
      if (op == FAKE_TARN_OP_COUNT || call.op == op) out.push_back(call);
    }
    return out;
  });
}

std::vector<FakeTarnOp> FakeTarnlink::call_ops() const {
  std::vector<FakeTarnOp> out;
  for (const FakeTarnCall& call : calls()) out.push_back(call.op);
  return out;
}

std::vector<float> FakeTarnlink::last_input() const {
  return with_state([](FakeTarnState& s) { return s.last_input; });
}

int FakeTarnlink::live_sessions() const {
  return with_state([](FakeTarnState& s) { return s.live_sessions; });
}

}  // namespace ad_test

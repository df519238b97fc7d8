// ad_test::FakeTarnlink: loads a fake inference library and reaches its control functions.
#include <dlfcn.h>

#include <stdexcept>

#include "support/fake_tarnlink.h"

#ifndef AD_FAKE_TARNLINK_BASE_DIR
#error "AD_FAKE_TARNLINK_BASE_DIR names the build directory of the fake inference library"
#endif

namespace ad_test {
namespace {

void* open_or_throw(const std::string& name) {
  void* handle = dlopen(name.c_str(), RTLD_LAZY);
  if (handle == nullptr) {
    const char* error = dlerror();
    throw std::runtime_error("cannot load fake inference library " + name + ": " +
                             (error ? error : ""));
  }
  return handle;
}

}  // namespace

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

FakeTarnlink::FakeTarnlink() : handle_(open_or_throw(kFakeTarnLibraryName)) {
  Dl_info info{};
  void* symbol = dlsym(handle_, "fake_tarn_reset");
  if (symbol == nullptr || dladdr(symbol, &info) == 0 || info.dli_fname == nullptr) {
    dlclose(handle_);
    throw std::runtime_error("the library found by the bare name is not the fake");
  }
  path_ = info.dli_fname;
  reset();
}

FakeTarnlink::FakeTarnlink(FakeVariant variant)
    : path_(path(variant)), handle_(open_or_throw(path_)) {
  // The code under test asks for the bare name; it must get this instance, not another one
  // loaded earlier.
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
F FakeTarnlink::control(const char* name) const {
  void* symbol = dlsym(handle_, name);
  if (symbol == nullptr) throw std::runtime_error(std::string("fake lacks ") + name);
  return reinterpret_cast<F>(symbol);
}

#define FAKE_CONTROL(name) control<decltype(&name)>(#name)

void FakeTarnlink::reset() { FAKE_CONTROL(fake_tarn_reset)(); }

void FakeTarnlink::set_input_size(int width, int height) {
  FAKE_CONTROL(fake_tarn_set_input_size)(width, height);
}

void FakeTarnlink::set_layer_output(const std::string& layer, const std::vector<float>& values,
                                    std::array<int, 4> dims, int format) {
  FAKE_CONTROL(fake_tarn_set_layer_output)
  (layer.c_str(), values.data(), values.size(), dims[0], dims[1], dims[2], dims[3], format);
}

void FakeTarnlink::set_failure(FakeTarnOp op, FakeTarnFailure failure) {
  FAKE_CONTROL(fake_tarn_set_failure)(op, failure);
}

std::vector<FakeTarnCall> FakeTarnlink::calls() const {
  const size_t count = FAKE_CONTROL(fake_tarn_call_count)();
  const auto at = FAKE_CONTROL(fake_tarn_call_at);
  std::vector<FakeTarnCall> out;
  for (size_t i = 0; i < count; ++i) out.push_back(*at(i));
  return out;
}

std::vector<FakeTarnCall> FakeTarnlink::calls(FakeTarnOp op) const {
  std::vector<FakeTarnCall> out;
  for (FakeTarnCall& call : calls()) {
    if (call.op == op) out.push_back(std::move(call));
  }
  return out;
}

std::vector<FakeTarnOp> FakeTarnlink::call_ops() const {
  std::vector<FakeTarnOp> out;
  for (const FakeTarnCall& call : calls()) out.push_back(call.op);
  return out;
}

std::vector<float> FakeTarnlink::last_input() const {
  const float* values = nullptr;
  const size_t count = FAKE_CONTROL(fake_tarn_last_input)(&values);
  return std::vector<float>(values, values + count);
}

int FakeTarnlink::sessions_created() const { return FAKE_CONTROL(fake_tarn_sessions_created)(); }

int FakeTarnlink::sessions_destroyed() const {
  return FAKE_CONTROL(fake_tarn_sessions_destroyed)();
}

}  // namespace ad_test

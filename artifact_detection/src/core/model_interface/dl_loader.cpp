#include "core/model_interface/dl_loader.h"

#include <dlfcn.h>

#include <stdexcept>

#include "core/utils/logging.h"

namespace {

// Where the library lives (constant data: loading the detector runs no initialiser): the linker's
// search path first, then the two system variants (AIDL before HIDL, nothing else decides between
// them), then the vendor partition.
constexpr std::array<const char*, 4> kTarnlinkCandidates = {
    "libTarnlink.camera.korvane.so",
    "/system/lib64/libTarnlink_aidl.camera.korvane.so",
    "/system/lib64/libTarnlink_hidl.camera.korvane.so",
    "/vendor/lib64/libTarnlink.camera.korvane.so",
};

// Log lines of the two system variants, which share their texts.
struct SystemStepLines {
  int loaded;
  int failed;
};
constexpr SystemStepLines kSystemStepLines[] = {{22, 25}, {35, 38}};

// One dlsym, its result unchanged; a missing operation is logged, never an error here.
void* look_up(void* handle, const char* symbol, int line, const char* missing_message) {
  void* address = dlsym(handle, symbol);
  if (address == nullptr) AD_LOGV_AT(line, "%s", missing_message);
  return address;
}

}  // namespace

void* get_tarnlink_lib_handle() {
  return get_tarnlink_lib_handle(kTarnlinkCandidates);
}

void* get_tarnlink_lib_handle(const std::array<const char*, 4>& candidates) {
  void* handle = dlopen(candidates[0], RTLD_LAZY);
  if (handle != nullptr) {
    AD_LOGV_AT(12, "TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR");
    return handle;
  }
  AD_LOGV_AT(15, "TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR failed");

  for (size_t step = 0; step < 2; ++step) {
    const char* path = candidates[step + 1];
    handle = dlopen(path, RTLD_LAZY);
    if (handle != nullptr) {
      AD_LOGV_AT(kSystemStepLines[step].loaded,
                 "TQ Debug: Dynamic loading of libTarnlink successfull from %s", path);
      return handle;
    }
    AD_LOGV_AT(kSystemStepLines[step].failed,
               "TQ Debug: Dynamic loading of libTarnlink from %s failed", path);
  }

  const char* path = candidates[3];
  handle = dlopen(path, RTLD_LAZY);
  if (handle != nullptr) {
    AD_LOGV_AT(48, "TQ Debug: Dynamic loading of libTarnlink successfull from %s", path);
    return handle;
  }
  const char* error = dlerror();
  AD_LOGV_AT(54, "TQ Debug: Dynamic loading of libTarnlink failed.\nERROR: %s",
             error != nullptr ? error : "");
  throw std::runtime_error("Dynamic loading of libTarnlink failed.");
}

// The three messages naming a role with "_fptr" rather than the symbol are part of the log
// vocabulary that readers search for.
void* get_create_fptr(void* handle) {
  return look_up(handle, "TarnWrapper_create", 65, "TQ Debug: TarnWrapper_create symbol not found");
}

void* get_open_fptr(void* handle) {
  return look_up(handle, "TarnWrapper_openDLModel", 73,
                 "TQ Debug: TarnWrapper_openDLModel symbol not found");
}

void* get_open_fptr_direct_latency(void* handle) {
  return look_up(handle, "TarnWrapper_openDLModel_direct_latency", 81,
                 "TQ Debug: TarnWrapper_openDLModel_direct_latency symbol not found");
}

void* get_open_fptr_direct(void* handle) {
  return look_up(handle, "TarnWrapper_openDLModel_direct", 89,
                 "TQ Debug: TarnWrapper_openDLModel_direct symbol not found");
}

void* get_inputDimens_fptr(void* handle) {
  return look_up(handle, "TarnWrapper_getInputDimens", 97,
                 "TQ Debug: TarnWrapper_inputDimens_fptr symbol not found");
}

void* get_inputChannels_fptr(void* handle) {
  return look_up(handle, "TarnWrapper_getInputChannels", 105,
                 "TQ Debug: TarnWrapper_inputChannels_fptr symbol not found");
}

void* get_execute_fptr(void* handle) {
  return look_up(handle, "TarnWrapper_execute", 113,
                 "TQ Debug: TarnWrapper_execute symbol not found");
}

void* get_output_fptr(void* handle) {
  return look_up(handle, "TarnWrapper_getLayerOutput", 121,
                 "TQ Debug: TarnWrapper_getLayerOutput symbol not found");
}

void* get_output_and_format_fptr(void* handle) {
  return look_up(handle, "TarnWrapper_getLayerOutputAndFormat", 130,
                 "TQ Debug: TarnWrapper_getLayerOutputAndFormat symbol not found");
}

void* get_destroy_fptr(void* handle) {
  return look_up(handle, "TarnWrapper_destroy", 139,
                 "TQ Debug: TarnWrapper_destroy symbol not found");
}

void* get_setChannelMeans_fptr(void* handle) {
  return look_up(handle, "TarnWrapper_setChannelMeans", 147,
                 "TQ Debug: TarnWrapper_setChannelMeans_fptr symbol not found");
}

void* get_open_fptr_zeph_options(void* handle) {
  return look_up(handle, "TarnWrapper_openDLModel_zephOptions", 155,
                 "TQ Debug: TarnWrapper_openDLModel_zephOptions symbol not found");
}

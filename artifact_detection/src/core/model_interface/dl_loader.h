// Loads the device's inference library and looks its operations up.
//
// The library is opened at run time, never linked: its handle comes from
// get_tarnlink_lib_handle() (a fresh dlopen reference per call, to be dlclose'd by the
// owner), and each getter returns the untyped address of one operation of tarnlink_api.h,
// or null, after logging, when the library lacks it. Callers cast to the operation's pointer
// type and test for null.
#pragma once

#include <array>

#include "artifact_detector_export.h"

// Tries the linker's search path, the system's AIDL and HIDL variants, then the vendor
// copy; throws std::runtime_error("Dynamic loading of libTarnlink failed.") when none loads.
AD_EXPORT void* get_tarnlink_lib_handle();

// The same search over other names, in the roles of the four above (bare name, AIDL, HIDL,
// vendor), so that the order can be exercised without system directories.
void* get_tarnlink_lib_handle(const std::array<const char*, 4>& candidates);

AD_EXPORT void* get_create_fptr(void* handle);
AD_EXPORT void* get_open_fptr(void* handle);
AD_EXPORT void* get_open_fptr_direct_latency(void* handle);
AD_EXPORT void* get_open_fptr_direct(void* handle);
AD_EXPORT void* get_inputDimens_fptr(void* handle);
AD_EXPORT void* get_inputChannels_fptr(void* handle);
AD_EXPORT void* get_execute_fptr(void* handle);
AD_EXPORT void* get_output_fptr(void* handle);
AD_EXPORT void* get_output_and_format_fptr(void* handle);
AD_EXPORT void* get_destroy_fptr(void* handle);
AD_EXPORT void* get_setChannelMeans_fptr(void* handle);
AD_EXPORT void* get_open_fptr_zeph_options(void* handle);

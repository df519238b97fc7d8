# The one place where the build differs between an Android device and a Linux host.
#
#   ad_liblog      - Android's logging library: the NDK's liblog on Android,
#                    Debian's android-liblog package on hosts.
#   AD_NEON_NATIVE - ON when the NEON converter compiles to real Advanced SIMD;
#                    OFF means the same source goes through SIMDe.
#   AD_HOST_RPATH  - extra run-time search path the installed library needs on hosts.

add_library(ad_liblog INTERFACE)

if(ANDROID)
  find_library(AD_LOG_LIBRARY log REQUIRED)
  target_link_libraries(ad_liblog INTERFACE ${AD_LOG_LIBRARY})
  set(AD_HOST_RPATH "")
else()
  # Debian keeps the header at <android/log.h> below include/android and the
  # library in lib/<triplet>/android, out of the default search paths.
  find_path(AD_LOG_INCLUDE_DIR android/log.h PATH_SUFFIXES android REQUIRED)
  find_library(AD_LOG_LIBRARY NAMES log PATH_SUFFIXES android NO_CMAKE_SYSTEM_PATH
               PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE} REQUIRED)
  target_include_directories(ad_liblog SYSTEM INTERFACE ${AD_LOG_INCLUDE_DIR})
  target_link_libraries(ad_liblog INTERFACE ${AD_LOG_LIBRARY})
  get_filename_component(AD_HOST_RPATH "${AD_LOG_LIBRARY}" DIRECTORY)
endif()

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64|ARM64)$")
  set(AD_NEON_NATIVE ON)
else()
  set(AD_NEON_NATIVE OFF)
  find_path(AD_SIMDE_INCLUDE_DIR simde/arm/neon.h REQUIRED)
endif()

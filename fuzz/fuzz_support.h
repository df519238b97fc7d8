// Shared by the fuzz targets, each of which includes it once: a silent log, the one way to
// report a broken property, and a scratch file for the readers of configuration files.
#pragma once

#include <android/log.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace ad_fuzz {

// A broken property goes through the fuzzer's crash machinery, which saves the input.
inline void check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "property violated: %s\n", what);
  std::abort();
}

// Writes the input to <scratch>/<relative>; gives <scratch>/. The directory lives with the
// process, in shared memory unless TMPDIR says otherwise: a disk costs thirty times the runs.
inline std::string scratch_file(const std::string& relative, const std::uint8_t* data,
                                std::size_t size) {
  static const struct Dir {
    std::string path;
    Dir() {
      const char* tmp = std::getenv("TMPDIR");
      path = tmp && *tmp ? tmp : access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
      check(mkdtemp((path += "/ad_fuzz_XXXXXX").data()) != nullptr, "mkdtemp");
      path += "/";
    }
    ~Dir() {
      std::error_code ignored;
      std::filesystem::remove_all(path, ignored);
    }
  } dir;
  const std::filesystem::path file = dir.path + relative;
  std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  check(bool(out.write(reinterpret_cast<const char*>(data), std::streamsize(size))), "scratch");
  return dir.path;
}

}  // namespace ad_fuzz

// liblog still formats every line, so the format arguments are checked like any other memory
// access; the line is then dropped, as printing it would dominate each run.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  __android_log_set_logger([](const __android_logger_data*, const char* message) {
    volatile std::size_t length = std::strlen(message);
    (void)length;
  });
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  return 0;
}

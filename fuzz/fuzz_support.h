// Pieces shared by the fuzz targets: a silent log, a private scratch directory for the file
// readers, and the one way a target reports a broken property.
#pragma once

#include <android/log.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace ad_fuzz {

// liblog still formats every line (so the format arguments are checked like any other
// memory access); the line is then dropped, as printing it would dominate each run.
inline void silence_log() {
  __android_log_set_logger([](const __android_logger_data*, const char* message) {
    volatile std::size_t length = std::strlen(message);
    (void)length;
  });
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

// Reports a broken property with the fuzzer's crash machinery, which saves the input.
[[noreturn]] inline void fail(const char* what) {
  std::fprintf(stderr, "property violated: %s\n", what);
  std::abort();
}

inline void check(bool ok, const char* what) {
  if (!ok) fail(what);
}

// A directory of its own for the process's lifetime: in shared memory when the system has it
// (a file written per input costs a disk thirty times the runs), else in the temporary area.
class ScratchDir {
 public:
  ScratchDir() {
    const char* memory = "/dev/shm";
    const char* tmpdir = std::getenv("TMPDIR");
    std::filesystem::path parent = "/tmp";
    if ((tmpdir == nullptr || *tmpdir == '\0') && access(memory, W_OK) == 0) {
      parent = memory;
    } else if (tmpdir != nullptr && *tmpdir != '\0') {
      parent = tmpdir;
    }
    std::string pattern = (parent / "ad_fuzz_XXXXXX").string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) fail("mkdtemp");
    path_ = name.data();
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  // The directory with a trailing "/".
  std::string base() const { return path_ + "/"; }

  // Replaces `relative` with exactly these bytes, creating its directories.
  std::string write(const std::string& relative, const unsigned char* data,
                    std::size_t size) const {
    const std::filesystem::path full = base() + relative;
    std::filesystem::create_directories(full.parent_path());
    std::ofstream out(full, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) fail("cannot write the scratch file");
    return full.string();
  }

 private:
  std::string path_;
};

}  // namespace ad_fuzz

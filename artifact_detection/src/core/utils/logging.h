// Diagnostic logging to the Android log.
//
// Two ways to write a line, deliberately under different tags:
//   AD_LOGV("fmt", args...)  one formatted line, verbose priority, tag "ImageSearchJNI_ARTI_DET",
//                            prefixed "<file>: <line>: ".
//   AD_LOG_INFO << a << b;   a LogMessage, info priority, tag "TQR_ARTIFACT_DET",
//                            prefixed "[hh:mm:ss] <file>:<line>: ", ending in a line feed.
// Logging is always on; the Android log's own priority filter decides what is kept. Only a
// quiet Detector changes how lines go out, and only on its own thread while it runs (LogPolicy).
//
// The Android log is reached from logging.cpp alone, so this header compiles without the
// platform's log header.
#pragma once

#include <cstddef>
#include <sstream>

namespace artifact_detector {

constexpr const char* kFormattedLogTag = "ImageSearchJNI_ARTI_DET";
constexpr const char* kStreamLogTag = "TQR_ARTIFACT_DET";

// The Android log's priorities that the library writes at.
constexpr int kLogVerbose = 2;
constexpr int kLogInfo = 4;
constexpr int kLogSilent = 8;

// How the lines of the calling thread go out. Not quiet: each line at its own priority and the
// forward pass's standard-output lines printed. Quiet: no standard output, every line at
// `priority`, none at all when that is kLogSilent.
struct LogPolicy {
  bool quiet = false;
  int priority = kLogVerbose;
};

// The policy of the calling thread for the scope of one object, then the previous one again.
// The engine's lines are written deep inside shared code; a per-thread scope reaches them
// without threading a logger through every routine the class interface fixes.
class ScopedLogPolicy {
 public:
  explicit ScopedLogPolicy(const LogPolicy& policy);
  ~ScopedLogPolicy();
  ScopedLogPolicy(const ScopedLogPolicy&) = delete;
  ScopedLogPolicy& operator=(const ScopedLogPolicy&) = delete;

 private:
  const LogPolicy* previous_;
};

// The calling thread's policy (the default one outside any scope).
const LogPolicy& current_log_policy();

// One formatted line under `tag`, as the calling thread's policy says.
void write_log(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// The text after the last '/' of a path of known length, or the whole path.
constexpr const char* base_name(const char* path, std::size_t length) {
  for (std::size_t i = length; i > 0; --i) {
    if (path[i - 1] == '/') return path + i;
  }
  return path;
}

// A stream-style log line, emitted when the object goes out of scope.
class LogMessage {
 public:
  LogMessage(int priority, const char* file, int line);
  ~LogMessage();

  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  template <typename T>
  LogMessage& operator<<(const T& value) {
    stream_ << value;
    return *this;
  }

 private:
  std::ostringstream stream_;
  int priority;
  char time_text[9];
};

}  // namespace artifact_detector

#define AD_FILE_NAME ::artifact_detector::base_name(__FILE__, sizeof(__FILE__) - 1)

// Some messages carry a fixed line number that log readers key on; those use the _AT forms.
#define AD_LOGV_AT(line, fmt, ...)                                                          \
  ::artifact_detector::write_log(::artifact_detector::kLogVerbose,                          \
                                 ::artifact_detector::kFormattedLogTag, "%s: %d: " fmt,     \
                                 AD_FILE_NAME, static_cast<int>(line), ##__VA_ARGS__)
#define AD_LOGV(fmt, ...) AD_LOGV_AT(__LINE__, fmt, ##__VA_ARGS__)

#define AD_LOG_INFO_AT(line) ::artifact_detector::LogMessage(::artifact_detector::kLogInfo, AD_FILE_NAME, (line))
#define AD_LOG_INFO AD_LOG_INFO_AT(__LINE__)

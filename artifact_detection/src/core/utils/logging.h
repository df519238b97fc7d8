// Diagnostic logging to the Android log.
//
// Two ways to write a line, deliberately under different tags:
//   AD_LOGV("fmt", args...)  one formatted line, verbose priority, tag "ImageSearchJNI_ARTI_DET",
//                            prefixed "<file>: <line>: ".
//   AD_LOG_INFO << a << b;   a LogMessage, info priority, tag "TQR_ARTIFACT_DET",
//                            prefixed "[hh:mm:ss] <file>:<line>: ", ending in a line feed.
// Logging is always on; the Android log's own priority filter decides what is kept.
#pragma once

#include <android/log.h>

#include <cstddef>
#include <sstream>

namespace artifact_detector {

constexpr const char* kFormattedLogTag = "ImageSearchJNI_ARTI_DET";
constexpr const char* kStreamLogTag = "TQR_ARTIFACT_DET";

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

  std::ostream& stream() { return stream_; }

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
#define AD_LOGV_AT(line, fmt, ...)                                                    \
  __android_log_print(ANDROID_LOG_VERBOSE, ::artifact_detector::kFormattedLogTag,     \
                      "%s: %d: " fmt, AD_FILE_NAME, static_cast<int>(line), ##__VA_ARGS__)
#define AD_LOGV(fmt, ...) AD_LOGV_AT(__LINE__, fmt, ##__VA_ARGS__)

#define AD_LOG_INFO_AT(line) ::artifact_detector::LogMessage(ANDROID_LOG_INFO, AD_FILE_NAME, (line))
#define AD_LOG_INFO AD_LOG_INFO_AT(__LINE__)

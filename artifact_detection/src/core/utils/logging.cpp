#include "core/utils/logging.h"

#include <cstdio>
#include <ctime>
#include <string>

namespace artifact_detector {

LogMessage::LogMessage(int priority, const char* file, int line) : priority(priority) {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  std::snprintf(time_text, sizeof(time_text), "%02d:%02d:%02d", local.tm_hour, local.tm_min,
                local.tm_sec);
  stream_ << "[" << time_text << "] " << file << ":" << line << ": ";
}

LogMessage::~LogMessage() {
  stream_ << "\n";
  const std::string text = stream_.str();
  // The text is an argument, never the format: '%' in streamed values stays literal.
  __android_log_print(priority, kStreamLogTag, "%s", text.c_str());
}

}  // namespace artifact_detector

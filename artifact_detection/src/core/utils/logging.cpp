#include "core/utils/logging.h"

#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

namespace artifact_detector {
namespace {

const LogPolicy kDefaultPolicy;

// The innermost ScopedLogPolicy of this thread, null outside any.
const LogPolicy*& active_policy() {
  thread_local const LogPolicy* active = nullptr;
  return active;
}

// The priority a line of `priority` goes out at, or kLogSilent for none.
int effective_priority(int priority) {
  const LogPolicy& policy = current_log_policy();
  return policy.quiet ? policy.priority : priority;
}

}  // namespace

ScopedLogPolicy::ScopedLogPolicy(const LogPolicy& policy) : previous_(active_policy()) {
  active_policy() = &policy;
}

ScopedLogPolicy::~ScopedLogPolicy() { active_policy() = previous_; }

const LogPolicy& current_log_policy() {
  const LogPolicy* active = active_policy();
  return active != nullptr ? *active : kDefaultPolicy;
}

void write_log(int priority, const char* tag, const char* format, ...) {
  priority = effective_priority(priority);
  if (priority >= kLogSilent) return;
  va_list args;
  va_start(args, format);
  __android_log_vprint(priority, tag, format, args);
  va_end(args);
}

LogMessage::LogMessage(int priority, const char* file, int line) : priority(priority) {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  std::snprintf(time_text, sizeof(time_text), "%02d:%02d:%02d", local.tm_hour, local.tm_min,
                local.tm_sec);
  stream_ << "[" << time_text << "] " << file << ":" << line << ": ";
}

LogMessage::~LogMessage() {
  const int out_priority = effective_priority(priority);
  if (out_priority >= kLogSilent) return;
  stream_ << "\n";
  const std::string text = stream_.str();
  // The text is an argument, never the format: '%' in streamed values stays literal.
  __android_log_print(out_priority, kStreamLogTag, "%s", text.c_str());
}

}  // namespace artifact_detector

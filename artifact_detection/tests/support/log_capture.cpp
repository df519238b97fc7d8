#include "support/log_capture.h"

#include <android/log.h>

#include <algorithm>
#include <ostream>
#include <regex>
#include <stdexcept>

namespace ad_test {
namespace {

// liblog accepts only a plain function as logger, so the active capture is reached
// through this pointer.
LogCapture* g_active = nullptr;

void capture_logger(const __android_logger_data* data, const char* message) {
  if (g_active != nullptr) {
    g_active->add(LogLine{data->tag ? data->tag : "", data->priority, message ? message : ""});
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const LogLine& line) {
  return os << "{" << line.tag << ", " << line.priority << ", \"" << line.text << "\"}";
}

LogCapture::LogCapture() {
  if (g_active != nullptr) throw std::logic_error("nested LogCapture");
  g_active = this;
  __android_log_set_logger(capture_logger);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

LogCapture::~LogCapture() {
  __android_log_set_logger(__android_log_stderr_logger);
  __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  g_active = nullptr;
}

void LogCapture::add(LogLine line) {
  std::function<void(const LogLine&)> hook;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
    hook = hook_;
  }
  if (hook) hook(line);
}

void LogCapture::set_hook(std::function<void(const LogLine&)> hook) {
  std::lock_guard<std::mutex> lock(mutex_);
  hook_ = std::move(hook);
}

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> LogCapture::texts(const std::string& tag) const {
  std::vector<std::string> out;
  for (const LogLine& line : lines()) {
    if (line.tag == tag) out.push_back(line.text);
  }
  return out;
}

std::vector<std::string> LogCapture::verbose_messages() const {
  static const std::regex prefix(R"(^[^:]+: [0-9]+: )");
  std::vector<std::string> out;
  for (const std::string& text : texts("ImageSearchJNI_ARTI_DET")) {
    out.push_back(std::regex_replace(text, prefix, "", std::regex_constants::format_first_only));
  }
  return out;
}

std::vector<std::string> LogCapture::info_messages() const {
  static const std::regex header(R"(^\[[0-9]{2}:[0-9]{2}:[0-9]{2}\] [^:]+:[0-9]+: )");
  std::vector<std::string> out;
  for (std::string text : texts("TQR_ARTIFACT_DET")) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    out.push_back(std::regex_replace(text, header, "", std::regex_constants::format_first_only));
  }
  return out;
}

bool LogCapture::contains(const std::string& message) const {
  const auto verbose = verbose_messages();
  const auto info = info_messages();
  return std::find(verbose.begin(), verbose.end(), message) != verbose.end() ||
         std::find(info.begin(), info.end(), message) != info.end();
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

}  // namespace ad_test

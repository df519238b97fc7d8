#include "support/log_capture.h"

#include <android/log.h>

#include <algorithm>
#include <regex>
#include <stdexcept>

namespace ad_test {
namespace {

// liblog takes a plain function as logger: it reaches the active capture through this.
LogCapture* g_active = nullptr;

// The texts under `tag` with what `pattern` matches removed.
std::vector<std::string> stripped(const LogCapture& capture, const char* tag, const char* pattern) {
  const std::regex re(pattern);
  std::vector<std::string> out;
  for (const std::string& text : capture.texts(tag))
    out.push_back(std::regex_replace(text, re, ""));
  return out;
}

}  // namespace

LogCapture::LogCapture() {
  if (g_active != nullptr) throw std::logic_error("nested LogCapture");
  g_active = this;
  __android_log_set_logger([](const __android_logger_data* data, const char* message) {
    if (g_active)
      g_active->add({data->tag ? data->tag : "", data->priority, message ? message : ""});
  });
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

LogCapture::~LogCapture() {
  __android_log_set_logger(__android_log_stderr_logger);
  __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  g_active = nullptr;
}

std::vector<std::string> LogCapture::verbose_messages() const {
  return stripped(*this, "ImageSearchJNI_ARTI_DET", R"(^[^:]+: [0-9]+: )");
}

std::vector<std::string> LogCapture::info_messages() const {
  return stripped(*this, "TQR_ARTIFACT_DET",
                  R"(^\[[0-9]{2}:[0-9]{2}:[0-9]{2}\] [^:]+:[0-9]+: |\n$)");
}

bool LogCapture::contains(const std::string& message) const {
  std::vector<std::string> all = verbose_messages(), info = info_messages();
  all.insert(all.end(), info.begin(), info.end());
  return std::find(all.begin(), all.end(), message) != all.end();
}

}  // namespace ad_test

#include "support/log_capture.h"

#include <android/log.h>

#include <algorithm>
#include <stdexcept>

namespace ad_test {
namespace {

// liblog takes a plain function as logger: it reaches the active capture through this.
LogCapture* g_active = nullptr;

std::vector<std::string> messages(const LogCapture& capture, const char* tag) {
  std::vector<std::string> out;
  for (const std::string& text : capture.texts(tag)) out.push_back(message(text));
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
  return messages(*this, "ImageSearchJNI_ARTI_DET");
}

std::vector<std::string> LogCapture::info_messages() const {
  return messages(*this, "TQR_ARTIFACT_DET");
}

bool LogCapture::contains(const std::string& message) const {
  std::vector<std::string> all = verbose_messages(), info = info_messages();
  all.insert(all.end(), info.begin(), info.end());
  return std::find(all.begin(), all.end(), message) != all.end();
}

}  // namespace ad_test

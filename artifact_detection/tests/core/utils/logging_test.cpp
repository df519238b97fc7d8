#include "core/utils/logging.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <ctime>

#include "support/log_capture.h"

namespace {

// Both ways in one capture, so that a line under the other way's tag too would show.
TEST(Logging, EachLineCarriesItsTagPriorityFileAndLine) {
  const auto stamp = [](std::time_t t) {  // LogMessage lines open with the local "[hh:mm:ss] "
    char text[16];
    std::tm tm{};
    return std::string(text, std::strftime(text, sizeof text, "[%H:%M:%S] ", localtime_r(&t, &tm)));
  };
  ad_test::LogCapture capture;
  const std::time_t before = std::time(nullptr);
  const int line = __LINE__ + 1;
  AD_LOGV("TQ Debug: value %d and %s", 42, "text");
  AD_LOGV_AT(155, "TQ Debug: %s", "x");  // a fixed line number replaces the source line
  AD_LOG_INFO;
  AD_LOG_INFO << "100%d %s%n";  // a value is never a format
  AD_LOG_INFO << "w : " << 640 << " f " << 0.5f << " big " << 9000000000LL << " s";
  AD_LOG_INFO_AT(77) << "fixed";
  const std::time_t after = std::time(nullptr);
  const std::string v = "ImageSearchJNI_ARTI_DET", i = "TQR_ARTIFACT_DET", f = "logging_test.cpp:";
  const auto at = [line](int k) { return std::to_string(line + k); };
  std::vector<ad_test::LogLine> got = capture.lines();
  for (ad_test::LogLine& l : got) {
    if (l.tag != i) continue;
    EXPECT_TRUE(l.text.rfind(stamp(before), 0) == 0 || l.text.rfind(stamp(after), 0) == 0)
        << l.text;
    l.text.erase(0, stamp(before).size());
  }
  EXPECT_EQ(got, (std::vector<ad_test::LogLine>{
                     {v, ANDROID_LOG_VERBOSE, f + " " + at(0) + ": TQ Debug: value 42 and text"},
                     {v, ANDROID_LOG_VERBOSE, f + " 155: TQ Debug: x"},
                     {i, ANDROID_LOG_INFO, f + at(2) + ": \n"},
                     {i, ANDROID_LOG_INFO, f + at(3) + ": 100%d %s%n\n"},
                     {i, ANDROID_LOG_INFO, f + at(4) + ": w : 640 f 0.5 big 9000000000 s\n"},
                     {i, ANDROID_LOG_INFO, f + "77: fixed\n"}}));
}

}  // namespace

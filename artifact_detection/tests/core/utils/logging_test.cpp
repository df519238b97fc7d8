#include "core/utils/logging.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>

#include "support/log_capture.h"

namespace {

using ad_test::LogCapture;
using ad_test::LogLine;

// "[hh:mm:ss] " of the local time `t`.
std::string bracketed(std::time_t t) {
  std::tm tm{};
  localtime_r(&t, &tm);
  char text[16];
  std::strftime(text, sizeof(text), "[%H:%M:%S] ", &tm);
  return text;
}

// Each test compares the whole capture: a line never shows up under the other way's tag too.
TEST(Logging, FormattedLineIsFileLineAndTextUnderItsTagAtVerbose) {
  LogCapture capture;
  const int line = __LINE__ + 1;
  AD_LOGV("TQ Debug: value %d and %s", 42, "text");
  AD_LOGV_AT(155, "TQ Debug: %s", "x");  // a fixed line number replaces the source line
  const char* tag = "ImageSearchJNI_ARTI_DET";
  EXPECT_EQ(capture.lines(),
            (std::vector<LogLine>{
                {tag, ANDROID_LOG_VERBOSE,
                 "logging_test.cpp: " + std::to_string(line) + ": TQ Debug: value 42 and text"},
                {tag, ANDROID_LOG_VERBOSE, "logging_test.cpp: 155: TQ Debug: x"}}));
}

TEST(Logging, LogMessageIsBracketedTimeFileLineTextAndLineFeed) {
  LogCapture capture;
  const std::time_t before = std::time(nullptr);
  const int line = __LINE__ + 1;
  AD_LOG_INFO;
  AD_LOG_INFO << "100%d %s%n";  // a value is never a format
  AD_LOG_INFO << "w : " << 640 << " f " << 0.5f << " big " << 9000000000LL << " s";
  const std::time_t after = std::time(nullptr);
  const std::string texts[] = {"\n", "100%d %s%n\n", "w : 640 f 0.5 big 9000000000 s\n"};
  const std::vector<LogLine> got = capture.lines();
  ASSERT_EQ(got.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    const std::string rest = "logging_test.cpp:" + std::to_string(line + i) + ": " + texts[i];
    EXPECT_EQ(std::make_pair(got[i].tag, got[i].priority),
              std::make_pair(std::string("TQR_ARTIFACT_DET"), int{ANDROID_LOG_INFO}));
    EXPECT_TRUE(got[i].text == bracketed(before) + rest || got[i].text == bracketed(after) + rest)
        << got[i].text;
  }
}

TEST(Logging, BaseNameIsTheTextAfterTheLastSlash) {
  const std::pair<const char*, const char*> cases[] = {{"/a/b/NNet.cpp", "NNet.cpp"},
                                                       {"dl_loader.cpp", "dl_loader.cpp"},
                                                       {"src/utils/", ""},
                                                       {"/x", "x"},
                                                       {"", ""}};
  for (const auto& [path, expected] : cases)
    EXPECT_STREQ(artifact_detector::base_name(path, std::strlen(path)), expected) << path;
  static_assert(artifact_detector::base_name("a/b.cpp", 7)[0] == 'b', "usable at compile time");
}

}  // namespace

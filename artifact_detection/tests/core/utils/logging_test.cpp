#include "core/utils/logging.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>

#include "support/log_capture.h"

namespace {

using ad_test::LogCapture;
using ad_test::LogLine;

std::string local_hms(std::time_t t) {
  std::tm tm{};
  localtime_r(&t, &tm);
  char text[9];
  std::strftime(text, sizeof(text), "%H:%M:%S", &tm);
  return text;
}

// The LogMessage header for this file and `line`, at either of two neighbouring seconds.
bool has_header(const std::string& text, int line, std::time_t before, std::time_t after,
                const std::string& rest) {
  for (std::time_t t = before; t <= after; ++t) {
    if (text == "[" + local_hms(t) + "] logging_test.cpp:" + std::to_string(line) + ": " + rest) {
      return true;
    }
  }
  return false;
}

TEST(Logging, FormattedLineCarriesTagPriorityFileAndLine) {
  LogCapture capture;
  const int line = __LINE__ + 1;
  AD_LOGV("TQ Debug: value %d and %s", 42, "text");
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0],
            (LogLine{"ImageSearchJNI_ARTI_DET", ANDROID_LOG_VERBOSE,
                     "logging_test.cpp: " + std::to_string(line) + ": TQ Debug: value 42 and text"}));
}

TEST(Logging, FixedLineNumberReplacesTheSourceLine) {
  LogCapture capture;
  AD_LOGV_AT(155, "TQ Debug: %s", "x");
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].text, "logging_test.cpp: 155: TQ Debug: x");
}

struct StreamCase {
  const char* name;
  std::string expected_rest;
  void (*write)(int& line);
};

void PrintTo(const StreamCase& c, std::ostream* os) { *os << c.name; }

class LogMessageLine : public ::testing::TestWithParam<StreamCase> {};

TEST_P(LogMessageLine, IsBracketedTimeFileLineTextAndLineFeed) {
  LogCapture capture;
  const std::time_t before = std::time(nullptr);
  int line = 0;
  GetParam().write(line);
  const std::time_t after = std::time(nullptr);
  ASSERT_EQ(capture.lines().size(), 1u);
  const LogLine got = capture.lines()[0];
  EXPECT_EQ(got.tag, "TQR_ARTIFACT_DET");
  EXPECT_EQ(got.priority, ANDROID_LOG_INFO);
  EXPECT_TRUE(has_header(got.text, line, before, after, GetParam().expected_rest)) << got.text;
}

INSTANTIATE_TEST_SUITE_P(
    Streams, LogMessageLine,
    ::testing::Values(
        StreamCase{"Empty", "\n", [](int& line) { line = __LINE__; AD_LOG_INFO; }},
        StreamCase{"PercentIsLiteral", "100%d %s%n\n",
                   [](int& line) { line = __LINE__; AD_LOG_INFO << "100%d %s%n"; }},
        StreamCase{"MixedValues", "w : 640 f 0.5 big 9000000000 s\n",
                   [](int& line) {
                     // clang-format off
                     line = __LINE__; AD_LOG_INFO << "w : " << 640 << " f " << 0.5f << " big " << 9000000000LL << " s";
                     // clang-format on
                   }}),
    [](const ::testing::TestParamInfo<StreamCase>& info) { return info.param.name; });

TEST(Logging, TheTwoWaysNeverShareATag) {
  LogCapture capture;
  AD_LOGV("one");
  AD_LOG_INFO << "two";
  EXPECT_EQ(capture.verbose_messages(), std::vector<std::string>{"one"});
  EXPECT_EQ(capture.info_messages(), std::vector<std::string>{"two"});
}

TEST(Logging, BaseNameIsTheTextAfterTheLastSlash) {
  const struct {
    const char* path;
    const char* expected;
  } cases[] = {{"/a/b/NNet.cpp", "NNet.cpp"},
               {"dl_loader.cpp", "dl_loader.cpp"},
               {"src/utils/", ""},
               {"/x", "x"},
               {"", ""}};
  for (const auto& c : cases) {
    EXPECT_STREQ(artifact_detector::base_name(c.path, std::strlen(c.path)), c.expected) << c.path;
  }
  static_assert(artifact_detector::base_name("a/b.cpp", 7)[0] == 'b', "usable at compile time");
}

}  // namespace

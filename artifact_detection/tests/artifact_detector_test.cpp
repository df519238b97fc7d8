// The public detector: what Create logs, and a detector that was never initialised.
#include "artifact_detector.h"

#include <gtest/gtest.h>

#include <regex>

#include "support/detector_fixtures.h"
#include "support/log_capture.h"

namespace {

using ad_test::DetectorPtr;
using ad_test::LogCapture;
using ad_test::LogLine;
using artifact_detector::ArtifactDetector;

TEST(ArtifactDetector, CreateLogsBuildAndVersion) {
  LogCapture capture;
  DetectorPtr detector(ArtifactDetector::Create());
  ASSERT_NE(detector, nullptr);
  const std::vector<LogLine> lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(std::tie(lines[0].tag, lines[0].priority, lines[1].tag, lines[1].priority),
            std::make_tuple("TQR_ARTIFACT_DET", 4, "ImageSearchJNI_ARTI_DET", 2));
  EXPECT_TRUE(std::regex_match(
      lines[0].text,
      std::regex(R"(\[\d\d:\d\d:\d\d\] artifact_detector_impl\.cpp:\d+: TQ Debug: Using artiface )"
                 R"(detector Built on : [A-Z][a-z]{2} [ \d]\d \d{4} \d\d:\d\d:\d\d IST\n)")))
      << lines[0].text;
  EXPECT_TRUE(
      std::regex_match(lines[1].text, std::regex(R"(artifact_detector_impl\.cpp: \d+: TQ Debug: )"
                                                 R"(artiface detector Version Info: v1\.18\.3)")))
      << lines[1].text;
  ArtifactDetector::Destroy(nullptr);  // a no-op
}

// Initialising without an inference library is the fault test's.
TEST(ArtifactDetector, UninitialisedDetectorAnswersFalseAndKeepsAnEmptyResult) {
  DetectorPtr detector(ArtifactDetector::Create());
  std::vector<char> frame(64 * 48 * 3, 7);
  LogCapture capture;
  EXPECT_FALSE(detector->execute(frame.data(), 64, 48, 0, ArtifactDetector::BGR));
  EXPECT_FALSE(detector->execute(frame.data(), 64, 48, 90, ArtifactDetector::NV21, frame.data()));
  EXPECT_FALSE(detector->execute(cv::Mat(48, 64, CV_8UC3, cv::Scalar(1, 2, 3)), 0));
  EXPECT_EQ(capture.info_messages(),
            std::vector<std::string>(
                3, "TQ:Debug artifact_detector execute failed because init was unsuccessful"));
  EXPECT_EQ(detector->get_total_artifact_count(), 0);
  EXPECT_TRUE(detector->get_artifact_info(nullptr));  // nothing written for an empty result
}

}  // namespace

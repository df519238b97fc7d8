#include "artifact_detector.h"

#include <gtest/gtest.h>

#include <regex>
#include <vector>

#include "support/log_capture.h"

namespace {

using artifact_detector::ArtifactDetector;
using ad_test::LogCapture;

const char kUninitialised[] = "TQ:Debug artifact_detector execute failed because init was unsuccessful";

struct DetectorDeleter {
  void operator()(ArtifactDetector* d) const { ArtifactDetector::Destroy(d); }
};
using DetectorPtr = std::unique_ptr<ArtifactDetector, DetectorDeleter>;

TEST(ArtifactDetector, CreateLogsBuildAndVersion) {
  LogCapture capture;
  DetectorPtr detector(ArtifactDetector::Create());
  ASSERT_NE(detector, nullptr);

  const auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].tag, "TQR_ARTIFACT_DET");
  EXPECT_TRUE(std::regex_match(
      lines[0].text,
      std::regex(R"(\[\d\d:\d\d:\d\d\] artifact_detector_impl\.cpp:\d+: TQ Debug: Using artiface )"
                 R"(detector Built on : [A-Z][a-z]{2} [ \d]\d \d{4} \d\d:\d\d:\d\d IST\n)")))
      << lines[0].text;
  EXPECT_EQ(lines[1].tag, "ImageSearchJNI_ARTI_DET");
  EXPECT_EQ(lines[1].priority, 2);
  EXPECT_TRUE(std::regex_match(
      lines[1].text,
      std::regex(R"(artifact_detector_impl\.cpp: \d+: TQ Debug: artiface detector Version Info: v1\.18\.3)")))
      << lines[1].text;
}

TEST(ArtifactDetector, DestroyOfNullIsANoOp) { ArtifactDetector::Destroy(nullptr); }

TEST(ArtifactDetector, UninitialisedDetectorAnswersFalseAndKeepsAnEmptyResult) {
  DetectorPtr detector(ArtifactDetector::Create());
  LogCapture capture;
  std::vector<char> frame(64 * 48 * 3, 7);

  EXPECT_FALSE(detector->execute(frame.data(), 64, 48, 0, ArtifactDetector::BGR));
  EXPECT_FALSE(detector->execute(frame.data(), 64, 48, 90, ArtifactDetector::NV21, frame.data()));
  EXPECT_FALSE(detector->execute(cv::Mat(48, 64, CV_8UC3, cv::Scalar(1, 2, 3)), 0));
  EXPECT_EQ(capture.info_messages(),
            std::vector<std::string>(3, kUninitialised));

  EXPECT_EQ(detector->get_total_artifact_count(), 0);
  // Nothing is written for an empty result, so even a null array is harmless.
  EXPECT_TRUE(detector->get_artifact_info(nullptr));
  EXPECT_TRUE(capture.contains("get_total_artifact_count : 0"));
}

TEST(ArtifactDetector, InitializeWithoutAnInferenceLibraryAnswersFalse) {
  // This executable has no inference library on its search path.
  DetectorPtr detector(ArtifactDetector::Create());
  char models[] = "/nonexistent/models/";
  LogCapture capture;
  for (int mode : {0, 3}) {
    EXPECT_FALSE(detector->initialize(static_cast<ArtifactDetector::Mode>(mode), models));
  }
  EXPECT_TRUE(capture.contains(
      "TQ:Debug artifact detector init failed: exception: Dynamic loading of libTarnlink failed."));
  std::vector<char> frame(64 * 48 * 3, 7);
  EXPECT_FALSE(detector->execute(frame.data(), 64, 48, 0, ArtifactDetector::BGR));
}

TEST(ArtifactDetector, ExecuteLeavesTheCallersImageUntouched) {
  DetectorPtr detector(ArtifactDetector::Create());
  cv::Mat image(32, 32, CV_8UC3, cv::Scalar(10, 20, 30));
  const cv::Mat copy = image.clone();
  detector->execute(image, 0);
  EXPECT_EQ(cv::norm(image, copy, cv::NORM_INF), 0.0);
  EXPECT_EQ(image.rows, 32);
}

}  // namespace

// The engine over the reference inference library and a real ONNX model: the scores of a run
// are those of the same network run directly by OpenCV on the same preprocessed input, which
// catches a wrong tensor layout, a wrong output layer or a misread output.
#include <gtest/gtest.h>

#include <opencv2/dnn.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "artifact_detector_impl.h"
#include "support/detector_fixtures.h"

namespace {

using namespace ad_test;

const std::string kModel = std::string(TARNLINK_TEST_MODELS) + "/tiny.onnx";  // 1x3x48x64 in

// What the engine must report for an upright image: the network run directly on the
// preprocessed input, then the logistic function and the built-in thresholds. Blur and
// MildBlur are withdrawn only for a confident OtherBlur, which the built-in table never reports.
std::vector<Record> expected_records(const cv::Mat& upright) {
  cv::Mat small, input;
  cv::resize(upright, small, cv::Size(64, 48), 0, 0, cv::INTER_AREA);
  std::vector<uchar> jpeg;
  cv::imencode(".jpg", small, jpeg, {cv::IMWRITE_JPEG_QUALITY, 95});
  cv::imdecode(jpeg, cv::IMREAD_COLOR).convertTo(input, CV_32FC3, 1.0, -128.0);
  cv::dnn::Net net = cv::dnn::readNetFromONNX(kModel);
  net.setInput(cv::dnn::blobFromImage(input));
  const cv::Mat out = net.forward("Identity").reshape(1, 1);
  artifact_detector::ArtifactDetectorImpl built_in;
  built_in.set_artifact_thresholds();
  std::vector<Record> records;
  for (int id = 1; id <= 11; ++id) {
    const float p = artifact_detector::sigmoid({out.at<float>(id)})[0];
    if (p > 0.01f && p <= 1.0f && built_in.thresholds().at(id) < p) records.push_back({id, p});
  }
  return records;
}

TEST(ReferenceRun, ScoresEqualTheNetworkRunDirectlyOnThePreprocessedInput) {
  TempDir models;
  write_model_info(models, kModel);
  DetectorPtr detector(ArtifactDetector::Create());
  ASSERT_TRUE(initialize(*detector, models));
  std::size_t records = 0;
  for (const char* name : {"coffee.jpg", "chelsea.jpg", "astronaut.jpg", "rocket.jpg"}) {
    SCOPED_TRACE(name);
    const cv::Mat image = cv::imread(std::string(AD_SAMPLES_DIR) + "/" + name, cv::IMREAD_COLOR);
    ASSERT_TRUE(detector->execute(image, 0));
    EXPECT_EQ(reported(*detector), expected_records(image));
    records += reported(*detector).size();

    // The buffer entry point: BGR turned a quarter, RGBA upright.
    cv::Mat rgba, upright;
    cv::cvtColor(image, rgba, cv::COLOR_BGR2RGBA);
    cv::rotate(image, upright, cv::ROTATE_90_CLOCKWISE);
    std::vector<char> bgr_bytes(image.datastart, image.dataend);
    std::vector<char> rgba_bytes(rgba.datastart, rgba.dataend);
    ASSERT_TRUE(
        detector->execute(bgr_bytes.data(), image.cols, image.rows, 90, ArtifactDetector::BGR));
    EXPECT_EQ(reported(*detector), expected_records(upright));
    ASSERT_TRUE(
        detector->execute(rgba_bytes.data(), image.cols, image.rows, 0, ArtifactDetector::RGBA));
    EXPECT_EQ(reported(*detector), expected_records(image));
  }
  EXPECT_GT(records, 0u) << "a comparison of empty lists proves nothing";
}

}  // namespace

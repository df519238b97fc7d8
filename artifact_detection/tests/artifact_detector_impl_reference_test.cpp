// The engine over the reference inference library and a real ONNX model: the scores of a run
// are those of the same network run directly on the same preprocessed input, alone and with
// several detectors in parallel threads.
#include <gtest/gtest.h>

#include <opencv2/dnn.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "artifact_detector.h"
#include "artifact_detector_impl.h"
#include "support/temp_dir.h"

namespace {

using artifact_detector::ArtifactDetector;
using ad_test::TempDir;

const std::string kModel = std::string(TARNLINK_TEST_MODELS) + "/tiny.onnx";
constexpr int kNetWidth = 64;  // the tiny model's input is 1x3x48x64
constexpr int kNetHeight = 48;

const std::map<int, float> kBuiltIn{{1, 0.74f}, {2, 0.64f}, {3, 0.73f}, {4, 0.73f},
                                    {5, 0.69f}, {6, 0.52f}, {7, 0.48f}, {8, 0.72f},
                                    {9, 0.2f},  {10, 0.58f}, {11, 1.0f}};

struct Record {
  int id;
  float score;
  bool operator==(const Record& o) const { return id == o.id && score == o.score; }
};

std::ostream& operator<<(std::ostream& os, const Record& r) {
  return os << "{" << r.id << ", " << r.score << "}";
}

// What the engine must report for an upright image: the network run directly by OpenCV on
// the preprocessed input, then the logistic function and the built-in thresholds.
std::vector<Record> expected_records(const cv::Mat& upright) {
  cv::Mat small;
  cv::resize(upright, small, cv::Size(kNetWidth, kNetHeight), 0, 0, cv::INTER_AREA);
  std::vector<uchar> jpeg;
  cv::imencode(".jpg", small, jpeg, {cv::IMWRITE_JPEG_QUALITY, 95});
  cv::Mat input;
  cv::imdecode(jpeg, cv::IMREAD_COLOR).convertTo(input, CV_32FC3, 1.0, -128.0);

  cv::dnn::Net net = cv::dnn::readNetFromONNX(kModel);
  net.setInput(cv::dnn::blobFromImage(input));
  const cv::Mat out = net.forward("Identity").reshape(1, 1);

  std::vector<Record> records;
  for (int id = 1; id <= 11; ++id) {
    const float p = artifact_detector::sigmoid({out.at<float>(id)})[0];
    if (p > 0.01f && p <= 1.0f && kBuiltIn.at(id) < p) records.push_back({id, p});
  }
  // Blur and MildBlur are withdrawn only for a confident OtherBlur, which the built-in
  // table never reports.
  return records;
}

std::vector<Record> reported(ArtifactDetector& detector) {
  std::vector<ArtifactDetector::Artifact_Info> infos(detector.get_total_artifact_count());
  detector.get_artifact_info(infos.data());
  std::vector<Record> out;
  for (const auto& info : infos) out.push_back({info.tag_id, info.score});
  return out;
}

struct DetectorDeleter {
  void operator()(ArtifactDetector* d) const { ArtifactDetector::Destroy(d); }
};
using DetectorPtr = std::unique_ptr<ArtifactDetector, DetectorDeleter>;

class ReferenceRun : public ::testing::Test {
 protected:
  void SetUp() override {
    models_.write_file("artifact_detector/artifact_detector_cnn.info",
                       "{\n  \"version_id\": \"v1\",\n  \"model_type\": \"cpu\",\n"
                       "  \"precision\": \"float32\",\n  \"model_path\": \"" + kModel + "\"\n}\n");
  }

  DetectorPtr make_detector() {
    DetectorPtr detector(ArtifactDetector::Create());
    std::string path = models_.base();
    EXPECT_TRUE(detector->initialize(ArtifactDetector::DEFAULT, path.data()));
    return detector;
  }

  TempDir models_;
};

std::vector<cv::Mat> sample_images() {
  std::vector<cv::Mat> images;
  for (const char* name : {"coffee.jpg", "chelsea.jpg", "astronaut.jpg", "rocket.jpg"}) {
    images.push_back(cv::imread(std::string(AD_SAMPLES_DIR) + "/" + name, cv::IMREAD_COLOR));
    EXPECT_FALSE(images.back().empty()) << name;
  }
  return images;
}

TEST_F(ReferenceRun, ScoresEqualTheNetworkRunDirectlyOnThePreprocessedInput) {
  DetectorPtr detector = make_detector();
  std::size_t records = 0;
  for (const cv::Mat& image : sample_images()) {
    ASSERT_TRUE(detector->execute(image, 0));
    EXPECT_EQ(reported(*detector), expected_records(image));
    records += reported(*detector).size();
  }
  EXPECT_GT(records, 0u) << "a comparison of empty lists proves nothing";
}

TEST_F(ReferenceRun, BufferFormatsGiveTheScoresOfTheirUprightImage) {
  DetectorPtr detector = make_detector();
  const cv::Mat image = sample_images()[0];  // 600 x 400
  cv::Mat rgba;
  cv::cvtColor(image, rgba, cv::COLOR_BGR2RGBA);
  std::vector<char> bgr_bytes(image.datastart, image.dataend);
  std::vector<char> rgba_bytes(rgba.datastart, rgba.dataend);

  cv::Mat upright;
  cv::rotate(image, upright, cv::ROTATE_90_CLOCKWISE);
  ASSERT_TRUE(detector->execute(bgr_bytes.data(), image.cols, image.rows, 90, ArtifactDetector::BGR));
  EXPECT_EQ(reported(*detector), expected_records(upright));
  ASSERT_TRUE(detector->execute(rgba_bytes.data(), image.cols, image.rows, 0, ArtifactDetector::RGBA));
  EXPECT_EQ(reported(*detector), expected_records(image));
}

TEST_F(ReferenceRun, ParallelDetectorsDoNotInterfere) {
  constexpr int kThreads = 4;
  constexpr int kFramesEach = 12;
  std::vector<cv::Mat> frames;
  cv::RNG rng(77);
  for (const cv::Mat& sample : sample_images()) {
    for (int i = 0; i < kFramesEach; ++i) {
      cv::Mat frame = sample.clone();
      cv::Mat noise(frame.size(), frame.type());
      rng.fill(noise, cv::RNG::NORMAL, 0, 8 + 4 * i);
      frame += noise;
      frames.push_back(frame);
    }
  }

  // Alone first, then the same frames split over parallel detectors.
  std::vector<std::vector<Record>> alone;
  {
    DetectorPtr detector = make_detector();
    for (const cv::Mat& frame : frames) {
      ASSERT_TRUE(detector->execute(frame, 0));
      alone.push_back(reported(*detector));
    }
  }

  std::vector<DetectorPtr> detectors;
  for (int t = 0; t < kThreads; ++t) detectors.push_back(make_detector());
  std::vector<std::vector<Record>> together(frames.size());
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (std::size_t i = t; i < frames.size(); i += kThreads) {
        if (detectors[t]->execute(frames[i], 0)) together[i] = reported(*detectors[t]);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(together, alone);
}

}  // namespace

// Detectors used from several threads as the engine's locks allow, over the reference
// inference library: result reads beside a running initialize, initialize and execute each
// from several threads on one detector, Destroy waiting for the call in progress, and
// detectors created and destroyed on several threads at once. Built under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <thread>
#include <vector>

#include "artifact_detector.h"
#include "support/detector_fixtures.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using ad_test::DetectorPtr;
using ad_test::Record;
using ad_test::reported;
using artifact_detector::ArtifactDetector;

const std::string kModel = std::string(TARNLINK_TEST_MODELS) + "/tiny.onnx";
constexpr int kThreads = 3;

bool initialize(ArtifactDetector& detector, const ad_test::TempDir& models) {
  std::string path = models.base();
  return detector.initialize(ArtifactDetector::DEFAULT, path.data());
}

class Concurrency : public ::testing::Test {
 protected:
  void SetUp() override {
    ad_test::write_model_info(models_, kModel);
    // A frame that the tiny network reports something for, so that reads have records.
    for (const char* name : {"coffee.jpg", "chelsea.jpg", "astronaut.jpg", "rocket.jpg"}) {
      frame_ = cv::imread(std::string(AD_SAMPLES_DIR) + "/" + name, cv::IMREAD_COLOR);
      DetectorPtr detector = make_detector();
      ASSERT_TRUE(detector->execute(frame_, 0)) << name;
      expected_ = reported(*detector);
      if (!expected_.empty()) return;
    }
    FAIL() << "no sample gives a record";
  }

  DetectorPtr make_detector() {
    bool ok = false;
    DetectorPtr detector = ad_test::initialized_detector(models_, &ok);
    EXPECT_TRUE(ok);
    return detector;
  }

  ad_test::TempDir models_;
  cv::Mat frame_;
  std::vector<Record> expected_;
};

TEST_F(Concurrency, ResultReadsRunBesideInitialize) {
  DetectorPtr detector = make_detector();
  ASSERT_TRUE(detector->execute(frame_, 0));

  std::atomic<bool> done{false};
  std::atomic<int> reads{0}, mismatches{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < kThreads; ++t) {
    readers.emplace_back([&] {
      do {
        if (reported(*detector) != expected_) ++mismatches;
        ++reads;
      } while (!done);
    });
  }
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(initialize(*detector, models_));
  done = true;
  for (std::thread& reader : readers) reader.join();

  EXPECT_EQ(mismatches, 0) << "initialize never touches the result list, over " << reads
                           << " reads";
  ASSERT_TRUE(detector->execute(frame_, 0));
  EXPECT_EQ(reported(*detector), expected_);
}

TEST_F(Concurrency, InitializeFromSeveralThreadsLeavesAWorkingDetector) {
  DetectorPtr detector = make_detector();
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2; ++i) failures += !initialize(*detector, models_);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  ASSERT_TRUE(detector->execute(frame_, 0));
  EXPECT_EQ(reported(*detector), expected_);
}

TEST_F(Concurrency, ExecuteFromSeveralThreadsRunsOneFrameAtATime) {
  DetectorPtr detector = make_detector();
  // Through every entry point: the image, and the same pixels as a BGR buffer.
  std::vector<char> bytes(frame_.datastart, frame_.dataend);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 4; ++i) {
        const bool ok = (t + i) % 2 == 0 ? detector->execute(frame_, 0)
                                         : detector->execute(bytes.data(), frame_.cols, frame_.rows,
                                                             0, ArtifactDetector::BGR);
        failures += !ok;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(reported(*detector), expected_);
}

TEST_F(Concurrency, DetectorsComeAndGoOnSeveralThreads) {
  // Every detector loads and unloads the inference library by itself; the loader's
  // reference counting must hold up when that happens on several threads at once.
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 3; ++i) {
        DetectorPtr detector(ArtifactDetector::Create());
        if (!initialize(*detector, models_) || !detector->execute(frame_, 0) ||
            reported(*detector) != expected_) {
          ++failures;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
}

// Destroy must wait for a call that holds one of the engine's locks. The call is held at one
// of its own log lines until Destroy has had time to return if it did not wait.
struct PausedCall {
  const char* name;
  const char* pause_at;
  std::function<void(ArtifactDetector&, const ad_test::TempDir&)> call;
};

class DestroyWaits : public Concurrency, public ::testing::WithParamInterface<PausedCall> {};

TEST_P(DestroyWaits, ForTheCallInProgress) {
  ArtifactDetector* detector = make_detector().release();
  ASSERT_TRUE(detector->execute(frame_, 0));

  std::mutex m;
  std::condition_variable changed;
  bool inside = false, release = false;
  ad_test::LogCapture capture;
  capture.set_hook([&](const ad_test::LogLine& line) {
    if (line.text.find(GetParam().pause_at) == std::string::npos) return;
    std::unique_lock<std::mutex> lock(m);
    if (inside) return;  // only the first such line
    inside = true;
    changed.notify_all();
    changed.wait(lock, [&] { return release; });
  });

  std::thread caller([&] { GetParam().call(*detector, models_); });
  {
    std::unique_lock<std::mutex> lock(m);
    changed.wait(lock, [&] { return inside; });
  }
  std::atomic<bool> destroyed{false};
  std::thread destroyer([&] {
    ArtifactDetector::Destroy(detector);
    destroyed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(destroyed) << "Destroy returned while " << GetParam().name << " was running";
  {
    std::lock_guard<std::mutex> lock(m);
    release = true;
  }
  changed.notify_all();
  caller.join();
  destroyer.join();
  EXPECT_TRUE(destroyed);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, DestroyWaits,
    ::testing::Values(PausedCall{"Initialize", "Initializing Semantic Map ...",
                                 [](ArtifactDetector& d, const ad_test::TempDir& models) {
                                   EXPECT_TRUE(initialize(d, models));
                                 }},
                      PausedCall{
                          "GetArtifactInfo", "output result_artifacts ofartifact_infos",
                          [](ArtifactDetector& d, const ad_test::TempDir&) { reported(d); }}),
    [](const ::testing::TestParamInfo<PausedCall>& info) { return info.param.name; });

}  // namespace

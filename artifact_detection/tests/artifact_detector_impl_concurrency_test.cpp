// Detectors used from several threads as the engine's locks allow, over the reference
// inference library; built under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <opencv2/imgcodecs.hpp>
#include <thread>

#include "support/detector_fixtures.h"
#include "support/log_capture.h"

namespace {

using namespace ad_test;
constexpr int kThreads = 3;

// Runs `body(t)` on kThreads threads and waits for them.
void on_threads(const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
}

// Runs `call` on a thread of its own, held at its first log line that contains `pause_at`
// until resume(); constructed once the call is held there.
class HeldCall {
 public:
  HeldCall(const std::string& pause_at, std::function<void()> call) {
    capture_.set_hook([this, pause_at](const LogLine& line) {
      if (line.text.find(pause_at) == std::string::npos || paused_.exchange(true)) return;
      entered_.set_value();
      released_.wait();
    });
    thread_ = std::thread(std::move(call));
    entered_.get_future().wait();
  }
  HeldCall(const HeldCall&) = delete;
  HeldCall& operator=(const HeldCall&) = delete;
  ~HeldCall() { resume(); }

  void resume() {
    if (!thread_.joinable()) return;
    release_.set_value();
    thread_.join();
  }

 private:
  LogCapture capture_;
  std::promise<void> entered_, release_;
  std::shared_future<void> released_ = release_.get_future().share();
  std::atomic<bool> paused_{false};
  std::thread thread_;
};

class Concurrency : public ::testing::Test {
 protected:
  void SetUp() override {
    write_model_info(models_, TARNLINK_TEST_MODELS "/tiny.onnx");
    DetectorPtr detector = make_detector();
    for (const char* name : {"coffee.jpg", "chelsea.jpg", "astronaut.jpg", "rocket.jpg"}) {
      frames_.push_back(cv::imread(std::string(AD_SAMPLES_DIR) + "/" + name, cv::IMREAD_COLOR));
      ASSERT_TRUE(detector->execute(frames_.back(), 0)) << name;
      expected_.push_back(reported(*detector));
    }
    // A frame the tiny network reports something for, so that reads have records.
    for (std::size_t i = 0; i < frames_.size() && expected_[i].empty(); ++i) ++frame_;
    ASSERT_LT(frame_, frames_.size()) << "no sample gives a record";
  }

  DetectorPtr make_detector() {
    DetectorPtr detector(ArtifactDetector::Create());
    EXPECT_TRUE(initialize(*detector, models_));
    return detector;
  }

  TempDir models_;
  std::vector<cv::Mat> frames_;
  std::vector<std::vector<Record>> expected_;  // per frame, from a detector alone
  std::size_t frame_ = 0;
};

// The locks allow: result reads beside initialize, initialize beside initialize, execute
// beside execute (through both entry points: the image, and its pixels as a BGR buffer), and
// execute beside initialize (a run keeps the session it started with while a new one
// replaces it).
TEST_F(Concurrency, OneDetectorFromSeveralThreads) {
  DetectorPtr detector = make_detector();
  const cv::Mat& frame = frames_[frame_];
  ASSERT_TRUE(detector->execute(frame, 0));
  std::atomic<bool> done{false};
  std::atomic<int> failures{0}, mismatches{0};
  std::thread reader([&] {
    do mismatches += reported(*detector) != expected_[frame_];
    while (!done);
  });
  on_threads([&](int) {
    for (int i = 0; i < 2; ++i) failures += !initialize(*detector, models_);
  });
  done = true;
  reader.join();
  EXPECT_EQ(mismatches, 0) << "initialize never touches the result list";
  std::vector<char> bytes(frame.datastart, frame.dataend);
  on_threads([&](int t) {
    for (int i = 0; i < 4; ++i) {
      failures += !((t + i) % 2 == 0 ? detector->execute(frame, 0)
                                     : detector->execute(bytes.data(), frame.cols, frame.rows, 0,
                                                         ArtifactDetector::BGR));
    }
  });
  // A run held inside the network while initialize replaces (and releases) that network.
  bool ran = false;
  HeldCall run("Target image size (CHW)", [&] { ran = detector->execute(frame, 0); });
  failures += !initialize(*detector, models_);
  run.resume();
  EXPECT_TRUE(ran);
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(reported(*detector), expected_[frame_]);
}

std::size_t open_descriptors() {
  auto entries = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// Every detector loads and unloads the inference library by itself: the loader's reference
// counting must hold up on several threads at once, no detector sees another's results, and
// none leaves a descriptor open.
TEST_F(Concurrency, ParallelDetectorsComeAndGoAndGiveTheResultsOfOneAlone) {
  const std::size_t descriptors = open_descriptors();
  std::atomic<int> failures{0};
  on_threads([&](int t) {
    for (int round = 0; round < 2; ++round) {
      DetectorPtr detector = make_detector();
      for (std::size_t i = t; i < frames_.size() * 2; i += kThreads) {
        const std::size_t k = i % frames_.size();
        failures += !detector->execute(frames_[k], 0) || reported(*detector) != expected_[k];
      }
    }
  });
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(open_descriptors(), descriptors);
}

// Destroy must wait for a call that holds one of the engine's locks. The call is held at one
// of its own log lines until Destroy has had time to return if it did not wait.
TEST_F(Concurrency, DestroyWaitsForTheCallInProgress) {
  const std::pair<const char*, std::function<void(ArtifactDetector&)>> calls[] = {
      {"Initializing Semantic Map ...", [&](ArtifactDetector& d) { initialize(d, models_); }},
      {"TQ Debug: image :", [&](ArtifactDetector& d) { d.execute(frames_[frame_], 0); }},
      {"output result_artifacts ofartifact_infos", [](ArtifactDetector& d) { reported(d); }}};
  for (const auto& [pause_at, call] : calls) {
    SCOPED_TRACE(pause_at);
    ArtifactDetector* detector = make_detector().release();
    ASSERT_TRUE(detector->execute(frames_[frame_], 0));
    std::atomic<bool> destroyed{false};
    HeldCall caller(pause_at, [&, call = call] { call(*detector); });
    std::thread destroyer([&] {
      ArtifactDetector::Destroy(detector);
      destroyed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(destroyed) << "Destroy returned while the call was running";
    caller.resume();
    destroyer.join();
    EXPECT_TRUE(destroyed);
  }
}

}  // namespace

// Long runs over the reference inference library: one detector through many frames of every
// format, size and rotation, and many detectors created, initialised and destroyed one after
// another. Resident memory stays flat after warm-up, and nothing is left behind: no file
// descriptor, no reference to the inference library.
//
// ctest runs short versions. make soak runs AD_SOAK_FRAMES=10000 frames and AD_SOAK_CYCLES=1000
// cycles on the optimised build (see docs/reliability.md).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <streambuf>
#include <string>
#include <vector>

#include "artifact_detector.h"
#include "support/detector_fixtures.h"
#include "support/fake_tarnlink.h"
#include "support/temp_dir.h"

#if defined(__SANITIZE_ADDRESS__)
#define AD_SOAK_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define AD_SOAK_UNDER_ASAN 1
#endif
#endif

namespace {

using ad_test::DetectorPtr;
using artifact_detector::ArtifactDetector;
using ImageFormat = ArtifactDetector::ImageFormat;

const std::string kModel = std::string(TARNLINK_TEST_MODELS) + "/tiny.onnx";

// AddressSanitizer holds freed memory back in quarantine, so resident memory grows whatever
// the code does; there its leak check at exit takes the place of the resident-memory bound.
#ifdef AD_SOAK_UNDER_ASAN
constexpr bool kResidentMemoryIsMeaningful = false;
#else
constexpr bool kResidentMemoryIsMeaningful = true;
#endif

// Peak resident memory over the first and the second half of a run after its warm-up. A run
// that holds steady peaks alike in both (which frame was last moves resident memory by a few
// MiB, in both halves alike); anything kept per frame or per cycle raises the second. A run
// repeating a pattern of `period` steps is judged only when each half holds it twice.
class ResidentPeaks {
 public:
  ResidentPeaks(int warm_up, int total, int period)
      : warm_up_(warm_up),
        middle_(warm_up + (total - warm_up) / 2),
        total_(total),
        period_(period) {}

  void sample(int i) {
    if (i < warm_up_) return;
    std::size_t& peak = i < middle_ ? first_ : second_;
    peak = std::max(peak, ad_test::resident_bytes());
  }

  void expect_flat(const char* run) const {
    std::cerr << run << ": resident peak " << first_ / 1024 << " KiB in the first half, "
              << second_ / 1024 << " KiB in the second\n";
    // The allocator's slack; half a 10,000-frame soak keeping a kilobyte a frame exceeds it.
    constexpr std::size_t kSlack = 2u << 20;
    if (kResidentMemoryIsMeaningful && total_ - middle_ >= 2 * period_ &&
        middle_ - warm_up_ >= 2 * period_) {
      EXPECT_LE(second_, first_ + kSlack) << run;
    }
  }

 private:
  int warm_up_, middle_, total_, period_;
  std::size_t first_ = 0, second_ = 0;
};

int from_environment(const char* name, int fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::atoi(value) : fallback;
}

// Silences standard output for its lifetime: every run prints a sample pixel there.
class QuietStdout {
 public:
  QuietStdout() : saved_(std::cout.rdbuf(&null_)) {}
  ~QuietStdout() { std::cout.rdbuf(saved_); }

 private:
  struct NullBuffer : std::streambuf {
    int overflow(int c) override { return c; }
  } null_;
  std::streambuf* saved_;
};

// One kind of frame of the mix; `uniform` frames are one colour and answer false.
struct FrameKind {
  ImageFormat format;  // kImage: the cv::Mat entry point
  int width;
  int height;
  int rotation;
  bool uniform = false;
};
constexpr auto kImage = static_cast<ImageFormat>(-1);

const FrameKind kFrameKinds[] = {
    {ArtifactDetector::NV21, 1920, 1080, 90},
    {ArtifactDetector::NV21, 1280, 720, 0},
    {ArtifactDetector::NV21, 640, 480, 270},
    {ArtifactDetector::NV21, 322, 242, 180},
    {ArtifactDetector::NV21, 64, 48, 45},
    {ArtifactDetector::NV21, 18, 14, 0},
    {ArtifactDetector::BGR, 800, 600, 180},
    {ArtifactDetector::BGR, 17, 13, 90},
    {ArtifactDetector::RGBA, 1024, 768, 270},
    {ArtifactDetector::RGBA, 33, 31, 0},
    {static_cast<ImageFormat>(7), 640, 360, 90},
    {kImage, 1000, 750, 0},
    {kImage, 48, 64, 0},
    {ArtifactDetector::BGR, 640, 480, 0, true},
};

// The frame's bytes in its format, cut from a sample photograph.
std::vector<char> frame_bytes(const cv::Mat& photo, const FrameKind& kind) {
  cv::Mat bgr;
  cv::resize(photo, bgr, cv::Size(kind.width, kind.height), 0, 0, cv::INTER_AREA);
  if (kind.uniform) bgr.setTo(cv::Scalar(40, 90, 160));
  cv::Mat converted;
  switch (kind.format) {
    case ArtifactDetector::NV21: {
      cv::Mat i420;
      cv::cvtColor(bgr, i420, cv::COLOR_BGR2YUV_I420);
      const std::size_t luma = static_cast<std::size_t>(kind.width) * kind.height;
      std::vector<char> nv21(i420.datastart, i420.datastart + luma * 3 / 2);
      const uchar* u = i420.datastart + luma;
      const uchar* v = u + luma / 4;
      for (std::size_t k = 0; k < luma / 4; ++k) {
        nv21[luma + 2 * k] = static_cast<char>(v[k]);
        nv21[luma + 2 * k + 1] = static_cast<char>(u[k]);
      }
      return nv21;
    }
    case ArtifactDetector::RGBA:
      cv::cvtColor(bgr, converted, cv::COLOR_BGR2RGBA);
      break;
    default:
      converted = bgr;
      break;
  }
  return std::vector<char>(converted.datastart, converted.dataend);
}

class Soak : public ::testing::Test {
 protected:
  void SetUp() override {
    ad_test::write_model_info(models_, kModel);
    photo_ = cv::imread(std::string(AD_SAMPLES_DIR) + "/astronaut.jpg", cv::IMREAD_COLOR);
    ASSERT_FALSE(photo_.empty());
  }

  ad_test::TempDir models_;
  cv::Mat photo_;
  QuietStdout quiet_;
};

TEST_F(Soak, MixedFramesKeepMemoryFlat) {
  // Short of a soak by default: every kind of frame twice, the answers checked.
  const int frames =
      from_environment("AD_SOAK_FRAMES", 2 * static_cast<int>(std::size(kFrameKinds)));
  const int warm_up = std::max(2 * static_cast<int>(std::size(kFrameKinds)), frames / 10);
  std::vector<std::vector<char>> buffers;
  for (const FrameKind& kind : kFrameKinds) buffers.push_back(frame_bytes(photo_, kind));

  bool initialized = false;
  DetectorPtr detector = ad_test::initialized_detector(models_, &initialized);
  ASSERT_TRUE(initialized);

  ResidentPeaks resident(warm_up, frames, static_cast<int>(std::size(kFrameKinds)));
  int wrong = 0;
  for (int i = 0; i < frames; ++i) {
    const std::size_t k = static_cast<std::size_t>(i) % std::size(kFrameKinds);
    const FrameKind& kind = kFrameKinds[k];
    std::vector<char>& bytes = buffers[k];
    // A different frame every time: one byte moves (but not in a uniform frame).
    if (!kind.uniform) bytes[(static_cast<std::size_t>(i) * 7919) % bytes.size()] ^= 0x5a;

    bool ran;
    if (kind.format == kImage) {
      ran = detector->execute(cv::Mat(kind.height, kind.width, CV_8UC3, bytes.data()), 0);
    } else {
      ran = detector->execute(bytes.data(), kind.width, kind.height, kind.rotation, kind.format);
    }
    if (ran == kind.uniform || detector->get_total_artifact_count() > 11) ++wrong;
    resident.sample(i);
  }
  EXPECT_EQ(wrong, 0) << "runs that answered other than their frame calls for";
  resident.expect_flat((std::to_string(frames) + " frames").c_str());
}

TEST_F(Soak, CreateInitializeDestroyCyclesLeaveNothingBehind) {
  const int cycles = from_environment("AD_SOAK_CYCLES", 1000);
  constexpr int kWarmUp = 20;
  const cv::Mat frame = ad_test::textured(96, 128, 5);

  ResidentPeaks resident(kWarmUp, kWarmUp + cycles, 1);
  std::size_t descriptors = 0;
  int failures = 0;
  for (int i = 0; i < kWarmUp + cycles; ++i) {
    if (i == kWarmUp) descriptors = ad_test::open_descriptors();
    bool initialized = false;
    {
      DetectorPtr detector = ad_test::initialized_detector(models_, &initialized);
      failures += !initialized || !detector->execute(frame, 0);
    }
    resident.sample(i);
  }
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(ad_test::open_descriptors(), descriptors);
  EXPECT_FALSE(ad_test::FakeTarnlink::is_loaded(TARNLINK_REFERENCE_LIBRARY))
      << "the inference library is still loaded after the last detector went";
  resident.expect_flat((std::to_string(cycles) + " cycles").c_str());
}

}  // namespace

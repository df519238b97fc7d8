// A long run over the reference inference library: one detector through many frames of every
// format, size and rotation keeps its resident memory flat after warm-up. Detectors that come
// and go are the concurrency test's; the references they leave, the fault test's.
//
// ctest runs a short version; make soak runs AD_SOAK_FRAMES=10000 frames on the optimised build
// (see docs/reliability.md).
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "support/detector_fixtures.h"

namespace {

using namespace ad_test;

int from_environment(const char* name, int fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::atoi(value) : fallback;
}

std::size_t resident_bytes() {
  std::size_t pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Peak resident memory over the first and the second half of the steps after warm-up: a run
// that holds steady peaks alike in both, anything kept per step raises the second. Judged only
// when each half holds the run's repeating pattern of `period` steps twice. AddressSanitizer
// keeps freed memory in quarantine, so there its leak check at exit takes the bound's place.
void expect_flat(const std::vector<std::size_t>& resident, int warm_up, int period) {
  const int middle = warm_up + (static_cast<int>(resident.size()) - warm_up) / 2;
  if (middle - warm_up < 2 * period) return;
  const auto first = *std::max_element(resident.begin() + warm_up, resident.begin() + middle);
  const auto second = *std::max_element(resident.begin() + middle, resident.end());
  std::cerr << "resident peak " << first / 1024 << " KiB, then " << second / 1024 << " KiB\n";
#if !defined(__SANITIZE_ADDRESS__)
  // The allocator's slack; half a 10,000-frame soak keeping a kilobyte a frame exceeds it.
  EXPECT_LE(second, first + (2u << 20));
#endif
}

class Soak : public ::testing::Test {
 protected:
  void SetUp() override {
    write_model_info(models_, std::string(TARNLINK_TEST_MODELS) + "/tiny.onnx");
    std::cout.rdbuf(nullptr);  // every run prints a sample pixel there
  }
  void TearDown() override { std::cout.rdbuf(console_); }

  TempDir models_;
  std::streambuf* console_ = std::cout.rdbuf();
};

TEST_F(Soak, MixedFramesKeepMemoryFlat) {
  // Format (-1: the image entry point), width, height, rotation; the last frame is uniform.
  const std::array<int, 4> kinds[] = {{0, 1920, 1080, 90}, {0, 1280, 720, 0}, {0, 640, 480, 270},
                                      {0, 322, 242, 180},  {0, 64, 48, 45},   {0, 18, 14, 0},
                                      {1, 800, 600, 180},  {1, 17, 13, 90},   {2, 1024, 768, 270},
                                      {2, 33, 31, 0},      {7, 640, 360, 90}, {-1, 1000, 750, 0},
                                      {-1, 48, 64, 0},     {1, 640, 480, 0}};
  const int count = static_cast<int>(std::size(kinds));
  const int frames = from_environment("AD_SOAK_FRAMES", 2 * count);
  const cv::Mat photo = cv::imread(std::string(AD_SAMPLES_DIR) + "/astronaut.jpg");
  std::vector<cv::Mat> buffers;  // each frame's bytes in its format, cut from the photograph
  for (const auto& [format, width, height, rotation] : kinds) {
    cv::Mat bgr;
    cv::resize(photo, bgr, cv::Size(width, height), 0, 0, cv::INTER_AREA);
    if (buffers.size() + 1 == std::size(kinds)) bgr.setTo(cv::Scalar(40, 90, 160));
    const int code = format == 0 ? cv::COLOR_BGR2YUV_YV12 : format == 2 ? cv::COLOR_BGR2RGBA : -1;
    buffers.push_back(bgr);  // planar YUV has NV21's size; any such bytes will do
    if (code >= 0) cv::cvtColor(bgr, buffers.back(), code);
  }
  DetectorPtr detector(ArtifactDetector::Create());
  ASSERT_TRUE(initialize(*detector, models_));
  std::vector<std::size_t> resident;
  int wrong = 0;
  for (int i = 0; i < frames; ++i) {
    const auto& [format, width, height, rotation] = kinds[i % count];
    cv::Mat& bytes = buffers[i % count];
    const bool uniform = i % count == count - 1;
    // A different frame every time: one byte moves (but not in the uniform frame).
    const std::size_t size = bytes.total() * bytes.elemSize();
    if (!uniform) bytes.data[(static_cast<std::size_t>(i) * 7919) % size] ^= 0x5a;
    const bool ran = format < 0
                         ? detector->execute(bytes, 0)
                         : detector->execute(reinterpret_cast<char*>(bytes.data), width, height,
                                             rotation, ArtifactDetector::ImageFormat(format));
    wrong += ran == uniform || detector->get_total_artifact_count() > 11;
    resident.push_back(resident_bytes());
  }
  EXPECT_EQ(wrong, 0) << "runs that answered other than their frame calls for";
  expect_flat(resident, std::max(2 * count, frames / 10), count);
}

}  // namespace

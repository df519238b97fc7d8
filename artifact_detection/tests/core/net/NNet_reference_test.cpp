// The network session over the reference inference library, found by its bare name as on a
// device: what it reads back after a forward pass is OpenCV's own answer for the same
// prepared input, and sessions opened and closed many times leave neither the library nor
// memory behind.
#include <android/log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <memory>
#include <opencv2/dnn.hpp>
#include <streambuf>

#include "core/net/NNet.h"

namespace {

constexpr const char* kLibrary = "libTarnlink.camera.korvane.so";
const std::string kModel = std::string(TARNLINK_TEST_MODELS) + "/tiny.onnx";
constexpr int kCpu = 0, kFloat16 = 1;
constexpr int kWidth = 64, kHeight = 48, kOutputs = 12;  // of tiny.onnx

std::unique_ptr<NNet> open_net() {
  return std::make_unique<NNet>(kModel, "artifact_Detector", std::vector<std::string>{"Identity"},
                                std::vector<float>{128.0f, 128.0f, 128.0f}, kCpu, kFloat16);
}

// An image of the network's size, so that the forward pass runs it without resizing.
cv::Mat test_image() {
  cv::Mat image(kHeight, kWidth, CV_8UC3);
  cv::RNG(5).fill(image, cv::RNG::UNIFORM, 0, 256);
  return image;
}

// The same preparation as the forward pass (float, minus 128), run by OpenCV directly.
std::vector<float> opencv_output(const cv::Mat& image) {
  cv::Mat input;
  image.convertTo(input, CV_32F);
  cv::subtract(input, cv::Scalar(128.0, 128.0, 128.0), input);
  cv::dnn::Net net = cv::dnn::readNetFromONNX(kModel);
  net.setInput(cv::dnn::blobFromImage(input));
  const cv::Mat out = net.forward("Identity");
  return std::vector<float>(out.begin<float>(), out.end<float>());
}

bool library_loaded() {
  void* handle = dlopen(kLibrary, RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

long resident_kb() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Swallows the log lines and the forward pass's console lines of many runs.
class Quiet {
 public:
  Quiet() : out_(std::cout.rdbuf(&sink_)), err_(std::cerr.rdbuf(&sink_)) {
    __android_log_set_logger([](const __android_logger_data*, const char*) {});
  }
  ~Quiet() {
    __android_log_set_logger(__android_log_stderr_logger);
    std::cout.rdbuf(out_);
    std::cerr.rdbuf(err_);
  }

 private:
  struct NullBuffer : std::streambuf {
    int overflow(int c) override { return c; }
  } sink_;
  std::streambuf* out_;
  std::streambuf* err_;
};

TEST(NNetReference, ForwardPassGivesOpenCvsOutputForTheSameInput) {
  const std::unique_ptr<NNet> net = open_net();
  int height = 0, width = 0;
  net->get_target_dimen(height, width);
  ASSERT_EQ(width, kWidth);
  ASSERT_EQ(height, kHeight);

  const cv::Mat image = test_image();
  ASSERT_TRUE(net->forward_pass(image));
  int d0 = 0, d1 = 0, d2 = 0, d3 = 0, format = 0;
  const float* out = static_cast<const float*>(
      net->get_layer_output_with_format("Identity", d0, d1, d2, d3, format));
  ASSERT_NE(out, nullptr);
  // The library's 1, 12, 1, 1 in channels-first order, which the session turns channels-last.
  EXPECT_EQ(format, 1);
  EXPECT_EQ((std::vector<int>{d0, d1, d2, d3}), (std::vector<int>{1, 1, 1, kOutputs}));
  EXPECT_EQ(std::vector<float>(out, out + kOutputs), opencv_output(image));
}

TEST(NNetReference, ThousandSessionsLeaveNeitherTheLibraryNorMemoryBehind) {
  const cv::Mat image = test_image();
  Quiet quiet;
  bool loaded_while_open = true;
  auto cycle = [&] {
    const std::unique_ptr<NNet> net = open_net();
    loaded_while_open &= library_loaded() && net->forward_pass(image);
  };
  // Warm-up: allocator pools and OpenCV's worker threads reach their steady size.
  for (int i = 0; i < 20; ++i) cycle();
  const long before_kb = resident_kb();
  for (int i = 0; i < 1000; ++i) cycle();
  const long growth_kb = resident_kb() - before_kb;

  EXPECT_TRUE(loaded_while_open);
  EXPECT_FALSE(library_loaded());
#if !defined(__SANITIZE_ADDRESS__)
  // A session or a library mapping kept per cycle would add megabytes; AddressSanitizer's
  // quarantine holds freed memory on purpose, and its leak check covers that build.
  EXPECT_LT(growth_kb, 4 * 1024);
#else
  (void)growth_kb;
#endif
}

}  // namespace

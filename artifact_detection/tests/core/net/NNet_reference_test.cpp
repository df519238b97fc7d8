// The network session over the reference inference library, found by its bare name as on a
// device: it reads back OpenCV's own answer for the same prepared input, and sessions opened
// and closed many times leave neither the library nor memory behind.
#include <android/log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <memory>
#include <opencv2/dnn.hpp>

#include "core/net/NNet.h"

namespace {

const std::string kModel = TARNLINK_TEST_MODELS "/tiny.onnx";  // input 64 x 48, 12 outputs

std::unique_ptr<NNet> open_net() {  // on the CPU (0) in float16 (1)
  return std::make_unique<NNet>(kModel, "artifact_Detector", std::vector<std::string>{"Identity"},
                                std::vector<float>{128.0f, 128.0f, 128.0f}, 0, 1);
}

bool library_loaded() {
  void* handle = dlopen("libTarnlink.camera.korvane.so", RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

TEST(NNetReference, ForwardPassGivesOpenCvsOutputForTheSameInput) {
  const std::unique_ptr<NNet> net = open_net();
  int height = 0, width = 0, d0 = 0, d1 = 0, d2 = 0, d3 = 0, format = 0;
  net->get_target_dimen(height, width);
  ASSERT_EQ(std::pair(width, height), std::pair(64, 48));
  cv::Mat image(height, width, CV_8UC3);  // the network's size: the pass does not resize
  cv::randu(image, 0, 256);
  ASSERT_TRUE(net->forward_pass(image));
  const float* out = static_cast<const float*>(
      net->get_layer_output_with_format("Identity", d0, d1, d2, d3, format));
  ASSERT_NE(out, nullptr);
  // The library's 1, 12, 1, 1 in channels-first order, which the session turns channels-last.
  ASSERT_EQ(std::vector<int>({d0, d1, d2, d3, format}), std::vector<int>({1, 1, 1, 12, 1}));

  // The forward pass's preparation (float, minus 128), run by OpenCV directly.
  cv::Mat input;
  image.convertTo(input, CV_32F, 1.0, -128.0);
  cv::dnn::Net reference = cv::dnn::readNetFromONNX(kModel);
  reference.setInput(cv::dnn::blobFromImage(input));
  const cv::Mat expected = reference.forward("Identity");
  EXPECT_EQ(std::vector<float>(out, out + 12),
            std::vector<float>(expected.begin<float>(), expected.end<float>()));
}

TEST(NNetReference, ThousandSessionsLeaveNeitherTheLibraryNorMemoryBehind) {
  cv::Mat image(48, 64, CV_8UC3);
  cv::randu(image, 0, 256);
  bool loaded_while_open = true;
  auto cycle = [&] {
    const std::unique_ptr<NNet> net = open_net();
    loaded_while_open &= library_loaded() && net->forward_pass(image);
  };
  auto resident_kb = [] {
    long size = 0, pages = 0;
    std::ifstream("/proc/self/statm") >> size >> pages;
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
  };
  // Many runs' log and console lines go nowhere.
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  std::streambuf* console = std::cout.rdbuf(nullptr);
  for (int i = 0; i < 20; ++i) cycle();  // allocator pools and OpenCV's threads settle
  [[maybe_unused]] const long before_kb = resident_kb();
  for (int i = 0; i < 1000; ++i) cycle();
#ifndef __SANITIZE_ADDRESS__
  // A session or a library mapping kept per cycle would add megabytes; AddressSanitizer's
  // quarantine holds freed memory on purpose, and its leak check covers that build.
  EXPECT_LT(resident_kb() - before_kb, 4 * 1024);
#endif
  std::cout.rdbuf(console);
  __android_log_set_logger(__android_log_stderr_logger);
  EXPECT_TRUE(loaded_while_open);
  EXPECT_FALSE(library_loaded());
}

}  // namespace

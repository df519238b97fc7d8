// The network session over the reference inference library, found by its bare name as on a
// device: it reads back OpenCV's own answer for the same prepared input, in the layout the
// session promises, and sessions closed leave the library unloaded.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>
#include <opencv2/dnn.hpp>

#include "core/net/NNet.h"

namespace {

const std::string kModel = TARNLINK_TEST_MODELS "/tiny.onnx";  // input 64 x 48, 12 outputs

bool library_loaded() {
  void* handle = dlopen("libTarnlink.camera.korvane.so", RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

TEST(NNetReference, ForwardPassGivesOpenCvsOutputForTheSameInput) {
  cv::Mat image(48, 64, CV_8UC3);  // the network's size: the pass does not resize
  cv::randu(image, 0, 256);
  for (int i = 0; i < 3; ++i) {  // on the CPU (0) in float16 (1)
    NNet net(kModel, "artifact_Detector", {"Identity"}, {128.0f, 128.0f, 128.0f}, 0, 1);
    int height = 0, width = 0, d0 = 0, d1 = 0, d2 = 0, d3 = 0, format = 0;
    net.get_target_dimen(height, width);
    ASSERT_EQ(std::pair(width, height), std::pair(64, 48));
    ASSERT_TRUE(net.forward_pass(image));
    const float* out = static_cast<const float*>(
        net.get_layer_output_with_format("Identity", d0, d1, d2, d3, format));
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
    EXPECT_TRUE(library_loaded());
  }
  EXPECT_FALSE(library_loaded()) << "a closed session left the library loaded";
}

}  // namespace

#include "core/utils/image_utils.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace {

// The means and scales are checked, never applied: the result is the image as floats, and a
// count that differs from the channels is only reported.
TEST(NormalizeImage, ConvertsToFloatAndOnlyReportsAMismatch) {
  const std::string
      counts = "image_utils.cpp:10: normalize_image: n_channels: ",
      sizes = "image_utils.cpp:13: Means size is: 1, Scale size is: ",
      mismatch =
          "image_utils.cpp:12: Image not normalized | image channels doesnt match means & scale";
  // clang-format off
  const std::tuple<int, size_t, size_t, std::vector<std::string>> cases[] = {
      {CV_8UC3, 3, 3, {counts + "3 means.size: 3 scales.size: 3"}},
      {CV_8UC3, 1, 3, {counts + "3 means.size: 1 scales.size: 3", mismatch, sizes + "3"}},
      {CV_8UC1, 1, 0, {counts + "1 means.size: 1 scales.size: 0", mismatch, sizes + "0"}}};
  // clang-format on
  for (const auto& [type, means, scales, lines] : cases) {
    cv::Mat image(3, 5, type), expected;
    cv::randu(image, 0, 256);
    image.convertTo(expected, CV_32FC(image.channels()));
    ad_test::LogCapture capture;
    const cv::Mat out = artifact_detector::normalize_image(image, std::vector<float>(means, 100.0f),
                                                           std::vector<float>(scales, 0.5f));
    EXPECT_EQ(out.type(), expected.type());
    EXPECT_EQ(cv::norm(out, expected, cv::NORM_INF), 0.0);
    std::vector<std::string> located;
    for (const std::string& text : capture.texts("TQR_ARTIFACT_DET"))
      located.push_back(ad_test::located(text));
    EXPECT_EQ(located, lines);
  }
}

}  // namespace

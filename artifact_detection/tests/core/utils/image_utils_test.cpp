#include "core/utils/image_utils.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace {

struct NormalizeCase {
  const char* name;
  int type;
  size_t means, scales;
  std::vector<std::string> lines;
};
void PrintTo(const NormalizeCase& c, std::ostream* os) { *os << c.name; }

class NormalizeImage : public ::testing::TestWithParam<NormalizeCase> {};

// The means and scales are checked, never applied: the result is the image as floats.
TEST_P(NormalizeImage, ConvertsToFloatAndOnlyReportsAMismatch) {
  const NormalizeCase& c = GetParam();
  cv::Mat image(3, 5, c.type);
  cv::randu(image, 0, 256);
  ad_test::LogCapture capture;
  const cv::Mat out = artifact_detector::normalize_image(image, std::vector<float>(c.means, 100.0f),
                                                         std::vector<float>(c.scales, 0.5f));
  EXPECT_EQ(out.type(), CV_32FC(image.channels()));
  cv::Mat expected;
  image.convertTo(expected, out.type());
  EXPECT_EQ(cv::norm(out, expected, cv::NORM_INF), 0.0);
  std::vector<std::string> located;
  for (std::string text : capture.texts("TQR_ARTIFACT_DET")) {
    located.push_back(text.substr(text.find("] ") + 2, text.size() - text.find("] ") - 3));
  }
  EXPECT_EQ(located, c.lines);
}

const char* const kMismatch =
    "image_utils.cpp:12: Image not normalized | image channels doesnt match means & scale";

INSTANTIATE_TEST_SUITE_P(
    Counts, NormalizeImage,
    ::testing::Values(
        NormalizeCase{"Matching",
                      CV_8UC3,
                      3,
                      3,
                      {"image_utils.cpp:10: normalize_image: n_channels: 3 means.size: 3 "
                       "scales.size: 3"}},
        NormalizeCase{"MeansShort",
                      CV_8UC3,
                      1,
                      3,
                      {"image_utils.cpp:10: normalize_image: n_channels: 3 means.size: 1 "
                       "scales.size: 3",
                       kMismatch, "image_utils.cpp:13: Means size is: 1, Scale size is: 3"}},
        NormalizeCase{"ScalesMissing",
                      CV_8UC1,
                      1,
                      0,
                      {"image_utils.cpp:10: normalize_image: n_channels: 1 means.size: 1 "
                       "scales.size: 0",
                       kMismatch, "image_utils.cpp:13: Means size is: 1, Scale size is: 0"}}),
    [](const ::testing::TestParamInfo<NormalizeCase>& i) { return i.param.name; });

}  // namespace

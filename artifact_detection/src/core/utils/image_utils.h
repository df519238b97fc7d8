// Image helpers of the inference runtime.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "artifact_detector.h"

namespace artifact_detector {

// `image` as 32-bit floats with its channel count. The means and scales are only checked
// against the channel count (a mismatch is logged); they are not applied.
AD_EXPORT cv::Mat normalize_image(cv::Mat image, std::vector<float> means,
                                  std::vector<float> scales);

}  // namespace artifact_detector

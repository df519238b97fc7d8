#include "core/utils/image_utils.h"

#include "core/utils/logging.h"

namespace artifact_detector {

cv::Mat normalize_image(cv::Mat image, std::vector<float> means, std::vector<float> scales) {
  cv::Mat converted;
  image.convertTo(converted, CV_32FC(image.channels()), 1.0, 0.0);
  AD_LOG_INFO_AT(10) << "normalize_image: n_channels: " << converted.channels()
                     << " means.size: " << means.size() << " scales.size: " << scales.size();
  const size_t channels = static_cast<size_t>(converted.channels());
  if (channels == means.size() && channels == scales.size()) return converted;
  AD_LOG_INFO_AT(12) << "Image not normalized | image channels doesnt match means & scale";
  AD_LOG_INFO_AT(13) << "Means size is: " << means.size() << ", Scale size is: " << scales.size();
  return converted;
}

}  // namespace artifact_detector

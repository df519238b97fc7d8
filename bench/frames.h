// Camera-like frames for the benchmarks: a sample photograph scaled to the frame size with
// fixed-seed sensor noise, in the layouts a camera hands over.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace ad_bench {

// B,G,R photograph of `size`, the same pixels on every call.
cv::Mat photo_frame(cv::Size size);

// The frame as NV21: full luma plane, then V,U pairs for each 2x2 block.
std::vector<unsigned char> to_nv21(const cv::Mat& bgr);

// The frame as R,G,B,A with opaque alpha.
std::vector<unsigned char> to_rgba(const cv::Mat& bgr);

// "WxH" for benchmark names and table headings.
std::string size_name(cv::Size size);

}  // namespace ad_bench

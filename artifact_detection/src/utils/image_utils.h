// Image input: caller buffers to upright BGR images, the NV21 fast paths, image checks.
//
// Input contract
//   - Raw buffers hold `width` x `height` pixels of the unrotated frame in tightly packed
//     rows: NV21 (luma plane, then height/2 rows of V,U pairs), RGBA (R,G,B,A) or BGR
//     (B,G,R; also every ImageFormat value that is not named). The buffer's length is the
//     caller's guarantee. The NV21 routines need even sizes.
//   - Rotations are degrees clockwise: 90, 180 and 270 rotate, every other value leaves the
//     image as it is (no normalisation of negative or larger angles).
//
// Ownership
//   - get_bgr_mat_from_buffer: for BGR the result is a view of the caller's buffer (valid
//     while the buffer lives, writes go through); NV21 and RGBA results own their pixels.
//   - rotate_image: a rotating value gives a new image; any other value gives back the
//     argument itself, same pixel memory.
//   - The tqr_arm_neon composites return images that own their pixels and only read the
//     input buffer.
#pragma once

#include <opencv2/core.hpp>
#include <string>

#include "artifact_detector.h"
#include "utils/image_utils_neon.h"

// The caller's buffer as an 8-bit, three-channel BGR image of the unrotated frame.
AD_EXPORT cv::Mat get_bgr_mat_from_buffer(char* buffer, int width, int height,
                                          artifact_detector::ArtifactDetector::ImageFormat format);

// `image` turned clockwise by `rotation` degrees (90, 180, 270), else `image` itself.
AD_EXPORT cv::Mat rotate_image(cv::Mat image, int rotation);

// True when every pixel's hue lies within 10 of the truncated mean hue of the BGR image.
AD_EXPORT bool checkSimilarColor(const cv::Mat& image);

// Replaces `buffer` with the first `cols` bytes of every row of `mask`, row by row.
AD_EXPORT void fill_mask_buffer(std::string& buffer, cv::Mat mask);

namespace tqr_arm_neon {

// NV21 frame to an upright BGR image.
AD_EXPORT cv::Mat nv21_convert_rotate(char* nv21, int width, int height, int rotation);

// NV21 frame downscaled as NV21 first (cheap, nearest-neighbour luma), then converted and
// rotated. Sizes are those of the unrotated frame.
AD_EXPORT cv::Mat nv21_resize_convert_rotate(char* nv21, int srcWidth, int srcHeight, int dstWidth,
                                             int dstHeight, int rotation);

// NV21 frame converted at full size, resized bilinearly when the size changes, then rotated.
AD_EXPORT cv::Mat nv21_convert_resize_rotate(char* nv21, int width, int height, int dstWidth,
                                             int dstHeight, int rotation);

}  // namespace tqr_arm_neon

namespace image_utils {

// The caller's bytes viewed without copying as the image the format describes: NV21 as one
// 8-bit plane of height + height/2 rows, RGBA as 8UC4, everything else as 8UC3.
cv::Mat view_buffer(char* buffer, int width, int height,
                    artifact_detector::ArtifactDetector::ImageFormat format);

// `frame` (8-bit B,G,R) turned upright by `rotation` (as rotate_image turns it) and shrunk to
// `size` with the very bytes of cv::resize's INTER_AREA, without making the upright
// full-size image. False, leaving `out` alone, when cv::resize would not reduce by area for
// these sizes; the caller then turns and resizes the long way.
bool shrink_upright(const cv::Mat& frame, int rotation, cv::Size size, cv::Mat& out);

// The same for an NV21 frame of even width and height, converted on the way with the bytes
// of nv21_convert_rotate.
bool shrink_upright_nv21(const char* nv21, int width, int height, int rotation, cv::Size size,
                         cv::Mat& out);

// The caller's frame upright at `size`, the network's input size: in one pass where the area
// kernels can, else converted (get_bgr_mat_from_buffer, or nv21_convert_rotate for NV21),
// turned and resized with cv::resize's INTER_AREA. A `size` without pixels leaves the upright
// frame at its own size; a frame without pixels comes back empty, for the pipeline to refuse.
cv::Mat upright_at_size(char* buffer, int width, int height, int rotation,
                        artifact_detector::ArtifactDetector::ImageFormat format, cv::Size size);

// The same for an image that is already upright.
cv::Mat upright_at_size(cv::Mat upright, cv::Size size);

// Columns x rows of a `width` x `height` frame once rotate_image has turned it.
cv::Size upright_size(int width, int height, int rotation);

// Whether the NV21 routines can take a frame of this size: both sides even. They check
// nothing themselves, and an odd side reads and writes past the buffers.
bool nv21_size_supported(int width, int height);

}  // namespace image_utils

// artifact_detector::Detector: camera frames in, a status and typed results out.
//
//   auto detector = artifact_detector::Detector::open("/opt/ad/share/artifact_detector/models");
//   if (!detector->ready()) { log(detector->error()); return; }
//   Result r = detector->detect(Frame::yuv_420_888(y, y_stride, u, v, uv_stride, 2, w, h, 90));
//   if (r.analysed()) for (const Artifact& a : r.artifacts) use(a.name, a.probability);
//
// Frames
//   A Frame only describes the caller's memory; nothing is copied until detect() runs, and
//   detect() never writes to it or keeps it. Width and height are those of the frame as
//   stored (before rotation); rotation is clockwise, 0, 90, 180 or 270. A row stride of 0
//   means tightly packed rows. YUV frames need even, positive sizes and say their range.
//   The converted frame has the very bytes the ArtifactDetector class gives for the same
//   picture as tightly packed full-range NV21 (video range is expanded to full range first).
//
// Results
//   detect() answers in one call with a Result the caller owns. Its status says whether the
//   frame was analysed; anything else leaves the artifacts empty and the probabilities 0.
//   Accepted artifacts follow the same thresholds and blur rule as the ArtifactDetector class.
//
// Threads and ownership
//   One Detector may be shared between threads: detect() and the threshold calls are
//   serialised inside it, and each Result is a value, so no read can race a run. Distinct
//   detectors run in parallel. The caller owns the Detector (unique_ptr); destroying it while
//   another thread is inside detect() is the caller's error.
//
// Errors
//   detect() never throws: bad input and failed runs (memory exhaustion included) answer with
//   a status and a reason. Only open() and the threshold calls can throw, std::bad_alloc.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "artifact_detector_export.h"
#include "artifact_detector_version.h"

namespace artifact_detector {

// Number of artifact classes; class ids run from 1 to kClassCount.
constexpr int kClassCount = 11;

// "Reflection" for 1 ... "OtherBlur" for 11; "" for any other id. Static storage.
AD_EXPORT const char* class_name(int id);

// The running library's version text, as artifact_detector_version().
AD_EXPORT const char* version();

enum class PixelFormat : int32_t {
  kNv21 = 0,       // planes[0] Y; planes[1] interleaved V,U (half height)
  kNv12 = 1,       // planes[0] Y; planes[1] interleaved U,V (half height)
  kYuv420888 = 2,  // planes[0] Y, planes[1] U, planes[2] V; U and V share row and pixel stride
  kRgba = 3,       // planes[0] R,G,B,A bytes (alpha ignored)
  kBgr = 4,        // planes[0] B,G,R bytes
  kRgb = 5,        // planes[0] R,G,B bytes
};

// How YUV samples map to light. Full: Y and chroma use 0..255 (JPEG, most camera HALs' NV21).
// Video: Y 16..235, chroma 16..240 (what many encoders and decoders give).
enum class YuvRange : int32_t { kFull = 0, kVideo = 1 };

struct Plane {
  const uint8_t* data = nullptr;
  int32_t row_stride = 0;    // bytes from one row to the next; 0: tightly packed
  int32_t pixel_stride = 0;  // bytes from one sample to the next (YUV_420_888 chroma: 1 or 2)
};

struct Frame {
  PixelFormat format = PixelFormat::kNv21;
  int32_t width = 0;
  int32_t height = 0;
  int32_t rotation = 0;
  YuvRange range = YuvRange::kFull;
  Plane planes[3];

  // Tightly packed NV21 (Y plane, then V,U rows), as the ArtifactDetector class takes it.
  static Frame nv21(const uint8_t* data, int32_t width, int32_t height, int32_t rotation,
                    YuvRange range = YuvRange::kFull) {
    return semi_planar(PixelFormat::kNv21, data, width,
                       data == nullptr ? nullptr : data + int64_t(width) * height, width, width,
                       height, rotation, range);
  }
  // NV21 or NV12 with separate luma and chroma planes and their row strides.
  static Frame semi_planar(PixelFormat format, const uint8_t* y, int32_t y_row_stride,
                           const uint8_t* chroma, int32_t chroma_row_stride, int32_t width,
                           int32_t height, int32_t rotation, YuvRange range = YuvRange::kFull) {
    Frame f;
    f.format = format;
    f.width = width;
    f.height = height;
    f.rotation = rotation;
    f.range = range;
    f.planes[0] = {y, y_row_stride, 1};
    f.planes[1] = {chroma, chroma_row_stride, 2};
    return f;
  }
  // Android's YUV_420_888: three planes as android.media.Image gives them.
  static Frame yuv_420_888(const uint8_t* y, int32_t y_row_stride, const uint8_t* u,
                           const uint8_t* v, int32_t uv_row_stride, int32_t uv_pixel_stride,
                           int32_t width, int32_t height, int32_t rotation,
                           YuvRange range = YuvRange::kFull) {
    Frame f;
    f.format = PixelFormat::kYuv420888;
    f.width = width;
    f.height = height;
    f.rotation = rotation;
    f.range = range;
    f.planes[0] = {y, y_row_stride, 1};
    f.planes[1] = {u, uv_row_stride, uv_pixel_stride};
    f.planes[2] = {v, uv_row_stride, uv_pixel_stride};
    return f;
  }
  // RGBA, BGR or RGB pixels, rows `row_stride` bytes apart (0: tightly packed).
  static Frame packed(PixelFormat format, const uint8_t* data, int32_t row_stride, int32_t width,
                      int32_t height, int32_t rotation) {
    Frame f;
    f.format = format;
    f.width = width;
    f.height = height;
    f.rotation = rotation;
    f.planes[0] = {data, row_stride, format == PixelFormat::kRgba ? 4 : 3};
    return f;
  }
  // An 8-bit image: three channels in `order` (kBgr or kRgb) or four (RGBA), any row step.
  static Frame image(const cv::Mat& mat, int32_t rotation = 0,
                     PixelFormat order = PixelFormat::kBgr) {
    const PixelFormat format = mat.channels() == 4 ? PixelFormat::kRgba : order;
    return packed(format, mat.data, static_cast<int32_t>(mat.step[0]), mat.cols, mat.rows,
                  rotation);
  }
};

enum class Status : int32_t {
  kAnalysed = 0,      // the network ran; artifacts and probabilities are this frame's
  kUniformFrame = 1,  // one colour (lens cap, wall, grey card): not analysed
  kNotReady = 2,      // the model did not open; see Detector::error()
  kInvalidInput = 3,  // the frame description is wrong; see Result::reason
  kFailed = 4,        // the inference library failed on a valid frame; see Result::reason
};

// "analysed", "uniform frame", "not ready", "invalid input", "failed". Static storage.
AD_EXPORT const char* status_name(Status status);

struct Artifact {
  int32_t id = 0;  // 1 .. kClassCount
  std::string name;
  float probability = 0.0f;
};

struct Result {
  Status status = Status::kNotReady;
  std::string reason;               // empty when analysed
  std::vector<Artifact> artifacts;  // accepted classes, ascending id, after the blur rule
  std::array<float, kClassCount> probabilities{};  // class id n at index n - 1

  bool analysed() const { return status == Status::kAnalysed; }
};

struct Options {
  // Quiet: nothing on standard output, and every log line of this detector goes to the
  // Android log at `log_priority` (ANDROID_LOG_SILENT, 8, drops them all). Not quiet: the
  // lines and priorities of the ArtifactDetector class.
  bool quiet = true;
  int32_t log_priority = 3;  // ANDROID_LOG_DEBUG
};

class AD_EXPORT Detector {
 public:
  // Opens the model under `models_dir`, the folder that holds "artifact_detector/" (a
  // trailing '/' is optional; empty: the device's model folders). Never null; a detector
  // that could not open answers ready() false with the reason in error(), and every
  // detect() with Status::kNotReady.
  static std::unique_ptr<Detector> open(const std::string& models_dir,
                                        const Options& options = Options());
  ~Detector();
  Detector(const Detector&) = delete;
  Detector& operator=(const Detector&) = delete;

  // The model opened and the network's input size is known.
  bool ready() const;
  // Why the detector is not ready; empty when it is.
  const std::string& error() const;
  // The network's input size (columns x rows); 0 x 0 when not ready.
  cv::Size input_size() const;

  // Runs one frame.
  Result detect(const Frame& frame);
  // Runs an 8-bit BGR image (RGBA when it has four channels), turned by `rotation` first.
  Result detect(const cv::Mat& image, int32_t rotation = 0);

  // Acceptance thresholds by class id. They start as the ArtifactDetector class's: the
  // built-in table, replaced as a whole by the device's threshold file when that has entries.
  // A class without a threshold is never accepted.
  std::map<int, float> thresholds() const;
  void set_threshold(int id, float threshold);
  void set_thresholds(std::map<int, float> thresholds);  // replaces the whole table
  // The built-in table.
  static std::map<int, float> default_thresholds();
  // A threshold file's entries, read by the rules of the device's threshold file; empty
  // when it is missing or has none.
  static std::map<int, float> read_threshold_file(const std::string& path);

  class Impl;

 private:
  explicit Detector(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace artifact_detector

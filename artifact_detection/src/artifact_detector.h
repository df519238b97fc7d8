// Artifact detector: reports which image artifacts one camera frame shows.
//
// Input contract
//   - Raw buffers: NV21, BGR (3 bytes B,G,R) or RGBA (4 bytes R,G,B,A), rows tightly packed,
//     `width` x `height` pixels of the frame as the sensor delivered it, plus a clockwise
//     rotation in degrees (90, 180, 270 rotate; any other value means upright).
//     NV21 needs even width and height. The buffer length is the caller's guarantee.
//     An ImageFormat value that is not named below is read as BGR.
//   - Images: an 8-bit, three-channel BGR cv::Mat that is already upright. The caller's
//     pixels are never modified.
//
// Ownership
//   - The caller owns a detector from Create() to Destroy().
//   - Artifact_Info::tag points into the detector; it stays valid until the next successful
//     execute() or Destroy(). Copy the text to keep it longer.
//
// Threads
//   - initialize(), execute() and get_artifact_info() each take their own lock; Destroy()
//     waits for all of them. Reading results while another thread runs execute() on the
//     same detector is not protected: keep the two apart. Distinct detectors share nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <opencv2/core.hpp>

#if defined(_WIN32)
#define AD_EXPORT __declspec(dllexport)
#else
#define AD_EXPORT __attribute__((visibility("default")))
#endif

namespace artifact_detector {

class ArtifactDetectorImpl;

// One accepted artifact inside the engine.
struct ArtifactInfo {
  float score;
  std::string tag;
  int32_t tag_id;
};

class AD_EXPORT ArtifactDetector {
 public:
  // Passed to initialize() and otherwise ignored; the bindings use 0 for "the detector
  // stored in the managed object".
  enum Mode : int32_t { DEFAULT = 0 };

  enum ImageFormat : int32_t { NV21 = 0, BGR = 1, RGBA = 2 };

  // Public result record; `tag` points at text owned by the detector.
  struct Artifact_Info {
    int32_t tag_id;
    const char* tag;
    float score;
  };

  // A new, uninitialised detector. Throws std::bad_alloc; never returns null.
  static ArtifactDetector* Create();
  // Destroys the detector after any running call on it has finished. Null is a no-op.
  static void Destroy(ArtifactDetector* detector);

  // Reads the model under `models_path` (a directory ending in "/" that holds model
  // directories) and opens it. True when the detector is ready.
  bool initialize(Mode mode, char* models_path);

  // Runs the network on one raw frame. `extra` is never read. False when not initialised,
  // for a uniform-colour frame or when the network did not run; the previous results stay.
  bool execute(char* buffer, int width, int height, int image_rotation, ImageFormat image_format,
               char* extra);
  bool execute(char* buffer, int width, int height, int image_rotation, ImageFormat image_format);
  // Runs the network on an upright BGR image; `reserved` is never read.
  bool execute(cv::Mat image, int reserved);

  // Number of artifacts accepted by the last successful run (0 before the first).
  int get_total_artifact_count();
  // Writes get_total_artifact_count() records into `out`. Always true.
  bool get_artifact_info(Artifact_Info* out);

  ArtifactDetector(const ArtifactDetector&) = delete;
  ArtifactDetector& operator=(const ArtifactDetector&) = delete;

 private:
  ArtifactDetector();
  ~ArtifactDetector();

  std::unique_ptr<ArtifactDetectorImpl> impl_;
};

}  // namespace artifact_detector

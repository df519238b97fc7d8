// Artifact detector: reports which image artifacts one camera frame shows.
//
// Input contract
//   - Raw buffers: NV21, BGR (3 bytes B,G,R) or RGBA (4 bytes R,G,B,A), rows tightly packed,
//     `width` x `height` pixels of the frame as the sensor delivered it, plus a clockwise
//     rotation in degrees (90, 180, 270 rotate; any other value means upright).
//     NV21 needs even width and height: execute() refuses an odd side with false and a log
//     line. The buffer length, and for NV21 a non-null buffer, is the caller's guarantee.
//     An ImageFormat value that is not named below is read as BGR.
//   - Images: an 8-bit, three-channel BGR cv::Mat that is already upright. The caller's
//     pixels are never modified.
//
// Ownership
//   - The caller owns a detector from Create() to Destroy().
//   - Artifact_Info::tag points into the detector; it stays valid until the next successful
//     execute() or Destroy(). Copy the text to keep it longer.
//
// Errors
//   - execute() lets exceptions of the image library and the inference session pass: a width
//     or height of 0 or below, or a null BGR or RGBA buffer, throws cv::Exception. The C
//     functions and the Java native methods catch them (false or null and a log line; a Java
//     IllegalArgumentException or RuntimeException with the message).
//
// Threads
//   - initialize(), execute() and get_artifact_info() each take their own lock; Destroy()
//     waits for all of them. A run that overlaps initialize() finishes on the network it
//     started with; the next run uses the new one. Reading results while another thread runs
//     execute() on the same detector is not protected: keep the two apart. Distinct detectors
//     share nothing.
//
// Kept as shipped (callers rely on them; work around them as said)
//   - initialize() answers true when the configuration was read even if the model file did not
//     open (missing, unreadable, refused by the inference library): every execute() then
//     answers false and logs "TQ Debug: artifact_detector Forward Pass Failed". Treat a false
//     from the first run on a textured frame as a failed setup.
//   - The model's type comes from the text after the FIRST '.' of the whole model path, so a
//     directory with a dot in its name (an Android app's data folder such as
//     /data/data/com.example.app/) makes the type unknown and the model does not open. Keep
//     the model file in a path whose only dot is the file's extension.
//   - A grey frame counts as one colour (the check looks at hue only): execute() answers false
//     with "returning from same color image detection" for grey or black-and-white scenes.
//     That false is no error; there is simply no verdict for such frames.
//   - The configuration readers read whatever is at their path: a FIFO there blocks
//     initialize() until a writer appears, and /dev/zero grows memory until it runs out. Keep
//     the models directory to regular files the app owns.
//   - Java: every initializeJNI() call makes a new JNI global reference for "main_obj" and
//     never deletes the previous one. Initialise each managed object once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <opencv2/core.hpp>

#include "artifact_detector_export.h"

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

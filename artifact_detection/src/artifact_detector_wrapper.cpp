#include "artifact_detector_wrapper.h"

#include <exception>
#include <string>

#include "core/utils/failure.h"
#include "core/utils/logging.h"

using artifact_detector::ArtifactDetector;

namespace {

// Line numbers of the wrapper's log lines; log readers key on them.
enum LogLine : int {
  kCreateFailedLine = 15,
  kInitializeLine = 26,
  kExecuteWithImageNameLine = 32,
  kExecuteLine = 37,
  kCountLine = 43,
  kArtifactInfoLine = 48,
};

ArtifactDetector* detector_of(ArtifactDetectorWrapper* handle) {
  return reinterpret_cast<ArtifactDetector*>(handle);
}

// Callers have always passed the format in the upper half of a 64-bit word.
ArtifactDetector::ImageFormat format_of(int64_t format_word) {
  return static_cast<ArtifactDetector::ImageFormat>(
      static_cast<int32_t>(static_cast<uint64_t>(format_word) >> 32));
}

// `call`'s answer, or `failed` with one line when it throws: no exception leaves a C function.
template <typename T, typename Call>
T answer_or(T failed, const char* function, Call&& call) noexcept {
  try {
    return call();
  } catch (...) {
    const artifact_detector::Failure failure = artifact_detector::current_failure();
    AD_LOGV("TQ Debug: %s c wrapper failed: exception: %s", function, failure.message);
    return failed;
  }
}

}  // namespace

extern "C" {

ArtifactDetectorWrapper* ArtifactDetectorWrapper_create(void) {
  try {
    return reinterpret_cast<ArtifactDetectorWrapper*>(ArtifactDetector::Create());
  } catch (...) {
    AD_LOGV_AT(kCreateFailedLine,
               "TQ Debug: ArtifactDetectorWrapper_create: can't create ArtifactDetectorWrapper:  "
               "exception: %s",
               artifact_detector::current_failure().message);
    return nullptr;
  }
}

void ArtifactDetectorWrapper_destroy(ArtifactDetectorWrapper* handle) {
  ArtifactDetector::Destroy(detector_of(handle));
}

bool ArtifactDetectorWrapper_Initialize(ArtifactDetectorWrapper* handle, int mode,
                                        const char* model_path) {
  return answer_or(false, "ArtifactDetectorWrapper_Initialize", [&] {
    const std::string path(model_path);
    AD_LOGV_AT(kInitializeLine,
               "TQ Debug: ArtifactDetectorWrapper_initialize model path c wrapper=[%s]",
               path.c_str());
    // The engine never writes through the path; its signature predates const.
    return detector_of(handle)->initialize(static_cast<ArtifactDetector::Mode>(mode),
                                           const_cast<char*>(model_path));
  });
}

bool ArtifactDetectorWrapper_execute_with_image_name(ArtifactDetectorWrapper* handle, char* buffer,
                                                     int width, int height, int rotation,
                                                     int64_t format_word, char* image_name) {
  AD_LOGV_AT(kExecuteWithImageNameLine, "TQ Debug: ArtifactDetectorWrapper_execute c wrapper");
  return answer_or(false, "ArtifactDetectorWrapper_execute_with_image_name", [&] {
    return detector_of(handle)->execute(buffer, width, height, rotation, format_of(format_word),
                                        image_name);
  });
}

bool ArtifactDetectorWrapper_execute(ArtifactDetectorWrapper* handle, char* buffer, int width,
                                     int height, int rotation, int64_t format_word) {
  AD_LOGV_AT(kExecuteLine, "TQ Debug: ArtifactDetectorWrapper_execute c wrapper");
  return answer_or(false, "ArtifactDetectorWrapper_execute", [&] {
    return detector_of(handle)->execute(buffer, width, height, rotation, format_of(format_word));
  });
}

bool ArtifactDetectorWrapper_get_artifact_info(ArtifactDetectorWrapper* handle,
                                               Artifact_Info* info) {
  AD_LOGV_AT(kArtifactInfoLine, "TQ Debug: ArtifactDetectorWrapper_get_box_info c wrapper");
  return answer_or(false, "ArtifactDetectorWrapper_get_artifact_info",
                   [&] { return detector_of(handle)->get_artifact_info(info); });
}

}  // extern "C"

bool ArtifactDetectorWrapper_get_total_artifact_count(ArtifactDetectorWrapper* handle) {
  AD_LOGV_AT(kCountLine, "TQ Debug: ArtifactDetectorWrapper_get_total_artifact_count c wrapper");
  return answer_or(false, "ArtifactDetectorWrapper_get_total_artifact_count",
                   [&] { return detector_of(handle)->get_total_artifact_count() != 0; });
}

#include "artifact_detector.h"

#include "artifact_detector_impl.h"

namespace artifact_detector {

ArtifactDetector::ArtifactDetector() : impl_(new ArtifactDetectorImpl()) {}

ArtifactDetector::~ArtifactDetector() = default;

ArtifactDetector* ArtifactDetector::Create() { return new ArtifactDetector(); }

void ArtifactDetector::Destroy(ArtifactDetector* detector) { delete detector; }

bool ArtifactDetector::initialize(Mode mode, char* models_path) {
  return impl_->initialize(mode, models_path);
}

bool ArtifactDetector::execute(char* buffer, int width, int height, int image_rotation,
                               ImageFormat image_format, char* extra) {
  return impl_->execute(buffer, width, height, image_rotation, image_format, extra);
}

bool ArtifactDetector::execute(char* buffer, int width, int height, int image_rotation,
                               ImageFormat image_format) {
  return impl_->execute(buffer, width, height, image_rotation, image_format, nullptr);
}

bool ArtifactDetector::execute(cv::Mat image, int reserved) {
  return impl_->execute(std::move(image), reserved);
}

int ArtifactDetector::get_total_artifact_count() { return impl_->get_total_artifact_count(); }

bool ArtifactDetector::get_artifact_info(Artifact_Info* out) {
  return impl_->get_artifact_info(out);
}

}  // namespace artifact_detector

// Smoke run of the public interface until a default model ships with the library.
#include <cstdio>

#include "artifact_detector.h"

int main() {
  using artifact_detector::ArtifactDetector;
  ArtifactDetector* detector = ArtifactDetector::Create();
  cv::Mat frame(480, 640, CV_8UC3, cv::Scalar(40, 90, 160));
  const bool ran = detector->execute(frame, 0);
  std::printf("detector created; execute before initialize -> %s; %d artifacts\n",
              ran ? "true" : "false", detector->get_total_artifact_count());
  ArtifactDetector::Destroy(detector);
  return ran ? 1 : 0;
}

// A program that knows the detector only through its installed package.
#include <artifact_detector/artifact_detector.h>

#include <cstdio>

int main() {
  using artifact_detector::ArtifactDetector;
  ArtifactDetector* detector = ArtifactDetector::Create();
  cv::Mat frame(48, 64, CV_8UC3, cv::Scalar(0, 0, 255));
  const bool ran = detector->execute(frame, 0);  // not initialised: must refuse
  const int count = detector->get_total_artifact_count();
  ArtifactDetector::Destroy(detector);
  if (ran || count != 0) return 1;
  std::puts("consumer ok");
  return 0;
}

// A program that knows the detector only through its installed package: both classes open the
// installed model and analyse a frame (that they agree is the library's own test). Argument:
// the installed models folder.
#include <artifact_detector/artifact_detector.h>
#include <artifact_detector/detector.h>

#include <cstdio>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  using artifact_detector::ArtifactDetector;
  if (argc != 2) return 2;
  const int w = 320, h = 240;
  std::vector<uint8_t> nv21(w * h * 3 / 2);
  for (size_t i = 0; i < nv21.size(); ++i) nv21[i] = static_cast<uint8_t>(i * 37 % 253);
  std::string models = std::string(argv[1]) + "/";
  ArtifactDetector* fixed = ArtifactDetector::Create();
  const bool ran = fixed->initialize(ArtifactDetector::DEFAULT, &models[0]) &&
                   fixed->execute(reinterpret_cast<char*>(nv21.data()), w, h, 90,
                                  ArtifactDetector::NV21);
  ArtifactDetector::Destroy(fixed);
  const artifact_detector::Result r =
      artifact_detector::Detector::open(argv[1])->detect(
          artifact_detector::Frame::nv21(nv21.data(), w, h, 90));
  if (!ran || !r.analysed()) return 1;
  std::printf("consumer ok, version %s\n", artifact_detector::version());
  return 0;
}

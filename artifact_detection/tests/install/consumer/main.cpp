// A program that knows the detector only through its installed package: a YUV_420_888 frame
// with padded rows and pixel stride 2 gives, at each rotation, the results of the same frame
// as tight NV21 through the ArtifactDetector class. Argument: the installed models folder.
#include <artifact_detector/artifact_detector.h>
#include <artifact_detector/detector.h>

#include <cstdio>
#include <vector>

int main(int argc, char** argv) {
  using artifact_detector::ArtifactDetector;
  using artifact_detector::Detector;
  using artifact_detector::Frame;
  if (argc != 2) return 2;
  const int w = 320, h = 240, stride = w + 32;
  std::vector<uint8_t> nv21(w * h * 3 / 2), y(stride * h), vu(stride * h / 2);
  for (int r = 0; r < h; ++r) {
    for (int c = 0; c < w; ++c) {
      nv21[r * w + c] = y[r * stride + c] = static_cast<uint8_t>((r * 7 + c * c / 5) % 251);
      if (r < h / 2) nv21[w * h + r * w + c] = vu[r * stride + c] = static_cast<uint8_t>(r + c);
    }
  }
  std::string models = std::string(argv[1]) + "/";
  ArtifactDetector* fixed = ArtifactDetector::Create();
  auto detector = Detector::open(argv[1]);
  bool same = fixed->initialize(ArtifactDetector::DEFAULT, &models[0]) && detector->ready();
  for (int rotation : {0, 90, 180, 270}) {
    const bool ran = fixed->execute(reinterpret_cast<char*>(nv21.data()), w, h, rotation,
                                    ArtifactDetector::NV21);
    std::vector<ArtifactDetector::Artifact_Info> expected(fixed->get_total_artifact_count());
    fixed->get_artifact_info(expected.data());
    const artifact_detector::Result r = detector->detect(
        Frame::yuv_420_888(y.data(), stride, vu.data() + 1, vu.data(), stride, 2, w, h, rotation));
    same = same && ran && r.analysed() && r.artifacts.size() == expected.size();
    for (size_t i = 0; same && i < expected.size(); ++i) {
      same = r.artifacts[i].id == expected[i].tag_id &&
             r.artifacts[i].probability == expected[i].score;
    }
    std::printf("rotation %d: %s, %zu artifacts\n", rotation,
                artifact_detector::status_name(r.status), r.artifacts.size());
  }
  ArtifactDetector::Destroy(fixed);
  if (!same) return 1;
  std::printf("consumer ok, version %s\n", artifact_detector::version());
  return 0;
}

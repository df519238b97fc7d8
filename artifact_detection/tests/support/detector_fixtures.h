// Pieces for tests that drive whole detectors: owning pointers, the reported records, a
// models directory naming a model, textured frames.
#pragma once

#include <cstdint>
#include <memory>
#include <opencv2/core.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "artifact_detector.h"
#include "support/temp_dir.h"

namespace ad_test {

using artifact_detector::ArtifactDetector;

struct DetectorDeleter {
  void operator()(ArtifactDetector* d) const { ArtifactDetector::Destroy(d); }
};
using DetectorPtr = std::unique_ptr<ArtifactDetector, DetectorDeleter>;

// One reported artifact, compared by value (the tag pointer is the engine's).
struct Record {
  int id;
  float score;
  bool operator==(const Record& o) const { return id == o.id && score == o.score; }
};
inline std::ostream& operator<<(std::ostream& os, const Record& r) {
  return os << "{" << r.id << ", " << r.score << "}";
}

// The records of the detector's last successful run, read the documented way.
inline std::vector<Record> reported(ArtifactDetector& detector) {
  std::vector<ArtifactDetector::Artifact_Info> infos(detector.get_total_artifact_count());
  detector.get_artifact_info(infos.data());
  std::vector<Record> out;
  for (const auto& info : infos) out.push_back({info.tag_id, info.score});
  return out;
}

// <models>/artifact_detector/artifact_detector_cnn.info naming `model`.
inline void write_model_info(const TempDir& models, const std::string& model,
                             const std::string& type = "cpu",
                             const std::string& precision = "float32") {
  models.write_file("artifact_detector/artifact_detector_cnn.info",
                    "{\n\"model_type\": \"" + type + "\",\n\"precision\": \"" + precision +
                        "\",\n\"model_path\": \"" + model + "\"\n}\n");
}

inline bool initialize(ArtifactDetector& detector, const TempDir& models) {
  std::string path = models.base();
  return detector.initialize(ArtifactDetector::DEFAULT, path.data());
}

// Uniform random pixels: never a single colour, deterministic per seed.
inline cv::Mat textured(int rows, int cols, std::uint64_t seed, int type = CV_8UC3) {
  cv::Mat image(rows, cols, type);
  cv::RNG(seed).fill(image, cv::RNG::UNIFORM, 0, 256);
  return image;
}

}  // namespace ad_test

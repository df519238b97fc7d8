// Pieces for tests that drive whole detectors: owning pointers, the reported records, a
// models directory whose info file names a model, textured frames, and the process's own
// resources (resident memory, open descriptors) for leak checks; FakeTarnlink::is_loaded
// tells whether a library is still loaded.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <opencv2/core.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "artifact_detector.h"
#include "support/temp_dir.h"

namespace ad_test {

struct DetectorDeleter {
  void operator()(artifact_detector::ArtifactDetector* d) const {
    artifact_detector::ArtifactDetector::Destroy(d);
  }
};
using DetectorPtr = std::unique_ptr<artifact_detector::ArtifactDetector, DetectorDeleter>;

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
inline std::vector<Record> reported(artifact_detector::ArtifactDetector& detector) {
  std::vector<artifact_detector::ArtifactDetector::Artifact_Info> infos(
      detector.get_total_artifact_count());
  detector.get_artifact_info(infos.data());
  std::vector<Record> out;
  for (const auto& info : infos) out.push_back({info.tag_id, info.score});
  return out;
}

// Writes <models>/artifact_detector/artifact_detector_cnn.info for a cpu/float32 model at
// `model_path`, replacing any earlier one.
inline void write_model_info(const TempDir& models, const std::string& model_path) {
  models.write_file("artifact_detector/artifact_detector_cnn.info",
                    "{\n  \"model_type\": \"cpu\",\n  \"precision\": \"float32\",\n"
                    "  \"model_path\": \"" +
                        model_path + "\"\n}\n");
}

// A created detector initialised from `models`; `ok` tells whether initialize said true.
inline DetectorPtr initialized_detector(const TempDir& models, bool* ok = nullptr) {
  DetectorPtr detector(artifact_detector::ArtifactDetector::Create());
  std::string path = models.base();
  const bool initialized =
      detector->initialize(artifact_detector::ArtifactDetector::DEFAULT, path.data());
  if (ok != nullptr) *ok = initialized;
  return detector;
}

// Uniform random pixels: never a single colour, deterministic per seed.
inline cv::Mat textured(int rows, int cols, std::uint64_t seed, int type = CV_8UC3) {
  cv::Mat image(rows, cols, type);
  cv::RNG rng(seed);
  rng.fill(image, cv::RNG::UNIFORM, 0, 256);
  return image;
}

// Resident memory of this process in bytes.
inline std::size_t resident_bytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Open file descriptors of this process.
inline std::size_t open_descriptors() {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

}  // namespace ad_test

// A photo folder through artifact-detect's path with one job: each repetition reads and
// analyses one 4000x3000 JPEG file. Beside it, the floor that reduced decoding sets (reading
// and decoding the same files at the same scale), a full decode, and the path as it was
// before large JPEGs were decoded reduced (full decode, then the detector).
#include <benchmark/benchmark.h>

#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "bench.h"
#include "detector.h"
#include "frames.h"
#include "image_file.h"
#include "support/temp_dir.h"

namespace ad_bench {
namespace {

using artifact_detect::DecodeLimits;

constexpr int kImages = 40;   // repetitions; each is one file
constexpr int kQuality = 92;  // a phone camera's JPEG
const cv::Size kPhoto(4000, 3000);

// Four files of the sample photograph, mirrored four ways so that no two are alike.
class PhotoFolder {
 public:
  PhotoFolder() {
    const cv::Mat photo = photo_frame(kPhoto);
    for (int flip : {2, 0, 1, -1}) {
      cv::Mat image = photo;
      if (flip != 2) cv::flip(photo, image, flip);
      files_.push_back(dir_.base() + "photo" + std::to_string(files_.size()) + ".jpg");
      cv::imwrite(files_.back(), image, {cv::IMWRITE_JPEG_QUALITY, kQuality});
    }
  }
  const std::vector<std::string>& files() const { return files_; }

 private:
  ad_test::TempDir dir_;
  std::vector<std::string> files_;
};

enum class Path { kDetect, kFloor, kFull, kBefore };

int g_min_side = 0;

void folder(benchmark::State& state, Path path) {
  static const PhotoFolder photos;
  cv::setNumThreads(1);
  static const std::unique_ptr<artifact_detector::Detector> detector =
      artifact_detector::Detector::open(models_dir());
  DecodeLimits limits;
  limits.min_side = path == Path::kBefore || path == Path::kFull ? 0 : g_min_side;
  std::size_t next = 0;
  for (auto _ : state) {
    const std::string& file = photos.files()[next++ % photos.files().size()];
    const artifact_detect::FileRead read = artifact_detect::read_regular_file(
        file, artifact_detect::image_file_limit(limits.max_pixels), false);
    if (path == Path::kFloor || path == Path::kFull) {
      benchmark::DoNotOptimize(cv::imdecode(read.bytes, decode_flags(kPhoto, limits)));
      continue;
    }
    const artifact_detect::Decoded decoded = artifact_detect::decode_image(read.bytes, limits);
    if (decoded.image.empty() || !detector->detect(decoded.image).analysed()) {
      state.SkipWithError("the file did not run");
    }
  }
}

}  // namespace

const std::vector<std::pair<std::string, std::string>>& folder_cases() {
  static const std::vector<std::pair<std::string, std::string>> cases{
      {"detect", "artifact-detect path"},
      {"floor", "reduced-decode floor"},
      {"full", "full decode"},
      {"before", "full decode + execute (before)"}};
  return cases;
}

void register_folder_benchmarks(int network_side) {
  g_min_side = 2 * network_side;
  const Path paths[] = {Path::kDetect, Path::kFloor, Path::kFull, Path::kBefore};
  for (std::size_t i = 0; i < folder_cases().size(); ++i) {
    benchmark::RegisterBenchmark(("folder/" + folder_cases()[i].first).c_str(), folder, paths[i])
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(1)
        ->Repetitions(kImages)
        ->ReportAggregatesOnly(true);
  }
}

}  // namespace ad_bench

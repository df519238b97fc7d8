// artifact-detect: runs the detector over image files, folders and raw camera buffers.
#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core/utils/logger.hpp>

#include "artifact_detector.h"
#include "folder_walk.h"
#include "image_file.h"
#include "options.h"
#include "report.h"

using artifact_detector::ArtifactDetector;
using namespace artifact_detect;

namespace {

constexpr std::size_t kProgressMinFiles = 20;
// The network's input side; a reduced JPEG keeps at least twice it on each side.
constexpr int kNetworkInputSide = 224;

struct DetectorDeleter {
  void operator()(ArtifactDetector* detector) const { ArtifactDetector::Destroy(detector); }
};
using DetectorPtr = std::unique_ptr<ArtifactDetector, DetectorDeleter>;

DetectorPtr make_detector(const std::string& models, std::string& error) {
  DetectorPtr detector(ArtifactDetector::Create());
  std::vector<char> path(models.begin(), models.end());
  path.push_back('\0');
  if (!detector->initialize(ArtifactDetector::DEFAULT, path.data())) {
    error = "the detector could not be initialised from " + models;
    return nullptr;
  }
  // initialize() succeeds even when the model did not open; a probe frame tells.
  cv::Mat probe(240, 320, CV_8UC3);
  cv::randu(probe, 0, 256);
  if (!detector->execute(probe, 0)) {
    error = "the model under " + models + " could not be run (see --verbose)";
    return nullptr;
  }
  return detector;
}

// Runs one file; false when the detector declined the frame (a uniform colour). Throws with
// the reason when the file cannot be had.
bool run_file(ArtifactDetector& detector, const std::string& path, const Options& options) {
  if (options.raw) {
    const std::uint64_t expected = static_cast<std::uint64_t>(options.raw_width) *
                                   options.raw_height * options.raw->bytes_per_two_pixels / 2;
    FileRead file = read_regular_file(path, expected, true);
    if (!file.error.empty()) throw std::runtime_error(file.error);
    return detector.execute(reinterpret_cast<char*>(file.bytes.data()), options.raw_width,
                            options.raw_height, options.rotation, options.raw->format);
  }
  FileRead file = read_regular_file(path, image_file_limit(options.max_pixels), false);
  if (!file.error.empty()) throw std::runtime_error(file.error);
  DecodeLimits limits;
  limits.max_pixels = options.max_pixels;
  limits.min_side = options.exact_decode ? 0 : 2 * kNetworkInputSide;
  Decoded decoded = decode_image(file.bytes, limits);
  file.bytes = Bytes();
  if (!decoded.error.empty()) throw std::runtime_error(decoded.error);
  return detector.execute(decoded.image, 0);
}

Result run_one(ArtifactDetector& detector, const Entry& entry, const Options& options) {
  Result result;
  result.path = entry.path;
  result.error = entry.error;
  if (!result.error.empty()) return result;
  bool ran = false;
  try {
    ran = run_file(detector, entry.path, options);
  } catch (const cv::Exception& e) {
    result.error = std::string("detector failed: ") + e.what();
    return result;
  } catch (const std::exception& e) {
    result.error = e.what();
    return result;
  }
  result.ok = true;
  // A false run (a uniform-colour frame) has no artifacts; the previous frame's list is stale.
  if (ran) {
    std::vector<ArtifactDetector::Artifact_Info> infos(detector.get_total_artifact_count());
    detector.get_artifact_info(infos.data());
    for (const auto& info : infos) result.artifacts.push_back({info.tag, info.tag_id, info.score});
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse_options(argc, argv);
  __android_log_set_minimum_priority(options.verbose ? ANDROID_LOG_VERBOSE : ANDROID_LOG_SILENT);
  cv::utils::logging::setLogLevel(options.verbose ? cv::utils::logging::LOG_LEVEL_INFO
                                                  : cv::utils::logging::LOG_LEVEL_ERROR);

  // The library prints diagnostics on standard output; keep ours a clean stream of results
  // by moving the library's to standard error (--verbose) or to nowhere.
  std::fflush(stdout);
  Output out(fdopen(dup(STDOUT_FILENO), "w"), "standard output");
  const int sink = options.verbose ? dup(STDERR_FILENO) : open("/dev/null", O_WRONLY);
  if (sink < 0 || dup2(sink, STDOUT_FILENO) < 0) {
    std::perror("artifact-detect");
    return 1;
  }
  close(sink);

  const std::vector<Entry> entries = collect_entries(options.inputs);
  const std::size_t jobs =
      std::min<std::size_t>(options.jobs, std::max<std::size_t>(entries.size(), 1));

  std::vector<DetectorPtr> detectors;
  for (std::size_t i = 0; i < jobs; ++i) {
    std::string error;
    detectors.push_back(make_detector(options.models, error));
    if (!detectors.back()) {
      std::fprintf(stderr, "artifact-detect: %s\n", error.c_str());
      return 1;
    }
  }

  Printer printer(out, options.jsonl, entries.size(),
                  entries.size() >= kProgressMinFiles && isatty(STDERR_FILENO));
  std::atomic<std::size_t> next{0};
  auto work = [&](ArtifactDetector& detector) {
    for (std::size_t i = next++; i < entries.size() && !printer.lost(); i = next++) {
      printer.put(i, run_one(detector, entries[i], options));
    }
  };
  std::vector<std::thread> threads;
  for (std::size_t i = 1; i < jobs; ++i) threads.emplace_back(work, std::ref(*detectors[i]));
  work(*detectors[0]);
  for (std::thread& t : threads) t.join();

  printer.summary();
  out.close();
  if (!out.ok()) {
    std::fprintf(stderr, "artifact-detect: results lost: %s\n", out.error().c_str());
    return 1;
  }
  return printer.failed() == 0 ? 0 : 1;
}

// artifact-detect: runs the detector over image files, folders and raw camera buffers.
#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <opencv2/core/utils/logger.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "detector.h"
#include "folder_walk.h"
#include "image_file.h"
#include "options.h"
#include "report.h"
#include "report_files.h"

using artifact_detector::Detector;
using artifact_detector::Frame;
using namespace artifact_detect;

namespace {

constexpr std::size_t kProgressMinFiles = 20;
constexpr int kThumbnailSide = 240;

std::unique_ptr<Detector> make_detector(const Options& options, std::string& error) {
  artifact_detector::Options quiet;
  quiet.quiet = !options.verbose;
  quiet.log_priority = options.verbose ? ANDROID_LOG_INFO : ANDROID_LOG_SILENT;
  std::unique_ptr<Detector> detector = Detector::open(options.models, quiet);
  if (!detector->ready()) {
    error = "the model under " + options.models + " could not be opened: " + detector->error();
    return nullptr;
  }
  if (options.threshold_table) detector->set_thresholds(*options.threshold_table);
  for (const auto& [id, threshold] : options.thresholds) detector->set_threshold(id, threshold);
  return detector;
}

// Runs one file; throws with the reason when the file cannot be had.
artifact_detector::Result run_file(Detector& detector, const std::string& path,
                                   const Options& options, std::string& thumbnail) {
  if (options.raw) {
    const std::uint64_t expected = static_cast<std::uint64_t>(options.raw_width) *
                                   options.raw_height * options.raw->bytes_per_two_pixels / 2;
    const FileRead file = read_regular_file(path, expected, true);
    if (!file.error.empty()) throw std::runtime_error(file.error);
    const Frame frame =
        options.raw->format == artifact_detector::PixelFormat::kNv21
            ? Frame::nv21(file.bytes.data(), options.raw_width, options.raw_height,
                          options.rotation)
            : Frame::packed(options.raw->format, file.bytes.data(), 0, options.raw_width,
                            options.raw_height, options.rotation);
    return detector.detect(frame);
  }
  DecodeLimits limits;
  limits.max_pixels = options.max_pixels;
  const cv::Size input = detector.input_size();
  limits.min_side = options.exact_decode ? 0 : 2 * std::max(input.width, input.height);
  const Decoded decoded = read_image_file(path, limits);
  if (!decoded.error.empty()) throw std::runtime_error(decoded.error);
  if (!options.html.empty()) thumbnail = thumbnail_url(decoded.image, kThumbnailSide);
  return detector.detect(decoded.image);
}

Result run_one(Detector& detector, const Entry& entry, const Options& options) {
  Result result;
  result.path = entry.path;
  result.error = entry.error;
  if (!result.error.empty()) return result;
  artifact_detector::Result run;
  try {
    run = run_file(detector, entry.path, options, result.thumbnail);
  } catch (const std::exception& e) {
    result.error = e.what();
    return result;
  }
  // A uniform frame is a verdict (nothing to report), not a failure.
  using artifact_detector::Status;
  result.ok = run.status == Status::kAnalysed || run.status == Status::kUniformFrame;
  result.error = run.reason;
  result.scored = run.analysed();
  for (int i = 0; i < kClasses; ++i) result.scores[i] = run.probabilities[i];
  for (const auto& a : run.artifacts) result.artifacts.push_back({a.name, a.id, a.probability});
  return result;
}

// Redirects the process's standard output (where libraries print diagnostics) to standard
// error (--verbose) or nowhere, and answers a stream on the original for the results.
FILE* results_stream(bool verbose) {
  std::fflush(stdout);
  FILE* out = fdopen(dup(STDOUT_FILENO), "w");
  const int sink = verbose ? dup(STDERR_FILENO) : open("/dev/null", O_WRONLY);
  if (out == nullptr || sink < 0 || dup2(sink, STDOUT_FILENO) < 0) {
    std::perror("artifact-detect");
    std::exit(1);
  }
  close(sink);
  return out;
}

std::optional<Output> report_file(const std::string& path) {
  if (path.empty()) return std::nullopt;
  FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) {
    std::perror(("artifact-detect: " + path).c_str());
    std::exit(1);
  }
  return std::optional<Output>(std::in_place, file, path);
}

// Every stream the results go to, and the writers over them.
class Reports {
 public:
  Reports(const Options& options, FILE* results)
      : out_(results, "standard output"),
        csv_file_(report_file(options.csv)),
        html_file_(report_file(options.html)) {
    for (int i = 0; i < kClasses; ++i) names_[i] = artifact_detector::class_name(i + 1);
    sinks_.out = &out_;
    sinks_.jsonl = options.jsonl;
    sinks_.all_scores = options.all_scores ? &names_ : nullptr;
    if (csv_file_) {
      sinks_.csv = &csv_.emplace(*csv_file_, names_);
      sinks_.files.push_back(&*csv_file_);
    }
    if (html_file_) {
      sinks_.html = &html_.emplace(*html_file_, names_);
      sinks_.files.push_back(&*html_file_);
    }
  }
  const Sinks& sinks() const { return sinks_; }

  // Closes every stream; false, with a line for each, when results were lost.
  bool close() {
    bool ok = true;
    for (Output* stream :
         {&out_, csv_file_ ? &*csv_file_ : nullptr, html_file_ ? &*html_file_ : nullptr}) {
      if (stream == nullptr) continue;
      stream->close();
      if (!stream->ok()) {
        std::fprintf(stderr, "artifact-detect: results lost: %s\n", stream->error().c_str());
        ok = false;
      }
    }
    return ok;
  }

 private:
  ClassNames names_;
  Output out_;
  std::optional<Output> csv_file_, html_file_;
  std::optional<CsvReport> csv_;
  std::optional<HtmlReport> html_;
  Sinks sinks_;
};

std::vector<std::unique_ptr<Detector>> make_detectors(const Options& options, std::size_t count) {
  std::vector<std::unique_ptr<Detector>> detectors;
  for (std::size_t i = 0; i < count; ++i) {
    std::string error;
    detectors.push_back(make_detector(options, error));
    if (!detectors.back()) {
      std::fprintf(stderr, "artifact-detect: %s\n", error.c_str());
      std::exit(1);
    }
  }
  return detectors;
}

// One thread per detector takes the next entry until all are done or output is lost.
void run_all(const std::vector<std::unique_ptr<Detector>>& detectors,
             const std::vector<Entry>& entries, const Options& options, Printer& printer) {
  std::atomic<std::size_t> next{0};
  auto work = [&](Detector& detector) {
    for (std::size_t i = next++; i < entries.size() && !printer.lost(); i = next++) {
      printer.put(i, run_one(detector, entries[i], options));
    }
  };
  std::vector<std::thread> threads;
  for (std::size_t i = 1; i < detectors.size(); ++i) {
    threads.emplace_back(work, std::ref(*detectors[i]));
  }
  work(*detectors[0]);
  for (std::thread& t : threads) t.join();
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse_options(argc, argv);
  __android_log_set_minimum_priority(options.verbose ? ANDROID_LOG_VERBOSE : ANDROID_LOG_SILENT);
  cv::utils::logging::setLogLevel(options.verbose ? cv::utils::logging::LOG_LEVEL_INFO
                                                  : cv::utils::logging::LOG_LEVEL_ERROR);
  FILE* results = results_stream(options.verbose);

  const std::vector<Entry> entries = collect_entries(options.inputs);
  const auto detectors = make_detectors(
      options, std::min<std::size_t>(options.jobs, std::max<std::size_t>(entries.size(), 1)));
  Reports reports(options, results);
  Printer printer(reports.sinks(), entries.size(),
                  entries.size() >= kProgressMinFiles && isatty(STDERR_FILENO));
  run_all(detectors, entries, options, printer);
  printer.summary();
  const bool written = reports.close();
  return written && printer.failed() == 0 ? 0 : 1;
}

// artifact-detect: runs the detector over image files, folders and raw camera buffers.
#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/imgcodecs.hpp>

#include "artifact_detector.h"

namespace fs = std::filesystem;
using artifact_detector::ArtifactDetector;

namespace {

constexpr std::size_t kProgressMinFiles = 20;

struct RawFormat {
  ArtifactDetector::ImageFormat format;
  int bytes_per_two_pixels;
};

struct Options {
  std::vector<std::string> inputs;
  std::string models;
  bool jsonl = false;
  bool verbose = false;
  int jobs = 1;
  std::optional<RawFormat> raw;
  int raw_width = 0;
  int raw_height = 0;
  int rotation = 0;
};

struct Artifact {
  std::string tag;
  int tag_id;
  float score;
};

struct Result {
  std::string path;
  bool ok = false;
  std::string error;
  std::vector<Artifact> artifacts;
};

const char kUsage[] =
    "usage: artifact-detect [options] PATH...\n"
    "\n"
    "Reports the image artifacts that each image shows. PATH is an image file (any format\n"
    "OpenCV reads) or a folder, searched recursively.\n"
    "\n"
    "options:\n"
    "  --jsonl             one JSON object per image on standard output\n"
    "  --models DIR        models directory (default: the installed models, or the build\n"
    "                      tree's when run from it)\n"
    "  --raw nv21|rgba|bgr treat every file as a raw camera buffer of this layout\n"
    "  --size WxH          raw buffer size in pixels, before rotation\n"
    "  --rotation DEG      clockwise rotation of raw buffers: 0, 90, 180 or 270\n"
    "  --jobs N            run N detectors in parallel threads (default 1)\n"
    "  --verbose           show the library's log lines on standard error\n"
    "  -h, --help          show this text\n";

[[noreturn]] void usage_error(const std::string& message) {
  std::fprintf(stderr, "artifact-detect: %s\n\n%s", message.c_str(), kUsage);
  std::exit(2);
}

int parse_int(const std::string& text, const char* what) {
  try {
    std::size_t used = 0;
    const int value = std::stoi(text, &used);
    if (used == text.size()) return value;
  } catch (const std::exception&) {
  }
  usage_error(std::string("bad ") + what + ": " + text);
}

std::string default_models_dir() {
  // Installed: <prefix>/bin/artifact-detect next to <prefix>/share/artifact_detector/models.
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    const fs::path installed = exe.parent_path().parent_path() / "share/artifact_detector/models";
    if (fs::is_directory(installed)) return installed.string();
  }
  return AD_BUILD_MODELS_DIR;
}

Options parse_options(int argc, char** argv) {
  Options options;
  bool have_size = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](const char* name) -> std::string {
      if (i + 1 >= argc) usage_error(std::string(name) + " needs a value");
      return argv[++i];
    };
    if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (arg == "--jsonl") {
      options.jsonl = true;
    } else if (arg == "--verbose") {
      options.verbose = true;
    } else if (arg == "--models") {
      options.models = value("--models");
    } else if (arg == "--jobs") {
      options.jobs = parse_int(value("--jobs"), "--jobs");
      if (options.jobs < 1) usage_error("--jobs must be at least 1");
    } else if (arg == "--raw") {
      const std::string kind = value("--raw");
      if (kind == "nv21") {
        options.raw = RawFormat{ArtifactDetector::NV21, 3};
      } else if (kind == "rgba") {
        options.raw = RawFormat{ArtifactDetector::RGBA, 8};
      } else if (kind == "bgr") {
        options.raw = RawFormat{ArtifactDetector::BGR, 6};
      } else {
        usage_error("--raw takes nv21, rgba or bgr");
      }
    } else if (arg == "--size") {
      const std::string size = value("--size");
      const auto x = size.find('x');
      if (x == std::string::npos) usage_error("--size takes WxH");
      options.raw_width = parse_int(size.substr(0, x), "width");
      options.raw_height = parse_int(size.substr(x + 1), "height");
      if (options.raw_width < 1 || options.raw_height < 1) usage_error("--size must be positive");
      have_size = true;
    } else if (arg == "--rotation") {
      options.rotation = parse_int(value("--rotation"), "--rotation");
      if (options.rotation != 0 && options.rotation != 90 && options.rotation != 180 &&
          options.rotation != 270) {
        usage_error("--rotation takes 0, 90, 180 or 270");
      }
    } else if (arg.size() > 1 && arg[0] == '-') {
      usage_error("unknown option " + arg);
    } else {
      options.inputs.push_back(arg);
    }
  }
  if (options.inputs.empty()) usage_error("no PATH given");
  if (options.raw && !have_size) usage_error("--raw needs --size WxH");
  if (options.raw && options.raw->format == ArtifactDetector::NV21 &&
      (options.raw_width % 2 != 0 || options.raw_height % 2 != 0)) {
    usage_error("NV21 buffers need an even width and height");
  }
  if (options.models.empty()) options.models = default_models_dir();
  if (options.models.back() != '/') options.models += '/';
  return options;
}

// Files in command-line order, folders expanded recursively in sorted order. Inside folders
// only files OpenCV can decode are taken; a file named on the command line is always tried.
std::vector<std::string> collect_files(const std::vector<std::string>& inputs) {
  std::vector<std::string> files;
  for (const std::string& input : inputs) {
    std::error_code ec;
    if (fs::is_directory(input, ec)) {
      std::vector<std::string> found;
      for (auto it = fs::recursive_directory_iterator(input, ec);
           !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_regular_file(ec) && cv::haveImageReader(it->path().string())) {
          found.push_back(it->path().string());
        }
      }
      std::sort(found.begin(), found.end());
      files.insert(files.end(), found.begin(), found.end());
    } else {
      files.push_back(input);  // a missing file is reported as a failed image
    }
  }
  return files;
}

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

Result run_one(ArtifactDetector& detector, const std::string& path, const Options& options) {
  Result result;
  result.path = path;
  bool ran = false;
  try {
    if (options.raw) {
      std::ifstream in(path, std::ios::binary);
      if (!in) {
        result.error = "cannot open file";
        return result;
      }
      std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      const std::size_t expected = static_cast<std::size_t>(options.raw_width) *
                                   options.raw_height * options.raw->bytes_per_two_pixels / 2;
      if (bytes.size() != expected) {
        result.error = "raw buffer holds " + std::to_string(bytes.size()) + " bytes, expected " +
                       std::to_string(expected);
        return result;
      }
      ran = detector.execute(bytes.data(), options.raw_width, options.raw_height,
                             options.rotation, options.raw->format);
    } else {
      cv::Mat image = cv::imread(path, cv::IMREAD_COLOR);
      if (image.empty()) {
        result.error = "not an image OpenCV can read";
        return result;
      }
      ran = detector.execute(image, 0);
    }
  } catch (const std::exception& e) {
    result.error = std::string("detector failed: ") + e.what();
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

std::string to_jsonl(const Result& result) {
  nlohmann::ordered_json line;
  line["image"] = result.path;
  line["ok"] = result.ok;
  if (result.ok) {
    line["artifacts"] = nlohmann::ordered_json::array();
    for (const Artifact& a : result.artifacts) {
      line["artifacts"].push_back(
          {{"score", static_cast<double>(a.score)}, {"tag", a.tag}, {"tag_id", a.tag_id}});
    }
  } else {
    line["error"] = result.error;
  }
  return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string to_table(const Result& result) {
  std::string text = result.path + "\n";
  char row[128];
  if (!result.ok) {
    text += "  error: " + result.error + "\n";
  } else if (result.artifacts.empty()) {
    text += "  no artifacts\n";
  } else {
    for (const Artifact& a : result.artifacts) {
      std::snprintf(row, sizeof(row), "  %-11s (id %2d)  %.3f\n", a.tag.c_str(), a.tag_id,
                    static_cast<double>(a.score));
      text += row;
    }
  }
  return text;
}

// Prints results in input order as they complete, with an optional progress bar.
class Printer {
 public:
  Printer(FILE* out, const Options& options, std::size_t total)
      : out_(out), options_(options), pending_(total), progress_(total >= kProgressMinFiles &&
                                                                   isatty(STDERR_FILENO)) {}

  void put(std::size_t index, Result result) {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_[index] = std::move(result);
    while (next_ < pending_.size() && pending_[next_]) {
      const Result& r = *pending_[next_];
      const std::string text = options_.jsonl ? to_jsonl(r) + "\n" : to_table(r);
      if (progress_) std::fputs("\r\033[K", stderr);
      std::fputs(text.c_str(), out_);
      std::fflush(out_);
      if (!r.ok) ++failed_;
      for (const Artifact& a : r.artifacts) ++counts_[{a.tag_id, a.tag}];
      pending_[next_].reset();
      ++next_;
      if (progress_) draw_progress();
    }
  }

  void summary() const {
    FILE* to = options_.jsonl ? stderr : out_;
    if (progress_) std::fputs("\r\033[K", stderr);
    std::fprintf(to, "%zu images, %zu failed\n", next_, failed_);
    for (const auto& [key, count] : counts_) {
      std::fprintf(to, "  %-11s %zu\n", key.second.c_str(), count);
    }
  }

  std::size_t failed() const { return failed_; }

 private:
  void draw_progress() const {
    constexpr int kWidth = 40;
    const int filled = static_cast<int>(kWidth * next_ / pending_.size());
    std::fprintf(stderr, "[%s%s] %zu/%zu", std::string(filled, '#').c_str(),
                 std::string(kWidth - filled, '.').c_str(), next_, pending_.size());
    std::fflush(stderr);
  }

  FILE* out_;
  const Options& options_;
  std::mutex mutex_;
  std::vector<std::optional<Result>> pending_;
  std::size_t next_ = 0;
  std::size_t failed_ = 0;
  std::map<std::pair<int, std::string>, std::size_t> counts_;
  bool progress_;
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse_options(argc, argv);
  __android_log_set_minimum_priority(options.verbose ? ANDROID_LOG_VERBOSE : ANDROID_LOG_SILENT);
  cv::utils::logging::setLogLevel(options.verbose ? cv::utils::logging::LOG_LEVEL_INFO
                                                  : cv::utils::logging::LOG_LEVEL_ERROR);

  // The library prints diagnostics on standard output; keep ours a clean stream of results
  // by moving the library's to standard error (--verbose) or to nowhere.
  FILE* out = fdopen(dup(STDOUT_FILENO), "w");
  std::fflush(stdout);
  const int sink = options.verbose ? dup(STDERR_FILENO) : open("/dev/null", O_WRONLY);
  if (out == nullptr || sink < 0 || dup2(sink, STDOUT_FILENO) < 0) {
    std::perror("artifact-detect");
    return 1;
  }
  close(sink);

  const std::vector<std::string> files = collect_files(options.inputs);
  const std::size_t jobs = std::min<std::size_t>(options.jobs, std::max<std::size_t>(files.size(), 1));

  std::vector<DetectorPtr> detectors;
  for (std::size_t i = 0; i < jobs; ++i) {
    std::string error;
    detectors.push_back(make_detector(options.models, error));
    if (!detectors.back()) {
      std::fprintf(stderr, "artifact-detect: %s\n", error.c_str());
      return 1;
    }
  }

  Printer printer(out, options, files.size());
  std::atomic<std::size_t> next{0};
  auto work = [&](ArtifactDetector& detector) {
    for (std::size_t i = next++; i < files.size(); i = next++) {
      printer.put(i, run_one(detector, files[i], options));
    }
  };
  std::vector<std::thread> threads;
  for (std::size_t i = 1; i < jobs; ++i) threads.emplace_back(work, std::ref(*detectors[i]));
  work(*detectors[0]);
  for (std::thread& t : threads) t.join();

  printer.summary();
  std::fclose(out);
  return printer.failed() == 0 ? 0 : 1;
}

// Whole detection runs per frame (median and 99th percentile), each stage of the run timed
// on its own, and the resident memory of a detector over many 12-megapixel frames.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "artifact_detector.h"
#include "artifact_detector_impl.h"
#include "bench.h"
#include "core/net/NNet.h"
#include "frames.h"
#include "support/temp_dir.h"
#include "utils/image_utils.h"

namespace ad_bench {
namespace {

using artifact_detector::ArtifactDetector;
using Clock = std::chrono::steady_clock;

constexpr int kFrames = 100;  // per case; each repetition is one frame
constexpr int kRotation = 90;
constexpr int kJpegQuality = 95;

enum class Input { Nv21, Rgba, Mat };

struct Case {
  ExecuteCase names;
  Input input;
  cv::Size size;
  int rotation;
};

const std::vector<Case>& cases() {
  static const std::vector<Case> all{
      {{"nv21_1080p_r90", "NV21 1920x1080, rotation 90"}, Input::Nv21, {1920, 1080}, kRotation},
      {{"nv21_12mp_r90", "NV21 4000x3000, rotation 90"}, Input::Nv21, {4000, 3000}, kRotation},
      {{"rgba_1080p", "RGBA 1920x1080, rotation 0"}, Input::Rgba, {1920, 1080}, 0},
      {{"mat_12mp", "BGR cv::Mat 4000x3000"}, Input::Mat, {4000, 3000}, 0}};
  return all;
}

// A models directory whose info file names `model`.
class ModelsDir {
 public:
  explicit ModelsDir(const std::string& model) {
    dir_.write_file("artifact_detector/artifact_detector_cnn.info",
                    "{\n  \"version_id\": \"v1\",\n  \"model_type\": \"cpu\",\n"
                    "  \"precision\": \"float32\",\n  \"model_path\": \"" +
                        model + "\"\n}\n");
  }
  std::string base() const { return dir_.base(); }

 private:
  ad_test::TempDir dir_;
};

struct DetectorDeleter {
  void operator()(ArtifactDetector* d) const { ArtifactDetector::Destroy(d); }
};
using DetectorPtr = std::unique_ptr<ArtifactDetector, DetectorDeleter>;

std::string g_model;

DetectorPtr make_detector(const std::string& model) {
  ModelsDir models(model);
  DetectorPtr detector(ArtifactDetector::Create());
  std::string path = models.base();
  if (!detector->initialize(ArtifactDetector::DEFAULT, path.data())) {
    throw std::runtime_error("the detector does not initialize with " + model);
  }
  return detector;
}

// The frame of a case in the layout the case hands over.
struct Frame {
  std::vector<unsigned char> bytes;  // NV21 or RGBA
  cv::Mat image;                     // BGR
};

const Frame& frame_of(const Case& c) {
  static std::map<std::string, Frame> frames;
  Frame& f = frames[c.names.key];
  if (f.bytes.empty() && f.image.empty()) {
    const cv::Mat photo = photo_frame(c.size);
    if (c.input == Input::Nv21) f.bytes = to_nv21(photo);
    if (c.input == Input::Rgba) f.bytes = to_rgba(photo);
    if (c.input == Input::Mat) f.image = photo;
  }
  return f;
}

bool run(ArtifactDetector& detector, const Case& c) {
  const Frame& f = frame_of(c);
  if (c.input == Input::Mat) return detector.execute(f.image, 0);
  const auto format = c.input == Input::Nv21 ? ArtifactDetector::NV21 : ArtifactDetector::RGBA;
  return detector.execute(reinterpret_cast<char*>(const_cast<unsigned char*>(f.bytes.data())),
                          c.size.width, c.size.height, c.rotation, format);
}

double p99(const std::vector<double>& v) {
  std::vector<double> sorted(v);
  std::sort(sorted.begin(), sorted.end());
  const std::size_t rank = static_cast<std::size_t>(std::ceil(0.99 * sorted.size()));
  return sorted[std::max<std::size_t>(rank, 1) - 1];
}

}  // namespace

const std::string& models_dir() {
  static const ModelsDir models(g_model);
  static const std::string base = models.base();
  return base;
}

namespace {

ArtifactDetector& shared_detector() {
  static DetectorPtr detector = make_detector(g_model);
  return *detector;
}

void execute(benchmark::State& state, const Case* c, int threads) {
  cv::setNumThreads(threads);
  ArtifactDetector& detector = shared_detector();
  static std::map<std::pair<const Case*, int>, bool> warm;
  if (!warm[{c, threads}]) {
    run(detector, *c);  // first touch of buffers and caches stays out of the figures
    warm[{c, threads}] = true;
  }
  for (auto _ : state) {
    if (!run(detector, *c)) state.SkipWithError("execute returned false");
  }
  cv::setNumThreads(1);
}

// The run's stages one after another, each timed: the same calls the detector makes, in
// its order, over the same session type and model.
struct Stages {
  std::unique_ptr<NNet> net;
  std::unique_ptr<artifact_detector::ArtifactDetectorImpl> scorer;
  int target_height = 0, target_width = 0;
};

Stages& stage_runner() {
  static Stages s = [] {
    Stages st;
    st.net =
        std::make_unique<NNet>(g_model, "artifact_Detector", std::vector<std::string>{"Identity"},
                               std::vector<float>{128.0f, 128.0f, 128.0f}, 0, 0);
    st.net->get_target_dimen(st.target_height, st.target_width);
    st.scorer = std::make_unique<artifact_detector::ArtifactDetectorImpl>();
    st.scorer->set_artifact_thresholds();
    return st;
  }();
  return s;
}

double ms_since(Clock::time_point& mark) {
  const Clock::time_point now = Clock::now();
  const double ms = std::chrono::duration<double, std::milli>(now - mark).count();
  mark = now;
  return ms;
}

// The stages as the detector runs them: the frame to the network's size (conversion, turning
// and resizing), then each step of the run.
void stages(benchmark::State& state, const Case* c) {
  cv::setNumThreads(1);
  Stages& s = stage_runner();
  const Frame& f = frame_of(*c);
  char* bytes = reinterpret_cast<char*>(const_cast<unsigned char*>(f.bytes.data()));
  const cv::Size target(s.target_width, s.target_height);
  const auto format = c->input == Input::Nv21 ? ArtifactDetector::NV21 : ArtifactDetector::RGBA;
  std::map<std::string, double> ms;
  for (auto _ : state) {
    Clock::time_point mark = Clock::now();
    cv::Mat image = c->input == Input::Mat
                        ? image_utils::upright_at_size(f.image, target)
                        : image_utils::upright_at_size(bytes, c->size.width, c->size.height,
                                                       c->rotation, format, target);
    ms["upright"] = ms_since(mark);
    std::vector<uchar> jpeg;
    cv::imencode(".jpg", image, jpeg, {cv::IMWRITE_JPEG_QUALITY, kJpegQuality});
    image = cv::imdecode(jpeg, cv::IMREAD_COLOR);
    ms["jpeg"] = ms_since(mark);
    benchmark::DoNotOptimize(checkSimilarColor(image));
    ms["colour"] = ms_since(mark);
    cv::Mat copy;
    image.copyTo(copy);
    s.net->forward_pass(copy);
    ms["forward"] = ms_since(mark);
    int d0 = 0, d1 = 0, d2 = 0, d3 = 0, format = 0;
    const void* out = s.net->get_layer_output_with_format("Identity", d0, d1, d2, d3, format);
    std::vector<float> values(static_cast<const float*>(out),
                              static_cast<const float*>(out) + std::size_t(d0) * d1 * d2 * d3);
    s.scorer->getArtifactIno(values);
    benchmark::DoNotOptimize(s.scorer->post_process_blur_info());
    ms["scoring"] = ms_since(mark);
  }
  for (const auto& [name, value] : ms) state.counters[name] = value;
}

void add(benchmark::internal::Benchmark* b) {
  b->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Iterations(1)
      ->Repetitions(kFrames)
      ->ComputeStatistics("p99", p99)
      ->ReportAggregatesOnly(true);
}

}  // namespace

const std::vector<ExecuteCase>& execute_cases() {
  static const std::vector<ExecuteCase> names = [] {
    std::vector<ExecuteCase> out;
    for (const Case& c : cases()) out.push_back(c.names);
    return out;
  }();
  return names;
}

const std::vector<std::pair<std::string, std::string>>& stage_counters() {
  static const std::vector<std::pair<std::string, std::string>> counters{
      {"upright", "to network size"},
      {"jpeg", "JPEG round trip"},
      {"colour", "colour check"},
      {"forward", "forward pass"},
      {"scoring", "scoring"}};
  return counters;
}

void register_execute_benchmarks(const std::string& model_path) {
  g_model = model_path;
  const int all_threads = cv::getNumberOfCPUs();
  for (const Case& c : cases()) {
    add(benchmark::RegisterBenchmark(("execute/" + c.names.key).c_str(), execute, &c, 1));
  }
  for (const Case& c : cases()) {
    add(benchmark::RegisterBenchmark(("execute_mt/" + c.names.key).c_str(), execute, &c,
                                     all_threads));
  }
  for (const Case& c : cases()) {
    add(benchmark::RegisterBenchmark(("stages/" + c.names.key).c_str(), stages, &c));
  }
}

namespace {

// Resident and peak resident kilobytes of this process.
std::pair<long, long> resident_kb() {
  std::ifstream status("/proc/self/status");
  std::string line;
  long rss = 0, peak = 0;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) rss = std::stol(line.substr(6));
    if (line.rfind("VmHWM:", 0) == 0) peak = std::stol(line.substr(6));
  }
  return {rss, peak};
}

}  // namespace

int memory_probe(const std::string& model_path, int frames) {
  constexpr int kWarmFrames = 10;
  frames = std::max(frames, kWarmFrames);
  const Case& c = cases()[1];  // NV21 4000x3000, rotation 90
  const Frame& f = frame_of(c);
  const long before = resident_kb().first;
  DetectorPtr detector = make_detector(model_path);
  long after_warm = 0;
  long low = 0, high = 0;
  for (int i = 0; i < frames; ++i) {
    if (!run(*detector, c)) {
      std::fprintf(stderr, "memory probe: execute returned false\n");
      return 1;
    }
    if (i + 1 == kWarmFrames) after_warm = resident_kb().first;
    if (i + 1 >= kWarmFrames) {
      const long rss = resident_kb().first;
      low = low == 0 ? rss : std::min(low, rss);
      high = std::max(high, rss);
    }
  }
  const auto [end, peak] = resident_kb();
  std::printf(
      "memory: frame_kb=%ld before_kb=%ld warm_kb=%ld end_kb=%ld low_kb=%ld high_kb=%ld "
      "peak_kb=%ld frames=%d\n",
      long(f.bytes.size() / 1024), before, after_warm, end, low, high, peak, frames);
  return 0;
}

}  // namespace ad_bench

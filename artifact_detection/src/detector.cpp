#include "detector.h"

#include <sys/stat.h>

#include <exception>
#include <mutex>
#include <utility>

#include "artifact_detector_impl.h"
#include "core/utils/logging.h"
#include "frame_input.h"
#include "utils/sys_utils.h"

namespace artifact_detector {
namespace {

// Lines of the library's own housekeeping calls (defaults, files) never reach the log.
const LogPolicy kSilent{true, kLogSilent};

bool is_directory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

Result failure(Status status, std::string reason) {
  Result r;
  r.status = status;
  r.reason = std::move(reason);
  return r;
}

}  // namespace

const char* class_name(int id) { return artifact_class_name(id); }

const char* version() { return ARTIFACT_DETECTOR_VERSION_STRING; }

const char* status_name(Status status) {
  switch (status) {
    case Status::kAnalysed:
      return "analysed";
    case Status::kUniformFrame:
      return "uniform frame";
    case Status::kNotReady:
      return "not ready";
    case Status::kInvalidInput:
      return "invalid input";
    case Status::kFailed:
      return "failed";
  }
  return "";
}

class Detector::Impl {
 public:
  explicit Impl(const Options& options)
      : policy_{options.quiet, options.quiet ? options.log_priority : kLogVerbose} {}

  void open(const std::string& models_dir) {
    ScopedLogPolicy scope(policy_);
    engine_ = std::make_unique<ArtifactDetectorImpl>();
    std::string base = models_dir;
    if (!base.empty() && base.back() != '/') base += '/';
    if (!base.empty() && !is_directory(base)) {
      error_ = "models folder not found: " + models_dir;
      return;
    }
    if (!engine_->initialize(ArtifactDetector::DEFAULT, base.data())) {
      error_ = "the inference library could not be loaded";
      return;
    }
    input_ = engine_->input_size();
    if (input_.area() <= 0) {
      error_ = "the model under " + (base.empty() ? std::string("the device's folders") : base) +
               "artifact_detector/ did not open";
    }
  }

  bool ready() const { return error_.empty(); }
  const std::string& error() const { return error_; }
  cv::Size input_size() const { return input_; }

  Result detect(const Frame& frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    ScopedLogPolicy scope(policy_);
    if (!ready()) return failure(Status::kNotReady, error_);
    const std::string problem = frame_problem(frame);
    if (!problem.empty()) return failure(Status::kInvalidInput, problem);
    try {
      const EngineInput in = engine_input(frame, scratch_);
      // The engine only reads the buffer; its fixed signature predates const.
      engine_->execute(const_cast<char*>(reinterpret_cast<const char*>(in.bytes)), frame.width,
                       frame.height, frame.rotation, in.format, nullptr);
      return collect();
    } catch (const std::exception& e) {
      return failure(Status::kFailed, e.what());
    }
  }

  std::map<int, float> thresholds() {
    std::lock_guard<std::mutex> lock(mutex_);
    return engine_->thresholds();
  }

  void set_threshold(int id, float threshold) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::map<int, float> table = engine_->thresholds();
    table[id] = threshold;
    engine_->replace_artifact_thresholds(std::move(table));
  }

  void set_thresholds(std::map<int, float> table) {
    std::lock_guard<std::mutex> lock(mutex_);
    engine_->replace_artifact_thresholds(std::move(table));
  }

 private:
  Result collect() const {
    Result r;
    switch (engine_->last_outcome()) {
      case ArtifactDetectorImpl::RunOutcome::kAnalysed:
        break;
      case ArtifactDetectorImpl::RunOutcome::kUniform:
        return failure(Status::kUniformFrame, "the frame is one colour");
      default:
        return failure(Status::kFailed, "the inference library did not run the network");
    }
    r.status = Status::kAnalysed;
    r.probabilities = engine_->probabilities();
    for (const ArtifactInfo& info : engine_->results()) {
      r.artifacts.push_back({info.tag_id, info.tag, info.score});
    }
    return r;
  }

  LogPolicy policy_;
  std::mutex mutex_;
  std::unique_ptr<ArtifactDetectorImpl> engine_;
  std::string error_;
  cv::Size input_;
  std::vector<uint8_t> scratch_;  // repacked frames, reused from run to run
};

Detector::Detector(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Detector::~Detector() = default;

std::unique_ptr<Detector> Detector::open(const std::string& models_dir, const Options& options) {
  auto impl = std::make_unique<Impl>(options);
  impl->open(models_dir);
  return std::unique_ptr<Detector>(new Detector(std::move(impl)));
}

bool Detector::ready() const { return impl_->ready(); }

const std::string& Detector::error() const { return impl_->error(); }

cv::Size Detector::input_size() const { return impl_->input_size(); }

Result Detector::detect(const Frame& frame) { return impl_->detect(frame); }

Result Detector::detect(const cv::Mat& image, int32_t rotation) {
  if (image.depth() != CV_8U || (image.channels() != 3 && image.channels() != 4) ||
      image.dims != 2) {
    return failure(Status::kInvalidInput, "the image is not 8-bit with three or four channels");
  }
  return impl_->detect(Frame::image(image, rotation));
}

std::map<int, float> Detector::thresholds() const { return impl_->thresholds(); }

void Detector::set_threshold(int id, float threshold) { impl_->set_threshold(id, threshold); }

void Detector::set_thresholds(std::map<int, float> table) {
  impl_->set_thresholds(std::move(table));
}

std::map<int, float> Detector::default_thresholds() { return built_in_thresholds(); }

std::map<int, float> Detector::read_threshold_file(const std::string& path) {
  ScopedLogPolicy scope(kSilent);
  return get_artifact_thresholds(path);
}

}  // namespace artifact_detector

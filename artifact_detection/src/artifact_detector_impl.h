// The engine behind artifact_detector::ArtifactDetector.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "artifact_detector.h"
#include "detector.h"

class NNet;

namespace artifact_detector {

// Compute-unit and precision codes understood by the network session.
enum ComputeUnit : int32_t { CPU = 0, GPU = 1, DSP = 2, NPU = 3 };
enum Precision : int32_t { FLOAT32 = 0, FLOAT16 = 1, QASYMM16 = 2, QASYMM8 = 3 };

// 1 / (1 + e^-x) per element: e^-x in single precision, the rest in double.
std::vector<float> sigmoid(const std::vector<float>& v);

// The name of class `id` (1 .. 11) in static storage; "" for any other id.
const char* artifact_class_name(int id);

// The built-in acceptance thresholds by class id.
std::map<int, float> built_in_thresholds();

// Drops Blur and MildBlur when OtherBlur is confidently present; the rest keeps its order.
std::vector<ArtifactInfo> post_process_blur_info(const std::vector<ArtifactInfo>& infos);

class ArtifactDetectorImpl {
 public:
  using Mode = ArtifactDetector::Mode;
  using ImageFormat = ArtifactDetector::ImageFormat;
  using Artifact_Info = ArtifactDetector::Artifact_Info;

  ArtifactDetectorImpl();
  ~ArtifactDetectorImpl();

  ArtifactDetectorImpl(const ArtifactDetectorImpl&) = delete;
  ArtifactDetectorImpl& operator=(const ArtifactDetectorImpl&) = delete;

  bool initialize(Mode mode, char* models_path);

  bool execute(char* buffer, int width, int height, int image_rotation, ImageFormat image_format,
               char* extra);
  bool execute(cv::Mat image, int reserved);

  int get_total_artifact_count();
  bool get_artifact_info(Artifact_Info* out);

  // How the last run ended, for callers that need more than execute's true or false.
  enum class RunOutcome { kNone, kNotInitialised, kAnalysed, kUniform, kFailed };
  RunOutcome last_outcome() const { return last_run; }
  // Every class's probability from the last analysed run, class id n at index n - 1.
  const std::array<float, kClassCount>& probabilities() const { return last_probabilities; }
  // The network's input size (columns x rows); 0 x 0 before a successful initialize.
  cv::Size input_size();

  // Scoring steps of a run, reachable for tests.
  void set_artifact_thresholds();
  // Replaces the whole table: a class the new table lacks is never reported.
  void replace_artifact_thresholds(std::map<int, float> thresholds);
  void getArtifactIno(std::vector<float>& output);
  std::vector<ArtifactInfo> post_process_blur_info();

  const std::map<int, float>& thresholds() const { return *std::atomic_load(&artifact_thresholds); }
  const std::vector<ArtifactInfo>& results() const { return result_artifacts; }
  bool mild_blur() const { return mild_blur_found; }

 private:
  // `image` is upright at `target`, the network's size. `session` is the run's own
  // reference: an initialize meanwhile replaces the engine's, not this one.
  bool run_pipeline(const std::shared_ptr<NNet>& session, cv::Mat image, cv::Size target,
                    bool log_copy_details);
  std::string class_name(int id) const;

  std::vector<ArtifactInfo> result_artifacts;
  std::mutex init_mutex;
  std::mutex execute_mutex;
  std::mutex result_mutex;
  // initialize writes these while a run may read them (only the two calls' own locks are
  // held): flags are atomic, the session and the table are swapped whole through
  // std::atomic_load / std::atomic_store, and a run keeps the ones it started with.
  std::atomic<bool> is_initialized{false};
  std::shared_ptr<NNet> nnet;
  std::atomic<int32_t> compute_unit{CPU};
  std::vector<std::string> artifact_names;
  std::shared_ptr<const std::map<int, float>> artifact_thresholds =
      std::make_shared<const std::map<int, float>>();
  bool mild_blur_found = false;
  RunOutcome last_run = RunOutcome::kNone;
  std::array<float, kClassCount> last_probabilities{};
};

}  // namespace artifact_detector

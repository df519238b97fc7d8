#include "artifact_detector_impl.h"

#include <cmath>
#include <utility>

#include "core/utils/logging.h"

namespace artifact_detector {
namespace {

constexpr const char* kVersion = "v1.18.3";

// Class id n is the name at position n - 1; ids come from the network's output order.
const char* const kArtifactNames[] = {"Reflection", "Shadow",   "Flare", "Moire",
                                      "DonutBlur",  "Blur",     "LDR",   "LowLight",
                                      "Noise",      "MildBlur", "OtherBlur"};
constexpr int kArtifactCount = sizeof(kArtifactNames) / sizeof(kArtifactNames[0]);

// Built-in acceptance thresholds by class id. OtherBlur at 1.0 is never reported unless a
// threshold file lowers it.
const std::pair<int, float> kDefaultThresholds[] = {
    {1, 0.74f}, {2, 0.64f}, {3, 0.73f}, {4, 0.73f}, {5, 0.69f}, {6, 0.52f},
    {7, 0.48f}, {8, 0.72f}, {9, 0.2f},  {10, 0.58f}, {11, 1.0f}};

constexpr int kBlurId = 6;
constexpr int kMildBlurId = 10;
constexpr int kOtherBlurId = 11;
constexpr float kMinScore = 0.01f;
constexpr float kOtherBlurHigh = 0.6f;

}  // namespace

std::vector<float> sigmoid(const std::vector<float>& v) {
  std::vector<float> out(v.size());
  for (std::size_t i = 0; i < v.size(); ++i) {
    out[i] = static_cast<float>(1.0 / (1.0 + static_cast<double>(expf(-v[i]))));
  }
  return out;
}

ArtifactDetectorImpl::ArtifactDetectorImpl()
    : artifact_names(std::begin(kArtifactNames), std::end(kArtifactNames)) {
  AD_LOG_INFO << "TQ Debug: Using artiface detector Built on : " << __DATE__ << " " << __TIME__
              << " IST";
  AD_LOGV("TQ Debug: artiface detector Version Info: %s", kVersion);
}

ArtifactDetectorImpl::~ArtifactDetectorImpl() {
  // Wait for any running initialize, execute or get_artifact_info before members go.
  std::lock_guard<std::mutex> init_lock(init_mutex);
  std::lock_guard<std::mutex> execute_lock(execute_mutex);
  std::lock_guard<std::mutex> result_lock(result_mutex);
}

std::string ArtifactDetectorImpl::class_name(int id) const {
  // Ids from a threshold file are not validated; they must not index past the names.
  if (id < 1 || id > static_cast<int>(artifact_names.size())) return "";
  return artifact_names[id - 1];
}

bool ArtifactDetectorImpl::initialize(Mode, char*) {
  std::lock_guard<std::mutex> lock(init_mutex);
  is_initialized = false;
  return false;
}

bool ArtifactDetectorImpl::execute(char*, int, int, int, ImageFormat, char*) {
  std::lock_guard<std::mutex> lock(execute_mutex);
  if (!is_initialized) {
    AD_LOG_INFO << "TQ:Debug artifact_detector execute failed because init was unsuccessful";
    return false;
  }
  return false;
}

bool ArtifactDetectorImpl::execute(cv::Mat, int) {
  std::lock_guard<std::mutex> lock(execute_mutex);
  if (!is_initialized) {
    AD_LOG_INFO << "TQ:Debug artifact_detector execute failed because init was unsuccessful";
    return false;
  }
  return false;
}

void ArtifactDetectorImpl::set_artifact_thresholds() {
  for (const auto& entry : kDefaultThresholds) artifact_thresholds[entry.first] = entry.second;
}

void ArtifactDetectorImpl::getArtifactIno(std::vector<float>& output) {
  result_artifacts.clear();
  AD_LOGV("Output Tensor size : [%d]", static_cast<int>(output.size()));

  // Position 0 is not a class score. A short output counts its missing classes as rejected.
  std::vector<float> logits(kArtifactCount, -INFINITY);
  for (int i = 0; i < kArtifactCount && i + 1 < static_cast<int>(output.size()); ++i) {
    logits[i] = output[i + 1];
  }
  const std::vector<float> probs = sigmoid(logits);

  AD_LOGV("Output result_artifacts size : [%d]", static_cast<int>(probs.size()));
  for (int i = 0; i < kArtifactCount; ++i) {
    AD_LOGV("output result_artifacts id : %d, %f", i, static_cast<double>(probs[i]));
  }

  for (int i = 0; i < kArtifactCount; ++i) {
    const int id = i + 1;
    const float p = probs[i];
    if (!(p > kMinScore && p <= 1.0f)) continue;
    const auto threshold = artifact_thresholds.find(id);
    if (threshold == artifact_thresholds.end() || !(threshold->second < p)) continue;
    ArtifactInfo info{p, "none", id};
    info.tag = artifact_names[i];
    result_artifacts.push_back(std::move(info));
    if (id == kMildBlurId) mild_blur_found = true;
  }
}

std::vector<ArtifactInfo> ArtifactDetectorImpl::post_process_blur_info() {
  for (const ArtifactInfo& info : result_artifacts) {
    AD_LOGV("Before post_process_blur_info artifact_infos id : %d, %f", info.tag_id,
            static_cast<double>(info.score));
  }
  float other_blur = 0.0f;
  for (const ArtifactInfo& info : result_artifacts) {
    if (info.tag_id == kOtherBlurId) other_blur = info.score;
  }

  std::vector<ArtifactInfo> kept;
  for (const ArtifactInfo& info : result_artifacts) {
    if ((info.tag_id == kBlurId || info.tag_id == kMildBlurId) && other_blur > kOtherBlurHigh) {
      AD_LOGV("Droping the blur and mild blur because of otherblur confidence is high");
      continue;
    }
    kept.push_back(info);
  }
  for (const ArtifactInfo& info : kept) {
    AD_LOGV("After post_process_blur_info artifact_infos id : %d, %f", info.tag_id,
            static_cast<double>(info.score));
  }
  return kept;
}

int ArtifactDetectorImpl::get_total_artifact_count() {
  const int count = static_cast<int>(result_artifacts.size());
  AD_LOGV("get_total_artifact_count : %d", count);
  return count;
}

bool ArtifactDetectorImpl::get_artifact_info(Artifact_Info* out) {
  std::lock_guard<std::mutex> lock(result_mutex);
  for (std::size_t i = 0; i < result_artifacts.size(); ++i) {
    const ArtifactInfo& info = result_artifacts[i];
    out[i].score = info.score;
    out[i].tag_id = info.tag_id;
    out[i].tag = info.tag.c_str();
    AD_LOG_INFO << "output result_artifacts ofartifact_infos score : " << info.score
                << " tag : " << info.tag << " tag_id : " << info.tag_id;
  }
  return true;
}

}  // namespace artifact_detector

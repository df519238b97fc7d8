#include "artifact_detector_impl.h"

#include <algorithm>
#include <iterator>
#include <cmath>
#include <cstdint>
#include <exception>
#include <memory>
#include <utility>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "core/net/NNet.h"
#include "core/utils/logging.h"
#include "core/utils/steady_clock.h"
#include "utils/image_utils.h"
#include "utils/sys_utils.h"

namespace artifact_detector {
namespace {

constexpr const char* kVersion = "v" ARTIFACT_DETECTOR_VERSION_STRING;

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

// The properties file and the session know the model under two spellings.
constexpr const char* kModelName = "artifact_detector";
constexpr const char* kModuleName = "artifact_Detector";
constexpr const char* kCpuLayer = "Identity";
constexpr const char* kAcceleratorLayer = "prob";
constexpr float kChannelMean = 128.0f;
constexpr int kJpegQuality = 95;

constexpr int kBlurId = 6;
constexpr int kMildBlurId = 10;
constexpr int kOtherBlurId = 11;
constexpr float kMinScore = 0.01f;
constexpr float kOtherBlurHigh = 0.6f;

// The network was trained on JPEG-like input, so every frame passes through it once; where
// that fails the image goes on as it is.
void jpeg_round_trip(cv::Mat& image) {
  std::vector<uchar> jpeg;
  if (!cv::imencode(".jpg", image, jpeg, {cv::IMWRITE_JPEG_QUALITY, kJpegQuality})) {
    AD_LOGV("Error: Failed to compress image.");
    return;
  }
  AD_LOGV("Compressed buffer size: %d bytes", static_cast<int>(jpeg.size()));
  cv::Mat decoded = cv::imdecode(jpeg, cv::IMREAD_COLOR);
  if (decoded.empty()) {
    AD_LOGV("Error: Failed to decode buffer.");
  } else {
    image = decoded;
  }
}

struct NamedCode {
  const char* name;
  int32_t code;
};
constexpr NamedCode kComputeUnits[] = {{"cpu", CPU}, {"gpu", GPU}, {"dsp", DSP}, {"npu", NPU}};
constexpr NamedCode kPrecisions[] = {
    {"float16", FLOAT16}, {"float32", FLOAT32}, {"qasymm8", QASYMM8}, {"qasymm16", QASYMM16}};

// The code the info file names, or nullptr for a name outside the table.
const int32_t* code_named(const NamedCode* begin, const NamedCode* end, const std::string& name) {
  const NamedCode* found =
      std::find_if(begin, end, [&](const NamedCode& entry) { return name == entry.name; });
  return found == end ? nullptr : &found->code;
}

int32_t compute_unit_code(const std::string& model_type) {
  if (const int32_t* code = code_named(std::begin(kComputeUnits), std::end(kComputeUnits),
                                       model_type)) {
    return *code;
  }
  AD_LOGV("TQ Debug: Couldn't identify the COMPUTE UNIT from .info file, so setting COMPUTE UNIT "
          "to CPU");
  return CPU;
}

int32_t precision_code(const std::string& precision) {
  if (const int32_t* code = code_named(std::begin(kPrecisions), std::end(kPrecisions), precision)) {
    return *code;
  }
  AD_LOGV("TQ Debug: Couldn't identify the EXECUTION DATA TYPE from .info file, so setting "
          "EXECUTION DATA TYPE to FLOAT16");
  return FLOAT16;
}

}  // namespace

const char* artifact_class_name(int id) {
  return id >= 1 && id <= kArtifactCount ? kArtifactNames[id - 1] : "";
}

std::map<int, float> built_in_thresholds() {
  return std::map<int, float>(std::begin(kDefaultThresholds), std::end(kDefaultThresholds));
}

cv::Size ArtifactDetectorImpl::input_size() {
  std::lock_guard<std::mutex> lock(init_mutex);
  int height = 0;
  int width = 0;
  if (is_initialized && nnet) nnet->get_target_dimen(height, width);
  return cv::Size(width, height);
}

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

bool ArtifactDetectorImpl::initialize(Mode, char* models_path) {
  std::lock_guard<std::mutex> lock(init_mutex);
  try {
    AD_LOG_INFO << "Initializing Semantic Map ...";
    AD_LOG_INFO << "Artiface detector Models path :" << models_path;

    ModelProperties properties = get_model_properties(kModelName, models_path);
    const std::string& model_type = properties["model_type"];
    const std::string& precision_name = properties["precision"];
    AD_LOGV("TQ Debug: setting COMPUTE UNIT to %s, %s", model_type.c_str(), precision_name.c_str());

    const int32_t unit = compute_unit_code(model_type);
    const std::vector<std::string> output_layers{unit > GPU ? kAcceleratorLayer : kCpuLayer};
    const int32_t precision = precision_code(precision_name);
    const std::string model_path = properties["model_path"];

    compute_unit = unit;
    std::atomic_store(
        &nnet, std::make_shared<NNet>(model_path, kModuleName, output_layers,
                                      std::vector<float>{kChannelMean, kChannelMean, kChannelMean},
                                      unit, precision));
    AD_LOGV("TQ:Debug NNet declared successfully");

    set_artifact_thresholds();
    std::map<int, float> from_file = get_artifact_thresholds();
    if (!from_file.empty()) replace_artifact_thresholds(std::move(from_file));
    for (const auto& entry : *std::atomic_load(&artifact_thresholds)) {
      AD_LOGV("Artifact: %s, Threshold: %f", class_name(entry.first).c_str(),
              static_cast<double>(entry.second));
    }
    is_initialized = true;
    return true;
  } catch (const std::exception& e) {
    AD_LOGV("TQ:Debug artifact detector init failed: exception: %s", e.what());
    is_initialized = false;
    return false;
  }
}

bool ArtifactDetectorImpl::execute(char* buffer, int width, int height, int image_rotation,
                                   ImageFormat image_format, char*) {
  std::lock_guard<std::mutex> lock(execute_mutex);
  last_run = RunOutcome::kNotInitialised;
  if (!is_initialized) {
    AD_LOG_INFO << "TQ:Debug artifact_detector execute failed because init was unsuccessful";
    return false;
  }
  mild_blur_found = false;
  AD_LOG_INFO << "artifact_detector Execute with odd skip called : width : " << width
              << " height : " << height << " image_rotation : " << image_rotation
              << " image_format : " << image_format;

  int target_height = 0;
  int target_width = 0;
  if (image_format == ArtifactDetector::NV21 && !image_utils::nv21_size_supported(width, height)) {
    AD_LOG_INFO << "TQ Debug: artifact_detector execute skipped: NV21 needs even width and "
                   "height, got width : "
                << width << " height : " << height;
    return false;
  }
  const std::shared_ptr<NNet> session = std::atomic_load(&nnet);
  session->get_target_dimen(target_height, target_width);
  const cv::Size target(target_width, target_height);

  const bool nv21 = image_format == ArtifactDetector::NV21;
  if (nv21) {
    AD_LOG_INFO << "TQ Debug: pre-processing image, with tqr_arm_neon::nv21_convert_rotate()";
  }
  const int64_t t0 = steady_ms();
  cv::Mat image =
      image_utils::upright_at_size(buffer, width, height, image_rotation, image_format, target);
  const int64_t t1 = steady_ms();
  if (nv21) {
    AD_LOG_INFO << "TQ Debug: pre-processing image(nv21): time taken: " << t1 - t0 << "ms";
  } else {
    AD_LOG_INFO << "Rotation parameter being set to: " << image_rotation;
  }
  // An empty frame is never resized, so it reports its own size.
  const cv::Size upright =
      image.empty() ? image.size() : image_utils::upright_size(width, height, image_rotation);
  AD_LOG_INFO << "TQ Debug: NV21 Artifact Detector Pre-Process : width: " << upright.width << " "
              << " height: " << upright.height << " channels: " << image.channels()
              << " target_width: " << target_width << "target_height: " << target_height;
  AD_LOG_INFO << "TQ Debug: Artifact Detector Pre-Process : time taken: " << t1 - t0 << " ms";
  return run_pipeline(session, std::move(image), target, true);
}

bool ArtifactDetectorImpl::execute(cv::Mat image, int) {
  std::lock_guard<std::mutex> lock(execute_mutex);
  last_run = RunOutcome::kNotInitialised;
  if (!is_initialized || image.data == nullptr || image.dims == 0 || image.total() == 0) {
    AD_LOG_INFO << "TQ:Debug artifact_detector execute failed because init was unsuccessful";
    return false;
  }
  mild_blur_found = false;
  int target_height = 0;
  int target_width = 0;
  const std::shared_ptr<NNet> session = std::atomic_load(&nnet);
  session->get_target_dimen(target_height, target_width);
  AD_LOGV("TQ Debug: image :  width: %d height : %d channels : %d ", image.cols, image.rows,
          image.channels());
  const cv::Size target(target_width, target_height);
  return run_pipeline(session, image_utils::upright_at_size(std::move(image), target), target,
                      false);
}

bool ArtifactDetectorImpl::run_pipeline(const std::shared_ptr<NNet>& session, cv::Mat image,
                                        cv::Size target, bool log_copy_details) {
  // A session that never opened has no input size; it could not run anyway.
  last_run = RunOutcome::kFailed;
  if (target.width <= 0 || target.height <= 0) {
    AD_LOG_INFO << "TQ Debug: artifact_detector Forward Pass Failed";
    return false;
  }
  // A frame without pixels fails here, in the resize, after its pre-processing lines.
  if (image.empty()) cv::resize(image, image, target, 0, 0, cv::INTER_AREA);

  jpeg_round_trip(image);
  if (checkSimilarColor(image)) {
    AD_LOG_INFO << "returning from same color image detection";
    last_run = RunOutcome::kUniform;
    return false;
  }

  cv::Mat image_for_artifact_detection;
  image.copyTo(image_for_artifact_detection);
  if (log_copy_details) {
    AD_LOG_INFO << "TQ Debug: image_for_artifact_detection details "
                << image_for_artifact_detection.cols << " x " << image_for_artifact_detection.rows
                << " x " << image_for_artifact_detection.channels();
  }
  if (!session->forward_pass(image_for_artifact_detection)) {
    AD_LOG_INFO << "TQ Debug: artifact_detector Forward Pass Failed";
    return false;
  }

  const char* layer = compute_unit > GPU ? kAcceleratorLayer : kCpuLayer;
  int d0 = 0, d1 = 0, d2 = 0, d3 = 0, format = 0;
  const void* output = session->get_layer_output_with_format(layer, d0, d1, d2, d3, format);
  if (output == nullptr) return false;

  // A negative product throws when the vector is sized, before anything is replaced.
  const int64_t count = static_cast<int64_t>(d0) * d1 * d2 * d3;
  std::vector<float> values(static_cast<std::size_t>(count));
  std::copy_n(static_cast<const float*>(output), values.size(), values.begin());

  getArtifactIno(values);
  result_artifacts = post_process_blur_info();
  last_run = RunOutcome::kAnalysed;
  return true;
}

void ArtifactDetectorImpl::set_artifact_thresholds() {
  std::map<int, float> table = *std::atomic_load(&artifact_thresholds);
  for (const auto& entry : kDefaultThresholds) table[entry.first] = entry.second;
  replace_artifact_thresholds(std::move(table));
}

void ArtifactDetectorImpl::replace_artifact_thresholds(std::map<int, float> thresholds) {
  std::atomic_store(&artifact_thresholds,
                    std::make_shared<const std::map<int, float>>(std::move(thresholds)));
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
  std::copy(probs.begin(), probs.end(), last_probabilities.begin());

  AD_LOGV("Output result_artifacts size : [%d]", static_cast<int>(probs.size()));
  for (int i = 0; i < kArtifactCount; ++i) {
    AD_LOGV("output result_artifacts id : %d, %f", i, static_cast<double>(probs[i]));
  }

  const std::shared_ptr<const std::map<int, float>> thresholds =
      std::atomic_load(&artifact_thresholds);
  for (int i = 0; i < kArtifactCount; ++i) {
    const int id = i + 1;
    const float p = probs[i];
    if (!(p > kMinScore && p <= 1.0f)) continue;
    const auto threshold = thresholds->find(id);
    if (threshold == thresholds->end() || !(threshold->second < p)) continue;
    ArtifactInfo info{p, "none", id};
    info.tag = artifact_names[i];
    result_artifacts.push_back(std::move(info));
    if (id == kMildBlurId) mild_blur_found = true;
  }
}

std::vector<ArtifactInfo> post_process_blur_info(const std::vector<ArtifactInfo>& infos) {
  for (const ArtifactInfo& info : infos) {
    AD_LOGV("Before post_process_blur_info artifact_infos id : %d, %f", info.tag_id,
            static_cast<double>(info.score));
  }
  float other_blur = 0.0f;
  for (const ArtifactInfo& info : infos) {
    if (info.tag_id == kOtherBlurId) other_blur = info.score;
  }

  std::vector<ArtifactInfo> kept;
  for (const ArtifactInfo& info : infos) {
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

std::vector<ArtifactInfo> ArtifactDetectorImpl::post_process_blur_info() {
  return artifact_detector::post_process_blur_info(result_artifacts);
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

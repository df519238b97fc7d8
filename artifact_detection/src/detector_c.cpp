#include "detector_c.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>

#include "detector.h"

using artifact_detector::Detector;

struct ad_detector {
  std::unique_ptr<Detector> detector;
};

namespace {

// Runs `body`, turning anything it throws into an error code: nothing crosses into C.
template <typename Body>
ad_error guarded(Body&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return AD_ERROR_OUT_OF_MEMORY;
  } catch (...) {
    return AD_ERROR_INTERNAL;
  }
}

void copy_reason(const std::string& text, char (&out)[sizeof(ad_result::reason)]) {
  const size_t n = std::min(text.size(), sizeof(out) - 1);
  std::memcpy(out, text.data(), n);
  out[n] = '\0';
}

artifact_detector::Frame to_frame(const ad_frame& f) {
  artifact_detector::Frame frame;
  frame.format = static_cast<artifact_detector::PixelFormat>(f.format);
  frame.width = f.width;
  frame.height = f.height;
  frame.rotation = f.rotation;
  frame.range = static_cast<artifact_detector::YuvRange>(f.range);
  for (int i = 0; i < 3; ++i) {
    frame.planes[i] = {f.planes[i].data, f.planes[i].row_stride, f.planes[i].pixel_stride};
  }
  return frame;
}

bool valid_id(int32_t id) { return id >= 1 && id <= AD_CLASS_COUNT; }

}  // namespace

extern "C" {

const char* artifact_detector_version(void) { return ARTIFACT_DETECTOR_VERSION_STRING; }

const char* ad_status_name(int32_t status) {
  if (status < AD_STATUS_ANALYSED || status > AD_STATUS_FAILED) return "";
  return artifact_detector::status_name(static_cast<artifact_detector::Status>(status));
}

ad_error ad_detector_create(const char* models_dir, const ad_options* options, ad_detector** out) {
  if (out == nullptr) return AD_ERROR_INVALID_ARGUMENT;
  *out = nullptr;
  return guarded([&] {
    artifact_detector::Options opts;
    if (options != nullptr) {
      opts.quiet = options->quiet != 0;
      opts.log_priority = options->log_priority;
    }
    auto handle = std::make_unique<ad_detector>();
    handle->detector = Detector::open(models_dir == nullptr ? "" : models_dir, opts);
    const bool ready = handle->detector->ready();
    *out = handle.release();
    return ready ? AD_OK : AD_ERROR_NOT_READY;
  });
}

void ad_detector_destroy(ad_detector* detector) { delete detector; }

int ad_detector_is_ready(const ad_detector* detector) {
  return detector != nullptr && detector->detector->ready() ? 1 : 0;
}

const char* ad_detector_error(const ad_detector* detector) {
  return detector == nullptr ? "null handle" : detector->detector->error().c_str();
}

ad_error ad_detector_input_size(const ad_detector* detector, int32_t* width, int32_t* height) {
  if (detector == nullptr || width == nullptr || height == nullptr) {
    return AD_ERROR_INVALID_ARGUMENT;
  }
  const cv::Size size = detector->detector->input_size();
  *width = size.width;
  *height = size.height;
  return AD_OK;
}

ad_error ad_detector_detect(ad_detector* detector, const ad_frame* frame, ad_result* result) {
  if (detector == nullptr || result == nullptr) return AD_ERROR_INVALID_ARGUMENT;
  std::memset(result, 0, sizeof(*result));
  if (frame == nullptr) {
    result->status = AD_STATUS_INVALID_INPUT;
    copy_reason("frame is null", result->reason);
    return AD_OK;
  }
  return guarded([&] {
    const artifact_detector::Result r = detector->detector->detect(to_frame(*frame));
    result->status = static_cast<int32_t>(r.status);
    copy_reason(r.reason, result->reason);
    std::copy(r.probabilities.begin(), r.probabilities.end(), result->probabilities);
    for (const artifact_detector::Artifact& a : r.artifacts) {
      result->artifacts[result->artifact_count++] = {a.id, artifact_detector::class_name(a.id),
                                                     a.probability};
    }
    return AD_OK;
  });
}

ad_error ad_detector_get_threshold(const ad_detector* detector, int32_t id, float* threshold,
                                   int32_t* present) {
  if (detector == nullptr || threshold == nullptr || present == nullptr || !valid_id(id)) {
    return AD_ERROR_INVALID_ARGUMENT;
  }
  return guarded([&] {
    const std::map<int, float> table = detector->detector->thresholds();
    const auto found = table.find(id);
    *present = found != table.end() ? 1 : 0;
    *threshold = found != table.end() ? found->second : 0.0f;
    return AD_OK;
  });
}

ad_error ad_detector_set_threshold(ad_detector* detector, int32_t id, float threshold) {
  if (detector == nullptr || !valid_id(id)) return AD_ERROR_INVALID_ARGUMENT;
  return guarded([&] {
    detector->detector->set_threshold(id, threshold);
    return AD_OK;
  });
}

}  // extern "C"

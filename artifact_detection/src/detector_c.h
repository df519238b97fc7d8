/* C interface of artifact_detector::Detector (detector.h): opaque handles, named constants,
 * error codes. No C++ exception leaves any function.
 *
 *   ad_detector* d = NULL;
 *   if (ad_detector_create("/opt/ad/share/artifact_detector/models", NULL, &d) != AD_OK) ...;
 *   ad_frame f = {0};
 *   f.format = AD_FORMAT_YUV_420_888; f.width = w; f.height = h; f.rotation = 90;
 *   f.planes[0] = (ad_plane){y, y_row_stride, 1};
 *   f.planes[1] = (ad_plane){u, uv_row_stride, 2};
 *   f.planes[2] = (ad_plane){v, uv_row_stride, 2};
 *   ad_result r;
 *   if (ad_detector_detect(d, &f, &r) == AD_OK && r.status == AD_STATUS_ANALYSED) ...;
 *   ad_detector_destroy(d);
 *
 * A handle may be used from several threads; calls on it are serialised. The result is the
 * caller's: artifact names point at static text. */
#ifndef ARTIFACT_DETECTOR_DETECTOR_C_H_
#define ARTIFACT_DETECTOR_DETECTOR_C_H_

#include <stdint.h>

#include "artifact_detector_export.h"
#include "artifact_detector_version.h"

#ifdef __cplusplus
extern "C" {
#endif

#define AD_CLASS_COUNT 11

/* Frame formats (ad_frame.format); plane use as in detector.h. */
#define AD_FORMAT_NV21 0
#define AD_FORMAT_NV12 1
#define AD_FORMAT_YUV_420_888 2
#define AD_FORMAT_RGBA 3
#define AD_FORMAT_BGR 4
#define AD_FORMAT_RGB 5

/* YUV range (ad_frame.range). */
#define AD_RANGE_FULL 0
#define AD_RANGE_VIDEO 1

/* Outcome of one frame (ad_result.status). */
#define AD_STATUS_ANALYSED 0
#define AD_STATUS_UNIFORM_FRAME 1
#define AD_STATUS_NOT_READY 2
#define AD_STATUS_INVALID_INPUT 3
#define AD_STATUS_FAILED 4

/* Error codes: whether the call itself could do its work. */
typedef enum ad_error {
  AD_OK = 0,
  AD_ERROR_INVALID_ARGUMENT = 1, /* a null handle or result pointer, an id outside 1..11 */
  AD_ERROR_NOT_READY = 2,        /* ad_detector_create: the detector exists but cannot run */
  AD_ERROR_OUT_OF_MEMORY = 3,
  AD_ERROR_INTERNAL = 4
} ad_error;

typedef struct ad_detector ad_detector;

typedef struct ad_plane {
  const uint8_t* data;
  int32_t row_stride;   /* 0: tightly packed */
  int32_t pixel_stride; /* YUV_420_888 chroma: 1 or 2 */
} ad_plane;

typedef struct ad_frame {
  int32_t format; /* AD_FORMAT_* */
  int32_t width;  /* as stored, before rotation */
  int32_t height;
  int32_t rotation; /* clockwise: 0, 90, 180, 270 */
  int32_t range;    /* AD_RANGE_* */
  ad_plane planes[3];
} ad_frame;

typedef struct ad_options {
  int32_t quiet;        /* non-zero: no standard output, log lines at log_priority */
  int32_t log_priority; /* Android priority; 8 (silent) drops them */
} ad_options;

typedef struct ad_artifact {
  int32_t id;
  const char* name; /* static text */
  float probability;
} ad_artifact;

typedef struct ad_result {
  int32_t status; /* AD_STATUS_* */
  int32_t artifact_count;
  ad_artifact artifacts[AD_CLASS_COUNT];
  float probabilities[AD_CLASS_COUNT]; /* class id n at index n - 1 */
  char reason[160];                    /* NUL-terminated; empty when analysed */
} ad_result;

/* "analysed", "uniform frame", ... for an AD_STATUS_* value; "" for others. */
AD_EXPORT const char* ad_status_name(int32_t status);

/* Creates a detector over `models_dir` (NULL or "": the device's model folders). `options`
 * may be NULL (quiet, debug priority). On AD_OK or AD_ERROR_NOT_READY `*out` holds a handle
 * to destroy; ad_detector_error tells why it is not ready. On other errors `*out` is NULL. */
AD_EXPORT ad_error ad_detector_create(const char* models_dir, const ad_options* options,
                                        ad_detector** out);
/* NULL is a no-op. */
AD_EXPORT void ad_detector_destroy(ad_detector* detector);

/* 1 when the model opened, else 0 (also for NULL). */
AD_EXPORT int ad_detector_is_ready(const ad_detector* detector);
/* Why the detector is not ready; "" when it is. Valid while the handle lives. */
AD_EXPORT const char* ad_detector_error(const ad_detector* detector);
/* The network's input size; 0 x 0 when not ready. */
AD_EXPORT ad_error ad_detector_input_size(const ad_detector* detector, int32_t* width,
                                            int32_t* height);

/* Runs one frame into `*result`. AD_OK whenever the result was written: the frame's own
 * outcome (not ready, invalid input, ...) is in result->status. */
AD_EXPORT ad_error ad_detector_detect(ad_detector* detector, const ad_frame* frame,
                                        ad_result* result);

/* Threshold of class `id`; *present is 0 (and *threshold 0) when the class has none. */
AD_EXPORT ad_error ad_detector_get_threshold(const ad_detector* detector, int32_t id,
                                               float* threshold, int32_t* present);
AD_EXPORT ad_error ad_detector_set_threshold(ad_detector* detector, int32_t id, float threshold);

#ifdef __cplusplus
}
#endif

#endif /* ARTIFACT_DETECTOR_DETECTOR_C_H_ */

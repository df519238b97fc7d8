/* Flat C interface over artifact_detector::ArtifactDetector, for native callers that cannot
 * use the class.
 *
 * A handle is the detector itself, passed back unchanged; never dereference it.
 * Calling order: create, Initialize, any number of execute / get_total_artifact_count /
 * get_artifact_info, destroy. No function checks its pointers.
 *
 * No C++ exception leaves these functions: where the detector throws (for example a width
 * or height of 0 or below, which the image library refuses), the function logs one line
 * "<function> c wrapper failed: exception: <text>" and answers as for a failed call (false,
 * or null from create).
 *
 * Two behaviours callers rely on:
 *   - The image format of both execute functions is the UPPER 32 bits of `format_word`; the
 *     lower half is ignored, so a plain format value in the lower half means NV21 (0).
 *   - ArtifactDetectorWrapper_get_total_artifact_count answers whether any artifact was found
 *     (1 or 0), not how many. It is exported under its C++ (type-encoded) symbol name.
 *
 * Artifact_Info::tag points into the detector: valid until the next successful execute or
 * destroy. Copy the text to keep it longer. */
#ifndef ARTIFACT_DETECTOR_WRAPPER_H_
#define ARTIFACT_DETECTOR_WRAPPER_H_

#include "artifact_detector_export.h"

#ifdef __cplusplus

#include <cstdint>

#include "artifact_detector.h"

struct ArtifactDetectorWrapper;
typedef artifact_detector::ArtifactDetector::Artifact_Info Artifact_Info;

extern "C" {

#else /* C */

#include <stdbool.h>
#include <stdint.h>

typedef struct ArtifactDetectorWrapper ArtifactDetectorWrapper;

/* Same layout as artifact_detector::ArtifactDetector::Artifact_Info. */
typedef struct Artifact_Info {
  int32_t tag_id;
  const char* tag;
  float score;
} Artifact_Info;

#endif

/* A new, uninitialised detector; null when it could not be created. */
AD_EXPORT ArtifactDetectorWrapper* ArtifactDetectorWrapper_create(void);
AD_EXPORT void ArtifactDetectorWrapper_destroy(ArtifactDetectorWrapper* handle);
/* `model_path`: the directory that holds the model directories. `mode` is ignored. */
AD_EXPORT bool ArtifactDetectorWrapper_Initialize(ArtifactDetectorWrapper* handle, int mode,
                                                          const char* model_path);
AD_EXPORT bool ArtifactDetectorWrapper_execute(ArtifactDetectorWrapper* handle,
                                                       char* buffer, int width, int height,
                                                       int rotation, int64_t format_word);
/* As ArtifactDetectorWrapper_execute; `image_name` is never read. */
AD_EXPORT bool ArtifactDetectorWrapper_execute_with_image_name(
    ArtifactDetectorWrapper* handle, char* buffer, int width, int height, int rotation,
    int64_t format_word, char* image_name);
/* Fills as many records as the last run accepted. Always true. */
AD_EXPORT bool ArtifactDetectorWrapper_get_artifact_info(ArtifactDetectorWrapper* handle,
                                                                 Artifact_Info* info);

#ifdef __cplusplus
} /* extern "C" */

/* Outside extern "C" on purpose: existing callers link against the type-encoded name. */
AD_EXPORT bool ArtifactDetectorWrapper_get_total_artifact_count(
    ArtifactDetectorWrapper* handle);

#elif defined(__GNUC__)

/* C callers reach the same function through its type-encoded symbol name. */
bool ArtifactDetectorWrapper_get_total_artifact_count(ArtifactDetectorWrapper* handle) __asm__(
    "_Z48ArtifactDetectorWrapper_get_total_artifact_countP23ArtifactDetectorWrapper");

#endif

#endif /* ARTIFACT_DETECTOR_WRAPPER_H_ */

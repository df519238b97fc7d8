/* The C interface from the installed package: a handle, one frame, the result. */
#include <artifact_detector/detector_c.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  enum { W = 64, H = 48 };
  static uint8_t nv21[W * H * 3 / 2];
  ad_detector* detector = NULL;
  ad_frame frame;
  ad_result result;
  if (argc != 2 || ad_detector_create(argv[1], NULL, &detector) != AD_OK) return 1;
  for (size_t i = 0; i < sizeof nv21; ++i) nv21[i] = (uint8_t)(i * 37 % 253);
  memset(&frame, 0, sizeof frame);
  frame.format = AD_FORMAT_NV21;
  frame.width = W;
  frame.height = H;
  frame.rotation = 90;
  frame.planes[0].data = nv21;
  frame.planes[1].data = nv21 + W * H;
  if (ad_detector_detect(detector, &frame, &result) != AD_OK ||
      result.status != AD_STATUS_ANALYSED) {
    return 1;
  }
  /* Misuse is an error code or a status with its reason, never a crash. */
  frame.planes[1].data = NULL;
  if (ad_detector_create(argv[1], NULL, NULL) != AD_ERROR_INVALID_ARGUMENT ||
      ad_detector_set_threshold(detector, 12, 0.5f) != AD_ERROR_INVALID_ARGUMENT ||
      ad_detector_detect(NULL, &frame, &result) != AD_ERROR_INVALID_ARGUMENT ||
      ad_detector_detect(detector, &frame, &result) != AD_OK ||
      result.status != AD_STATUS_INVALID_INPUT || strcmp(result.reason, "plane 1 is null") != 0) {
    return 1;
  }
  ad_detector_destroy(detector);
  printf("c consumer ok, version %s\n", artifact_detector_version());
  return 0;
}

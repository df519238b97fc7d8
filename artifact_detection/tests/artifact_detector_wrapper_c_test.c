/* The C wrapper driven from a C program: the header compiles as C, the records have the C
 * layout, the count function is reached by its type-encoded name, and a whole run works
 * against the scripted inference library. Exits non-zero if any check failed. */
#define _POSIX_C_SOURCE 200809L

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "artifact_detector_wrapper.h"

/* Control functions of the scripted inference library (C linkage). */
void fake_tarn_set_input_size(int width, int height);
void fake_tarn_set_layer_output(const char* layer, const float* values, size_t count, int d0,
                                int d1, int d2, int d3, int format);

static int g_failures;
#define CHECK(cond) \
  if (!(cond)) fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond), ++g_failures

/* A network finding DonutBlur (5, probability 1) and Noise (9, probability 0.5, above its
 * threshold 0.2), or nothing. */
static void script_network(int finds) {
  float logits[12];
  for (int id = 0; id < 12; ++id) logits[id] = -INFINITY;
  if (finds) logits[5] = INFINITY, logits[9] = 0.0f;
  fake_tarn_set_input_size(32, 32);
  fake_tarn_set_layer_output("Identity", logits, 12, 1, 12, 1, 1, 0);
}

int main(void) {
  /* A models directory whose info file names a model the scripted library never reads. */
  char base[] = "/tmp/ad_wrapper_c_XXXXXX", dir[64], info[128], models[64];
  if (mkdtemp(base) == NULL) return 2;
  snprintf(models, sizeof models, "%s/", base);
  snprintf(dir, sizeof dir, "%s/artifact_detector", base);
  snprintf(info, sizeof info, "%s/artifact_detector_cnn.info", dir);
  FILE* f = mkdir(dir, 0700) == 0 ? fopen(info, "w") : NULL;
  if (f == NULL) return 2;
  fprintf(f, "{\n\"model_type\": \"cpu\",\n\"model_path\": \"%s/net.onnx\"\n}\n", dir);
  fclose(f);

  static char frame[64 * 48 * 3]; /* nowhere near a uniform colour */
  for (size_t i = 0; i < sizeof frame; ++i) frame[i] = (char)((i * 7 + (i / 97) * 13) & 0xff);
  const int64_t bgr = (int64_t)1 << 32; /* the format travels in the upper half */
  char name[] = "frame.jpg";
  Artifact_Info records[2];
  memset(records, 0, sizeof records);

  ArtifactDetectorWrapper* handle = ArtifactDetectorWrapper_create();
  if (handle == NULL) return 1;
  CHECK(!ArtifactDetectorWrapper_execute(handle, frame, 64, 48, 0, bgr));
  script_network(1);
  CHECK(ArtifactDetectorWrapper_Initialize(handle, 3, models));
  CHECK(ArtifactDetectorWrapper_execute(handle, frame, 64, 48, 0, bgr));
  CHECK(ArtifactDetectorWrapper_get_total_artifact_count(handle) == 1); /* whether, not how many */
  CHECK(ArtifactDetectorWrapper_get_artifact_info(handle, records));
  CHECK(records[0].tag_id == 5 && strcmp(records[0].tag, "DonutBlur") == 0 &&
        records[0].score == 1.0f);
  CHECK(records[1].tag_id == 9 && strcmp(records[1].tag, "Noise") == 0 && records[1].score == 0.5f);
  script_network(0);
  CHECK(ArtifactDetectorWrapper_execute_with_image_name(handle, frame, 64, 48, 0, bgr, name));
  CHECK(ArtifactDetectorWrapper_get_total_artifact_count(handle) == 0);
  ArtifactDetectorWrapper_destroy(handle);

  unlink(info);
  rmdir(dir);
  rmdir(base);
  printf("artifact_detector_wrapper_c_test: %d check(s) failed\n", g_failures);
  return g_failures != 0;
}

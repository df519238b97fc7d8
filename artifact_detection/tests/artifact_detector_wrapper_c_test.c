/* The C wrapper driven from a C program: the header compiles as C, the records have the C
 * layout, the count function is reached by its type-encoded name, and a whole run works
 * against the scripted inference library. Exits non-zero on the first failed check group. */
#define _POSIX_C_SOURCE 200809L

#include <android/log.h>
#include <math.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "artifact_detector_wrapper.h"

/* Control functions of the scripted inference library (C linkage). */
void fake_tarn_reset(void);
void fake_tarn_set_input_size(int width, int height);
void fake_tarn_set_layer_output(const char* layer, const float* values, size_t count, int d0,
                                int d1, int d2, int d3, int format);

enum { kMaxLines = 512, kMaxText = 1024, kWidth = 64, kHeight = 48, kLogits = 12 };

static const char kFormattedTag[] = "ImageSearchJNI_ARTI_DET";
static const char kStreamTag[] = "TQR_ARTIFACT_DET";

struct line {
  int priority;
  char tag[32];
  char text[kMaxText];
};
static struct line g_lines[kMaxLines];
static int g_line_count;
static int g_failures;

static void capture(const struct __android_logger_data* data, const char* message) {
  if (g_line_count == kMaxLines) return;
  struct line* l = &g_lines[g_line_count++];
  l->priority = data->priority;
  snprintf(l->tag, sizeof l->tag, "%s", data->tag ? data->tag : "");
  snprintf(l->text, sizeof l->text, "%s", message ? message : "");
}

static void clear_lines(void) { g_line_count = 0; }

#define CHECK(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      ++g_failures;                                                            \
    }                                                                          \
  } while (0)

/* True when line `index` is the wrapper's own verbose line `line_no` with `message`. */
static int is_wrapper_line(int index, int line_no, const char* message) {
  char expected[kMaxText];
  if (index >= g_line_count) return 0;
  snprintf(expected, sizeof expected, "artifact_detector_wrapper.cpp: %d: %s", line_no, message);
  return g_lines[index].priority == ANDROID_LOG_VERBOSE &&
         strcmp(g_lines[index].tag, kFormattedTag) == 0 &&
         strcmp(g_lines[index].text, expected) == 0;
}

static int wrapper_lines(void) {
  int n = 0;
  for (int i = 0; i < g_line_count; ++i) {
    if (strstr(g_lines[i].text, "artifact_detector_wrapper.cpp") != NULL) ++n;
  }
  return n;
}

/* The image format the detector reported for the last buffer run, or -1. */
static int logged_format(void) {
  static const char kRun[] = "artifact_detector Execute with odd skip called : ";
  int format = -1;
  for (int i = 0; i < g_line_count; ++i) {
    const char* run = strstr(g_lines[i].text, kRun);
    const char* at = run ? strstr(run, "image_format : ") : NULL;
    if (strcmp(g_lines[i].tag, kStreamTag) == 0 && at != NULL) {
      format = atoi(at + strlen("image_format : "));
    }
  }
  return format;
}

/* Logits of positions 1..11 (artifact ids); position 0 is not a class score. */
static void script_network(const float* by_id) {
  float logits[kLogits];
  logits[0] = 0.0f;
  for (int id = 1; id < kLogits; ++id) logits[id] = by_id[id];
  fake_tarn_reset();
  fake_tarn_set_input_size(32, 32);
  fake_tarn_set_layer_output("Identity", logits, kLogits, 1, kLogits, 1, 1, 0);
}

struct models {
  char base[256]; /* ends in "/" */
  char dir[300];
  char info[400];
};

static int make_models(struct models* m) {
  char pattern[] = "/tmp/ad_wrapper_c_XXXXXX";
  if (mkdtemp(pattern) == NULL) return 0;
  snprintf(m->base, sizeof m->base, "%s/", pattern);
  snprintf(m->dir, sizeof m->dir, "%sartifact_detector", m->base);
  snprintf(m->info, sizeof m->info, "%s/artifact_detector_cnn.info", m->dir);
  if (mkdir(m->dir, 0700) != 0) return 0;
  FILE* f = fopen(m->info, "w");
  if (f == NULL) return 0;
  /* The scripted library never reads the model file itself. */
  fprintf(f,
          "{\n\"model_type\": \"cpu\",\n\"precision\": \"float32\",\n"
          "\"model_path\": \"%s/net.onnx\"\n}\n",
          m->dir);
  return fclose(f) == 0;
}

static void remove_models(const struct models* m) {
  unlink(m->info);
  rmdir(m->dir);
  rmdir(m->base);
}

/* A frame that is nowhere near a uniform colour, large enough for every format (RGBA). */
static char g_frame[kWidth * kHeight * 4];

static void fill_frame(void) {
  for (size_t i = 0; i < sizeof g_frame; ++i) g_frame[i] = (char)((i * 7 + (i / 97) * 13) & 0xff);
}

static void uninitialised_detector(void) {
  ArtifactDetectorWrapper* handle = ArtifactDetectorWrapper_create();
  CHECK(handle != NULL);
  if (handle == NULL) return;

  clear_lines();
  CHECK(!ArtifactDetectorWrapper_get_total_artifact_count(handle));
  CHECK(is_wrapper_line(0, 43,
                        "TQ Debug: ArtifactDetectorWrapper_get_total_artifact_count c wrapper"));

  clear_lines();
  CHECK(ArtifactDetectorWrapper_get_artifact_info(handle, NULL));
  CHECK(is_wrapper_line(0, 48, "TQ Debug: ArtifactDetectorWrapper_get_box_info c wrapper"));

  clear_lines();
  CHECK(!ArtifactDetectorWrapper_execute(handle, g_frame, kWidth, kHeight, 0, (int64_t)1 << 32));
  CHECK(is_wrapper_line(0, 37, "TQ Debug: ArtifactDetectorWrapper_execute c wrapper"));

  clear_lines();
  char name[] = "frame.jpg";
  CHECK(!ArtifactDetectorWrapper_execute_with_image_name(handle, g_frame, kWidth, kHeight, 0,
                                                         (int64_t)1 << 32, name));
  CHECK(is_wrapper_line(0, 32, "TQ Debug: ArtifactDetectorWrapper_execute c wrapper"));

  clear_lines();
  ArtifactDetectorWrapper_destroy(handle);
  CHECK(g_line_count == 0);
}

static void whole_run(void) {
  struct models m;
  if (!make_models(&m)) {
    fprintf(stderr, "cannot create a models directory\n");
    ++g_failures;
    return;
  }
  ArtifactDetectorWrapper* handle = ArtifactDetectorWrapper_create();
  CHECK(handle != NULL);
  if (handle == NULL) return;

  float by_id[kLogits];
  for (int id = 0; id < kLogits; ++id) by_id[id] = -INFINITY;
  by_id[5] = INFINITY; /* DonutBlur: probability 1 */
  by_id[9] = 0.0f;     /* Noise: probability 0.5, above its threshold 0.2 */
  script_network(by_id);

  clear_lines();
  CHECK(ArtifactDetectorWrapper_Initialize(handle, 3, m.base));
  char expected[kMaxText];
  snprintf(expected, sizeof expected,
           "TQ Debug: ArtifactDetectorWrapper_initialize model path c wrapper=[%s]", m.base);
  CHECK(is_wrapper_line(0, 26, expected));
  CHECK(wrapper_lines() == 1);

  /* The format travels in the upper half of the 64-bit word. */
  static const struct {
    int64_t word;
    int format;
  } kFormats[] = {{(int64_t)1 << 32, 1},
                  {2, 0},
                  {(int64_t)2 << 32, 2},
                  {((int64_t)2 << 32) | 1, 2},
                  {(int64_t)7 << 32, 7}};
  for (size_t i = 0; i < sizeof kFormats / sizeof kFormats[0]; ++i) {
    clear_lines();
    ArtifactDetectorWrapper_execute(handle, g_frame, kWidth, kHeight, 0, kFormats[i].word);
    CHECK(logged_format() == kFormats[i].format);
    clear_lines();
    char name[] = "frame.jpg";
    ArtifactDetectorWrapper_execute_with_image_name(handle, g_frame, kWidth, kHeight, 0,
                                                    kFormats[i].word, name);
    CHECK(logged_format() == kFormats[i].format);
  }

  CHECK(ArtifactDetectorWrapper_execute(handle, g_frame, kWidth, kHeight, 0, (int64_t)1 << 32));
  clear_lines();
  CHECK(ArtifactDetectorWrapper_get_total_artifact_count(handle));
  Artifact_Info records[2];
  memset(records, 0, sizeof records);
  CHECK(ArtifactDetectorWrapper_get_artifact_info(handle, records));
  CHECK(records[0].tag_id == 5 && strcmp(records[0].tag, "DonutBlur") == 0 &&
        records[0].score == 1.0f);
  CHECK(records[1].tag_id == 9 && strcmp(records[1].tag, "Noise") == 0 && records[1].score == 0.5f);

  /* The count answer is whether anything was found, not how much. */
  for (int id = 0; id < kLogits; ++id) by_id[id] = -INFINITY;
  script_network(by_id);
  CHECK(ArtifactDetectorWrapper_execute(handle, g_frame, kWidth, kHeight, 0, (int64_t)1 << 32));
  CHECK(!ArtifactDetectorWrapper_get_total_artifact_count(handle));

  clear_lines();
  ArtifactDetectorWrapper_destroy(handle);
  CHECK(wrapper_lines() == 0);
  remove_models(&m);
}

int main(void) {
  __android_log_set_logger(capture);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  fill_frame();

  uninitialised_detector();
  whole_run();

  if (g_failures != 0) {
    fprintf(stderr, "%d check(s) failed\n", g_failures);
    return 1;
  }
  puts("artifact_detector_wrapper_c_test: all checks passed");
  return 0;
}

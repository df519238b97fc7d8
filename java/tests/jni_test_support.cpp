// Native side of tessaroven.pkd.artifactdetector.TestSupport, linked against the detector
// library and the fake so that both are the very instances the managed class uses.
#include <android/log.h>
#include <jni.h>

#include <cmath>
#include <mutex>
#include <string>
#include <vector>

#include "artifact_detector_jni.h"
#include "support/fake_tarnlink.h"
#include "support/log_capture.h"

namespace {
std::mutex g_mutex;
std::string g_log;  // the kept messages, each ended by a line feed
}  // namespace

extern "C" {

// From now on, keeps the messages of the bindings' LogMessage lines at info priority, as the
// tests' normaliser gives them.
JNIEXPORT void JNICALL Java_tessaroven_pkd_artifactdetector_TestSupport_captureLog(JNIEnv*,
                                                                                   jclass) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_log.clear();
  __android_log_set_logger([](const __android_logger_data* data, const char* text) {
    if (data->priority != ANDROID_LOG_INFO || !data->tag || !text ||
        std::string(data->tag) != "TQR_ARTIFACT_DET" ||
        ad_test::located(text).rfind("artifact_detector_jni.cpp:", 0) != 0) {
      return;
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    g_log += ad_test::message(text) + "\n";
  });
}

JNIEXPORT jstring JNICALL Java_tessaroven_pkd_artifactdetector_TestSupport_takeLog(JNIEnv* env,
                                                                                   jclass) {
  std::lock_guard<std::mutex> lock(g_mutex);
  const jstring text = env->NewStringUTF(g_log.c_str());
  g_log.clear();
  return text;
}

// Resets the fake and makes every run of a network with a 32 x 32 input report logit +inf
// (probability 1) for the ids in `found`, 0 (probability 0.5) for Noise (9), else -inf.
JNIEXPORT void JNICALL Java_tessaroven_pkd_artifactdetector_TestSupport_scriptNetwork(
    JNIEnv* env, jclass, jintArray found) {
  std::vector<float> logits(12, -INFINITY);  // position 0, then artifact ids 1 to 11
  std::vector<jint> ids(std::size_t(env->GetArrayLength(found)));
  env->GetIntArrayRegion(found, 0, jsize(ids.size()), ids.data());
  for (jint id : ids) logits[std::size_t(id)] = id == 9 ? 0.0f : INFINITY;
  fake_tarn_reset();
  fake_tarn_set_input_size(32, 32);
  fake_tarn_set_layer_output("Identity", logits.data(), logits.size(), 1, 12, 1, 1, 0);
}

JNIEXPORT void JNICALL Java_tessaroven_pkd_artifactdetector_TestSupport_failRuns(JNIEnv*, jclass) {
  std::unique_lock<std::mutex> lock;
  fake_tarn_lock(&lock)->failures[FAKE_TARN_EXECUTE] = FAKE_TARN_THROW;
}

JNIEXPORT jboolean JNICALL
Java_tessaroven_pkd_artifactdetector_TestSupport_globalsAre(JNIEnv* env, jclass, jobject object) {
  JavaVM* vm = nullptr;
  env->GetJavaVM(&vm);
  return vm == jvm && main_obj != nullptr && env->IsSameObject(main_obj, object);
}

}  // extern "C"

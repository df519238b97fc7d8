// Native side of tessaroven.pkd.artifactdetector.TestSupport: lets the JVM tests capture the
// library's log lines, script the fake inference library and look at the exported globals.
// Linked against the detector library and the fake, so both are the very instances the
// managed class uses.
#include <android/log.h>
#include <jni.h>

#include <cmath>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "artifact_detector_jni.h"
#include "support/fake_tarnlink.h"

namespace {

std::mutex g_mutex;
std::vector<std::string> g_lines;

// One line as "<tag>\t<priority>\t<text>".
void capture(const __android_logger_data* data, const char* message) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.push_back(std::string(data->tag ? data->tag : "") + "\t" +
                    std::to_string(data->priority) + "\t" + (message ? message : ""));
}

constexpr const char* kOutputLayer = "Identity";  // cpu models
constexpr int kLogitCount = 12;                   // position 0, then artifact ids 1 to 11

}  // namespace

extern "C" {

JNIEXPORT void JNICALL Java_tessaroven_pkd_artifactdetector_TestSupport_captureLog(JNIEnv*,
                                                                                   jclass) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.clear();
  __android_log_set_logger(capture);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

JNIEXPORT jobjectArray JNICALL Java_tessaroven_pkd_artifactdetector_TestSupport_takeLog(JNIEnv* env,
                                                                                        jclass) {
  std::vector<std::string> lines;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    lines.swap(g_lines);
  }
  jobjectArray out = env->NewObjectArray(static_cast<jsize>(lines.size()),
                                         env->FindClass("java/lang/String"), nullptr);
  for (size_t i = 0; i < lines.size(); ++i) {
    jstring text = env->NewStringUTF(lines[i].c_str());
    env->SetObjectArrayElement(out, static_cast<jsize>(i), text);
    env->DeleteLocalRef(text);
  }
  return out;
}

// Resets the fake and makes every run report `logits` (indexed by artifact id; id 0 unused;
// missing ids get -infinity) for a network of the given input size.
JNIEXPORT void JNICALL Java_tessaroven_pkd_artifactdetector_TestSupport_scriptNetwork(
    JNIEnv* env, jclass, jint width, jint height, jfloatArray logits) {
  std::vector<float> values(kLogitCount, -INFINITY);
  const jsize n = env->GetArrayLength(logits);
  env->GetFloatArrayRegion(logits, 0, n < kLogitCount ? n : kLogitCount, values.data());
  fake_tarn_reset();
  fake_tarn_set_input_size(width, height);
  fake_tarn_set_layer_output(kOutputLayer, values.data(), values.size(), 1, kLogitCount, 1, 1, 0);
}

JNIEXPORT jboolean JNICALL Java_tessaroven_pkd_artifactdetector_TestSupport_jvmIsThisVm(JNIEnv* env,
                                                                                        jclass) {
  JavaVM* vm = nullptr;
  env->GetJavaVM(&vm);
  return vm != nullptr && vm == jvm ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL
Java_tessaroven_pkd_artifactdetector_TestSupport_mainObjectIs(JNIEnv* env, jclass, jobject object) {
  return main_obj != nullptr && env->IsSameObject(main_obj, object) ? JNI_TRUE : JNI_FALSE;
}

}  // extern "C"

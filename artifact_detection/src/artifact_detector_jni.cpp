#include "artifact_detector_jni.h"

#include <cstdint>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>

#include "core/utils/failure.h"
#include "core/utils/logging.h"
#include "core/utils/steady_clock.h"

using artifact_detector::ArtifactDetector;
using artifact_detector::steady_ms;

extern "C" {
JavaVM* jvm = nullptr;
jobject main_obj = nullptr;
}

namespace {

constexpr const char* kReferenceField = "artifact_detector_reference";
constexpr const char* kLongSignature = "J";

// Only mode 0 addresses the detector kept in the managed object.
constexpr jint kStoredDetectorMode = 0;

// Raises the Java exception for the C++ one being handled: IllegalArgumentException when the
// arguments were refused, RuntimeException otherwise; a Java exception already pending (from
// a JNI call) is left to propagate. Call only inside a catch block.
void throw_to_java(JNIEnv* env) noexcept {
  const artifact_detector::Failure failure = artifact_detector::current_failure();
  if (env->ExceptionCheck()) return;
  jclass type = env->FindClass(failure.bad_argument ? "java/lang/IllegalArgumentException"
                                                    : "java/lang/RuntimeException");
  if (type != nullptr) env->ThrowNew(type, failure.message);
}

// `call`'s answer, or `failed` with a Java exception raised: no C++ exception reaches the JVM.
template <typename T, typename Call>
T answer_or_throw(JNIEnv* env, T failed, Call&& call) noexcept {
  try {
    return call();
  } catch (...) {
    throw_to_java(env);
    return failed;
  }
}

// The pinned or copied bytes of a managed array, released unwritten on every path.
class ByteArrayElements {
 public:
  ByteArrayElements(JNIEnv* env, jbyteArray array)
      : env_(env), array_(array), bytes_(env->GetByteArrayElements(array, nullptr)) {}
  ~ByteArrayElements() { env_->ReleaseByteArrayElements(array_, bytes_, JNI_ABORT); }
  ByteArrayElements(const ByteArrayElements&) = delete;
  ByteArrayElements& operator=(const ByteArrayElements&) = delete;
  jbyte* get() const { return bytes_; }

 private:
  JNIEnv* env_;
  jbyteArray array_;
  jbyte* bytes_;
};

// The UTF-8 characters of a managed string, released on every path.
class StringUtfChars {
 public:
  StringUtfChars(JNIEnv* env, jstring text)
      : env_(env), text_(text), chars_(env->GetStringUTFChars(text, nullptr)) {}
  ~StringUtfChars() { env_->ReleaseStringUTFChars(text_, chars_); }
  StringUtfChars(const StringUtfChars&) = delete;
  StringUtfChars& operator=(const StringUtfChars&) = delete;
  const char* get() const { return chars_; }

 private:
  JNIEnv* env_;
  jstring text_;
  const char* chars_;
};

}  // namespace

ArtifactDetector* get_artifact_detector_reference(JNIEnv* env, jobject thiz) {
  jclass cls = env->GetObjectClass(thiz);
  jfieldID field = env->GetFieldID(cls, kReferenceField, kLongSignature);
  return reinterpret_cast<ArtifactDetector*>(static_cast<intptr_t>(env->GetLongField(thiz, field)));
}

void set_artifact_detector_reference(JNIEnv* env, jobject thiz, ArtifactDetector* detector) {
  jclass cls = env->GetObjectClass(thiz);
  jfieldID field = env->GetFieldID(cls, kReferenceField, kLongSignature);
  env->SetLongField(thiz, field, static_cast<jlong>(reinterpret_cast<intptr_t>(detector)));
}

std::string convert_artifact_info_to_json_string(ArtifactDetector::Artifact_Info* infos,
                                                 int count) {
  // nlohmann::json keeps object members in a sorted map: "score", "tag", "tag_id".
  nlohmann::json result = nlohmann::json::array();
  for (int i = 0; i < count; ++i) {
    nlohmann::json artifact;
    artifact["tag"] = std::string(infos[i].tag);
    artifact["score"] = static_cast<double>(infos[i].score);
    artifact["tag_id"] = infos[i].tag_id;
    result.push_back(std::move(artifact));
  }
  return result.dump(-1, ' ', false, nlohmann::json::error_handler_t::strict);
}

extern "C" {

JNIEXPORT jboolean JNICALL Java_tessaroven_pkd_artifactdetector_ArtifactDetector_initializeJNI(
    JNIEnv* env, jobject thiz, jint mode, jstring model_path) {
  return answer_or_throw(env, jboolean{JNI_FALSE}, [&]() -> jboolean {
    ArtifactDetector* detector = nullptr;
    bool reused = false;
    if (mode == kStoredDetectorMode) {
      detector = get_artifact_detector_reference(env, thiz);
      reused = detector != nullptr;
      if (!reused) {
        detector = ArtifactDetector::Create();
        set_artifact_detector_reference(env, thiz, detector);
      }
    } else {
      // Other modes get a detector for this call alone; it is never stored or released.
      detector = ArtifactDetector::Create();
    }
    if (!reused) env->GetJavaVM(&jvm);

    const int64_t start = steady_ms();
    const StringUtfChars path(env, model_path);
    main_obj = env->NewGlobalRef(thiz);
    const bool ok = detector->initialize(static_cast<ArtifactDetector::Mode>(mode),
                                         const_cast<char*>(path.get()));
    AD_LOG_INFO << "TQ Debug: Time taken for initialization: " << (steady_ms() - start) << " ms";
    return ok ? JNI_TRUE : JNI_FALSE;
  });
}

JNIEXPORT jboolean JNICALL
Java_tessaroven_pkd_artifactdetector_ArtifactDetector_executeWithBtyeArrayJNI(
    JNIEnv* env, jobject thiz, jbyteArray image, jint width, jint height, jint rotation,
    jint /*ignored*/, jint mode) {
  return answer_or_throw(env, jboolean{JNI_FALSE}, [&]() -> jboolean {
    ArtifactDetector* detector =
        mode == kStoredDetectorMode ? get_artifact_detector_reference(env, thiz) : nullptr;

    const ByteArrayElements bytes(env, image);
    const int64_t start = steady_ms();
    // A view of the managed bytes; the detector copies what it keeps.
    const cv::Mat bgr(height, width, CV_8UC3, bytes.get());
    const bool ok = detector != nullptr && detector->execute(bgr, rotation);
    AD_LOG_INFO << "TQ Debug: Time taken for exexecuteWithBtyeArrayJNI execution: "
                << (steady_ms() - start) << " ms";
    return ok ? JNI_TRUE : JNI_FALSE;
  });
}

JNIEXPORT jstring JNICALL Java_tessaroven_pkd_artifactdetector_ArtifactDetector_getArtifactInfoJNI(
    JNIEnv* env, jobject thiz, jint mode) {
  return answer_or_throw(env, jstring{nullptr}, [&]() -> jstring {
    if (mode != kStoredDetectorMode) return env->NewStringUTF("");
    ArtifactDetector* detector = get_artifact_detector_reference(env, thiz);
    const int64_t start = steady_ms();
    if (detector == nullptr) return env->NewStringUTF("");

  const int count = detector->get_total_artifact_count();
  std::vector<ArtifactDetector::Artifact_Info> records(count > 0 ? count : 0);
  if (!detector->get_artifact_info(records.data())) return env->NewStringUTF("");
  const std::string json = convert_artifact_info_to_json_string(records.data(), count);

    AD_LOG_INFO << "TQ Debug: Time taken for result-extraction1: " << (steady_ms() - start) << " ms";
    AD_LOG_INFO << "TQ Debug: Artifact Info :" << json;
    return env->NewStringUTF(json.c_str());
  });
}

JNIEXPORT void JNICALL Java_tessaroven_pkd_artifactdetector_ArtifactDetector_releaseJNI(
    JNIEnv* env, jobject thiz, jint mode) {
  answer_or_throw(env, 0, [&] {
    const int64_t start = steady_ms();
    if (mode == kStoredDetectorMode) {
      // The field keeps the stale address: the managed side must not release twice.
      ArtifactDetector::Destroy(get_artifact_detector_reference(env, thiz));
    }
    AD_LOG_INFO << "TQ Debug: Time taken for release: " << (steady_ms() - start) << " ms";
    return 0;
  });
}

}  // extern "C"

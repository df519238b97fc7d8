// Native methods of tessaroven.pkd.artifactdetector.Detector. The managed class keeps the
// handle and passes it in, so nothing here looks up fields by name. Every method catches
// whatever the native side throws and raises a Java exception instead.
#include <jni.h>

#include <cstdint>
#include <exception>
#include <limits>
#include <new>
#include <string>

#include "detector.h"

using artifact_detector::Detector;
using artifact_detector::Frame;
using artifact_detector::PixelFormat;
using artifact_detector::Result;
using artifact_detector::YuvRange;

namespace {

Detector* handle(jlong h) { return reinterpret_cast<Detector*>(static_cast<intptr_t>(h)); }

void throw_java(JNIEnv* env, const char* class_name, const char* message) {
  if (env->ExceptionCheck()) return;
  jclass cls = env->FindClass(class_name);
  if (cls != nullptr) env->ThrowNew(cls, message);
}

// Runs `body`; a C++ exception becomes the matching Java one and `fallback` is returned.
template <typename T, typename Body>
T guarded(JNIEnv* env, T fallback, Body&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    throw_java(env, "java/lang/OutOfMemoryError", "native detector");
  } catch (const std::exception& e) {
    throw_java(env, "java/lang/RuntimeException", e.what());
  } catch (...) {
    throw_java(env, "java/lang/RuntimeException", "unknown native error");
  }
  return fallback;
}

// The result as the managed side reads it: the status in the low byte, bit id-1 above it for
// each accepted class; the probabilities and the reason through the caller's arrays.
jlong report(JNIEnv* env, const Result& r, jfloatArray probabilities, jobjectArray reason) {
  env->SetFloatArrayRegion(probabilities, 0, artifact_detector::kClassCount,
                           r.probabilities.data());
  jstring text = env->NewStringUTF(r.reason.c_str());
  if (text == nullptr) return 0;
  env->SetObjectArrayElement(reason, 0, text);
  env->DeleteLocalRef(text);
  jlong code = static_cast<jlong>(r.status);
  for (const auto& a : r.artifacts) code |= jlong(1) << (8 + a.id - 1);
  return code;
}

const uint8_t* plane_address(JNIEnv* env, jobject buffer, jint offset) {
  if (buffer == nullptr) return nullptr;
  auto* base = static_cast<const uint8_t*>(env->GetDirectBufferAddress(buffer));
  return base == nullptr ? nullptr : base + offset;
}

}  // namespace

extern "C" {

JNIEXPORT jlong JNICALL Java_tessaroven_pkd_artifactdetector_Detector_nativeOpen(
    JNIEnv* env, jclass, jstring models_dir, jboolean quiet, jint log_priority) {
  return guarded<jlong>(env, 0, [&]() -> jlong {
    const char* chars = env->GetStringUTFChars(models_dir, nullptr);
    if (chars == nullptr) return 0;
    const std::string dir(chars);
    env->ReleaseStringUTFChars(models_dir, chars);
    artifact_detector::Options options;
    options.quiet = quiet == JNI_TRUE;
    options.log_priority = log_priority;
    return static_cast<jlong>(reinterpret_cast<intptr_t>(Detector::open(dir, options).release()));
  });
}

JNIEXPORT void JNICALL Java_tessaroven_pkd_artifactdetector_Detector_nativeDestroy(JNIEnv*, jclass,
                                                                                   jlong h) {
  delete handle(h);
}

JNIEXPORT jstring JNICALL Java_tessaroven_pkd_artifactdetector_Detector_nativeError(JNIEnv* env,
                                                                                    jclass,
                                                                                    jlong h) {
  return env->NewStringUTF(handle(h)->error().c_str());
}

JNIEXPORT jlong JNICALL Java_tessaroven_pkd_artifactdetector_Detector_nativeInputSize(JNIEnv*,
                                                                                      jclass,
                                                                                      jlong h) {
  const cv::Size size = handle(h)->input_size();
  return (jlong(size.width) << 32) | jlong(uint32_t(size.height));
}

JNIEXPORT jlong JNICALL Java_tessaroven_pkd_artifactdetector_Detector_nativeDetectBytes(
    JNIEnv* env, jclass, jlong h, jbyteArray data, jint format, jint width, jint height,
    jint row_stride, jint rotation, jint range, jfloatArray probabilities, jobjectArray reason) {
  return guarded<jlong>(env, 0, [&]() -> jlong {
    jbyte* bytes = env->GetByteArrayElements(data, nullptr);
    if (bytes == nullptr) return 0;
    const auto* p = reinterpret_cast<const uint8_t*>(bytes);
    const auto pixels = static_cast<PixelFormat>(format);
    const Frame frame = pixels == PixelFormat::kNv21
                            ? Frame::nv21(p, width, height, rotation, static_cast<YuvRange>(range))
                            : Frame::packed(pixels, p, row_stride, width, height, rotation);
    Result r;
    try {
      r = handle(h)->detect(frame);
    } catch (...) {
      env->ReleaseByteArrayElements(data, bytes, JNI_ABORT);
      throw;
    }
    env->ReleaseByteArrayElements(data, bytes, JNI_ABORT);
    return report(env, r, probabilities, reason);
  });
}

JNIEXPORT jlong JNICALL Java_tessaroven_pkd_artifactdetector_Detector_nativeDetectPlanes(
    JNIEnv* env, jclass, jlong h, jobject y, jint y_offset, jint y_row_stride, jobject u,
    jint u_offset, jobject v, jint v_offset, jint uv_row_stride, jint uv_pixel_stride, jint width,
    jint height, jint rotation, jint range, jfloatArray probabilities, jobjectArray reason) {
  return guarded<jlong>(env, 0, [&]() -> jlong {
    const Frame frame = Frame::yuv_420_888(
        plane_address(env, y, y_offset), y_row_stride, plane_address(env, u, u_offset),
        plane_address(env, v, v_offset), uv_row_stride, uv_pixel_stride, width, height, rotation,
        static_cast<YuvRange>(range));
    return report(env, handle(h)->detect(frame), probabilities, reason);
  });
}

JNIEXPORT jfloat JNICALL Java_tessaroven_pkd_artifactdetector_Detector_nativeThreshold(JNIEnv* env,
                                                                                       jclass,
                                                                                       jlong h,
                                                                                       jint id) {
  return guarded<jfloat>(env, 0.0f, [&]() -> jfloat {
    const auto table = handle(h)->thresholds();
    const auto found = table.find(id);
    return found == table.end() ? std::numeric_limits<float>::quiet_NaN() : found->second;
  });
}

JNIEXPORT void JNICALL Java_tessaroven_pkd_artifactdetector_Detector_nativeSetThreshold(
    JNIEnv* env, jclass, jlong h, jint id, jfloat threshold) {
  guarded<int>(env, 0, [&] {
    handle(h)->set_threshold(id, threshold);
    return 0;
  });
}

JNIEXPORT jstring JNICALL Java_tessaroven_pkd_artifactdetector_Detector_nativeClassName(JNIEnv* env,
                                                                                        jclass,
                                                                                        jint id) {
  return env->NewStringUTF(artifact_detector::class_name(id));
}

JNIEXPORT jstring JNICALL Java_tessaroven_pkd_artifactdetector_Detector_nativeVersion(JNIEnv* env,
                                                                                      jclass) {
  return env->NewStringUTF(artifact_detector::version());
}

}  // extern "C"

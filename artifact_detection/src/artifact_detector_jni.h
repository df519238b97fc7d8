// Native side of the managed class tessaroven.pkd.artifactdetector.ArtifactDetector.
// Internal: the managed class is the interface; this header exists for the library's tests.
#pragma once

#include <jni.h>

#include <string>

#include "artifact_detector.h"

// Written by initializeJNI only, for native code that calls back into the managed side.
extern "C" {
JNIEXPORT extern JavaVM* jvm;
JNIEXPORT extern jobject main_obj;
}

// The detector whose address the managed object keeps in its "artifact_detector_reference"
// long field (null when the field is 0).
artifact_detector::ArtifactDetector* get_artifact_detector_reference(JNIEnv* env, jobject thiz);
void set_artifact_detector_reference(JNIEnv* env, jobject thiz,
                                     artifact_detector::ArtifactDetector* detector);

// Compact JSON array of the records, members in the order "score", "tag", "tag_id".
// Throws nlohmann::json::type_error for a tag that is not valid UTF-8.
std::string convert_artifact_info_to_json_string(
    artifact_detector::ArtifactDetector::Artifact_Info* infos, int count);

# Fails unless the shared object exports every interface symbol.
# Usage: cmake -DLIB=<path to .so> -P check_exports.cmake
execute_process(COMMAND nm -D --defined-only -C ${LIB}
                OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REPLACE "\n" ";" lines "${out}")

set(required
  "artifact_detector::ArtifactDetector::Create()"
  "artifact_detector::ArtifactDetector::Destroy(artifact_detector::ArtifactDetector*)"
  "artifact_detector::ArtifactDetector::initialize("
  "artifact_detector::ArtifactDetector::execute(cv::Mat, int)"
  "artifact_detector::ArtifactDetector::execute(char*, int, int, int, artifact_detector::ArtifactDetector::ImageFormat)"
  "artifact_detector::ArtifactDetector::execute(char*, int, int, int, artifact_detector::ArtifactDetector::ImageFormat, char*)"
  "artifact_detector::ArtifactDetector::get_total_artifact_count()"
  "artifact_detector::ArtifactDetector::get_artifact_info("
  "ArtifactDetectorWrapper_create"
  "ArtifactDetectorWrapper_destroy"
  "ArtifactDetectorWrapper_Initialize"
  "ArtifactDetectorWrapper_execute"
  "ArtifactDetectorWrapper_execute_with_image_name"
  "ArtifactDetectorWrapper_get_total_artifact_count(ArtifactDetectorWrapper*)"
  "ArtifactDetectorWrapper_get_artifact_info"
  "Java_tessaroven_pkd_artifactdetector_ArtifactDetector_initializeJNI"
  "Java_tessaroven_pkd_artifactdetector_ArtifactDetector_executeWithBtyeArrayJNI"
  "Java_tessaroven_pkd_artifactdetector_ArtifactDetector_getArtifactInfoJNI"
  "Java_tessaroven_pkd_artifactdetector_ArtifactDetector_releaseJNI"
  "jvm"
  "main_obj"
  "artifact_detector::Detector::open("
  "artifact_detector::Detector::detect(artifact_detector::Frame const&)"
  "ad_detector_create"
  "ad_detector_detect"
  "artifact_detector_version"
  "Java_tessaroven_pkd_artifactdetector_Detector_nativeDetectPlanes")
if(DEFINED EXTRA_REQUIRED)
  list(APPEND required ${EXTRA_REQUIRED})
endif()

set(names "")
foreach(line IN LISTS lines)
  # "<address> <type> <name>"; absolute symbols (version nodes) have type A.
  if(line MATCHES "^[0-9a-f]+ ([^A]) (.+)$")
    list(APPEND names "${CMAKE_MATCH_2}")
  endif()
  # Without the export map the inlined instantiations of the libraries below would leave too.
  if(line MATCHES "^[0-9a-f]+ [A-Za-z] ([a-z ]+ for )?(cv|std|__gnu_cxx)::")
    message(FATAL_ERROR "a dependency's symbol is exported: ${line}")
  endif()
endforeach()

foreach(symbol IN LISTS required)
  set(found FALSE)
  foreach(name IN LISTS names)
    # C++ names are matched by their beginning, C names (no parenthesis) whole.
    string(FIND "${name}" "${symbol}" at)
    if(name STREQUAL symbol OR (symbol MATCHES "[(]" AND at EQUAL 0))
      set(found TRUE)
      break()
    endif()
  endforeach()
  if(NOT found)
    message(FATAL_ERROR "interface symbol not exported: ${symbol}")
  endif()
endforeach()
list(LENGTH names count)
list(LENGTH required wanted)
message(STATUS "${count} exported symbols for ${wanted} interface entries")

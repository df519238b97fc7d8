/* The library's version, for C and C++. The macros give the version a program was compiled
 * against; artifact_detector_version() gives the one it runs with. CMake checks at configure
 * time that these numbers equal the project's version. */
#ifndef ARTIFACT_DETECTOR_VERSION_H_
#define ARTIFACT_DETECTOR_VERSION_H_

#define ARTIFACT_DETECTOR_VERSION_MAJOR 1
#define ARTIFACT_DETECTOR_VERSION_MINOR 18
#define ARTIFACT_DETECTOR_VERSION_PATCH 3
#define ARTIFACT_DETECTOR_VERSION_STRING "1.18.3"
/* One comparable number: major * 10000 + minor * 100 + patch. */
#define ARTIFACT_DETECTOR_VERSION                                                    \
  (ARTIFACT_DETECTOR_VERSION_MAJOR * 10000 + ARTIFACT_DETECTOR_VERSION_MINOR * 100 + \
   ARTIFACT_DETECTOR_VERSION_PATCH)

#ifdef __cplusplus
extern "C" {
#endif

/* The running library's version text, "major.minor.patch"; static storage. */
__attribute__((visibility("default"))) const char* artifact_detector_version(void);

#ifdef __cplusplus
}
#endif

#endif /* ARTIFACT_DETECTOR_VERSION_H_ */

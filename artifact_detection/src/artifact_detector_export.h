/* The mark on everything the shared object exports, for C and C++; all else is hidden. */
#ifndef ARTIFACT_DETECTOR_EXPORT_H_
#define ARTIFACT_DETECTOR_EXPORT_H_

#if defined(_WIN32)
#define AD_EXPORT __declspec(dllexport)
#else
#define AD_EXPORT __attribute__((visibility("default")))
#endif

#endif /* ARTIFACT_DETECTOR_EXPORT_H_ */

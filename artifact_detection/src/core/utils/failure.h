// What a binding reports when a call into the detector threw: the bindings are the boundary
// that no C++ exception may cross.
#pragma once

namespace artifact_detector {

struct Failure {
  char message[512];  // the exception's text, cut to fit; no allocation, so nothing can throw
  // The caller's arguments were refused (a size the image library rejects, a logic error)
  // rather than the detector or the system failing.
  bool bad_argument;
};

// Describes the exception being handled. Call it only inside a catch block.
Failure current_failure() noexcept;

}  // namespace artifact_detector

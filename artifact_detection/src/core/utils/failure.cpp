#include "core/utils/failure.h"

#include <cstdio>
#include <exception>
#include <stdexcept>

#include <opencv2/core.hpp>

namespace artifact_detector {
namespace {

// OpenCV's codes for arguments it refuses: bad values, sizes, null pointers, failed checks.
bool is_argument_code(int code) {
  switch (code) {
    case cv::Error::StsBadArg:
    case cv::Error::StsNullPtr:
    case cv::Error::StsBadSize:
    case cv::Error::StsUnmatchedSizes:
    case cv::Error::StsOutOfRange:
    case cv::Error::StsAssert:
      return true;
    default:
      return false;
  }
}

Failure make(const char* text, bool bad_argument) noexcept {
  Failure failure{};
  std::snprintf(failure.message, sizeof failure.message, "%s", text);
  failure.bad_argument = bad_argument;
  return failure;
}

}  // namespace

Failure current_failure() noexcept {
  try {
    throw;
  } catch (const cv::Exception& e) {
    return make(e.what(), is_argument_code(e.code));
  } catch (const std::logic_error& e) {
    return make(e.what(), true);
  } catch (const std::exception& e) {
    return make(e.what(), false);
  } catch (...) {
    return make("unknown exception", false);
  }
}

}  // namespace artifact_detector

// Timings for log lines.
#pragma once

#include <chrono>
#include <cstdint>

namespace artifact_detector {

// Steady-clock reading in whole milliseconds; the difference of two readings is a timing.
inline int64_t steady_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace artifact_detector

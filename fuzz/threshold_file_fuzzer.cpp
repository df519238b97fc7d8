// The threshold file reader over arbitrary file contents: it must answer with a map and
// nothing else, however the lines are broken.
#include <algorithm>

#include "fuzz_support.h"
#include "utils/sys_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::map<int, float> thresholds = get_artifact_thresholds(
      ad_fuzz::scratch_file("artifact_threshold.json", data, size) + "artifact_threshold.json");
  // Every entry needs a member line of its own: a quote, a second quote and a colon.
  ad_fuzz::check(thresholds.size() <= std::size_t(std::count(data, data + size, ':')),
                 "no more entries than member lines");
  return 0;
}

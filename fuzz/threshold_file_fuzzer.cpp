// The threshold file reader over arbitrary file contents: it must answer with a map and
// nothing else, however the lines are broken.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "fuzz_support.h"
#include "utils/sys_utils.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ad_fuzz::silence_log();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ad_fuzz::ScratchDir scratch;
  const std::string path = scratch.write("artifact_threshold.json", data, size);

  const std::map<int, float> thresholds = get_artifact_thresholds(path);

  // Every entry needs a member line of its own: a quote, a second quote and a colon.
  std::size_t colons = 0;
  for (std::size_t i = 0; i < size; ++i) colons += data[i] == ':';
  ad_fuzz::check(thresholds.size() <= colons, "no more entries than member lines");
  return 0;
}

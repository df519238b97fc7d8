// The model info file reader over arbitrary file contents. Whatever the file holds, the
// answer has exactly the four keys, and every value is its default or a text of one line that
// stands between double quotes in the file.
#include <string>

#include "fuzz_support.h"
#include "utils/sys_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ModelProperties kDefaults{
      {"version_id", "v5"}, {"model_type", "cpu"}, {"precision", "float16"}, {"model_path", ""}};
  const std::string base =
      ad_fuzz::scratch_file("artifact_detector/artifact_detector_cnn.info", data, size);
  const ModelProperties properties = get_model_properties("artifact_detector", base);

  const std::string file(reinterpret_cast<const char*>(data), size);
  ad_fuzz::check(properties.size() == kDefaults.size(), "exactly four keys");
  for (const auto& [key, fallback] : kDefaults) {
    const auto found = properties.find(key);
    ad_fuzz::check(found != properties.end(), "every key present");
    const std::string& value = found->second;
    ad_fuzz::check(value == fallback || file.find('"' + value + '"') != std::string::npos,
                   "a value that is not the default comes from between two quotes");
    ad_fuzz::check(value.find('\n') == std::string::npos, "a value never spans lines");
  }
  return 0;
}

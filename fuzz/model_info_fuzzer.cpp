// The model info file reader over arbitrary file contents. Whatever the file holds, the
// answer has exactly the four keys, and every value is its default or a text that stands
// between double quotes in the file.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "fuzz_support.h"
#include "utils/sys_utils.h"

namespace {

constexpr const char* kModelName = "artifact_detector";

const std::map<std::string, std::string> kDefaults{
    {"version_id", "v5"}, {"model_type", "cpu"}, {"precision", "float16"}, {"model_path", ""}};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ad_fuzz::silence_log();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ad_fuzz::ScratchDir models;
  models.write(std::string(kModelName) + "/" + kModelName + "_cnn.info", data, size);

  const ModelProperties properties = get_model_properties(kModelName, models.base());

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

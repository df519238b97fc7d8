// The JSON result text over arbitrary records: any tag bytes, any score bits, any class id.
// A tag that is not UTF-8 must end in the JSON library's type_error 316 and nothing else;
// every other input gives a text that reads back as the records it was made from.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "artifact_detector.h"
#include "artifact_detector_jni.h"
#include "fuzz_support.h"

namespace {

// Well-formed UTF-8 (RFC 3629): shortest forms only, no surrogates, nothing above U+10FFFF.
bool is_utf8(const std::string& text) {
  static const std::uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char lead = text[i];
    const std::size_t extra = lead < 0x80 ? 0 : lead >> 5 == 6 ? 1 : lead >> 4 == 14 ? 2 : 3;
    if ((extra == 3 && lead >> 3 != 30) || text.size() - i <= extra) return false;
    std::uint32_t code = extra == 0 ? lead : lead & (0x7F >> (extra + 1));
    for (std::size_t k = 1; k <= extra; ++k) {
      const unsigned char next = text[i + k];
      if (next >> 6 != 2) return false;
      code = code << 6 | (next & 0x3F);
    }
    if (code < kSmallest[extra] || code > 0x10FFFF || code >> 11 == 0x1B) return false;
    i += extra + 1;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const int count = input.ConsumeIntegralInRange<int>(-2, 8);  // below 1 too: "[]"
  std::string tags[8];
  std::vector<artifact_detector::ArtifactDetector::Artifact_Info> records(8);
  bool all_utf8 = true;
  for (int i = 0; i < count; ++i) {
    tags[i] = input.ConsumeRandomLengthString(64);
    records[i].tag = tags[i].c_str();  // a C string: it ends at the first NUL, as the engine's
    all_utf8 = all_utf8 && is_utf8(records[i].tag);
    records[i].tag_id = input.ConsumeIntegral<std::int32_t>();
    const std::uint32_t bits = input.ConsumeIntegral<std::uint32_t>();
    std::memcpy(&records[i].score, &bits, sizeof bits);
  }

  std::string text;
  try {
    text = convert_artifact_info_to_json_string(records.data(), count);
  } catch (const nlohmann::json::type_error& e) {
    ad_fuzz::check(e.id == 316 && !all_utf8, "only invalid UTF-8 fails, with error 316");
    return 0;
  }
  ad_fuzz::check(all_utf8, "invalid UTF-8 never passes");
  const nlohmann::json parsed = nlohmann::json::parse(text);
  ad_fuzz::check(parsed.is_array() && parsed.size() == std::size_t(std::max(count, 0)),
                 "an array of one object per record");
  for (int i = 0; i < count; ++i) {
    const nlohmann::json& object = parsed[i];
    const double score = records[i].score;
    ad_fuzz::check(object.size() == 3 && object.at("tag").get<std::string>() == records[i].tag &&
                       object.at("tag_id").get<std::int32_t>() == records[i].tag_id,
                   "three members; the tag and the class id read back");
    ad_fuzz::check(std::isfinite(score) ? object.at("score").get<double>() == score
                                        : object.at("score").is_null(),
                   "the score reads back exactly; one that is not finite is null");
  }
  return 0;
}

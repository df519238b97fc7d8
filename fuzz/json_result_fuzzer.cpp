// The JSON result text over arbitrary records: any tag bytes, any score bits, any class id.
// A tag that is not UTF-8 must end in the JSON library's type_error 316 and nothing else;
// every other input gives a text that reads back as the records it was made from.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "artifact_detector.h"
#include "artifact_detector_jni.h"
#include "fuzz_support.h"

namespace {

using Artifact_Info = artifact_detector::ArtifactDetector::Artifact_Info;

constexpr int kMaxRecords = 8;
constexpr std::size_t kMaxTagBytes = 64;
constexpr int kInvalidUtf8 = 316;

// Well-formed UTF-8 (RFC 3629): shortest forms only, no surrogates, nothing above U+10FFFF.
bool is_utf8(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    std::size_t extra;
    std::uint32_t code;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      extra = 1, code = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      extra = 2, code = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      extra = 3, code = lead & 0x07;
    } else {
      return false;
    }
    if (i + extra >= text.size()) return false;  // cut short
    for (std::size_t k = 1; k <= extra; ++k) {
      const unsigned char next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    static const std::uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
      return false;
    }
    i += extra + 1;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ad_fuzz::silence_log();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  // Counts below 1 are part of the contract too: they give "[]".
  const int count = input.ConsumeIntegralInRange<int>(-2, kMaxRecords);
  std::vector<std::string> tags;
  std::vector<Artifact_Info> records(kMaxRecords);
  for (int i = 0; i < count; ++i) {
    tags.push_back(input.ConsumeRandomLengthString(kMaxTagBytes));
    records[i].tag_id = input.ConsumeIntegral<std::int32_t>();
    const std::uint32_t bits = input.ConsumeIntegral<std::uint32_t>();
    std::memcpy(&records[i].score, &bits, sizeof bits);
  }
  // The tags are C strings: they end at their first NUL, as the engine's would.
  bool all_utf8 = true;
  for (int i = 0; i < count; ++i) {
    records[i].tag = tags[i].c_str();
    all_utf8 = all_utf8 && is_utf8(std::string(records[i].tag));
  }

  std::string text;
  try {
    text = convert_artifact_info_to_json_string(records.data(), count);
  } catch (const nlohmann::json::type_error& e) {
    ad_fuzz::check(e.id == kInvalidUtf8, "only invalid UTF-8 may fail");
    ad_fuzz::check(!all_utf8, "valid UTF-8 never fails");
    return 0;
  }
  ad_fuzz::check(all_utf8, "invalid UTF-8 never passes");

  const nlohmann::json parsed = nlohmann::json::parse(text);
  ad_fuzz::check(parsed.is_array(), "an array");
  ad_fuzz::check(parsed.size() == static_cast<std::size_t>(count < 0 ? 0 : count),
                 "one object per record");
  for (int i = 0; i < count; ++i) {
    const nlohmann::json& object = parsed[i];
    ad_fuzz::check(object.size() == 3, "three members");
    ad_fuzz::check(object.at("tag").get<std::string>() == records[i].tag, "the tag reads back");
    ad_fuzz::check(object.at("tag_id").get<std::int32_t>() == records[i].tag_id,
                   "the class id reads back");
    const double score = records[i].score;
    if (std::isfinite(score)) {
      ad_fuzz::check(object.at("score").get<double>() == score, "the score reads back exactly");
    } else {
      ad_fuzz::check(object.at("score").is_null(), "a score that is not finite is null");
    }
  }
  return 0;
}

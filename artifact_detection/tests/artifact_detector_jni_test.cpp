#include "artifact_detector_jni.h"

#include <gtest/gtest.h>

#include <climits>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Record = artifact_detector::ArtifactDetector::Artifact_Info;

// Members in key order and no blanks; the single-precision score widened to double, in
// shortest round-trip form with ".0" kept; non-ASCII kept raw; only `count` records read, and
// none at all below 1. A tag that is not UTF-8 is the JSON fuzzer's.
TEST(ConvertToJson, GivesTheExactText) {
  std::tuple<std::vector<Record>, int, std::string> cases[] = {
      {{{5, "DonutBlur", 0.9f}}, 1,
       R"([{"score":0.8999999761581421,"tag":"DonutBlur","tag_id":5}])"},
      {{{1, "Reflection", 0.25f}, {11, "OtherBlur", 0.5f}}, 2,
       R"([{"score":0.25,"tag":"Reflection","tag_id":1},)"
       R"({"score":0.5,"tag":"OtherBlur","tag_id":11}])"},
      {{{6, "Blur", 1.0f}, {4, "Moire", 0.75f}}, 1, R"([{"score":1.0,"tag":"Blur","tag_id":6}])"},
      {{{9, "Noise", 1e-8f}}, 1, R"([{"score":9.99999993922529e-09,"tag":"Noise","tag_id":9}])"},
      {{{3, "Flare\xC3\xA9\xE2\x82\xAC", 0.75f}}, 1,
       "[{\"score\":0.75,\"tag\":\"Flare\xC3\xA9\xE2\x82\xAC\",\"tag_id\":3}]"},
      {{{-2, "a\"b\n", 0.5f}}, 1, R"([{"score":0.5,"tag":"a\"b\n","tag_id":-2}])"},
      {{}, 0, "[]"}, {{}, -1, "[]"}, {{}, INT_MIN, "[]"}};
  for (auto& [records, count, expected] : cases) {
    EXPECT_EQ(convert_artifact_info_to_json_string(count > 0 ? records.data() : nullptr, count),
              expected);
  }
}

}  // namespace

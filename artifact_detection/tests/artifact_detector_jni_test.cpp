#include "artifact_detector_jni.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using Record = artifact_detector::ArtifactDetector::Artifact_Info;

struct JsonCase {
  const char* name;
  std::vector<Record> records;
  std::string expected;
};

std::ostream& operator<<(std::ostream& os, const JsonCase& c) { return os << c.name; }

class ConvertToJson : public ::testing::TestWithParam<JsonCase> {};

TEST_P(ConvertToJson, GivesTheExactText) {
  std::vector<Record> records = GetParam().records;
  EXPECT_EQ(convert_artifact_info_to_json_string(records.data(), static_cast<int>(records.size())),
            GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Records, ConvertToJson,
    ::testing::Values(JsonCase{"single_precision_score_widened",
                               {{5, "DonutBlur", 0.9f}},
                               R"([{"score":0.8999999761581421,"tag":"DonutBlur","tag_id":5}])"},
                      JsonCase{"two_records_in_order_without_blanks",
                               {{1, "Reflection", 0.25f}, {11, "OtherBlur", 0.5f}},
                               R"([{"score":0.25,"tag":"Reflection","tag_id":1},)"
                               R"({"score":0.5,"tag":"OtherBlur","tag_id":11}])"},
                      JsonCase{"integral_score_keeps_its_fraction",
                               {{6, "Blur", 1.0f}},
                               R"([{"score":1.0,"tag":"Blur","tag_id":6}])"},
                      JsonCase{"tiny_score_in_exponent_form",
                               {{9, "Noise", 1e-8f}},
                               R"([{"score":9.99999993922529e-09,"tag":"Noise","tag_id":9}])"},
                      JsonCase{
                          "non_ascii_tag_kept_raw",
                          {{3, "Flare\xC3\xA9\xE2\x82\xAC", 0.75f}},
                          "[{\"score\":0.75,\"tag\":\"Flare\xC3\xA9\xE2\x82\xAC\",\"tag_id\":3}]"},
                      JsonCase{"quote_and_control_characters_escaped",
                               {{-2, "a\"b\n", 0.5f}},
                               R"([{"score":0.5,"tag":"a\"b\n","tag_id":-2}])"},
                      JsonCase{"no_records", {}, "[]"}),
    [](const ::testing::TestParamInfo<JsonCase>& info) { return std::string(info.param.name); });

TEST(ConvertToJsonCount, BelowOneGivesAnEmptyArrayWithoutReadingRecords) {
  for (int count : {0, -1, std::numeric_limits<int>::min()}) {
    EXPECT_EQ(convert_artifact_info_to_json_string(nullptr, count), "[]") << count;
  }
}

TEST(ConvertToJsonCount, ReadsOnlyCountRecords) {
  Record records[] = {{2, "Shadow", 0.5f}, {4, "Moire", 0.75f}};
  EXPECT_EQ(convert_artifact_info_to_json_string(records, 1),
            R"([{"score":0.5,"tag":"Shadow","tag_id":2}])");
}

TEST(ConvertToJsonCount, InvalidUtf8TagThrowsTypeError) {
  for (const char* tag : {"\xFF", "Blur\xC3", "\xED\xA0\x80"}) {
    Record record{6, tag, 0.5f};
    EXPECT_THROW(convert_artifact_info_to_json_string(&record, 1), nlohmann::json::type_error)
        << tag;
  }
}

}  // namespace

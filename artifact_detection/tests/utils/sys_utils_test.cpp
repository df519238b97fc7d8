#include "utils/sys_utils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using ad_test::LogCapture;
using ad_test::TempDir;
using Strings = std::vector<std::string>;
using namespace std::string_literals;

constexpr const char* kModel = "artifact_detector";

// Sibling directories stand in for the caller's base, the vendor and the system partitions. Per
// place: d directory, f regular file, - absent; j the model joined to an unslashed caller base
// as it stands ("<tmp>/callerartifact_detector").
TEST(ModelsBasePath, FirstOfCallerVendorSystemHoldingTheModelWins) {
  const std::tuple<const char*, bool, int> cases[] = {
      {"ddd", true, 0}, {"-dd", true, 1},  {"--d", true, 2}, {"---", true, -1},
      {"-f-", true, 1}, {"d-d", false, 2}, {"jd-", false, 0}};
  for (const auto& [where, slash, winner] : cases) {
    SCOPED_TRACE(std::string(where) + (slash ? "" : " unslashed"));
    TempDir dir;
    const Strings places = {"caller/", "vendor/", "system/"};
    for (int i = 0; i < 3; ++i) {
      const std::string name = (where[i] == 'j' ? "caller" : places[i]) + kModel;
      if (where[i] == 'f') dir.write_file(name, "x");
      if (where[i] == 'd' || where[i] == 'j') dir.make_dir(name);
    }
    const std::string caller = dir.base() + (slash ? "caller/" : "caller");
    LogCapture capture;
    const std::string want = winner < 0 ? "" : winner == 0 ? caller : dir.base() + places[winner];
    EXPECT_EQ(get_final_models_base_path(caller, kModel,
                                         {dir.base() + places[1], dir.base() + places[2]}),
              want);
    const std::string found = want.empty() ? " not found" : ": " + want;
    EXPECT_EQ(capture.verbose_messages(),
              Strings{"TQ Debug: Base model parent path" + found + " for artifact_detector"});
  }
}

ModelProperties props(const char* v, const char* t, const char* p, const char* m = "") {
  return {{"version_id", v}, {"model_type", t}, {"precision", p}, {"model_path", m}};
}

TEST(ModelInfoFile, ReadsTheFirstObjectOverTheDefaults) {
  const ModelProperties defaults = props("v5", "cpu", "float16");
  // clang-format off
  const std::pair<const char*, ModelProperties> cases[] = {  // text null: no file
      {"{\n\"model_type\": \"gpu\",\n\"precision\": \"float32\"\n}\n",
       props("v5", "gpu", "float32")},
      {"{\n\"version_id\": \"v7\",\n\"model_type\": \"npu\",\n\"precision\": \"qasymm8\",\n"
       "\"model_path\": \"m.bin\",\n\"extra\": \"x\"\n}", props("v7", "npu", "qasymm8", "m.bin")},
      {"\t{ \r\n  \"model_type\": \"dsp\",\r\n\t} \r\n", props("v5", "dsp", "float16")},
      {"\"model_type\": \"gpu\",\n{\n}\n", defaults},                    // before "{"
      {"{\n}\n\"model_type\": \"gpu\"\n", defaults},                     // after "}"
      {"{\n},\n{\n\"model_type\": \"gpu\"\n}\n", defaults},              // after "},"
      {"{}\n\"model_type\": \"gpu\"\n", defaults},
      {"{ \"model_type\": \"gpu\" }\n", defaults},
      {"{\n\"precision\": \"float32\",\n\"precision\": \"qasymm16\",\n}",
       props("v5", "cpu", "qasymm16")},
      {"{\n\"version_id\": 5,\n\"model_type\": \"gpu\n}", defaults},    // unquoted, three quotes
      {"{\n\"model_type\": \"gpu\", \"x\"\n}", props("v5", "gpu", "float16")},  // five quotes
      {"{\n\"version_id\": \"\"\n}", props("", "cpu", "float16")},
      {"{\n\"model_type\": \"gpu\"", props("v5", "gpu", "float16")},   // never closed
      {"", defaults},
      {nullptr, defaults}};
  // clang-format on
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text ? text : "<no file>");
    TempDir dir;
    const std::string path = dir.make_dir(kModel) + "/artifact_detector_cnn.info";
    if (text) dir.write_file("artifact_detector/artifact_detector_cnn.info", text);
    LogCapture capture;
    EXPECT_EQ(get_model_properties(kModel, dir.base()), expected);
    EXPECT_EQ(
        capture.verbose_messages(),
        (Strings{
            "TQ Debug: Base model parent path: " + dir.base() + " for artifact_detector",
            "TQ Debug: Loading model properties from " + (text ? "" : "model for "s) + path +
                (text ? ", model properties: " : " info file failed, default model properties: ") +
                expected.at("model_type") + ", " + expected.at("precision")}));
  }
  // With no model directory found, a relative path that would open is still not read.
  TempDir dir;
  dir.write_file("absent_model/absent_model_cnn.info", "{\n\"model_type\": \"gpu\"\n}\n");
  const std::filesystem::path previous = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  const ModelProperties got = get_model_properties("absent_model", dir.base() + "x/");
  std::filesystem::current_path(previous);
  EXPECT_EQ(got, defaults);
}

TEST(ThresholdFile, ReadsEveryObjectLineByLine) {
  // clang-format off
  const std::tuple<const char*, std::map<int, float>, Strings> cases[] = {
      {"{\n\"6\": 0.45,\n}\n", {{6, 0.45f}}, {}},
      {" {\r\n\t\"6\": 0.45,\r\n  \"11\": 0.8\r\n}, \r\n", {{6, 0.45f}, {11, 0.8f}}, {}},
      {"\"7\": 0.3,\n{\n\"1\": 0.1\n}\n\"2\": 0.2\n{\n\"3\": 0.3\n}\n\"4\": 0.4",
       {{1, 0.1f}, {3, 0.3f}}, {}},
      {"{ \"6\": 0.45 }\n", {}, {}},
      {"{\n\"6\": 0.4,\n\"6\": 0.5\n}", {{6, 0.5f}}, {}},
      {"{\n\"6x\": 0.5,\n\" 7.5\": 0.25 // note\n\"+8\": 0x1p-2,\n\"9\": inf\n}",
       {{6, 0.5f}, {7, 0.25f}, {8, 0.25f}, {9, INFINITY}}, {}},
      {"{\n\"-3\": 1.5,\n\"42\": -0.25\n}", {{-3, 1.5f}, {42, -0.25f}}, {}},  // no range checks
      {"{\n\"abc\": 0.5,\n\"5\": abc,\n\"6\": \"0.45\",\n\"99999999999\": 0.1,\n"
       "\"7\": 1e99\n\"2\": 0.2\n}",
       {{2, 0.2f}},
       {"Error converting key to integer: abc", "Error converting value to float: abc",
        "Error converting value to float: \"0.45\"", "Error converting key to integer: 99999999999",
        "Error converting value to float: 1e99"}},
      {"{\n\"6\" 0.5,\n\"6: 0.5\n6: 0.5\n\n}", {}, {}},
      {nullptr, {}, {}}};
  // clang-format on
  for (const auto& [text, expected, errors] : cases) {
    SCOPED_TRACE(text ? text : "<no file>");
    TempDir dir;
    const std::string path = dir.base() + "artifact_threshold.json";
    if (text) dir.write_file("artifact_threshold.json", text);
    LogCapture capture;
    EXPECT_EQ(get_artifact_thresholds(path), expected);
    Strings log = {"get_artifact_thresholds file path : " + path};
    if (text) log.push_back("Custom thresholds are available");
    log.insert(log.end(), errors.begin(), errors.end());
    EXPECT_EQ(capture.verbose_messages(), log);
  }
  LogCapture capture;
  get_artifact_thresholds();
  EXPECT_EQ(capture.verbose_messages().at(0),
            "get_artifact_thresholds file path : "
            "/vendor/etc/omlu/image_understanding/db/artifact_detector/artifact_threshold.json");
}

}  // namespace

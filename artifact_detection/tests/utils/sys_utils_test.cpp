#include "utils/sys_utils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using Strings = std::vector<std::string>;
constexpr const char* kModel = "artifact_detector";

// Per place (caller, vendor, system): d the model's directory, f a file of its name, e the place
// alone, - nothing, j the model joined to an unslashed caller base ("<tmp>/callerartifact_...").
TEST(ModelsBasePath, FirstOfCallerVendorSystemHoldingTheModelWins) {
  const std::tuple<const char*, bool, int> cases[] = {
      {"ddd", true, 0}, {"-dd", true, 1},  {"--d", true, 2},  {"---", true, -1},
      {"-f-", true, 1}, {"d-d", false, 2}, {"jd-", false, 0}, {"eed", true, 2}};
  for (const auto& [where, slash, winner] : cases) {
    ad_test::TempDir dir;
    const std::string b = dir.base(), places[] = {"caller/", "vendor/", "system/"};
    for (int i = 0; i < 3; ++i) {
      const std::string name = (where[i] == 'j' ? "caller" : places[i]) + kModel;
      if (where[i] == 'f') dir.write_file(name, "x");
      if (where[i] != '-' && where[i] != 'f') dir.make_dir(where[i] == 'e' ? places[i] : name);
    }
    const std::string caller = b + (slash ? "caller/" : "caller");
    const std::string want = winner < 0 ? "" : winner == 0 ? caller : b + places[winner];
    ad_test::LogCapture capture;
    EXPECT_EQ(get_final_models_base_path(caller, kModel, {b + places[1], b + places[2]}), want);
    EXPECT_EQ(capture.verbose_messages(),
              Strings{"TQ Debug: Base model parent path" +
                      (want.empty() ? " not found" : ": " + want) + " for artifact_detector"});
  }
}

// Table texts write ' for a double quote and | for a line feed.
std::string file_text(std::string text) {
  for (char& c : text) c = c == '\'' ? '"' : c == '|' ? '\n' : c;
  return text;
}

ModelProperties props(const char* v, const char* t, const char* p, const char* m = "") {
  return {{"version_id", v}, {"model_type", t}, {"precision", p}, {"model_path", m}};
}

// Only the first object counts, its "{" and "}" (or "},") on lines of their own; a member line
// is read between its first two pairs of quotes.
TEST(ModelInfoFile, ReadsTheFirstObjectOverTheDefaults) {
  const ModelProperties defaults = props("v5", "cpu", "float16");
  // clang-format off
  const std::pair<const char*, ModelProperties> cases[] = {  // text null: no file
      {"{|'model_type': 'gpu',|'precision': 'a',|'precision': 'b'|}", props("v5", "gpu", "b")},
      {"{|'version_id': 'v7',|'model_type': 'npu',|'precision': 'q8',|'model_path': 'm',|'x': ''|}",
       props("v7", "npu", "q8", "m")},
      {"\t{ \r|  'model_type': 'dsp',\r|\t} \r|", props("v5", "dsp", "float16")},
      {"'model_type': 'gpu',|{ 'model_type': 'gpu' }|{|}|'model_type': 'gpu'|", defaults},
      {"{|},|{|'model_type': 'gpu'|}|", defaults},
      {"{|'version_id': 5,|'precision': 'a|'model_type': 'g', 'x'|}", props("v5", "g", "float16")},
      {"{|'version_id': ''|'model_type': 'gpu'", props("", "gpu", "float16")},  // never closed
      {"", defaults},
      {"<dir>", defaults},   // opens, reads nothing
      {"<link>", defaults},  // dangling: does not open
      {nullptr, defaults}};
  // clang-format on
  for (const auto& [text, expected] : cases) {
    ad_test::TempDir dir;
    const std::string path = dir.make_dir(kModel) + "/artifact_detector_cnn.info",
                      kind = text ? text : "",
                      read = text && kind != "<link>"
                                 ? path + ","
                                 : "model for " + path + " info file failed, default";
    if (kind == "<link>") {
      std::filesystem::create_symlink(dir.base() + "nowhere", path);
    } else if (kind == "<dir>") {
      dir.make_dir("artifact_detector/artifact_detector_cnn.info");
    } else if (text) {
      dir.write_file("artifact_detector/artifact_detector_cnn.info", file_text(text));
    }
    ad_test::LogCapture capture;
    EXPECT_EQ(get_model_properties(kModel, dir.base()), expected) << (text ? text : "no file");
    EXPECT_EQ(capture.verbose_messages().back(),
              "TQ Debug: Loading model properties from " + read + " model properties: " +
                  expected.at("model_type") + ", " + expected.at("precision"));
  }
  ad_test::TempDir dir;  // no model directory: a relative path that would open is still not read
  dir.write_file("absent/absent_cnn.info", "{\n\"model_type\": \"gpu\"\n}\n");
  const std::filesystem::path previous = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  EXPECT_EQ(get_model_properties("absent", dir.base() + "x/"), defaults);
  std::filesystem::current_path(previous);
}

// Every object is read, member lines only: a quoted key, a colon, a value up to a comma.
TEST(ThresholdFile, ReadsEveryObjectLineByLine) {
  // clang-format off
  const std::tuple<const char*, std::map<int, float>, Strings> cases[] = {
      {" {\r|\t'6': 0.45,\r|  '11': 0.8\r|}, \r|'7': 0.3,|{|'1': 0.1|}|'2': 0.2|",
       {{6, 0.45f}, {11, 0.8f}, {1, 0.1f}}, {}},
      {"{|'6': 0.4,|'6': 0.5,|'-3': 1.5,|'42': -0.25,|'6x': 0.75,|' 7.5': 0.25 //|'+8': 0x1p-2,|"
       "'9': inf|}", {{6, .75f}, {-3, 1.5f}, {42, -.25f}, {7, .25f}, {8, .25f}, {9, INFINITY}}, {}},
      {"{|'abc': 0.5,|'5': abc,|'6': '0.45',|'99999999999': 0.1,|'7': 1e99|'2': 0.2|}", {{2, 0.2f}},
       {"Error converting key to integer: abc", "Error converting value to float: abc",
        "Error converting value to float: \"0.45\"", "Error converting key to integer: 99999999999",
        "Error converting value to float: 1e99"}},
      {"{ '6': 0.45 }|{|'6' 0.5,|'6: 0.5|6: 0.5||}", {}, {}},
      {nullptr, {}, {}}};  // the device's file, absent here
  // clang-format on
  for (const auto& [text, expected, errors] : cases) {
    ad_test::TempDir dir;
    if (text) dir.write_file("artifact_threshold.json", file_text(text));
    const std::string path = text ? dir.base() + "artifact_threshold.json"
                                  : "/vendor/etc/omlu/image_understanding/db/artifact_detector/"
                                    "artifact_threshold.json";
    ad_test::LogCapture capture;
    EXPECT_EQ(text ? get_artifact_thresholds(path) : get_artifact_thresholds(), expected) << path;
    Strings log = {"get_artifact_thresholds file path : " + path};
    if (text) log.push_back("Custom thresholds are available");
    log.insert(log.end(), errors.begin(), errors.end());
    EXPECT_EQ(capture.verbose_messages(), log);
  }
  ad_test::TempDir dir;  // a directory or a dangling link: no thresholds
  std::filesystem::create_symlink(dir.base() + "nowhere", dir.base() + "dangling.json");
  for (const std::string& path : {dir.make_dir("directory.json"), dir.base() + "dangling.json"}) {
    EXPECT_TRUE(get_artifact_thresholds(path).empty()) << path;
  }
}

}  // namespace

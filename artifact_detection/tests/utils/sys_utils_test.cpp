#include "utils/sys_utils.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using ad_test::LogCapture;
using ad_test::TempDir;
using Strings = std::vector<std::string>;

constexpr const char* kModel = "artifact_detector";

// --- file_exists -----------------------------------------------------------------------------

TEST(FileExists, DirectoriesAndFilesExistDanglingLinksAndMissingPathsDoNot) {
  TempDir dir;
  dir.make_dir("d");
  dir.write_file("f", "");
  ASSERT_EQ(symlink((dir.base() + "nowhere").c_str(), (dir.base() + "dangling").c_str()), 0);
  EXPECT_TRUE(file_exists(dir.base() + "d"));
  EXPECT_TRUE(file_exists(dir.base() + "f"));
  EXPECT_FALSE(file_exists(dir.base() + "dangling"));
  EXPECT_FALSE(file_exists(dir.base() + "missing"));
  EXPECT_FALSE(file_exists(""));
}

// --- get_final_models_base_path ---------------------------------------------------------------

// Three sibling directories stand in for the caller's base and the vendor and system partitions.
enum Where { kNone = 0, kCaller = 1, kVendor = 2, kSystem = 4, kCallerUnslashed = 8 };

struct ResolveCase {
  const char* name;
  int model_dirs;     // where the model exists as a directory
  int model_files;    // where it exists as a regular file
  bool caller_slash;  // whether the caller's base ends in "/"
  Where expected;
};

void PrintTo(const ResolveCase& c, std::ostream* os) { *os << c.name; }

class ResolveBasePath : public ::testing::TestWithParam<ResolveCase> {};

TEST_P(ResolveBasePath, FirstBaseHoldingTheModelWinsAndIsLogged) {
  const ResolveCase& c = GetParam();
  TempDir dir;
  const std::map<Where, std::string> bases = {{kCaller, dir.base() + "caller/"},
                                              {kVendor, dir.base() + "vendor/"},
                                              {kSystem, dir.base() + "system/"},
                                              {kCallerUnslashed, dir.base() + "caller"}};
  for (const auto& [where, base] : bases) {
    if (c.model_dirs & where) dir.make_dir(base.substr(dir.base().size()) + kModel);
    if (c.model_files & where) dir.write_file(base.substr(dir.base().size()) + kModel, "x");
  }
  const std::string caller = c.caller_slash ? bases.at(kCaller) : bases.at(kCallerUnslashed);

  LogCapture capture;
  const std::string got =
      get_final_models_base_path(caller, kModel, {bases.at(kVendor), bases.at(kSystem)});

  const std::string expected = c.expected == kNone ? "" : bases.at(c.expected);
  EXPECT_EQ(got, expected);
  EXPECT_EQ(
      capture.verbose_messages(),
      Strings{expected.empty()
                  ? "TQ Debug: Base model parent path not found for artifact_detector"
                  : "TQ Debug: Base model parent path: " + expected + " for artifact_detector"});
}

INSTANTIATE_TEST_SUITE_P(
    Order, ResolveBasePath,
    ::testing::Values(
        ResolveCase{"CallerBeatsVendor", kCaller | kVendor | kSystem, 0, true, kCaller},
        ResolveCase{"VendorBeatsSystem", kVendor | kSystem, 0, true, kVendor},
        ResolveCase{"SystemOnly", kSystem, 0, true, kSystem},
        ResolveCase{"Nowhere", kNone, 0, true, kNone},
        ResolveCase{"RegularFileCounts", kNone, kVendor, true, kVendor},
        // "<tmp>/caller" + name looks for "<tmp>/callerartifact_detector".
        ResolveCase{"UnslashedCallerMissesItsOwnDir", kCaller | kSystem, 0, false, kSystem},
        ResolveCase{"UnslashedCallerJoinedAsItStands", kCallerUnslashed | kVendor, 0, false,
                    kCallerUnslashed}),
    [](const auto& info) { return std::string(info.param.name); });

// --- trim and parseLine -----------------------------------------------------------------------

TEST(Trim, StripsOnlySpaceTabLineFeedAndCarriageReturn) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {" \t\"a\": \"b c\",\r\n", "\"a\": \"b c\","},
      {"\v x \f", "\v x \f"},
      {" \t\r\n", ""},
      {"", ""},
      {"{", "{"}};
  for (const auto& [in, out] : cases) EXPECT_EQ(trim(in), out) << '"' << in << '"';
}

TEST(ParseLine, TakesTheTextsInsideTheFirstFourQuotes) {
  using Pair = std::pair<std::string, std::string>;
  const std::vector<std::pair<std::string, Pair>> cases = {
      {R"("model_type": "gpu",)", {"model_type", "gpu"}},
      {R"(junk "k" anything "v" tail)", {"k", "v"}},
      {R"("k": "v", "extra")", {"k", "v"}},  // five quotes
      {R"("k": "v)", {"", ""}},              // three quotes
      {R"("version_id": 5,)", {"", ""}},     // unquoted value
      {R"("": "v")", {"", "v"}},
      {R"("k": "")", {"k", ""}},
      {"", {"", ""}}};
  for (const auto& [line, expected] : cases) EXPECT_EQ(parseLine(line), expected) << line;
}

// --- get_model_properties ---------------------------------------------------------------------

struct InfoCase {
  const char* name;
  std::string content;
  ModelProperties expected;
};

void PrintTo(const InfoCase& c, std::ostream* os) { *os << c.name; }

ModelProperties props(std::string version_id, std::string model_type, std::string precision,
                      std::string model_path) {
  return {{"version_id", version_id},
          {"model_type", model_type},
          {"precision", precision},
          {"model_path", model_path}};
}

const ModelProperties kDefaults = props("v5", "cpu", "float16", "");

class ModelInfoFile : public ::testing::TestWithParam<InfoCase> {};

TEST_P(ModelInfoFile, ReadsTheFirstObjectOverTheDefaults) {
  TempDir dir;
  const std::string path =
      dir.write_file("artifact_detector/artifact_detector_cnn.info", GetParam().content);
  LogCapture capture;
  EXPECT_EQ(get_model_properties(kModel, dir.base()), GetParam().expected);
  const ModelProperties& e = GetParam().expected;
  EXPECT_EQ(capture.verbose_messages(),
            (Strings{"TQ Debug: Base model parent path: " + dir.base() + " for artifact_detector",
                     "TQ Debug: Loading model properties from " + path +
                         ", model properties: " + e.at("model_type") + ", " + e.at("precision")}));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ModelInfoFile,
    ::testing::Values(
        InfoCase{"Basic", "{\n\"model_type\": \"gpu\",\n\"precision\": \"float32\"\n}\n",
                 props("v5", "gpu", "float32", "")},
        InfoCase{"AllFourAndOthersDropped",
                 "{\n\"version_id\": \"v7\",\n\"model_type\": \"npu\",\n\"precision\": "
                 "\"qasymm8\",\n\"model_path\": \"m.bin\",\n\"extra\": \"x\"\n}",
                 props("v7", "npu", "qasymm8", "m.bin")},
        InfoCase{"CrlfIndentedOpenWithBlank", "\t{ \r\n  \"model_type\": \"dsp\",\r\n\t} \r\n",
                 props("v5", "dsp", "float16", "")},
        InfoCase{"MembersBeforeOpenIgnored", "\"model_type\": \"gpu\",\n{\n}\n", kDefaults},
        InfoCase{"MembersAfterCloseIgnored", "{\n}\n\"model_type\": \"gpu\"\n", kDefaults},
        InfoCase{"MembersAfterCloseCommaIgnored", "{\n},\n{\n\"model_type\": \"gpu\"\n}\n",
                 kDefaults},
        InfoCase{"BracesOnOneLineDoNotOpen", "{}\n\"model_type\": \"gpu\"\n", kDefaults},
        InfoCase{"OpenSharingItsLineDoesNotOpen", "{ \"model_type\": \"gpu\" }\n", kDefaults},
        InfoCase{"LastDuplicateWins",
                 "{\n\"precision\": \"float32\",\n\"precision\": \"qasymm16\",\n}",
                 props("v5", "cpu", "qasymm16", "")},
        InfoCase{"UnquotedAndThreeQuoteLinesIgnored",
                 "{\n\"version_id\": 5,\n\"model_type\": \"gpu\n}", kDefaults},
        InfoCase{"FiveQuotesUseTheFirstFour", "{\n\"model_type\": \"gpu\", \"x\"\n}",
                 props("v5", "gpu", "float16", "")},
        InfoCase{"EmptyValueOverrides", "{\n\"version_id\": \"\"\n}",
                 props("", "cpu", "float16", "")},
        InfoCase{"UnclosedObjectReadToEnd", "{\n\"model_type\": \"gpu\"",
                 props("v5", "gpu", "float16", "")},
        InfoCase{"EmptyFile", "", kDefaults}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ModelInfoFileMissing, DefaultsAndTheTriedPathAreLogged) {
  TempDir dir;
  dir.make_dir("artifact_detector");
  LogCapture capture;
  EXPECT_EQ(get_model_properties(kModel, dir.base()), kDefaults);
  EXPECT_EQ(capture.verbose_messages().back(),
            "TQ Debug: Loading model properties from model for " + dir.base() +
                "artifact_detector/artifact_detector_cnn.info info file failed, default model "
                "properties: cpu, float16");
}

TEST(ModelInfoFileMissing, NoModelDirectoryGivesARelativePathAndDefaults) {
  // The relative path opens from the working directory, yet an unresolved base never reads.
  TempDir dir;
  dir.write_file("sys_utils_test_absent/sys_utils_test_absent_cnn.info",
                 "{\n\"model_type\": \"gpu\"\n}\n");
  const std::string previous = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  LogCapture capture;
  const ModelProperties got = get_model_properties("sys_utils_test_absent", dir.base() + "x/");
  std::filesystem::current_path(previous);
  EXPECT_EQ(got, kDefaults);
  EXPECT_EQ(capture.verbose_messages(),
            (Strings{"TQ Debug: Base model parent path not found for sys_utils_test_absent",
                     "TQ Debug: Loading model properties from model for "
                     "sys_utils_test_absent/sys_utils_test_absent_cnn.info info file failed, "
                     "default model properties: cpu, float16"}));
}

// --- get_artifact_thresholds ------------------------------------------------------------------

struct ThresholdCase {
  const char* name;
  std::string content;
  std::map<int, float> expected;
  Strings errors;  // conversion failures logged after the two opening lines
};

void PrintTo(const ThresholdCase& c, std::ostream* os) { *os << c.name; }

class ThresholdFile : public ::testing::TestWithParam<ThresholdCase> {};

TEST_P(ThresholdFile, ReadsEveryObjectLineByLine) {
  TempDir dir;
  const std::string path = dir.write_file("artifact_threshold.json", GetParam().content);
  LogCapture capture;
  EXPECT_EQ(get_artifact_thresholds(path), GetParam().expected);
  Strings expected_log = {"get_artifact_thresholds file path : " + path,
                          "Custom thresholds are available"};
  expected_log.insert(expected_log.end(), GetParam().errors.begin(), GetParam().errors.end());
  EXPECT_EQ(capture.verbose_messages(), expected_log);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ThresholdFile,
    ::testing::Values(
        ThresholdCase{"SingleMember", "{\n\"6\": 0.45,\n}\n", {{6, 0.45f}}, {}},
        ThresholdCase{"CrlfIndentedCloseWithComma",
                      " {\r\n\t\"6\": 0.45,\r\n  \"11\": 0.8\r\n}, \r\n",
                      {{6, 0.45f}, {11, 0.8f}},
                      {}},
        ThresholdCase{"LastDuplicateWins", "{\n\"6\": 0.4,\n\"6\": 0.5\n}", {{6, 0.5f}}, {}},
        ThresholdCase{"OutsideObjectsIgnored",
                      "\"7\": 0.3,\n{\n\"1\": 0.1\n}\n\"2\": 0.2\n{\n\"3\": 0.3\n}\n\"4\": 0.4",
                      {{1, 0.1f}, {3, 0.3f}},
                      {}},
        ThresholdCase{"OneLineObjectIgnored", "{ \"6\": 0.45 }\n", {}, {}},
        ThresholdCase{
            "NoRangeChecks", "{\n\"-3\": 1.5,\n\"42\": -0.25\n}", {{-3, 1.5f}, {42, -0.25f}}, {}},
        ThresholdCase{"KeysAndValuesConvertTheirLeadingNumber",
                      "{\n\"6x\": 0.5,\n\" 7.5\": 0.25 // note\n\"+8\": 0x1p-2,\n\"9\": inf\n}",
                      {{6, 0.5f}, {7, 0.25f}, {8, 0.25f}, {9, INFINITY}},
                      {}},
        ThresholdCase{
            "ConversionFailuresLogTheirText",
            "{\n\"abc\": 0.5,\n\"5\": abc,\n\"6\": \"0.45\",\n\"99999999999\": 0.1,\n"
            "\"7\": 1e99\n\"2\": 0.2\n}",
            {{2, 0.2f}},
            {"Error converting key to integer: abc", "Error converting value to float: abc",
             "Error converting value to float: \"0.45\"",
             "Error converting key to integer: 99999999999",
             "Error converting value to float: 1e99"}},
        ThresholdCase{
            "MalformedLinesSkippedSilently", "{\n\"6\" 0.5,\n\"6: 0.5\n6: 0.5\n\n}", {}, {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ThresholdFileMissing, GivesAnEmptyMapAfterLoggingThePath) {
  TempDir dir;
  LogCapture capture;
  EXPECT_TRUE(get_artifact_thresholds(dir.base() + "absent.json").empty());
  EXPECT_EQ(capture.verbose_messages(),
            Strings{"get_artifact_thresholds file path : " + dir.base() + "absent.json"});
}

TEST(ThresholdFileMissing, DeviceFileIsTheDefault) {
  LogCapture capture;
  get_artifact_thresholds();
  ASSERT_FALSE(capture.verbose_messages().empty());
  EXPECT_EQ(capture.verbose_messages().front(),
            "get_artifact_thresholds file path : "
            "/vendor/etc/omlu/image_understanding/db/artifact_detector/artifact_threshold.json");
}

}  // namespace

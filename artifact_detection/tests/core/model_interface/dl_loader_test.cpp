#include "core/model_interface/dl_loader.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "support/fake_tarnlink.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using ad_test::FakeTarnlink;
using ad_test::FakeVariant;
using ad_test::LogCapture;

const char* const kStepNames[] = {"bare", "aidl", "hidl", "vendor"};

std::string loaded_file(void* handle) {
  Dl_info info{};
  EXPECT_NE(dladdr(dlsym(handle, "fake_tarn_reset"), &info), 0);
  return info.dli_fname ? info.dli_fname : "";
}

struct SearchCase {
  const char* name;
  std::vector<int> present;  // steps whose library exists
  int winner;                // -1: none loads
  std::vector<std::string> lines;
};
void PrintTo(const SearchCase& c, std::ostream* os) { *os << c.name; }

class LibrarySearch : public ::testing::TestWithParam<SearchCase> {};

// Copies of the fake stand in for the system and vendor files; the bare name is either the
// real one (reaching the fake through the RPATH) or one that nothing answers to.
TEST_P(LibrarySearch, TriesTheFourPlacesInOrderAndLogsEachAttempt) {
  const SearchCase& c = GetParam();
  ad_test::TempDir dir;
  std::array<std::string, 4> names = {"libTarnlink_absent.camera.korvane.so",
                                      dir.base() + "aidl.so", dir.base() + "hidl.so",
                                      dir.base() + "vendor.so"};
  for (int step : c.present) {
    if (step == 0) {
      names[0] = kFakeTarnLibraryName;
    } else {
      std::filesystem::copy_file(FakeTarnlink::path(FakeVariant::kFull), names[step]);
    }
  }
  std::vector<std::string> expected;
  for (std::string line : c.lines) {
    for (int step = 1; step < 4; ++step) {
      const std::string key = std::string("<") + kStepNames[step] + ">";
      if (line.find(key) != std::string::npos)
        line.replace(line.find(key), key.size(), names[step]);
    }
    expected.push_back("dl_loader.cpp: " + line);
  }

  LogCapture capture;
  const std::array<const char*, 4> candidates = {names[0].c_str(), names[1].c_str(),
                                                 names[2].c_str(), names[3].c_str()};
  if (c.winner < 0) {
    EXPECT_THROW(
        {
          try {
            get_tarnlink_lib_handle(candidates);
          } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Dynamic loading of libTarnlink failed.");
            throw;
          }
        },
        std::runtime_error);
    auto texts = capture.texts("ImageSearchJNI_ARTI_DET");
    ASSERT_EQ(texts.size(), expected.size());
    // The last line ends with the linker's own message about the vendor path.
    EXPECT_EQ(texts.back().rfind(expected.back() + names[3], 0), 0u) << texts.back();
    texts.pop_back();
    expected.pop_back();
    EXPECT_EQ(texts, expected);
    return;
  }
  void* handle = get_tarnlink_lib_handle(candidates);
  ASSERT_NE(handle, nullptr);
  const std::string want = c.winner == 0 ? FakeTarnlink::path(FakeVariant::kFull) : names[c.winner];
  EXPECT_TRUE(std::filesystem::equivalent(loaded_file(handle), want));
  dlclose(handle);
  EXPECT_EQ(capture.texts("ImageSearchJNI_ARTI_DET"), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Loader, LibrarySearch,
    ::testing::Values(
        SearchCase{"BareNameWins",
                   {0, 1, 2, 3},
                   0,
                   {"12: TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR"}},
        SearchCase{"AidlBeforeHidl",
                   {1, 2, 3},
                   1,
                   {"15: TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR failed",
                    "22: TQ Debug: Dynamic loading of libTarnlink successfull from <aidl>"}},
        SearchCase{"Hidl",
                   {2},
                   2,
                   {"15: TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR failed",
                    "25: TQ Debug: Dynamic loading of libTarnlink from <aidl> failed",
                    "35: TQ Debug: Dynamic loading of libTarnlink successfull from <hidl>"}},
        SearchCase{"VendorOnly",
                   {3},
                   3,
                   {"15: TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR failed",
                    "25: TQ Debug: Dynamic loading of libTarnlink from <aidl> failed",
                    "38: TQ Debug: Dynamic loading of libTarnlink from <hidl> failed",
                    "48: TQ Debug: Dynamic loading of libTarnlink successfull from <vendor>"}},
        SearchCase{"Nowhere",
                   {},
                   -1,
                   {"15: TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR failed",
                    "25: TQ Debug: Dynamic loading of libTarnlink from <aidl> failed",
                    "38: TQ Debug: Dynamic loading of libTarnlink from <hidl> failed",
                    "54: TQ Debug: Dynamic loading of libTarnlink failed.\nERROR: "}}),
    [](const ::testing::TestParamInfo<SearchCase>& info) { return info.param.name; });

TEST(Loader, FixedSearchStartsWithTheBareName) {
  FakeTarnlink fake;
  LogCapture capture;
  void* handle = get_tarnlink_lib_handle();
  EXPECT_EQ(handle, fake.handle());
  dlclose(handle);
  EXPECT_EQ(capture.texts("ImageSearchJNI_ARTI_DET"),
            std::vector<std::string>{"dl_loader.cpp: 12: TQ Debug: Dynamic loading of libTarnlink "
                                     "successfull from LD DIR"});
}

struct GetterCase {
  void* (*getter)(void*);
  const char* symbol;
  const char* missing_line;
};
void PrintTo(const GetterCase& c, std::ostream* os) { *os << c.symbol; }

class OperationGetter : public ::testing::TestWithParam<GetterCase> {};

TEST_P(OperationGetter, ReturnsTheSymbolOrLogsItsLineAndNull) {
  FakeTarnlink fake;
  void* empty = dlopen(FakeTarnlink::path(FakeVariant::kNoOperations).c_str(), RTLD_LAZY);
  ASSERT_NE(empty, nullptr);
  LogCapture capture;
  void* found = GetParam().getter(fake.handle());
  EXPECT_NE(found, nullptr);
  EXPECT_EQ(found, dlsym(fake.handle(), GetParam().symbol));
  EXPECT_TRUE(capture.lines().empty());
  EXPECT_EQ(GetParam().getter(empty), nullptr);
  EXPECT_EQ(capture.texts("ImageSearchJNI_ARTI_DET"),
            std::vector<std::string>{std::string("dl_loader.cpp: ") + GetParam().missing_line});
  dlclose(empty);
}

INSTANTIATE_TEST_SUITE_P(
    Loader, OperationGetter,
    ::testing::Values(
        GetterCase{get_create_fptr, "TarnWrapper_create",
                   "65: TQ Debug: TarnWrapper_create symbol not found"},
        GetterCase{get_open_fptr, "TarnWrapper_openDLModel",
                   "73: TQ Debug: TarnWrapper_openDLModel symbol not found"},
        GetterCase{get_open_fptr_direct_latency, "TarnWrapper_openDLModel_direct_latency",
                   "81: TQ Debug: TarnWrapper_openDLModel_direct_latency symbol not found"},
        GetterCase{get_open_fptr_direct, "TarnWrapper_openDLModel_direct",
                   "89: TQ Debug: TarnWrapper_openDLModel_direct symbol not found"},
        GetterCase{get_inputDimens_fptr, "TarnWrapper_getInputDimens",
                   "97: TQ Debug: TarnWrapper_inputDimens_fptr symbol not found"},
        GetterCase{get_inputChannels_fptr, "TarnWrapper_getInputChannels",
                   "105: TQ Debug: TarnWrapper_inputChannels_fptr symbol not found"},
        GetterCase{get_execute_fptr, "TarnWrapper_execute",
                   "113: TQ Debug: TarnWrapper_execute symbol not found"},
        GetterCase{get_output_fptr, "TarnWrapper_getLayerOutput",
                   "121: TQ Debug: TarnWrapper_getLayerOutput symbol not found"},
        GetterCase{get_output_and_format_fptr, "TarnWrapper_getLayerOutputAndFormat",
                   "130: TQ Debug: TarnWrapper_getLayerOutputAndFormat symbol not found"},
        GetterCase{get_destroy_fptr, "TarnWrapper_destroy",
                   "139: TQ Debug: TarnWrapper_destroy symbol not found"},
        GetterCase{get_setChannelMeans_fptr, "TarnWrapper_setChannelMeans",
                   "147: TQ Debug: TarnWrapper_setChannelMeans_fptr symbol not found"},
        GetterCase{get_open_fptr_zeph_options, "TarnWrapper_openDLModel_zephOptions",
                   "155: TQ Debug: TarnWrapper_openDLModel_zephOptions symbol not found"}),
    [](const ::testing::TestParamInfo<GetterCase>& info) {
      return std::string(info.param.symbol);
    });

}  // namespace

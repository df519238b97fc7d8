// The inference library loader: the four places it tries, in order, each with its fixed log
// lines. The operations it looks up are exercised through the session tests.
#include "core/model_interface/dl_loader.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <stdexcept>

#include "support/fake_tarnlink.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using ad_test::FakeTarnlink;
using ad_test::FakeVariant;
using Strings = std::vector<std::string>;

// Copies of the fake stand in for the system and vendor files; the bare name reaches the fake
// through the RPATH.
TEST(Loader, TriesTheFourPlacesInOrderAndLogsEachAttempt) {
  // Per place, the lines logged when it loads and when it does not; "%s" is the path tried.
  const std::pair<std::string, std::string> lines[] = {
      {"12: TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR",
       "15: TQ Debug: Dynamic loading of libTarnlink successfull from LD DIR failed"},
      {"22: TQ Debug: Dynamic loading of libTarnlink successfull from %s",
       "25: TQ Debug: Dynamic loading of libTarnlink from %s failed"},
      {"35: TQ Debug: Dynamic loading of libTarnlink successfull from %s",
       "38: TQ Debug: Dynamic loading of libTarnlink from %s failed"},
      {"48: TQ Debug: Dynamic loading of libTarnlink successfull from %s",
       "54: TQ Debug: Dynamic loading of libTarnlink failed.\nERROR: %s: cannot open shared object "
       "file: No such file or directory"}};  // the linker's dlerror() text
  const std::string full = FakeTarnlink::path(FakeVariant::kFull);
  // Which places hold a library, and the one expected to load (-1: none).
  for (const auto& [present, winner] :
       {std::pair{"1111", 0}, {"0111", 1}, {"0011", 2}, {"0001", 3}, {"0000", -1}}) {
    SCOPED_TRACE(present);
    ad_test::TempDir dir;
    const Strings names = {present[0] == '1' ? kFakeTarnLibraryName : "libTarnlink_absent.so",
                           dir.base() + "aidl.so", dir.base() + "hidl.so",
                           dir.base() + "vendor.so"};
    Strings expected;
    for (int i = 0; i < 4; ++i) {
      if (i > 0 && present[i] == '1') std::filesystem::copy_file(full, names[i]);
      const std::string& line = i == winner ? lines[i].first : lines[i].second;
      if (winner < 0 || i <= winner) {
        expected.push_back("dl_loader.cpp: " +
                           std::regex_replace(line, std::regex("%s"), names[i]));
      }
    }
    ad_test::LogCapture capture;
    void* handle = nullptr;
    try {
      // When the bare name answers, the device's own search, which starts with it, is used.
      handle = winner == 0 ? get_tarnlink_lib_handle()
                           : get_tarnlink_lib_handle({names[0].c_str(), names[1].c_str(),
                                                      names[2].c_str(), names[3].c_str()});
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Dynamic loading of libTarnlink failed.");
    }
    EXPECT_EQ(handle == nullptr, winner < 0);
    EXPECT_EQ(capture.texts("ImageSearchJNI_ARTI_DET"), expected);
    if (handle == nullptr) continue;
    Dl_info info{};
    ASSERT_NE(dladdr(dlsym(handle, "fake_tarn_lock"), &info), 0);
    EXPECT_TRUE(std::filesystem::equivalent(info.dli_fname, winner == 0 ? full : names[winner]));
    dlclose(handle);
  }
}

}  // namespace

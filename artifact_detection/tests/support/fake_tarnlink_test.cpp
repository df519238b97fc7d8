// The loading mechanics every network test relies on: the instance a test scripts is the one
// the code under test gets by the bare name, and it is gone once released.
#include "support/fake_tarnlink.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace {

using ad_test::FakeTarnlink;
using ad_test::FakeVariant;

struct VariantCase {
  const char* name;
  FakeVariant variant;
  std::vector<const char*> missing;
};
void PrintTo(const VariantCase& c, std::ostream* os) { *os << c.name; }

class FakeVariantLoad : public ::testing::TestWithParam<VariantCase> {};

TEST_P(FakeVariantLoad, BareNameReachesTheScriptedInstanceWithoutTheOmittedOperations) {
  const std::vector<const char*> all = {"TarnWrapper_create",
                                        "TarnWrapper_openDLModel",
                                        "TarnWrapper_openDLModel_direct",
                                        "TarnWrapper_openDLModel_direct_latency",
                                        "TarnWrapper_openDLModel_zephOptions",
                                        "TarnWrapper_getInputDimens",
                                        "TarnWrapper_getInputChannels",
                                        "TarnWrapper_execute",
                                        "TarnWrapper_getLayerOutput",
                                        "TarnWrapper_getLayerOutputAndFormat",
                                        "TarnWrapper_destroy",
                                        "TarnWrapper_setChannelMeans"};
  const std::string path = FakeTarnlink::path(GetParam().variant);
  {
    FakeTarnlink fake(GetParam().variant);
    void* by_name = dlopen(kFakeTarnLibraryName, RTLD_LAZY);
    ASSERT_EQ(by_name, fake.handle());
    for (const char* symbol : all) {
      const bool omitted = std::find_if(GetParam().missing.begin(), GetParam().missing.end(),
                                        [&](const char* m) { return std::string(m) == symbol; }) !=
                           GetParam().missing.end();
      EXPECT_EQ(dlsym(by_name, symbol) == nullptr, omitted) << symbol;
    }
    dlclose(by_name);
    EXPECT_TRUE(FakeTarnlink::is_loaded(path));
  }
  EXPECT_FALSE(FakeTarnlink::is_loaded(path));
}

INSTANTIATE_TEST_SUITE_P(
    Variants, FakeVariantLoad,
    ::testing::Values(
        VariantCase{"Full", FakeVariant::kFull, {}},
        VariantCase{
            "NoZephOptions", FakeVariant::kNoZephOptions, {"TarnWrapper_openDLModel_zephOptions"}},
        VariantCase{"NoOutputFormat",
                    FakeVariant::kNoOutputFormat,
                    {"TarnWrapper_getLayerOutputAndFormat"}},
        VariantCase{"RequiredOnly",
                    FakeVariant::kRequiredOnly,
                    {"TarnWrapper_openDLModel_direct_latency", "TarnWrapper_getInputChannels",
                     "TarnWrapper_getLayerOutput", "TarnWrapper_setChannelMeans"}}),
    [](const ::testing::TestParamInfo<VariantCase>& info) { return info.param.name; });

TEST(FakeTarnlink, DefaultConstructionFollowsTheRunpathAndScriptsThrowsAndRecords) {
  FakeTarnlink fake;
  EXPECT_EQ(fake.path(), FakeTarnlink::path(FakeVariant::kFull));
  auto create = reinterpret_cast<TarnWrapper_create_t>(dlsym(fake.handle(), "TarnWrapper_create"));
  auto open = reinterpret_cast<TarnWrapper_openDLModel_zephOptions_t>(
      dlsym(fake.handle(), "TarnWrapper_openDLModel_zephOptions"));
  auto destroy =
      reinterpret_cast<TarnWrapper_destroy_t>(dlsym(fake.handle(), "TarnWrapper_destroy"));
  InferenceSession session = create();
  ZEPHInterface options;
  options.module = "m";
  fake.set_failure(FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_THROW);
  EXPECT_THROW(
      {
        try {
          open(session, "a.tflite", options);
        } catch (const std::runtime_error& e) {
          EXPECT_STREQ(e.what(), kFakeTarnExceptionText);
          throw;
        }
      },
      std::runtime_error);
  fake.set_failure(FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_THROW_NON_STD);
  EXPECT_THROW(open(session, "a.tflite", options), int);
  destroy(session);
  destroy(session);  // recorded, not freed twice

  const auto opens = fake.calls(FAKE_TARN_OPEN_ZEPH_OPTIONS);
  ASSERT_EQ(opens.size(), 2u);
  EXPECT_EQ(opens[0].session, session);
  ASSERT_TRUE(opens[0].options.has_value());
  EXPECT_EQ(opens[0].options->module, "m");
  EXPECT_EQ(fake.calls(FAKE_TARN_DESTROY).size(), 2u);
  EXPECT_EQ(fake.sessions_created(), 1);
  EXPECT_EQ(fake.sessions_destroyed(), 1);
  fake.reset();
  EXPECT_TRUE(fake.calls().empty());
}

}  // namespace

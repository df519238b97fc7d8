#include "artifact_detector_wrapper.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "support/fake_tarnlink.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

// Allocation failures on demand: the replaced global operator new fails the n-th allocation
// after arm_allocation_failure(n), with std::bad_alloc or, to check what create does not
// catch, with an int.
namespace {
int g_allocations_until_failure = 0;
bool g_fail_with_int = false;
}  // namespace

// GCC pairs an inlined delete with the malloc inside this replacement and calls it a
// mismatch; the replacement pair is consistent, so the warning is silenced for it alone.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t size) {
  if (g_allocations_until_failure > 0 && --g_allocations_until_failure == 0) {
    if (g_fail_with_int) throw 42;
    throw std::bad_alloc();
  }
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace {

using ad_test::LogCapture;
using ad_test::LogLine;

constexpr int kVerbose = 2;
constexpr const char* kTag = "ImageSearchJNI_ARTI_DET";

void arm_allocation_failure(int nth, bool with_int = false) {
  g_fail_with_int = with_int;
  g_allocations_until_failure = nth;
}

LogLine wrapper_line(int line, const std::string& message) {
  return LogLine{kTag, kVerbose,
                 "artifact_detector_wrapper.cpp: " + std::to_string(line) + ": " + message};
}

struct HandleDeleter {
  void operator()(ArtifactDetectorWrapper* h) const { ArtifactDetectorWrapper_destroy(h); }
};
using Handle = std::unique_ptr<ArtifactDetectorWrapper, HandleDeleter>;

// The first two allocations of Create are the detector and its engine; failing either must
// leave nothing behind (the sanitizer build checks for leaks).
class CreateFailure : public ::testing::TestWithParam<int> {};

TEST_P(CreateFailure, ReturnsNullAndLogsOneLine) {
  LogCapture capture;
  arm_allocation_failure(GetParam());
  ArtifactDetectorWrapper* handle = ArtifactDetectorWrapper_create();
  arm_allocation_failure(0);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(capture.lines(), std::vector<LogLine>{wrapper_line(
                                 15,
                                 "TQ Debug: ArtifactDetectorWrapper_create: can't create "
                                 "ArtifactDetectorWrapper:  exception: std::bad_alloc")});
}

INSTANTIATE_TEST_SUITE_P(NthAllocation, CreateFailure, ::testing::Values(1, 2));

TEST(ArtifactDetectorWrapperCreate, LetsExceptionsOfOtherTypesPass) {
  LogCapture capture;
  arm_allocation_failure(1, /*with_int=*/true);
  EXPECT_THROW(ArtifactDetectorWrapper_create(), int);
  arm_allocation_failure(0);
  EXPECT_TRUE(capture.lines().empty());
}

TEST(ArtifactDetectorWrapperCreate, SucceedsWithoutALineOfItsOwn) {
  LogCapture capture;
  Handle handle(ArtifactDetectorWrapper_create());
  ASSERT_NE(handle, nullptr);
  for (const LogLine& line : capture.lines()) {
    EXPECT_EQ(line.text.find("artifact_detector_wrapper.cpp"), std::string::npos) << line;
  }
  capture.clear();
  handle.reset();
  EXPECT_TRUE(capture.lines().empty()) << "destroy logs nothing";
}

// Each function's own line comes first, then whatever the detector logs.
struct ForwardCase {
  const char* name;
  std::function<bool(ArtifactDetectorWrapper*)> call;
  bool expected;
  int line;
  std::string message;
};

std::ostream& operator<<(std::ostream& os, const ForwardCase& c) { return os << c.name; }

class UninitialisedDetector : public ::testing::TestWithParam<ForwardCase> {};

std::vector<char> g_frame(64 * 48 * 4, 9);
char g_image_name[] = "frame.jpg";

TEST_P(UninitialisedDetector, LogsItsLineAndForwards) {
  Handle handle(ArtifactDetectorWrapper_create());
  LogCapture capture;
  EXPECT_EQ(GetParam().call(handle.get()), GetParam().expected);
  const auto lines = capture.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], wrapper_line(GetParam().line, GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Functions, UninitialisedDetector,
    ::testing::Values(
        ForwardCase{"execute",
                    [](ArtifactDetectorWrapper* h) {
                      return ArtifactDetectorWrapper_execute(h, g_frame.data(), 64, 48, 90,
                                                             int64_t{1} << 32);
                    },
                    false, 37, "TQ Debug: ArtifactDetectorWrapper_execute c wrapper"},
        ForwardCase{"execute_with_image_name",
                    [](ArtifactDetectorWrapper* h) {
                      return ArtifactDetectorWrapper_execute_with_image_name(
                          h, g_frame.data(), 64, 48, 0, 2, g_image_name);
                    },
                    false, 32, "TQ Debug: ArtifactDetectorWrapper_execute c wrapper"},
        ForwardCase{"count_of_an_empty_result",
                    [](ArtifactDetectorWrapper* h) {
                      return ArtifactDetectorWrapper_get_total_artifact_count(h);
                    },
                    false, 43,
                    "TQ Debug: ArtifactDetectorWrapper_get_total_artifact_count c wrapper"},
        ForwardCase{"artifact_info_of_an_empty_result_writes_nothing",
                    [](ArtifactDetectorWrapper* h) {
                      return ArtifactDetectorWrapper_get_artifact_info(h, nullptr);
                    },
                    true, 48, "TQ Debug: ArtifactDetectorWrapper_get_box_info c wrapper"}),
    [](const ::testing::TestParamInfo<ForwardCase>& info) { return std::string(info.param.name); });

TEST(ArtifactDetectorWrapperInitialize, LogsThePathItForwards) {
  Handle handle(ArtifactDetectorWrapper_create());
  LogCapture capture;
  ArtifactDetectorWrapper_Initialize(handle.get(), 7, "/no/such/models/");
  const auto lines = capture.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], wrapper_line(26,
                                   "TQ Debug: ArtifactDetectorWrapper_initialize model path c "
                                   "wrapper=[/no/such/models/]"));
}

// A detector initialised on the scripted inference library, whose network finds DonutBlur
// (logit +inf, probability 1) and Noise (logit 0, probability 0.5) unless told otherwise.
class InitialisedDetector : public ::testing::Test {
 protected:
  static constexpr int kWidth = 64;
  static constexpr int kHeight = 48;

  void SetUp() override {
    models_.write_file("artifact_detector/artifact_detector_cnn.info",
                       "{\n\"model_type\": \"cpu\",\n\"model_path\": \"" + models_.base() +
                           "artifact_detector/net.onnx\"\n}\n");
    script({5, 9});
    for (size_t i = 0; i < frame_.size(); ++i) frame_[i] = static_cast<char>(i * 7 + i / 97 * 13);
    handle_.reset(ArtifactDetectorWrapper_create());
    ASSERT_TRUE(ArtifactDetectorWrapper_Initialize(handle_.get(), 0, models_.base().c_str()));
  }

  void script(std::vector<int> found_ids) {
    std::vector<float> logits(12, -INFINITY);
    for (int id : found_ids) logits[id] = id == 9 ? 0.0f : INFINITY;
    fake_.reset();
    fake_.set_input_size(32, 32);
    fake_.set_layer_output("Identity", logits, {1, 12, 1, 1}, 0);
  }

  ad_test::TempDir models_;
  ad_test::FakeTarnlink fake_;
  Handle handle_;
  std::vector<char> frame_ = std::vector<char>(kWidth * kHeight * 4);  // room for RGBA
};

struct FormatCase {
  int64_t word;
  int format;
};

std::ostream& operator<<(std::ostream& os, const FormatCase& c) {
  return os << "word " << c.word << " -> format " << c.format;
}

class FormatWord : public InitialisedDetector, public ::testing::WithParamInterface<FormatCase> {};

// The detector logs the format it was handed before it converts anything.
TEST_P(FormatWord, UpperHalfIsTheFormat) {
  char name[] = "frame.jpg";
  const std::string expected =
      "artifact_detector Execute with odd skip called : width : 64 height : 48 image_rotation : 0 "
      "image_format : " +
      std::to_string(GetParam().format);
  for (bool with_name : {false, true}) {
    LogCapture capture;
    if (with_name) {
      ArtifactDetectorWrapper_execute_with_image_name(handle_.get(), frame_.data(), kWidth, kHeight,
                                                      0, GetParam().word, name);
    } else {
      ArtifactDetectorWrapper_execute(handle_.get(), frame_.data(), kWidth, kHeight, 0,
                                      GetParam().word);
    }
    EXPECT_TRUE(capture.contains(expected)) << "with image name: " << with_name;
  }
}

INSTANTIATE_TEST_SUITE_P(Words, FormatWord,
                         ::testing::Values(FormatCase{2, 0}, FormatCase{int64_t{2} << 32, 2},
                                           FormatCase{int64_t{1} << 32, 1},
                                           FormatCase{(int64_t{2} << 32) | 1, 2},
                                           FormatCase{-1, -1}));

TEST_F(InitialisedDetector, CountAnswersWhetherAnythingWasFound) {
  ASSERT_TRUE(ArtifactDetectorWrapper_execute(handle_.get(), frame_.data(), kWidth, kHeight, 0,
                                              int64_t{1} << 32));
  // The handle is the detector itself.
  auto* detector = reinterpret_cast<artifact_detector::ArtifactDetector*>(handle_.get());
  EXPECT_EQ(detector->get_total_artifact_count(), 2);
  EXPECT_TRUE(ArtifactDetectorWrapper_get_total_artifact_count(handle_.get()));

  Artifact_Info records[2] = {};
  EXPECT_TRUE(ArtifactDetectorWrapper_get_artifact_info(handle_.get(), records));
  EXPECT_EQ(records[0].tag_id, 5);
  EXPECT_STREQ(records[0].tag, "DonutBlur");
  EXPECT_EQ(records[0].score, 1.0f);
  EXPECT_EQ(records[1].tag_id, 9);
  EXPECT_STREQ(records[1].tag, "Noise");
  EXPECT_EQ(records[1].score, 0.5f);

  script({});
  char name[] = "frame.jpg";
  ASSERT_TRUE(ArtifactDetectorWrapper_execute_with_image_name(handle_.get(), frame_.data(), kWidth,
                                                              kHeight, 0, int64_t{1} << 32, name));
  EXPECT_EQ(detector->get_total_artifact_count(), 0);
  EXPECT_FALSE(ArtifactDetectorWrapper_get_total_artifact_count(handle_.get()));
}

}  // namespace

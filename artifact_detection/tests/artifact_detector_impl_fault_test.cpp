// Faults from outside the detector: no inference library, a library without operations, each
// operation failing or throwing, no configuration file, and model files that are garbage. Each answers as documented (false, defaults, a log line), leaks no library
// session or reference, and leaves the detector usable once the fault is gone.
//
// No inference library is on this executable's search path: a test loads the one it wants by
// path, and the detector's lookup by the bare name then finds exactly that one.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>

#include "support/detector_fixtures.h"
#include "support/fake_tarnlink.h"
#include "support/log_capture.h"

namespace {

using namespace ad_test;
using V = FakeVariant;

const std::string kForwardPassFailed = "TQ Debug: artifact_detector Forward Pass Failed";
const std::string kInitFailed = "TQ:Debug artifact detector init failed: exception: ";
const std::string kFakeFailure = kFakeTarnExceptionText;
constexpr FakeTarnOp kNoOp = FAKE_TARN_OP_COUNT;
constexpr FakeTarnFailure kOk = FAKE_TARN_SUCCEED, kFail = FAKE_TARN_RETURN_FAILURE,
                          kThrow = FAKE_TARN_THROW;

bool run(ArtifactDetector& detector, std::uint64_t seed) {
  return detector.execute(textured(48, 64, seed), 0);
}

// The fake answering for the network: its input size and a DonutBlur verdict.
void script(FakeTarnlink& fake) {
  std::vector<float> logits(12, -50.0f);
  logits[5] = 9.0f;
  fake.set_input_size(40, 30);
  fake.set_layer_output("Identity", logits, {1, 12, 1, 1}, 0);
}

// Drops the test's own handle: no detector may keep the library loaded after that.
void leaves_no_reference(std::optional<FakeTarnlink>& fake) {
  const std::string path = fake->path();
  fake.reset();
  EXPECT_FALSE(FakeTarnlink::is_loaded(path)) << "a detector left a library reference behind";
}

struct LibraryFault {
  const char* name;
  std::optional<FakeVariant> variant;  // none: no inference library at all
  FakeTarnOp op;                       // scripted to fail
  FakeTarnFailure failure;
  bool at_run;          // the fault comes after a good run instead of before initialize
  bool initializes;     // what initialize answers (faults before it)
  bool runs;            // what execute answers
  std::string message;  // a line the fault leaves in the log; empty: none to look for
};

// clang-format off
const LibraryFault kLibraryFaults[] = {
    {"NoLibrary", {}, kNoOp, kOk, 0, 0, 0, kInitFailed + "Dynamic loading of libTarnlink failed."},
    {"NoOperations", V::kNoOperations, kNoOp, kOk, 0, 1, 0,
     "TQ Debug: TarnWrapper_create symbol not found"},
    {"OnlyTheRequiredOperations", V::kRequiredOnly, kNoOp, kOk, 0, 1, 1,
     "TQ Debug: TarnWrapper_inputChannels_fptr symbol not found"},
    {"NoOptionsOpen", V::kNoZephOptions, kNoOp, kOk, 0, 1, 1,
     "TQ Debug: failed to call TarnWrapper_openDLModel_ptr_zephOptions"},
    {"NoOutputOperation", V::kNoOutputFormat, kNoOp, kOk, 0, 1, 0,
     "TQ Debug: TarnWrapper_getLayerOutputAndFormat symbol not found"},
    {"CreateThrowsANonStandardException", V::kFull, FAKE_TARN_CREATE, FAKE_TARN_THROW_NON_STD, 0,
     0, 0, "TQ:Debug artifact_detector execute failed because init was unsuccessful"},
    {"CreateFails", V::kFull, FAKE_TARN_CREATE, kFail, 0, 1, 0, kForwardPassFailed},
    {"OpenFails", V::kFull, FAKE_TARN_OPEN_ZEPH_OPTIONS, kFail, 0, 1, 0, kForwardPassFailed},
    {"OpenThrows", V::kFull, FAKE_TARN_OPEN_ZEPH_OPTIONS, kThrow, 0, 1, 0,
     "Tarnlink: ZEPH session returned NULL ! Exception thrown in open for module "
     "artifact_Detector | " + kFakeFailure},
    {"InputSizeFails", V::kFull, FAKE_TARN_GET_INPUT_DIMENS, kFail, 0, 1, 0,
     "TQ Debug: NNet Contructor failed for module - artifact_Detector"},
    {"InputSizeThrows", V::kFull, FAKE_TARN_GET_INPUT_DIMENS, kThrow, 0, 0, 0,
     kInitFailed + kFakeFailure},
    {"ExecuteFails", V::kFull, FAKE_TARN_EXECUTE, kFail, 1, 1, 0, kForwardPassFailed},
    {"ExecuteThrows", V::kFull, FAKE_TARN_EXECUTE, kThrow, 1, 1, 0, ""},
    {"OutputLayerMissing", V::kFull, FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT, kFail, 1, 1, 0,
     "TQ Debug: NNet get layer output with format NULL for Identity"}};
// clang-format on

TEST(LibraryFaults, AnswerAsDocumentedAndLeaveTheDetectorUsable) {
  TempDir models;
  write_model_info(models, models.base() + "net.onnx");
  for (const LibraryFault& f : kLibraryFaults) {
    SCOPED_TRACE(f.name);
    std::optional<FakeTarnlink> fake;
    if (f.variant) script(fake.emplace(*f.variant));
    DetectorPtr detector(ArtifactDetector::Create());
    std::vector<Record> before;
    LogCapture capture;
    if (f.at_run) {
      ASSERT_TRUE(initialize(*detector, models) && run(*detector, 1));
      before = reported(*detector);
    }
    if (f.op != kNoOp) fake->set_failure(f.op, f.failure);
    if (f.failure == FAKE_TARN_THROW_NON_STD) {
      // Not a standard exception: it passes initialize, which must still release its lock.
      EXPECT_THROW(initialize(*detector, models), int);
    } else if (!f.at_run) {
      EXPECT_EQ(initialize(*detector, models), f.initializes);
    }
    if (f.at_run && f.failure == kThrow) {
      EXPECT_THROW(run(*detector, 2), std::runtime_error);  // the session's, to the caller
    } else {
      EXPECT_EQ(run(*detector, 2), f.runs);
    }
    EXPECT_TRUE(f.message.empty() || capture.contains(f.message)) << f.message;
    EXPECT_TRUE(!f.at_run || reported(*detector) == before) << "a failed run keeps the results";

    // The fault goes away. A loaded library stays the detector's until it is destroyed (a new
    // session opens before the old one closes), so another library needs a new detector.
    if (f.variant == V::kFull) {
      fake->set_failure(f.op, kOk);
    } else {
      if (f.variant) {
        detector.reset(ArtifactDetector::Create());
        leaves_no_reference(fake);
      }
      script(fake.emplace(V::kFull));
    }
    ASSERT_TRUE(initialize(*detector, models));
    EXPECT_EQ(fake->live_sessions(), 1) << "a new initialize releases the old session";
    EXPECT_TRUE(run(*detector, 3));
    EXPECT_EQ(reported(*detector).size(), 1u);
    detector.reset();
    EXPECT_EQ(fake->live_sessions(), 0);
    leaves_no_reference(fake);
  }
}

// Without an info file the engine opens the models folder itself on the CPU at float16 (how
// the readers treat unreadable files is their own test).
TEST(ConfigurationFaults, NoInfoFileOpensTheFolderWithTheDefaults) {
  TempDir models;
  FakeTarnlink fake(V::kFull);
  script(fake);
  DetectorPtr detector(ArtifactDetector::Create());
  ASSERT_TRUE(initialize(*detector, models));
  const auto opens = fake.calls(FAKE_TARN_OPEN);
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(std::make_tuple(opens[0].compute_unit, opens[0].precision), std::make_tuple(0, 1));
  EXPECT_TRUE(run(*detector, 1));
}

// Over the reference library: the session reports a model that did not open by its state,
// not by failing, and the library says why it refused (which files it refuses is its own test).
TEST(ModelFileFaults, LeaveTheNetworkClosedAndTheDetectorUsable) {
  {
    void* library = dlopen(TARNLINK_REFERENCE_LIBRARY, RTLD_LAZY);
    ASSERT_NE(library, nullptr) << dlerror();
    TempDir models;
    const cv::Mat noise = textured(64, 64, 7, CV_8UC1);
    models.write_file("artifact_detector/net.onnx",
                      std::string(reinterpret_cast<const char*>(noise.data), noise.total()));
    write_model_info(models, models.base() + "artifact_detector/net.onnx");
    DetectorPtr detector(ArtifactDetector::Create());
    {
      LogCapture capture;
      ASSERT_TRUE(initialize(*detector, models));
      EXPECT_FALSE(run(*detector, 1));
      EXPECT_TRUE(capture.contains(kForwardPassFailed));
      EXPECT_FALSE(capture.texts("Tarnlink").empty()) << "the library says why it refused";
    }
    write_model_info(models, TARNLINK_TEST_MODELS "/tiny.onnx");
    ASSERT_TRUE(initialize(*detector, models));
    EXPECT_TRUE(run(*detector, 2));
    detector.reset();
    dlclose(library);
  }
  EXPECT_FALSE(FakeTarnlink::is_loaded(TARNLINK_REFERENCE_LIBRARY))
      << "a detector left a library reference behind";
}

}  // namespace

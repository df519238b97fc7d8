// Faults from outside the detector: no inference library, a library without operations, each
// operation failing or throwing, unreadable and malformed configuration files, and model files
// that are garbage. Each answers as documented (false, defaults, a log line), leaks no library
// session or reference, and leaves the detector usable once the fault is gone.
//
// This executable has no inference library on its search path: a test loads the one it wants
// (a fake variant, or the reference library) by path, and the detector's lookup by the bare
// name then finds exactly that one.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "artifact_detector.h"
#include "support/detector_fixtures.h"
#include "support/fake_tarnlink.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "utils/sys_utils.h"

namespace {

using ad_test::DetectorPtr;
using ad_test::FakeTarnlink;
using ad_test::FakeVariant;
using ad_test::LogCapture;
using ad_test::Record;
using ad_test::reported;
using ad_test::TempDir;
using artifact_detector::ArtifactDetector;

constexpr int kNetWidth = 40;
constexpr int kNetHeight = 30;
constexpr const char* kNotInitialised =
    "TQ:Debug artifact_detector execute failed because init was unsuccessful";
constexpr const char* kForwardPassFailed = "TQ Debug: artifact_detector Forward Pass Failed";
const std::string kInitFailed = "TQ:Debug artifact detector init failed: exception: ";
const std::string kFakeFailure = kFakeTarnExceptionText;

bool initialize(ArtifactDetector& detector, const TempDir& models) {
  std::string path = models.base();
  return detector.initialize(ArtifactDetector::DEFAULT, path.data());
}

bool run(ArtifactDetector& detector, std::uint64_t seed) {
  return detector.execute(ad_test::textured(48, 64, seed), 0);
}

// The fake answering for the network: its input size and a DonutBlur verdict.
void script(FakeTarnlink& fake) {
  fake.set_input_size(kNetWidth, kNetHeight);
  std::vector<float> logits(12, -50.0f);
  logits[5] = 9.0f;
  fake.set_layer_output("Identity", logits, {1, 12, 1, 1}, 0);
}

// --- The inference library ----------------------------------------------------------------

constexpr FakeTarnOp kNoOp = FAKE_TARN_OP_COUNT;

struct LibraryFault {
  const char* name;
  std::optional<FakeVariant> variant;  // none: no inference library at all
  FakeTarnOp op;                       // scripted to fail, or kNoOp
  FakeTarnFailure failure;
  bool at_run;          // the fault appears after a successful run instead of before initialize
  bool initializes;     // what initialize answers (before-initialize faults)
  bool runs;            // what execute answers
  std::string message;  // a line the fault leaves in the log; empty: none to look for
};

class LibraryFaults : public ::testing::TestWithParam<LibraryFault> {
 protected:
  void SetUp() override { ad_test::write_model_info(models_, models_.base() + "net.onnx"); }

  // Drops the test's own handle: no detector may keep the library loaded after that.
  void leaves_no_reference() {
    const std::string path = fake_->path();
    fake_.reset();
    EXPECT_FALSE(FakeTarnlink::is_loaded(path)) << "a detector left a library reference behind";
  }

  TempDir models_;
  std::optional<FakeTarnlink> fake_;
};

TEST_P(LibraryFaults, AnswerAsDocumentedAndLeaveTheDetectorUsable) {
  const LibraryFault& fault = GetParam();
  if (fault.variant) {
    fake_.emplace(*fault.variant);
    script(*fake_);
  }
  DetectorPtr detector(ArtifactDetector::Create());
  std::vector<Record> before;
  LogCapture capture;

  if (fault.at_run) {
    ASSERT_TRUE(initialize(*detector, models_));
    ASSERT_TRUE(run(*detector, 1));
    before = reported(*detector);
    ASSERT_FALSE(before.empty());
    fake_->set_failure(fault.op, fault.failure);
  } else if (fault.op != kNoOp) {
    fake_->set_failure(fault.op, fault.failure);
  }

  if (!fault.at_run && fault.failure == FAKE_TARN_THROW_NON_STD) {
    // Not a standard exception: it passes initialize, which must still release its lock.
    EXPECT_THROW(initialize(*detector, models_), int);
  } else if (!fault.at_run) {
    EXPECT_EQ(initialize(*detector, models_), fault.initializes);
  }
  if (fault.at_run && fault.failure == FAKE_TARN_THROW) {
    // Exceptions of the session reach the caller of execute.
    EXPECT_THROW(run(*detector, 2), std::runtime_error);
  } else {
    EXPECT_EQ(run(*detector, 2), fault.runs);
  }
  if (!fault.message.empty()) {
    EXPECT_TRUE(capture.contains(fault.message)) << fault.message;
  }
  if (fault.at_run) {
    EXPECT_EQ(reported(*detector), before) << "a failed run keeps the results";
  }

  // The fault goes away. A library that is loaded stays the detector's until it is destroyed
  // (a new session is opened before the old one closes), so a different library needs a new
  // detector; a fault of the library's answers clears in the same detector.
  if (fault.variant == FakeVariant::kFull) {
    fake_->set_failure(fault.op, FAKE_TARN_SUCCEED);
  } else {
    if (fault.variant) {
      detector.reset(ArtifactDetector::Create());
      leaves_no_reference();
    }
    fake_.emplace(FakeVariant::kFull);
    script(*fake_);
  }
  ASSERT_TRUE(initialize(*detector, models_));
  EXPECT_TRUE(run(*detector, 3));
  EXPECT_EQ(reported(*detector).size(), 1u);

  detector.reset();
  EXPECT_EQ(fake_->sessions_created(), fake_->sessions_destroyed());
  leaves_no_reference();
}

INSTANTIATE_TEST_SUITE_P(
    Faults, LibraryFaults,
    ::testing::Values(
        LibraryFault{"NoLibrary", std::nullopt, kNoOp, FAKE_TARN_SUCCEED, false, false, false,
                     kInitFailed + "Dynamic loading of libTarnlink failed."},
        LibraryFault{"NoOperations", FakeVariant::kNoOperations, kNoOp, FAKE_TARN_SUCCEED, false,
                     true, false, "TQ Debug: TarnWrapper_create symbol not found"},
        LibraryFault{"OnlyTheRequiredOperations", FakeVariant::kRequiredOnly, kNoOp,
                     FAKE_TARN_SUCCEED, false, true, true,
                     "TQ Debug: TarnWrapper_inputChannels_fptr symbol not found"},
        LibraryFault{"NoOptionsOpen", FakeVariant::kNoZephOptions, kNoOp, FAKE_TARN_SUCCEED, false,
                     true, true,
                     "TQ Debug: failed to call TarnWrapper_openDLModel_ptr_zephOptions"},
        LibraryFault{"NoOutputOperation", FakeVariant::kNoOutputFormat, kNoOp, FAKE_TARN_SUCCEED,
                     false, true, false,
                     "TQ Debug: TarnWrapper_getLayerOutputAndFormat symbol not found"},
        LibraryFault{"CreateGivesNoSession", FakeVariant::kFull, FAKE_TARN_CREATE,
                     FAKE_TARN_RETURN_FAILURE, false, true, false, kForwardPassFailed},
        LibraryFault{"CreateThrows", FakeVariant::kFull, FAKE_TARN_CREATE, FAKE_TARN_THROW, false,
                     false, false, kInitFailed + kFakeFailure},
        LibraryFault{"CreateThrowsANonStandardException", FakeVariant::kFull, FAKE_TARN_CREATE,
                     FAKE_TARN_THROW_NON_STD, false, false, false, kNotInitialised},
        LibraryFault{"OpenFails", FakeVariant::kFull, FAKE_TARN_OPEN_ZEPH_OPTIONS,
                     FAKE_TARN_RETURN_FAILURE, false, true, false,
                     "TQ Debug: failed to open models using zeph options api"},
        LibraryFault{"OpenThrows", FakeVariant::kFull, FAKE_TARN_OPEN_ZEPH_OPTIONS, FAKE_TARN_THROW,
                     false, true, false,
                     "Tarnlink: ZEPH session returned NULL ! Exception thrown in open for module "
                     "artifact_Detector | " +
                         kFakeFailure},
        LibraryFault{"InputSizeFails", FakeVariant::kFull, FAKE_TARN_GET_INPUT_DIMENS,
                     FAKE_TARN_RETURN_FAILURE, false, true, false, kForwardPassFailed},
        LibraryFault{"InputSizeThrows", FakeVariant::kFull, FAKE_TARN_GET_INPUT_DIMENS,
                     FAKE_TARN_THROW, false, false, false, kInitFailed + kFakeFailure},
        LibraryFault{"ExecuteFails", FakeVariant::kFull, FAKE_TARN_EXECUTE,
                     FAKE_TARN_RETURN_FAILURE, true, true, false, kForwardPassFailed},
        LibraryFault{"ExecuteThrows", FakeVariant::kFull, FAKE_TARN_EXECUTE, FAKE_TARN_THROW, true,
                     true, false, ""},
        LibraryFault{"OutputLayerMissing", FakeVariant::kFull,
                     FAKE_TARN_GET_LAYER_OUTPUT_AND_FORMAT, FAKE_TARN_RETURN_FAILURE, true, true,
                     false, "TQ Debug: NNet get layer output with format NULL for Identity"}),
    [](const ::testing::TestParamInfo<LibraryFault>& info) { return info.param.name; });

// --- Configuration files ------------------------------------------------------------------

constexpr const char* kInfoFile = "artifact_detector/artifact_detector_cnn.info";

// Makes `relative` a symbolic link to a path that does not exist.
void dangling_link(const TempDir& dir, const std::string& relative) {
  std::filesystem::create_directories(std::filesystem::path(dir.base() + relative).parent_path());
  ASSERT_EQ(symlink((dir.base() + "nowhere").c_str(), (dir.base() + relative).c_str()), 0);
}

// Binary bytes with stray quotes, braces and line ends: no line of it means anything.
const char kGarbageBytes[] =
    "\x7f"
    "ELF\x02\x01\x00{\x00\xff\xfe\"\r\n}\x0b\x0c\"\"\"";
const std::string kGarbage(kGarbageBytes, sizeof kGarbageBytes - 1);

struct InfoFileFault {
  const char* name;
  std::function<void(const TempDir&)> make;
  std::string message;  // the reader's line; <info> stands for the file's path
};

class InfoFileFaults : public ::testing::TestWithParam<InfoFileFault> {
 protected:
  void SetUp() override { script(fake_); }
  FakeTarnlink fake_{FakeVariant::kFull};
  TempDir models_;
};

TEST_P(InfoFileFaults, GiveTheDefaultsAndALogLine) {
  GetParam().make(models_);
  DetectorPtr detector(ArtifactDetector::Create());
  LogCapture capture;
  ASSERT_TRUE(initialize(*detector, models_));
  std::string message = GetParam().message;
  const std::string info = models_.base() + kInfoFile;
  if (message.find("<info>") != std::string::npos) {
    message.replace(message.find("<info>"), 6, info);
  }
  EXPECT_TRUE(capture.contains(message)) << message;

  // Defaults: a models directory rather than a model file (no model_path), cpu, float16.
  const auto opens = fake_.calls(FAKE_TARN_OPEN);
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].compute_unit, 0);
  EXPECT_EQ(opens[0].precision, 1);
  EXPECT_TRUE(run(*detector, 1));

  // A good file later is read by the next initialize.
  std::filesystem::remove_all(models_.base() + "artifact_detector");
  models_.write_file(kInfoFile,
                     "{\n\"model_type\": \"gpu\",\n\"precision\": \"float32\",\n"
                     "\"model_path\": \"net.onnx\"\n}\n");
  ASSERT_TRUE(initialize(*detector, models_));
  const auto options_opens = fake_.calls(FAKE_TARN_OPEN_ZEPH_OPTIONS);
  ASSERT_EQ(options_opens.size(), 1u);
  EXPECT_EQ(options_opens[0].compute_unit, 1);
  EXPECT_EQ(options_opens[0].precision, 0);
  EXPECT_TRUE(run(*detector, 2));
}

const std::string kDefaultsAfterFailure =
    "TQ Debug: Loading model properties from model for <info> info file failed, default model "
    "properties: cpu, float16";
const std::string kDefaultsAfterReading =
    "TQ Debug: Loading model properties from <info>, model properties: cpu, float16";

INSTANTIATE_TEST_SUITE_P(
    Faults, InfoFileFaults,
    ::testing::Values(
        InfoFileFault{"NoModelDirectory", [](const TempDir&) {},
                      "TQ Debug: Base model parent path not found for artifact_detector"},
        InfoFileFault{"DanglingLink", [](const TempDir& d) { dangling_link(d, kInfoFile); },
                      kDefaultsAfterFailure},
        InfoFileFault{"Directory", [](const TempDir& d) { d.make_dir(kInfoFile); },
                      kDefaultsAfterReading},
        InfoFileFault{"Garbage", [](const TempDir& d) { d.write_file(kInfoFile, kGarbage); },
                      kDefaultsAfterReading},
        InfoFileFault{"UnknownValues",
                      [](const TempDir& d) {
                        d.write_file(kInfoFile,
                                     "{\n\"model_type\": \"CPU\",\n\"precision\": \"int8\"\n}\n");
                      },
                      "TQ Debug: Couldn't identify the EXECUTION DATA TYPE from .info file, so "
                      "setting EXECUTION DATA TYPE to FLOAT16"}),
    [](const ::testing::TestParamInfo<InfoFileFault>& info) { return info.param.name; });

// The threshold file sits on the device's vendor partition, so its reader is driven directly.
TEST(ThresholdFileFaults, UnreadableOrMalformedFilesGiveNoThresholds) {
  TempDir dir;
  const std::vector<std::function<std::string()>> files = {
      [&] { return dir.make_dir("directory.json"); },
      [&] {
        dangling_link(dir, "dangling.json");
        return dir.base() + "dangling.json";
      },
      [&] { return dir.write_file("garbage.json", kGarbage); },
      [&] { return dir.write_file("no_object.json", "\"6\": 0.45,\n\"7\": 0.3\n"); },
      [&] { return dir.write_file("bad_members.json", "{\n\"x\": 1\n\"6\": y\n\"6\" 0.5\n}\n"); },
  };
  for (const auto& make : files) {
    const std::string path = make();
    EXPECT_TRUE(get_artifact_thresholds(path).empty()) << path;
  }
}

// --- The model file, over the reference inference library ---------------------------------

// The reference library, loaded by path for as long as the object lives.
class ReferenceLibrary {
 public:
  ReferenceLibrary() : handle_(dlopen(TARNLINK_REFERENCE_LIBRARY, RTLD_LAZY)) {}
  ~ReferenceLibrary() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  ReferenceLibrary(const ReferenceLibrary&) = delete;
  ReferenceLibrary& operator=(const ReferenceLibrary&) = delete;
  bool loaded() const { return handle_ != nullptr; }

 private:
  void* handle_;
};

std::string file_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

const std::string kTinyOnnx = std::string(TARNLINK_TEST_MODELS) + "/tiny.onnx";
const std::string kTinyCaffe = std::string(TARNLINK_TEST_MODELS) + "/tiny.caffemodel";

struct ModelFault {
  const char* name;
  // Writes the bad model into the models directory and returns what the info file names.
  std::function<std::string(const TempDir&)> make;
};

std::string write_model(const TempDir& d, const std::string& name, const std::string& bytes) {
  return d.write_file("artifact_detector/" + name, bytes);
}

class ModelFileFaults : public ::testing::TestWithParam<ModelFault> {};

TEST_P(ModelFileFaults, LeaveTheNetworkClosedAndTheDetectorUsable) {
  {
    ReferenceLibrary library;
    ASSERT_TRUE(library.loaded()) << dlerror();
    TempDir models;
    ad_test::write_model_info(models, GetParam().make(models));
    DetectorPtr detector(ArtifactDetector::Create());
    {
      LogCapture capture;
      // The session reports a model that did not open by its state, not by failing.
      ASSERT_TRUE(initialize(*detector, models));
      EXPECT_FALSE(run(*detector, 1));
      EXPECT_TRUE(capture.contains(kForwardPassFailed));
      EXPECT_FALSE(capture.texts("Tarnlink").empty()) << "the library says why it refused";
    }
    ad_test::write_model_info(models, kTinyOnnx);
    ASSERT_TRUE(initialize(*detector, models));
    EXPECT_TRUE(run(*detector, 2));
  }
  EXPECT_FALSE(FakeTarnlink::is_loaded(TARNLINK_REFERENCE_LIBRARY))
      << "a detector left a library reference behind";
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ModelFileFaults,
    ::testing::Values(
        ModelFault{"Missing", [](const TempDir& d) { return d.base() + "missing.onnx"; }},
        ModelFault{"Empty", [](const TempDir& d) { return write_model(d, "net.onnx", ""); }},
        ModelFault{"Garbage",
                   [](const TempDir& d) {
                     const cv::Mat noise = ad_test::textured(64, 64, 7, CV_8UC1);
                     return write_model(d, "net.onnx", std::string(noise.datastart, noise.dataend));
                   }},
        ModelFault{"OnnxCutInHalf",
                   [](const TempDir& d) {
                     const std::string bytes = file_bytes(kTinyOnnx);
                     return write_model(d, "net.onnx", bytes.substr(0, bytes.size() / 2));
                   }},
        ModelFault{"OnnxOneByteShort",
                   [](const TempDir& d) {
                     const std::string bytes = file_bytes(kTinyOnnx);
                     return write_model(d, "net.onnx", bytes.substr(0, bytes.size() - 1));
                   }},
        ModelFault{"CaffeWithoutItsDescription",
                   [](const TempDir& d) {
                     return write_model(d, "net.caffemodel", file_bytes(kTinyCaffe));
                   }},
        ModelFault{"CaffeDescriptionIsGarbage",
                   [](const TempDir& d) {
                     write_model(d, "net.prototxt", kGarbage);
                     return write_model(d, "net.caffemodel", file_bytes(kTinyCaffe));
                   }},
        ModelFault{"NoModelInTheDirectory", [](const TempDir&) { return std::string(); }}),
    [](const ::testing::TestParamInfo<ModelFault>& info) { return info.param.name; });

}  // namespace

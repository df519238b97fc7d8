#include "artifact_detector_wrapper.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <new>

#include "support/fake_tarnlink.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

// The n-th allocation after g_fail_in = n fails, with std::bad_alloc or, to check what create
// does not catch, with an int.
static int g_fail_in = 0;
static bool g_fail_with_int = false;

// GCC pairs an inlined delete with the malloc inside this replacement and calls it a
// mismatch; the replacement pair is consistent, so the warning is silenced for it alone.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t size) {
  if (g_fail_in > 0 && --g_fail_in == 0) g_fail_with_int ? throw 42 : throw std::bad_alloc();
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
// Every other plain form must come from the same allocator, or a sanitizer sees e.g. the
// standard library's nothrow temporary buffers freed by the delete above.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace {

using ad_test::LogLine;
constexpr int64_t kBgr = int64_t{1} << 32;  // format 1 in the upper half

LogLine wrapper_line(int line, const std::string& message) {
  return {"ImageSearchJNI_ARTI_DET", 2,
          "artifact_detector_wrapper.cpp: " + std::to_string(line) + ": TQ Debug: " + message};
}

// The first two allocations of Create are the detector and its engine; failing either leaves
// nothing behind (the sanitizer build checks for leaks). Other exceptions pass unlogged.
TEST(ArtifactDetectorWrapperCreate, FailureAnswersNullWithOneLine) {
  for (int nth : {1, 2}) {
    ad_test::LogCapture capture;
    g_fail_in = nth;
    EXPECT_EQ(ArtifactDetectorWrapper_create(), nullptr);
    EXPECT_EQ(capture.lines(), std::vector<LogLine>{wrapper_line(
                                   15, "ArtifactDetectorWrapper_create: can't create "
                                       "ArtifactDetectorWrapper:  exception: std::bad_alloc")});
  }
  ad_test::LogCapture capture;
  g_fail_in = 1;
  g_fail_with_int = true;
  EXPECT_THROW(ArtifactDetectorWrapper_create(), int);
  g_fail_with_int = false;
  EXPECT_TRUE(capture.lines().empty());
}

// Each function's own line comes first, then whatever the detector logs; destroy logs none.
// The detector runs on the scripted inference library, whose network finds DonutBlur (5) with
// logit +inf, probability 1, and Noise (9) with logit 0, probability 0.5.
TEST(ArtifactDetectorWrapper, EachFunctionLogsItsLineAndForwards) {
  ad_test::TempDir models;
  const std::string path = models.base();
  models.write_file("artifact_detector/artifact_detector_cnn.info",
                    "{\n\"model_type\": \"cpu\",\n\"model_path\": \"" + path + "net.onnx\"\n}\n");
  ad_test::FakeTarnlink fake;
  std::vector<float> logits(12, -INFINITY);
  logits[5] = INFINITY;
  logits[9] = 0.0f;
  fake.set_input_size(32, 32);
  fake.set_layer_output("Identity", logits, {1, 12, 1, 1}, 0);
  std::unique_ptr<ArtifactDetectorWrapper, void (*)(ArtifactDetectorWrapper*)> handle(
      ArtifactDetectorWrapper_create(), ArtifactDetectorWrapper_destroy);
  std::vector<char> frame(64 * 48 * 4);  // room for RGBA
  for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<char>(i * 7 + i / 97 * 13);
  char name[] = "frame.jpg";
  auto execute = [&](int64_t word, bool with_name) {
    return with_name ? ArtifactDetectorWrapper_execute_with_image_name(handle.get(), &frame[0], 64,
                                                                       48, 0, word, name)
                     : ArtifactDetectorWrapper_execute(handle.get(), &frame[0], 64, 48, 0, word);
  };
  Artifact_Info found[2] = {};  // the C program checks the records
  const std::tuple<std::function<bool()>, int, std::string> rows[] = {
      {[&] { return ArtifactDetectorWrapper_Initialize(handle.get(), 7, path.c_str()); }, 26,
       "ArtifactDetectorWrapper_initialize model path c wrapper=[" + path + "]"},
      {[&] { return execute(kBgr, false); }, 37, "ArtifactDetectorWrapper_execute c wrapper"},
      {[&] { return execute(kBgr, true); }, 32, "ArtifactDetectorWrapper_execute c wrapper"},
      {[&] { return ArtifactDetectorWrapper_get_total_artifact_count(handle.get()); }, 43,
       "ArtifactDetectorWrapper_get_total_artifact_count c wrapper"},
      {[&] { return ArtifactDetectorWrapper_get_artifact_info(handle.get(), found); }, 48,
       "ArtifactDetectorWrapper_get_box_info c wrapper"}};
  for (const auto& [call, line, message] : rows) {
    ad_test::LogCapture capture;
    EXPECT_TRUE(call()) << line;
    EXPECT_EQ(capture.lines().at(0), wrapper_line(line, message));
  }
  // The detector logs the format it was handed: the upper half of the word.
  for (const auto& [word, format] : {std::pair<int64_t, int>{2, 0}, {int64_t{2} << 32, 2},
                                     {kBgr, 1}, {(int64_t{2} << 32) | 1, 2}, {-1, -1}}) {
    for (bool with_name : {false, true}) {
      ad_test::LogCapture capture;
      execute(word, with_name);
      EXPECT_TRUE(capture.contains("artifact_detector Execute with odd skip called : width : 64 "
                                   "height : 48 image_rotation : 0 image_format : " +
                                   std::to_string(format)))
          << word << " with image name: " << with_name;
    }
  }
  ad_test::LogCapture capture;
  handle.reset();
  for (const LogLine& l : capture.lines()) EXPECT_EQ(l.text.find("wrapper"), std::string::npos);
}

}  // namespace

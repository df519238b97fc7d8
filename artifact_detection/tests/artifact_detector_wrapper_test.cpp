#include "artifact_detector_wrapper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <new>

#include "support/detector_fixtures.h"
#include "support/fake_tarnlink.h"
#include "support/log_capture.h"

// The n-th allocation after g_fail_in = n fails, with std::bad_alloc or, to check what create
// does not catch, with an int. Every plain form comes from malloc, or a sanitizer sees e.g.
// the standard library's nothrow buffers freed by the wrong delete. GCC pairs an inlined
// delete with the malloc inside and calls it a mismatch; the pairs are consistent.
static int g_fail_in = 0;
static bool g_fail_with_int = false;
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t size) {
  if (g_fail_in > 0 && --g_fail_in == 0) g_fail_with_int ? throw 42 : throw std::bad_alloc();
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t& t) noexcept {
  return operator new(size, t);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace {

using ad_test::LogLine;

LogLine wrapper_line(int line, const std::string& message) {
  return {"ImageSearchJNI_ARTI_DET", 2,
          "artifact_detector_wrapper.cpp: " + std::to_string(line) + ": TQ Debug: " + message};
}

// The first two allocations of Create are the detector and its engine; failing either leaves
// nothing behind (the sanitizer build checks for leaks). No exception crosses into C, not even
// one of no standard type.
TEST(ArtifactDetectorWrapper, CreateFailureAnswersNullWithOneLine) {
  const std::string failed =
      "ArtifactDetectorWrapper_create: can't create ArtifactDetectorWrapper:  exception: ";
  for (const auto& [nth, with_int, what] :
       {std::tuple<int, bool, const char*>{1, false, "std::bad_alloc"},
        {2, false, "std::bad_alloc"},
        {1, true, "unknown exception"}}) {
    ad_test::LogCapture capture;
    g_fail_in = nth, g_fail_with_int = with_int;
    EXPECT_EQ(ArtifactDetectorWrapper_create(), nullptr);
    g_fail_with_int = false;
    EXPECT_EQ(capture.lines(), std::vector<LogLine>{wrapper_line(15, failed + what)});
  }
}

// Each function's own line comes first, then whatever the detector logs; destroy logs none.
// The detector logs the format it was handed: the upper half of the word. The C program
// checks the records and the count's answer.
TEST(ArtifactDetectorWrapper, EachFunctionLogsItsLineAndForwards) {
  ad_test::TempDir models;
  const std::string path = models.base();
  ad_test::write_model_info(models, path + "net.onnx");
  ad_test::FakeTarnlink fake;
  fake.set_input_size(32, 32);
  fake.set_layer_output("Identity", {-INFINITY, INFINITY}, {1, 2, 1, 1}, 0);  // Reflection (1)
  std::unique_ptr<ArtifactDetectorWrapper, void (*)(ArtifactDetectorWrapper*)> handle(
      ArtifactDetectorWrapper_create(), ArtifactDetectorWrapper_destroy);
  auto* h = handle.get();
  cv::Mat frame = ad_test::textured(48, 64, 3, CV_8UC4);  // room for RGBA
  char *pixels = reinterpret_cast<char*>(frame.data), name[] = "frame.jpg";
  Artifact_Info found[1] = {};
  auto logs = [](auto call) {
    ad_test::LogCapture capture;
    EXPECT_TRUE(call());
    return capture.lines();
  };
  EXPECT_EQ(
      logs([&] { return ArtifactDetectorWrapper_Initialize(h, 7, path.c_str()); }).at(0),
      wrapper_line(26, "ArtifactDetectorWrapper_initialize model path c wrapper=[" + path + "]"));
  const std::string execute = "ArtifactDetectorWrapper_execute c wrapper",
                    format =
                        "Execute with odd skip called : width : 64 height : 48 image_rotation "
                        ": 0 image_format : ";
  for (const auto& [word, f] : {std::pair<int64_t, int>{2, 0},
                                {int64_t{2} << 32, 2},
                                {int64_t{1} << 32, 1},
                                {(int64_t{2} << 32) | 1, 2},
                                {-1, -1}}) {
    SCOPED_TRACE(word);
    const auto plain =
        logs([&] { return ArtifactDetectorWrapper_execute(h, pixels, 64, 48, 0, word); });
    const auto named = logs([&] {
      return ArtifactDetectorWrapper_execute_with_image_name(h, pixels, 64, 48, 0, word, name);
    });
    EXPECT_EQ(std::tie(plain.at(0), named.at(0)),
              std::make_tuple(wrapper_line(37, execute), wrapper_line(32, execute)));
    for (const auto& lines : {plain, named}) {
      EXPECT_NE(lines.at(1).text.find(format + std::to_string(f) + "\n"), std::string::npos);
    }
  }
  EXPECT_EQ(logs([&] { return ArtifactDetectorWrapper_get_total_artifact_count(h); }).at(0),
            wrapper_line(43, "ArtifactDetectorWrapper_get_total_artifact_count c wrapper"));
  EXPECT_EQ(logs([&] { return ArtifactDetectorWrapper_get_artifact_info(h, found); }).at(0),
            wrapper_line(48, "ArtifactDetectorWrapper_get_box_info c wrapper"));

  // What the detector throws (here the image library refusing a size or a null BGR buffer, the
  // string refusing a null path) ends at the C function: false and a line of its own.
  auto refused = [&](const char* function, auto call) {
    ad_test::LogCapture capture;
    EXPECT_FALSE(call()) << function;
    const std::string prefix =
        "TQ Debug: " + std::string(function) + " c wrapper failed: exception: ";
    const auto lines = capture.verbose_messages();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }),
              1)
        << function;
  };
  const int64_t bgr = int64_t{1} << 32;
  refused("ArtifactDetectorWrapper_execute",
          [&] { return ArtifactDetectorWrapper_execute(h, pixels, 64, -2, 0, bgr); });
  refused("ArtifactDetectorWrapper_execute_with_image_name", [&] {
    return ArtifactDetectorWrapper_execute_with_image_name(h, nullptr, 64, 48, 0, bgr, name);
  });
  refused("ArtifactDetectorWrapper_Initialize",
          [&] { return ArtifactDetectorWrapper_Initialize(h, 0, nullptr); });

  ad_test::LogCapture capture;
  handle.reset();
  for (const LogLine& l : capture.lines()) EXPECT_EQ(l.text.find("wrapper"), std::string::npos);
}

}  // namespace

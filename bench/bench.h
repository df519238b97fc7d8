// Registration of the benchmark groups and the pieces the report needs from them.
#pragma once

#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace ad_bench {

// Registers a per-frame case in milliseconds of real time, seven repetitions, aggregates only.
template <typename F, typename... Args>
void add(const std::string& name, F f, Args... args) {
  benchmark::RegisterBenchmark(name.c_str(), f, args...)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Repetitions(7)
      ->ReportAggregatesOnly(true);
}

// Frame sizes of the conversion benchmarks: VGA preview, 1080p video, 12-megapixel still.
const std::vector<cv::Size>& conversion_sizes();

// Converter and converter-plus-rotation against libyuv, OpenCV and memcpy.
void register_convert_benchmarks();

// Repacking camera YUV planes into tight NV21 for the Detector, against a copy and the shrink
// that follows.
void register_repack_benchmarks();

// Whole detection runs and their stages, with the model found at start.
void register_execute_benchmarks(const std::string& model_path);

// The whole-run cases in table order, as (benchmark name part, heading).
struct ExecuteCase {
  std::string key;
  std::string heading;
};
const std::vector<ExecuteCase>& execute_cases();

// Stage counters of the stage benchmarks, in pipeline order, as (counter, heading).
const std::vector<std::pair<std::string, std::string>>& stage_counters();

// Runs `frames` NV21 4000x3000 frames through one detector in this process and prints the
// resident-memory line the report parses. Returns the process exit code.
int memory_probe(const std::string& model_path, int frames);

}  // namespace ad_bench

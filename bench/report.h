// Collects the benchmark results and turns them into the comparison tables of
// docs/performance.md.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace ad_bench {

// One benchmark's aggregates: time in milliseconds and user counters, by aggregate name
// ("median", "p99", ...).
struct Result {
  std::map<std::string, double> ms;
  std::map<std::string, double> cpu_ms;  // the calling thread's CPU time
  std::map<std::string, std::map<std::string, double>> counters;
};
using Results = std::map<std::string, Result>;

// The console reporter, keeping every aggregate it prints.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  explicit CollectingReporter(OutputOptions options) : ConsoleReporter(options) {}
  void ReportRuns(const std::vector<Run>& runs) override;
  const Results& results() const { return results_; }

 private:
  Results results_;
};

// Resident-memory figures of the memory probe, in kilobytes; frames 0 when it did not run.
struct Memory {
  long frame_kb = 0, before_kb = 0, warm_kb = 0, end_kb = 0, low_kb = 0, high_kb = 0, peak_kb = 0;
  int frames = 0;
};
Memory parse_memory_line(const std::string& line);

// What the report says about the conditions of the run.
struct Conditions {
  std::string model;
  int input_width = 0, input_height = 0;
  double load_before = 0, load_after = 0;
  double seconds = 0;
};

// The tables as Markdown.
std::string make_report(const Results& results, const Memory& memory, const Conditions& run);

// Replaces the generated part of `path` (between the markers) with `text`, or writes a new
// file holding only that part.
void write_report(const std::string& path, const std::string& text);

// The one-minute load average.
double load_average();

}  // namespace ad_bench

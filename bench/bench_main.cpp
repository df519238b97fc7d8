// ad_bench: runs every benchmark, prints the comparison tables and, with --report FILE,
// writes them into FILE between its markers.
//
//   ad_bench [--report FILE] [--model FILE] [--memory-frames N] [benchmark flags...]
//
// --memory-frames 0 skips the memory probe; benchmark flags such as --benchmark_filter are
// passed on to Google Benchmark.
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <opencv2/core.hpp>
#include <streambuf>
#include <string>
#include <vector>

#include "bench.h"
#include "core/net/NNet.h"
#include "report.h"

namespace {

constexpr int kDefaultMemoryFrames = 1000;

void drop_log_line(const __android_logger_data*, const char*) {}

// The detector writes one diagnostic line per frame to standard output; it goes here.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

bool file_exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

std::string self_path() {
  std::vector<char> path(4096);
  const ssize_t n = readlink("/proc/self/exe", path.data(), path.size() - 1);
  if (n <= 0) throw std::runtime_error("cannot find /proc/self/exe");
  return std::string(path.data(), std::size_t(n));
}

// The memory probe runs in a fresh process so that the figures hold one detector only.
ad_bench::Memory run_memory_probe(const std::string& model, int frames) {
  const std::string command =
      "'" + self_path() + "' --memory-probe " + std::to_string(frames) + " --model '" + model + "'";
  std::FILE* child = popen(command.c_str(), "r");
  if (child == nullptr) return {};
  ad_bench::Memory memory;
  char line[512];
  while (std::fgets(line, sizeof line, child) != nullptr) {
    const ad_bench::Memory parsed = ad_bench::parse_memory_line(line);
    if (parsed.frames > 0) memory = parsed;
  }
  pclose(child);
  return memory;
}

// The command line: this program's options, and the rest for the benchmark library.
struct Args {
  std::string report_path;
  std::string model;
  int memory_frames = kDefaultMemoryFrames;
  int probe_frames = 0;
  std::vector<char*> rest;
};

Args parse_args(int argc, char** argv) {
  Args args;
  args.model = file_exists(AD_BENCH_DEFAULT_MODEL) ? AD_BENCH_DEFAULT_MODEL
                                                   : AD_BENCH_FALLBACK_MODEL;
  args.rest.push_back(argv[0]);
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--report" && i + 1 < argc) {
      args.report_path = argv[++i];
    } else if (arg == "--model" && i + 1 < argc) {
      args.model = argv[++i];
    } else if (arg == "--memory-frames" && i + 1 < argc) {
      args.memory_frames = std::atoi(argv[++i]);
    } else if (arg == "--memory-probe" && i + 1 < argc) {
      args.probe_frames = std::atoi(argv[++i]);
    } else {
      args.rest.push_back(argv[i]);
    }
  }
  return args;
}

// Every benchmark run once, with the conditions they ran under.
std::string run_benchmarks(const Args& args, std::ostream& console) {
  ad_bench::Conditions conditions;
  conditions.model = args.model;
  {
    NNet net(args.model, "artifact_Detector", {"Identity"}, {128.0f, 128.0f, 128.0f}, 0, 0);
    net.get_target_dimen(conditions.input_height, conditions.input_width);
  }
  conditions.load_before = ad_bench::load_average();
  const auto start = std::chrono::steady_clock::now();

  ad_bench::register_convert_benchmarks();
  ad_bench::register_repack_benchmarks();
  ad_bench::register_execute_benchmarks(args.model);
  ad_bench::register_folder_benchmarks(std::max(conditions.input_width, conditions.input_height));
  ad_bench::CollectingReporter reporter(isatty(STDOUT_FILENO)
                                            ? benchmark::ConsoleReporter::OO_ColorTabular
                                            : benchmark::ConsoleReporter::OO_Tabular);
  reporter.SetOutputStream(&console);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);

  ad_bench::Memory memory;
  if (args.memory_frames > 0) {
    console << "memory probe: " << args.memory_frames << " frames of NV21 4000x3000..."
            << std::endl;
    memory = run_memory_probe(args.model, args.memory_frames);
  }
  conditions.load_after = ad_bench::load_average();
  conditions.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return ad_bench::make_report(reporter.results(), memory, conditions);
}

}  // namespace

int main(int argc, char** argv) {
  Args args = parse_args(argc, argv);
  __android_log_set_logger(drop_log_line);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  // Static: the detectors the benchmarks keep are destroyed after main returns and may still
  // write through std::cout.
  static NullBuffer null_buffer;
  std::ostream console(std::cout.rdbuf());
  std::cout.rdbuf(&null_buffer);
  cv::setNumThreads(1);

  if (args.probe_frames > 0) return ad_bench::memory_probe(args.model, args.probe_frames);

  int rest_count = static_cast<int>(args.rest.size());
  benchmark::Initialize(&rest_count, args.rest.data());
  if (benchmark::ReportUnrecognizedArguments(rest_count, args.rest.data())) return 2;

  const std::string report = run_benchmarks(args, console);
  console << "\n" << report << std::flush;
  if (!args.report_path.empty()) {
    ad_bench::write_report(args.report_path, report);
    console << "written to " << args.report_path << std::endl;
  }
  return 0;
}

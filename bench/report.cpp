#include "report.h"

#include <libyuv/version.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <opencv2/core.hpp>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "bench.h"
#include "frames.h"
#include "utils/neon_kernels.h"

namespace ad_bench {
namespace {

constexpr const char* kBegin = "<!-- bench:begin (written by make bench; edits here are lost) -->";
constexpr const char* kEnd = "<!-- bench:end -->";

std::string cpu_model() {
  std::ifstream info("/proc/cpuinfo");
  std::string line;
  while (std::getline(info, line)) {
    if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
  }
  return "unknown processor";
}

// `path` from the project's root when it lies inside it.
std::string project_relative(const std::string& path) {
  const std::string root = std::string(AD_BENCH_SOURCE_DIR) + "/";
  return path.rfind(root, 0) == 0 ? path.substr(root.size()) : path;
}

std::string fixed(double value, int digits) {
  std::ostringstream os;
  os << std::fixed << std::setprecision(digits) << value;
  return os.str();
}

// Milliseconds with three significant figures or so.
std::string ms_text(double ms) { return fixed(ms, ms < 1 ? 3 : (ms < 10 ? 2 : 1)); }

class Table {
 public:
  Table(const Results& results, bool cpu) : results_(results), cpu_(cpu) {}

  // Median time of a benchmark, or a negative value when it did not run.
  double median(const std::string& name, const std::string& aggregate = "median") const {
    const auto it = results_.find(name);
    if (it == results_.end()) return -1;
    const auto& times = cpu_ ? it->second.cpu_ms : it->second.ms;
    const auto value = times.find(aggregate);
    return value == times.end() ? -1 : value->second;
  }
  double counter(const std::string& name, const std::string& counter) const {
    const auto it = results_.find(name);
    if (it == results_.end()) return -1;
    const auto median = it->second.counters.find("median");
    if (median == it->second.counters.end()) return -1;
    const auto value = median->second.find(counter);
    return value == median->second.end() ? -1 : value->second;
  }

 private:
  const Results& results_;
  bool cpu_;
};

std::string cell(double ms) { return ms < 0 ? "-" : ms_text(ms); }

// `ours` as a multiple of `peer`'s time: below 1 is faster than the peer.
std::string ratio(double ours, double peer) {
  if (ours < 0 || peer <= 0) return "-";
  return fixed(ours / peer, 2) + "x";
}

// Ours against OpenCV on one thread and on all, per frame size, for the runs named "<key>/...".
void opencv_table(std::ostream& os, const Table& t, const std::string& key,
                  const std::string& title, const std::string& intro) {
  os << "\n### " << title << "\n\n"
     << intro << "\n\n"
     << "| frame | ours | OpenCV 1 thread | OpenCV all threads | vs OpenCV 1 thread | vs OpenCV "
        "all threads |\n"
     << "|---|---:|---:|---:|---:|---:|\n";
  for (cv::Size size : conversion_sizes()) {
    const std::string s = size_name(size);
    const double ours = t.median(key + "/ours/" + s), cv1 = t.median(key + "/opencv_1t/" + s),
                 cvn = t.median(key + "/opencv_mt/" + s);
    os << "| " << s << " | " << cell(ours) << " | " << cell(cv1) << " | " << cell(cvn) << " | "
       << ratio(ours, cv1) << " | " << ratio(ours, cvn) << " |\n";
  }
}

void conversion_tables(std::ostream& os, const Table& t) {
  os << "### NV21 to BGR, one thread unless stated\n\n"
     << "Median of the repetitions, milliseconds per frame. Ratios are ours / peer: below "
        "1.00x ours is faster.\n\n"
     << "| frame | ours | libyuv (full range) | OpenCV 1 thread | OpenCV all threads | memcpy "
        "floor | vs libyuv | vs OpenCV 1 thread | vs OpenCV all threads | vs memcpy |\n"
     << "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
  for (cv::Size size : conversion_sizes()) {
    const std::string s = size_name(size);
    const double ours = t.median("convert/ours/" + s), yuv = t.median("convert/libyuv/" + s),
                 cv1 = t.median("convert/opencv_1t/" + s), cvn = t.median("convert/opencv_mt/" + s),
                 mem = t.median("convert/memcpy/" + s);
    os << "| " << s << " | " << cell(ours) << " | " << cell(yuv) << " | " << cell(cv1) << " | "
       << cell(cvn) << " | " << cell(mem) << " | " << ratio(ours, yuv) << " | " << ratio(ours, cv1)
       << " | " << ratio(ours, cvn) << " | " << ratio(ours, mem) << " |\n";
  }
  opencv_table(os, t, "rotate90",
               "NV21 to upright BGR, rotation 90",
               "`nv21_convert_rotate` against `cvtColor` followed by `cv::rotate`; both allocate "
               "their result every frame.");
  opencv_table(os, t, "shrink",
               "NV21 to the network's input: rotation 90, area reduction to 224x224",
               "The detector's one pass (`image_utils::shrink_upright_nv21`) against `cvtColor`, "
               "`cv::rotate` and `cv::resize` with `INTER_AREA`, which give the same bytes.");
}

void execute_tables(std::ostream& os, const Table& t) {
  os << "\n### Whole `execute` per frame\n\n"
     << "One detector, the same frame every time, milliseconds. \"1 thread\" limits OpenCV "
        "(and so the reference inference library) to the caller's thread; \"all threads\" is "
        "OpenCV's default.\n\n"
     << "| input | median, 1 thread | p99, 1 thread | median, all threads | p99, all threads "
        "|\n"
     << "|---|---:|---:|---:|---:|\n";
  for (const ExecuteCase& c : execute_cases()) {
    os << "| " << c.heading << " | " << cell(t.median("execute/" + c.key)) << " | "
       << cell(t.median("execute/" + c.key, "p99")) << " | "
       << cell(t.median("execute_mt/" + c.key)) << " | "
       << cell(t.median("execute_mt/" + c.key, "p99")) << " |\n";
  }
  os << "\n### Stages of a run, one thread\n\n"
     << "The run's calls made one by one and timed each (median per stage, milliseconds). "
        "\"to network size\" is the frame converted, turned and shrunk to the network's size "
        "(`image_utils::upright_at_size`, one pass where the area kernels can). \"forward pass\" "
        "is `NNet::forward_pass`: float conversion, statistics and the inference library's "
        "execute; \"scoring\" reads the output layer and applies the thresholds.\n\n"
     << "| input |";
  for (const auto& stage : stage_counters()) os << " " << stage.second << " |";
  os << " sum |\n|---|";
  for (std::size_t i = 0; i <= stage_counters().size(); ++i) os << "---:|";
  os << "\n";
  for (const ExecuteCase& c : execute_cases()) {
    os << "| " << c.heading << " |";
    double sum = 0;
    for (const auto& stage : stage_counters()) {
      const double ms = t.counter("stages/" + c.key, stage.first);
      if (ms >= 0) sum += ms;
      os << " " << cell(ms) << " |";
    }
    os << " " << ms_text(sum) << " |\n";
  }
}

// Elapsed time, and the calling thread's CPU time, which other work on the machine disturbs
// far less.
void folder_table(std::ostream& os, const Results& results) {
  os << "\n### Photo folder, one job: 4000x3000 JPEG files\n\n"
     << "Milliseconds per file, median, one thread: reading the file and what follows. The "
        "path is artifact-detect's (large JPEGs decoded at a reduced scale, then `execute`); "
        "the floor decodes the same files at that scale and does nothing else.\n\n| time |";
  for (const auto& c : folder_cases()) os << " " << c.second << " |";
  os << " path / floor | before / path |\n|---|";
  for (std::size_t i = 0; i < folder_cases().size() + 2; ++i) os << "---:|";
  os << "\n";
  for (bool cpu : {false, true}) {
    const Table t(results, cpu);
    const double path = t.median("folder/detect"), floor = t.median("folder/floor"),
                 before = t.median("folder/before");
    os << (cpu ? "| CPU |" : "| elapsed |");
    for (const auto& c : folder_cases()) os << " " << cell(t.median("folder/" + c.first)) << " |";
    os << " " << ratio(path, floor) << " | " << ratio(before, path) << " |\n";
  }
}

// One-thread comparisons again in CPU time of the calling thread, which other work on the
// machine disturbs far less than elapsed time.
void cpu_tables(std::ostream& os, const Table& t) {
  os << "\n### The one-thread comparisons in CPU time\n\n"
     << "CPU time of the calling thread, median, milliseconds; ratios ours / peer.\n\n"
     << "| frame | conversion: ours | libyuv | OpenCV | memcpy | vs libyuv | vs OpenCV | "
        "rotation 90: ours | OpenCV | vs OpenCV | to 224x224: ours | OpenCV | vs OpenCV |\n"
     << "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
  for (cv::Size size : conversion_sizes()) {
    const std::string s = size_name(size);
    const double ours = t.median("convert/ours/" + s), yuv = t.median("convert/libyuv/" + s),
                 cv1 = t.median("convert/opencv_1t/" + s), mem = t.median("convert/memcpy/" + s),
                 rot = t.median("rotate90/ours/" + s), rot_cv = t.median("rotate90/opencv_1t/" + s),
                 shr = t.median("shrink/ours/" + s), shr_cv = t.median("shrink/opencv_1t/" + s);
    os << "| " << s << " | " << cell(ours) << " | " << cell(yuv) << " | " << cell(cv1) << " | "
       << cell(mem) << " | " << ratio(ours, yuv) << " | " << ratio(ours, cv1) << " | " << cell(rot)
       << " | " << cell(rot_cv) << " | " << ratio(rot, rot_cv) << " | " << cell(shr) << " | "
       << cell(shr_cv) << " | " << ratio(shr, shr_cv) << " |\n";
  }
  os << "\n| input | execute median, 1 thread | p99, 1 thread |\n|---|---:|---:|\n";
  for (const ExecuteCase& c : execute_cases()) {
    os << "| " << c.heading << " | " << cell(t.median("execute/" + c.key)) << " | "
       << cell(t.median("execute/" + c.key, "p99")) << " |\n";
  }
}

void memory_table(std::ostream& os, const Memory& m) {
  os << "\n### Resident memory, one detector, NV21 4000x3000 frames with rotation 90\n\n";
  if (m.frames == 0) {
    os << "Not measured in this run.\n";
    return;
  }
  const auto mb = [](long kb) { return fixed(kb / 1024.0, 1) + " MiB"; };
  os << "| figure | value |\n|---|---:|\n"
     << "| the caller's frame (part of every figure below) | " << mb(m.frame_kb) << " |\n"
     << "| process before the detector is created | " << mb(m.before_kb) << " |\n"
     << "| after 10 frames | " << mb(m.warm_kb) << " |\n"
     << "| after " << m.frames << " frames | " << mb(m.end_kb) << " |\n"
     << "| lowest and highest between frame 10 and frame " << m.frames << " | " << mb(m.low_kb)
     << " / " << mb(m.high_kb) << " |\n"
     << "| peak (high-water mark) | " << mb(m.peak_kb) << " |\n"
     << "| peak above the process before the detector | " << mb(m.peak_kb - m.before_kb) << " |\n"
     << "| growth from frame 10 to frame " << m.frames << " | " << mb(m.end_kb - m.warm_kb)
     << " |\n";
}

}  // namespace

void CollectingReporter::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    if (run.run_type != Run::RT_Aggregate) continue;
    Result& r = results_[run.run_name.function_name];
    r.ms[run.aggregate_name] = run.GetAdjustedRealTime();
    r.cpu_ms[run.aggregate_name] = run.GetAdjustedCPUTime();
    for (const auto& [name, counter] : run.counters) {
      r.counters[run.aggregate_name][name] = counter.value;
    }
  }
  ConsoleReporter::ReportRuns(runs);
}

Memory parse_memory_line(const std::string& line) {
  Memory m;
  if (std::sscanf(line.c_str(),
                  "memory: frame_kb=%ld before_kb=%ld warm_kb=%ld end_kb=%ld low_kb=%ld "
                  "high_kb=%ld peak_kb=%ld frames=%d",
                  &m.frame_kb, &m.before_kb, &m.warm_kb, &m.end_kb, &m.low_kb, &m.high_kb,
                  &m.peak_kb, &m.frames) != 8) {
    m.frames = 0;
  }
  return m;
}

double load_average() {
  double load = -1;
  std::ifstream("/proc/loadavg") >> load;
  return load;
}

std::string make_report(const Results& results, const Memory& memory, const Conditions& run) {
  std::ostringstream os;
  char date[32];
  const std::time_t now = std::time(nullptr);
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  os << kBegin << "\n## Latest run\n\n"
     << "- Date: " << date << "; the run took " << fixed(run.seconds, 0) << " s.\n"
     << "- Processor: " << cpu_model() << ", " << std::thread::hardware_concurrency()
     << " cores as the system reports them.\n"
     << "- Load average (1 minute) " << fixed(run.load_before, 2) << " at the start, "
     << fixed(run.load_after, 2)
     << " at the end: other work shares the machine when it is "
        "above 0.\n"
     << "- Build: " << AD_BENCH_BUILD_TYPE << ", " << AD_BENCH_COMPILER << "; OpenCV " << CV_VERSION
     << ", libyuv " << LIBYUV_VERSION << ".\n"
     << "- Image kernels: the " << tqr_arm_neon::kernels::selected().name
     << " copy, picked at run time for this processor.\n"
     << "- Model: " << project_relative(run.model) << " (input " << run.input_width << "x" << run.input_height
     << "), on the reference inference library.\n"
     << "- Log lines are formatted at every priority and handed to a logger that drops them; "
        "the diagnostic line on standard output goes to a null stream.\n\n";
  const Table table(results, false);
  conversion_tables(os, table);
  execute_tables(os, table);
  folder_table(os, results);
  cpu_tables(os, Table(results, true));
  memory_table(os, memory);
  os << kEnd << "\n";
  return os.str();
}

void write_report(const std::string& path, const std::string& text) {
  std::string old;
  {
    std::ifstream in(path);
    std::ostringstream buffer;
    buffer << in.rdbuf();
    old = buffer.str();
  }
  const std::size_t begin = old.find(kBegin);
  const std::size_t end = old.find(kEnd);
  std::string updated;
  if (begin != std::string::npos && end != std::string::npos && end > begin) {
    std::size_t after = end + std::string(kEnd).size();
    if (after < old.size() && old[after] == '\n') ++after;
    updated = old.substr(0, begin) + text + old.substr(after);
  } else {
    updated = old.empty() ? "# Performance\n\n" + text : old + "\n" + text;
  }
  std::ofstream out(path);
  if (!(out << updated)) throw std::runtime_error("cannot write " + path);
}

}  // namespace ad_bench

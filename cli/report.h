// What artifact-detect prints: one result per image as a table or JSON lines, in input order,
// with a progress bar and a closing summary. Every write is checked: a run whose output was
// lost must not end as a success.
#pragma once

#include <array>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "detector.h"

namespace artifact_detect {

struct Artifact {
  std::string tag;
  int tag_id;
  float score;
};

constexpr int kClasses = artifact_detector::kClassCount;

struct Result {
  std::string path;
  bool ok = false;
  std::string error;
  std::vector<Artifact> artifacts;
  bool scored = false;  // the network ran: `scores` hold class id n at index n - 1
  std::array<float, kClasses> scores{};
  std::string thumbnail;  // a small JPEG for the HTML page, when one was asked for
};

// `class_names[n - 1]` names class id n.
using ClassNames = std::array<std::string, kClasses>;

std::string to_jsonl(const Result& result, const ClassNames* all_scores);
std::string to_table(const Result& result);

// A stream that remembers its first failed write, flush or close.
class Output {
 public:
  Output(FILE* file, std::string name) : file_(file), name_(std::move(name)) {}
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void write(const std::string& text);
  void flush();
  void close();
  bool ok() const { return error_.empty(); }
  // "NAME: reason" for the first failure.
  const std::string& error() const { return error_; }

 private:
  void fail();
  FILE* file_;
  std::string name_;
  std::string error_;
};

class CsvReport;
class HtmlReport;

// Where the results go.
struct Sinks {
  Output* out = nullptr;  // a table, or JSON lines
  bool jsonl = false;
  const ClassNames* all_scores = nullptr;  // JSON lines carry every probability
  CsvReport* csv = nullptr;
  HtmlReport* html = nullptr;
  std::vector<Output*> files;  // the report files' streams
};

// Prints results in input order as soon as every earlier one is in.
class Printer {
 public:
  Printer(const Sinks& sinks, std::size_t total, bool progress);

  void put(std::size_t index, Result result);
  void summary();
  std::size_t failed() const { return failed_; }
  // Output was lost: further work is wasted.
  bool lost() const;

 private:
  void draw_progress();
  void clear_progress();

  Sinks sinks_;
  bool progress_;
  mutable std::mutex mutex_;
  std::vector<std::optional<Result>> pending_;
  std::size_t next_ = 0;
  std::size_t failed_ = 0;
  std::map<std::pair<int, std::string>, std::size_t> counts_;
  std::chrono::steady_clock::time_point start_;
};

// "[####....] 12/500  8.3 images/s  0:59 left" for `done` of `total` after `seconds`.
std::string progress_line(std::size_t done, std::size_t total, double seconds);

}  // namespace artifact_detect

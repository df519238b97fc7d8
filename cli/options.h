// artifact-detect's command line.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "detector.h"

namespace artifact_detect {

struct RawFormat {
  artifact_detector::PixelFormat format;
  int bytes_per_two_pixels;
};

struct Options {
  std::vector<std::string> inputs;
  std::string models;
  bool jsonl = false;
  bool verbose = false;
  bool exact_decode = false;
  bool all_scores = false;
  std::string csv;  // report files; empty: none
  std::string html;
  std::optional<std::map<int, float>> threshold_table;  // --thresholds FILE
  std::map<int, float> thresholds;                      // --threshold ID=P, applied after
  int jobs = 1;
  std::uint64_t max_pixels = 100'000'000;
  std::optional<RawFormat> raw;
  int raw_width = 0;
  int raw_height = 0;
  int rotation = 0;
};

// Parses argv; prints the usage and exits 2 on a usage error, 0 for --help.
Options parse_options(int argc, char** argv);

}  // namespace artifact_detect

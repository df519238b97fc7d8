// The report files of artifact-detect: a CSV table and a self-contained HTML contact sheet.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "report.h"

namespace artifact_detect {

// One row per image: path, ok, error, the eleven probabilities, the reported tags.
class CsvReport {
 public:
  CsvReport(Output& out, const ClassNames& names);
  void add(const Result& result);

 private:
  Output& out_;
};

// A contact sheet: each image's thumbnail with its verdict, filterable by class. Written as
// results come, so that a stopped run still leaves the images it reached.
class HtmlReport {
 public:
  HtmlReport(Output& out, const ClassNames& names);
  void add(const Result& result);
  // Ends the page with the filters.
  void finish();

 private:
  Output& out_;
  ClassNames names_;
};

// A JPEG of `image` fitting a `side` square, as a data: URL.
std::string thumbnail_url(const cv::Mat& image, int side);

}  // namespace artifact_detect

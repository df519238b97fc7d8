// The images artifact-detect works through: files named on the command line, and folders
// searched recursively.
#pragma once

#include <string>
#include <vector>

namespace artifact_detect {

// One image to analyse; `error` is set when the walk already knows it cannot be read.
struct Entry {
  std::string path;
  std::string error;
};

// Named files in command-line order (each tried, whatever its name), folders expanded in
// sorted order. Inside folders, files whose extension is not an image format are skipped
// silently; every other entry that cannot be read (an unreadable folder, a dangling link)
// becomes an Entry with its error.
std::vector<Entry> collect_entries(const std::vector<std::string>& inputs);

}  // namespace artifact_detect

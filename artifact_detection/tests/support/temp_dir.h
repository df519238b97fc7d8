// A fresh directory under the system's temporary area, removed with everything in it when
// the object goes out of scope.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace ad_test {

class TempDir {
 public:
  TempDir() {
    const std::string pattern =
        (std::filesystem::temp_directory_path() / "ad_test_XXXXXX").string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = name.data();
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The directory without a trailing "/".
  const std::string& path() const { return path_; }
  // The directory with a trailing "/", ready to have a name appended.
  std::string base() const { return path_ + "/"; }

  // Creates `relative` (and its parents) as a directory; returns its full path.
  std::string make_dir(const std::string& relative) const {
    const std::string full = base() + relative;
    std::filesystem::create_directories(full);
    return full;
  }

  // Writes `content` byte for byte to `relative`, creating parent directories; returns the
  // full path.
  std::string write_file(const std::string& relative, const std::string& content) const {
    const std::filesystem::path full = base() + relative;
    std::filesystem::create_directories(full.parent_path());
    std::ofstream out(full, std::ios::binary);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + full.string());
    return full.string();
  }

 private:
  std::string path_;
};

}  // namespace ad_test

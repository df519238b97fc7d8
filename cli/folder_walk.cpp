#include "folder_walk.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace artifact_detect {
namespace {

bool has_image_extension(const fs::path& path) {
  static constexpr std::array<const char*, 16> kExtensions = {
      ".jpg", ".jpeg", ".jpe", ".jfif", ".png", ".webp", ".bmp", ".dib",
      ".tif", ".tiff", ".pbm", ".pgm",  ".ppm", ".pnm",  ".pam", ".pfm"};
  std::string ext = path.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return std::find(kExtensions.begin(), kExtensions.end(), ext) != kExtensions.end();
}

// Descends by hand rather than with recursive_directory_iterator, which gives up on the
// whole walk at the first folder it cannot open.
void walk(const fs::path& folder, std::vector<Entry>& found) {
  std::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) {
    found.push_back({folder.string(), "cannot read folder: " + ec.message()});
    return;
  }
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    const fs::path& path = it->path();
    std::error_code type_ec;
    const fs::file_status own = it->symlink_status(type_ec);
    if (fs::is_directory(own)) {
      walk(path, found);  // linked folders are not followed: no loops
    } else if (has_image_extension(path)) {
      // Reading decides what a FIFO, a device or a dangling link is; nothing is opened here.
      found.push_back({path.string(), type_ec ? "cannot read entry: " + type_ec.message() : ""});
    }
  }
  if (ec) found.push_back({folder.string(), "cannot read folder: " + ec.message()});
}

}  // namespace

std::vector<Entry> collect_entries(const std::vector<std::string>& inputs) {
  std::vector<Entry> entries;
  for (const std::string& input : inputs) {
    std::error_code ec;
    if (fs::is_directory(input, ec)) {
      std::vector<Entry> found;
      walk(input, found);
      std::sort(found.begin(), found.end(),
                [](const Entry& a, const Entry& b) { return a.path < b.path; });
      entries.insert(entries.end(), found.begin(), found.end());
    } else {
      entries.push_back({input, ""});  // a missing file is reported when it is read
    }
  }
  return entries;
}

}  // namespace artifact_detect

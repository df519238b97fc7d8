#include "utils/sys_utils.h"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "core/utils/logging.h"

bool file_exists(std::string path) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0) return true;
  // Some partitions hide entries from stat that can still be opened.
  FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return false;
  std::fclose(file);
  return true;
}

std::string get_final_models_base_path(std::string base_path, std::string model_name,
                                       const std::vector<std::string>& fallback_base_paths) {
  // Only the model directory's existence decides; the first base that has it wins.
  std::string result;
  if (file_exists(base_path + model_name)) {
    result = base_path;
  } else {
    for (const std::string& candidate : fallback_base_paths) {
      if (file_exists(candidate + model_name)) {
        result = candidate;
        break;
      }
    }
  }
  if (!result.empty()) {
    AD_LOGV("TQ Debug: Base model parent path: %s for %s", result.c_str(), model_name.c_str());
  } else {
    AD_LOGV("TQ Debug: Base model parent path not found for %s", model_name.c_str());
  }
  return result;
}

namespace {

constexpr const char* kTrimmedCharacters = " \t\n\r";

// Lines that open and close an object in the two configuration files.
bool is_object_open(const std::string& trimmed) { return trimmed == "{"; }
bool is_object_close(const std::string& trimmed) { return trimmed == "}" || trimmed == "},"; }

}  // namespace

std::string trim(const std::string& s) {
  const std::size_t first = s.find_first_not_of(kTrimmedCharacters);
  if (first == std::string::npos) return std::string();
  const std::size_t last = s.find_last_not_of(kTrimmedCharacters);
  return s.substr(first, last - first + 1);
}

std::pair<std::string, std::string> parseLine(const std::string& line) {
  // Four quotes delimit key and value; there are no escapes, and whatever lies around or
  // between the quoted texts is not looked at.
  std::size_t quotes[4];
  std::size_t from = 0;
  for (std::size_t& quote : quotes) {
    quote = line.find('"', from);
    if (quote == std::string::npos) return {std::string(), std::string()};
    from = quote + 1;
  }
  return {line.substr(quotes[0] + 1, quotes[1] - quotes[0] - 1),
          line.substr(quotes[2] + 1, quotes[3] - quotes[2] - 1)};
}

ModelProperties get_model_properties(std::string model_name, std::string models_base_path) {
  const std::string base = get_final_models_base_path(models_base_path, model_name);
  const std::string info_path = base + model_name + "/" + model_name + kModelInfoFileSuffix;
  std::ifstream info(info_path);

  std::string version_id = "v5";
  std::string model_type = "cpu";
  std::string precision = "float16";
  std::string model_path;

  if (base.empty() || !info.good()) {
    AD_LOGV(
        "TQ Debug: Loading model properties from model for %s info file failed, default model "
        "properties: %s, %s",
        info_path.c_str(), model_type.c_str(), precision.c_str());
  } else {
    // Only the first object counts: members before its "{" line and after its closing line
    // are not read.
    std::map<std::string, std::string> members;
    bool inside = false;
    std::string line;
    while (std::getline(info, line)) {
      const std::string trimmed = trim(line);
      if (!inside) {
        if (is_object_open(trimmed)) {
          members.clear();
          inside = true;
        }
        continue;
      }
      if (is_object_close(trimmed)) break;
      std::pair<std::string, std::string> member = parseLine(trimmed);
      if (!member.first.empty()) members[member.first] = std::move(member.second);
    }

    auto take = [&members](const char* key, std::string& setting) {
      const auto found = members.find(key);
      if (found != members.end()) setting = found->second;
    };
    take("version_id", version_id);
    take("model_type", model_type);
    take("precision", precision);
    take("model_path", model_path);
    AD_LOGV("TQ Debug: Loading model properties from %s, model properties: %s, %s",
            info_path.c_str(), model_type.c_str(), precision.c_str());
  }

  return ModelProperties{{"version_id", version_id},
                         {"model_type", model_type},
                         {"precision", precision},
                         {"model_path", model_path}};
}

std::map<int, float> get_artifact_thresholds(const std::string& path) {
  std::map<int, float> thresholds;
  AD_LOGV("get_artifact_thresholds file path : %s", path.c_str());
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return thresholds;

  std::ifstream file(path);
  AD_LOGV("Custom thresholds are available");

  // Every object of the file is read, not only the first; lines between objects are not.
  bool inside = false;
  std::string line;
  while (std::getline(file, line)) {
    std::string trimmed = trim(line);
    if (is_object_open(trimmed)) {
      inside = true;
      continue;
    }
    if (is_object_close(trimmed)) {
      inside = false;
      continue;
    }
    if (!inside) continue;

    if (!trimmed.empty() && trimmed.back() == ',') trimmed.pop_back();
    const std::size_t key_open = trimmed.find('"');
    if (key_open == std::string::npos) continue;
    const std::size_t key_close = trimmed.find('"', key_open + 1);
    if (key_close == std::string::npos) continue;
    const std::size_t colon = trimmed.find(':', key_close + 1);
    if (colon == std::string::npos) continue;
    const std::string key_text = trimmed.substr(key_open + 1, key_close - key_open - 1);
    const std::string value_text = trim(trimmed.substr(colon + 1));

    int id = 0;
    try {
      id = std::stoi(key_text);
    } catch (const std::logic_error&) {  // invalid_argument or out_of_range
      AD_LOGV("Error converting key to integer: %s", key_text.c_str());
      continue;
    }
    float threshold = 0.0f;
    try {
      threshold = std::stof(value_text);
    } catch (const std::logic_error&) {
      AD_LOGV("Error converting value to float: %s", value_text.c_str());
      continue;
    }
    thresholds[id] = threshold;
  }
  return thresholds;
}

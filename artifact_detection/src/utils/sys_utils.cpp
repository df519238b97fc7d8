#include "utils/sys_utils.h"

#include <sys/stat.h>

#include <cstdio>

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

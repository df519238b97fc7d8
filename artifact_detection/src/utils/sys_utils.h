// Model configuration on the device: where a model's directory lives, how its info file
// says the model is to be opened, and the optional per-class threshold file.
//
// None of these readers fails: a missing directory or file, or a malformed line, leaves the
// built-in defaults in place and says so in the verbose log. The two text files are read
// line by line under fixed rules, not parsed as JSON.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

// Base directories searched after the caller's own, in this order. Each ends in "/" because
// a model name is appended without a separator.
constexpr const char* kVendorModelsBasePath = "/vendor/etc/omlu/image_understanding/db/";
constexpr const char* kSystemModelsBasePath = "/system/omlu/image_understanding/db/";

constexpr const char* kArtifactThresholdFilePath =
    "/vendor/etc/omlu/image_understanding/db/artifact_detector/artifact_threshold.json";

// Appended to the model name to name the model's info file inside its directory.
constexpr const char* kModelInfoFileSuffix = "_cnn.info";

// The settings of one model, always exactly the keys "version_id", "model_type",
// "precision" and "model_path".
typedef std::map<std::string, std::string> ModelProperties;

// True when `stat` sees the path (file or directory) or, failing that, it opens for reading.
bool file_exists(std::string path);

// The first base directory under which `model_name` exists: `base_path` itself (joined as it
// stands, so it must end in "/"), then each of `fallback_base_paths`. Empty when none has it.
// The fallbacks are the device's partitions; tests pass their own.
std::string get_final_models_base_path(std::string base_path, std::string model_name,
                                       const std::vector<std::string>& fallback_base_paths = {
                                           kVendorModelsBasePath, kSystemModelsBasePath});

// `s` without leading and trailing space, tab, LF and CR.
std::string trim(const std::string& s);

// (key, value) of a `"key" ... "value"` line: the texts inside the first and the second pair
// of double quotes. Both empty when the line has fewer than four quotes.
std::pair<std::string, std::string> parseLine(const std::string& line);

// Reads `<base><model_name>/<model_name>_cnn.info`, the base found by
// get_final_models_base_path, over the defaults v5 / cpu / float16 / "".
ModelProperties get_model_properties(std::string model_name, std::string models_base_path);

// Per-class thresholds (class id to threshold) from the device's threshold file; empty when
// the file is missing or yields no valid member.
std::map<int, float> get_artifact_thresholds(const std::string& path = kArtifactThresholdFilePath);

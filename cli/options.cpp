#include "options.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;
using artifact_detector::Detector;
using artifact_detector::PixelFormat;

namespace artifact_detect {
namespace {

const char kUsage[] =
    "usage: artifact-detect [options] PATH...\n"
    "\n"
    "Reports the image artifacts that each image shows. PATH is an image file (JPEG, PNG,\n"
    "WebP, BMP, TIFF or PNM) or a folder, searched recursively.\n"
    "\n"
    "options:\n"
    "  --jsonl             one JSON object per image on standard output\n"
    "  --all-scores        with --jsonl, every class's probability as \"scores\"\n"
    "  --csv FILE          write a CSV table: every class's probability and the tags\n"
    "  --html FILE         write a contact sheet: thumbnails with their verdicts\n"
    "  --threshold ID=P    accept class ID (1-11) above probability P; repeatable\n"
    "  --thresholds FILE   the whole threshold table from a threshold file\n"
    "  --models DIR        models directory (default: the installed models, or the build\n"
    "                      tree's when run from it)\n"
    "  --max-pixels N      refuse images of more than N pixels (default 100000000)\n"
    "  --exact-decode      decode large JPEGs at full size instead of a reduced scale\n"
    "  --raw nv21|rgba|bgr treat every file as a raw camera buffer of this layout\n"
    "  --size WxH          raw buffer size in pixels, before rotation\n"
    "  --rotation DEG      clockwise rotation of raw buffers: 0, 90, 180 or 270\n"
    "  --jobs N            run N detectors in parallel threads (default 1)\n"
    "  --verbose           show the library's log lines on standard error\n"
    "  --version           show the version\n"
    "  -h, --help          show this text\n";

[[noreturn]] void usage_error(const std::string& message) {
  std::fprintf(stderr, "artifact-detect: %s\n\n%s", message.c_str(), kUsage);
  std::exit(2);
}

long long parse_number(const std::string& text, const char* what, long long min, long long max) {
  try {
    std::size_t used = 0;
    const long long value = std::stoll(text, &used);
    if (used == text.size() && value >= min && value <= max) return value;
  } catch (const std::exception&) {
  }
  usage_error(std::string("bad ") + what + ": " + text);
}

int parse_int(const std::string& text, const char* what, int min = 1) {
  return static_cast<int>(parse_number(text, what, min, 1 << 30));
}

std::string default_models_dir() {
  // Installed: <prefix>/bin/artifact-detect next to <prefix>/share/artifact_detector/models.
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    const fs::path installed = exe.parent_path().parent_path() / "share/artifact_detector/models";
    if (fs::is_directory(installed)) return installed.string();
  }
  return AD_BUILD_MODELS_DIR;
}

RawFormat raw_format(const std::string& kind) {
  if (kind == "nv21") return {PixelFormat::kNv21, 3};
  if (kind == "rgba") return {PixelFormat::kRgba, 8};
  if (kind == "bgr") return {PixelFormat::kBgr, 6};
  usage_error("--raw takes nv21, rgba or bgr");
}

void parse_size(const std::string& size, Options& options) {
  const auto x = size.find('x');
  if (x == std::string::npos) usage_error("--size takes WxH");
  options.raw_width = parse_int(size.substr(0, x), "width");
  options.raw_height = parse_int(size.substr(x + 1), "height");
}

void parse_threshold(const std::string& text, Options& options) {
  const auto eq = text.find('=');
  if (eq == std::string::npos) usage_error("--threshold takes ID=P");
  const int id = parse_int(text.substr(0, eq), "class id");
  if (id > artifact_detector::kClassCount) usage_error("bad class id: " + text.substr(0, eq));
  try {
    std::size_t used = 0;
    const std::string p = text.substr(eq + 1);
    const float value = std::stof(p, &used);
    if (used == p.size()) {
      options.thresholds[id] = value;
      return;
    }
  } catch (const std::exception&) {
  }
  usage_error("bad probability in --threshold " + text);
}

// The device's threshold-file rules; a FIFO or device would block or never end.
std::map<int, float> read_thresholds(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    usage_error("--thresholds: " + path + " is not a regular file");
  }
  std::map<int, float> table = Detector::read_threshold_file(path);
  if (table.empty()) usage_error("--thresholds: no threshold in " + path);
  return table;
}

void check(const Options& options, bool have_size) {
  if (options.inputs.empty()) usage_error("no PATH given");
  if (options.raw && !have_size) usage_error("--raw needs --size WxH");
  if (options.raw && options.raw->format == PixelFormat::kNv21 &&
      (options.raw_width % 2 != 0 || options.raw_height % 2 != 0)) {
    usage_error("NV21 buffers need an even width and height");
  }
  if (options.rotation % 90 != 0 || options.rotation < 0 || options.rotation > 270) {
    usage_error("--rotation takes 0, 90, 180 or 270");
  }
}

bool parse_switch(const std::string& arg, Options& options) {
  static const std::map<std::string, bool Options::*> kSwitches{
      {"--jsonl", &Options::jsonl},
      {"--verbose", &Options::verbose},
      {"--exact-decode", &Options::exact_decode},
      {"--all-scores", &Options::all_scores}};
  const auto it = kSwitches.find(arg);
  if (it == kSwitches.end()) return false;
  options.*(it->second) = true;
  return true;
}

// Options with one value, taken by `value()`; false for any other argument.
template <typename Value>
bool parse_valued(const std::string& arg, Value&& value, Options& options) {
  if (arg == "--csv") {
    options.csv = value();
  } else if (arg == "--html") {
    options.html = value();
  } else if (arg == "--threshold") {
    parse_threshold(value(), options);
  } else if (arg == "--thresholds") {
    options.threshold_table = read_thresholds(value());
  } else if (arg == "--models") {
    options.models = value();
  } else if (arg == "--jobs") {
    options.jobs = parse_int(value(), "--jobs");
  } else if (arg == "--max-pixels") {
    options.max_pixels =
        static_cast<std::uint64_t>(parse_number(value(), "--max-pixels", 1, 1LL << 40));
  } else if (arg == "--raw") {
    options.raw = raw_format(value());
  } else if (arg == "--rotation") {
    options.rotation = parse_int(value(), "--rotation", 0);
  } else {
    return false;
  }
  return true;
}

}  // namespace

Options parse_options(int argc, char** argv) {
  Options options;
  bool have_size = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usage_error(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (arg == "--version") {
      std::printf("artifact-detect %s (library %s)\n", ARTIFACT_DETECTOR_VERSION_STRING,
                  artifact_detector::version());
      std::exit(0);
    } else if (!parse_switch(arg, options) && !parse_valued(arg, value, options)) {
      if (arg == "--size") {
        parse_size(value(), options);
        have_size = true;
      } else if (arg.size() > 1 && arg[0] == '-') {
        usage_error("unknown option " + arg);
      } else {
        options.inputs.push_back(arg);
      }
    }
  }
  check(options, have_size);
  if (options.models.empty()) options.models = default_models_dir();
  if (options.models.back() != '/') options.models += '/';
  return options;
}

}  // namespace artifact_detect

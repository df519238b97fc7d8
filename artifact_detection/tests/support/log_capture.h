// Captures every line the library sends to the Android log, for exact assertions.
#pragma once

#include <functional>
#include <mutex>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

namespace ad_test {

// One captured text as "<file>:<line>: <message>", from either format the library writes
// ("[hh:mm:ss] <file>:<line>: <message>\n" or "<file>: <line>: <message>"); elapsed times and
// buffer sizes read N. The one normaliser of every test's log assertions.
inline std::string located(const std::string& text) {
  static const std::regex head(R"(^(\[[0-9:]{8}\] )?([^:\s]+): ?([0-9]+): )"), tail("\n$"),
      varying("(taken: |taken for [^:]+: |buffer size: )-?[0-9]+");
  const std::string out = std::regex_replace(
      std::regex_replace(text, head, "$2:$3: ", std::regex_constants::format_first_only), tail, "");
  return std::regex_replace(out, varying, "$1N");
}

// The message alone: `located` without its "<file>:<line>: ".
inline std::string message(const std::string& text) {
  static const std::regex where(R"(^[^:\s]+:[0-9]+: )");
  return std::regex_replace(located(text), where, "", std::regex_constants::format_first_only);
}

struct LogLine {
  std::string tag;
  int priority;
  std::string text;
  bool operator==(const LogLine& o) const {
    return tag == o.tag && priority == o.priority && text == o.text;
  }
};

inline std::ostream& operator<<(std::ostream& os, const LogLine& l) {
  return os << "{" << l.tag << ", " << l.priority << ", \"" << l.text << "\"}";
}

// While alive, liblog hands every message (verbose included) to this object instead of
// stderr. One capture at a time per process.
class LogCapture {
 public:
  using Hook = std::function<void(const LogLine&)>;
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;

  std::vector<LogLine> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  std::vector<std::string> texts(const std::string& tag) const {
    std::vector<std::string> out;
    for (const LogLine& line : lines()) {
      if (line.tag == tag) out.push_back(line.text);
    }
    return out;
  }
  // The messages (see `message`) of the formatted lines, and of the LogMessage lines.
  std::vector<std::string> verbose_messages() const;
  std::vector<std::string> info_messages() const;
  // Whether either list above holds `message`.
  bool contains(const std::string& message) const;
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

  void add(const LogLine& line) {
    std::unique_lock<std::mutex> lock(mutex_);
    lines_.push_back(line);
    const Hook hook = hook_;
    lock.unlock();
    if (hook) hook(line);
  }
  // Called on the logging thread for every line once it is recorded: lets a test pause the
  // code under test at a known message.
  void set_hook(Hook hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
  }

 private:
  mutable std::mutex mutex_;
  Hook hook_;
  std::vector<LogLine> lines_;
};

}  // namespace ad_test

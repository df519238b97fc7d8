// Captures every line the library sends to the Android log, for exact assertions.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace ad_test {

struct LogLine {
  std::string tag;
  int priority;
  std::string text;

  bool operator==(const LogLine& other) const {
    return tag == other.tag && priority == other.priority && text == other.text;
  }
};

std::ostream& operator<<(std::ostream& os, const LogLine& line);

// While alive, liblog hands every message (verbose included) to this object instead of
// stderr. One capture at a time per process.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();

  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  // Texts only, in order, of the lines under `tag`.
  std::vector<std::string> texts(const std::string& tag) const;
  // Texts of the formatted lines with their "<file>: <line>: " prefix removed.
  std::vector<std::string> verbose_messages() const;
  // Texts of the LogMessage lines with their "[hh:mm:ss] <file>:<line>: " header and the
  // trailing line feed removed.
  std::vector<std::string> info_messages() const;
  bool contains(const std::string& message) const;
  void clear();

  void add(LogLine line);
  // Called synchronously, on the logging thread, for every line after it is recorded: lets
  // a test pause the code under test at a known message.
  void set_hook(std::function<void(const LogLine&)> hook);

 private:
  mutable std::mutex mutex_;
  std::function<void(const LogLine&)> hook_;
  std::vector<LogLine> lines_;
};

}  // namespace ad_test

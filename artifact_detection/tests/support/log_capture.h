// Captures every line the library sends to the Android log, for exact assertions.
#pragma once

#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace ad_test {

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
  // The formatted lines' texts without their "<file>: <line>: " prefix.
  std::vector<std::string> verbose_messages() const;
  // The LogMessage lines' texts without "[hh:mm:ss] <file>:<line>: " and the final line feed.
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

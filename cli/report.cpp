#include "report.h"

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "report_files.h"

namespace artifact_detect {

std::string to_jsonl(const Result& result, const ClassNames* all_scores) {
  nlohmann::ordered_json line;
  line["image"] = result.path;
  line["ok"] = result.ok;
  if (result.ok) {
    line["artifacts"] = nlohmann::ordered_json::array();
    for (const Artifact& a : result.artifacts) {
      line["artifacts"].push_back(
          {{"score", static_cast<double>(a.score)}, {"tag", a.tag}, {"tag_id", a.tag_id}});
    }
    if (all_scores != nullptr && result.scored) {
      line["scores"] = nlohmann::ordered_json::object();
      for (int i = 0; i < kClasses; ++i) {
        line["scores"][(*all_scores)[i]] = static_cast<double>(result.scores[i]);
      }
    }
  } else {
    line["error"] = result.error;
  }
  return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string to_table(const Result& result) {
  std::string text = result.path + "\n";
  char row[128];
  if (!result.ok) {
    text += "  error: " + result.error + "\n";
  } else if (result.artifacts.empty()) {
    text += "  no artifacts\n";
  } else {
    for (const Artifact& a : result.artifacts) {
      std::snprintf(row, sizeof(row), "  %-11s (id %2d)  %.3f\n", a.tag.c_str(), a.tag_id,
                    static_cast<double>(a.score));
      text += row;
    }
  }
  return text;
}

Output::~Output() { close(); }

void Output::fail() {
  if (error_.empty()) error_ = name_ + ": " + std::strerror(errno);
}

void Output::write(const std::string& text) {
  if (file_ != nullptr && ok() && std::fwrite(text.data(), 1, text.size(), file_) != text.size()) {
    fail();
  }
}

void Output::flush() {
  if (file_ != nullptr && ok() && std::fflush(file_) != 0) fail();
}

void Output::close() {
  if (file_ == nullptr) return;
  flush();
  if (std::fclose(file_) != 0) fail();
  file_ = nullptr;
}

std::string progress_line(std::size_t done, std::size_t total, double seconds) {
  constexpr std::size_t kWidth = 40;
  const std::size_t filled = total == 0 ? kWidth : kWidth * done / total;
  std::string line = "[" + std::string(filled, '#') + std::string(kWidth - filled, '.') + "] " +
                     std::to_string(done) + "/" + std::to_string(total);
  if (done == 0 || seconds <= 0) return line;
  const double rate = done / seconds;
  const long left = static_cast<long>((total - done) / rate + 0.5);
  char tail[64];
  std::snprintf(tail, sizeof(tail), "  %.1f images/s  %ld:%02ld left", rate, left / 60, left % 60);
  return line + tail;
}

Printer::Printer(const Sinks& sinks, std::size_t total, bool progress)
    : sinks_(sinks),
      progress_(progress),
      pending_(total),
      start_(std::chrono::steady_clock::now()) {}

bool Printer::lost() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!sinks_.out->ok()) return true;
  for (const Output* file : sinks_.files) {
    if (!file->ok()) return true;
  }
  return false;
}

void Printer::put(std::size_t index, Result result) {
  std::lock_guard<std::mutex> lock(mutex_);
  pending_[index] = std::move(result);
  while (next_ < pending_.size() && pending_[next_]) {
    const Result& r = *pending_[next_];
    clear_progress();
    sinks_.out->write(sinks_.jsonl ? to_jsonl(r, sinks_.all_scores) + "\n" : to_table(r));
    sinks_.out->flush();  // a result is out once it is printed, even if the run is stopped later
    if (sinks_.csv != nullptr) sinks_.csv->add(r);
    if (sinks_.html != nullptr) sinks_.html->add(r);
    for (Output* file : sinks_.files) file->flush();
    if (!r.ok) ++failed_;
    for (const Artifact& a : r.artifacts) ++counts_[{a.tag_id, a.tag}];
    pending_[next_].reset();
    ++next_;
    draw_progress();
  }
}

void Printer::summary() {
  std::lock_guard<std::mutex> lock(mutex_);
  clear_progress();
  std::string text = std::to_string(next_) + " images, " + std::to_string(failed_) + " failed\n";
  char row[96];
  for (const auto& [key, count] : counts_) {
    std::snprintf(row, sizeof(row), "  %-11s %zu\n", key.second.c_str(), count);
    text += row;
  }
  if (sinks_.jsonl) {
    std::fputs(text.c_str(), stderr);
  } else {
    sinks_.out->write(text);
  }
  if (sinks_.html != nullptr) sinks_.html->finish();
}

void Printer::clear_progress() {
  if (progress_) std::fputs("\r\033[K", stderr);
}

void Printer::draw_progress() {
  if (!progress_) return;
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start_;
  std::fputs(progress_line(next_, pending_.size(), elapsed.count()).c_str(), stderr);
  std::fflush(stderr);
}

}  // namespace artifact_detect

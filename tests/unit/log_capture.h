// Captures the lines the code under test logs, from any thread, instead of writing them anywhere.
#ifndef TESTS_UNIT_LOG_CAPTURE_H_
#define TESTS_UNIT_LOG_CAPTURE_H_

#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "base/logging.h"

namespace corvane_test {

struct Line {
  int severity;
  std::string message;    // without the prefix and the newline
  std::string full = "";  // as written, prefix and newline included; not compared
  bool operator==(const Line& other) const { return severity == other.severity && message == other.message; }
};
inline void PrintTo(const Line& line, std::ostream* out) {
  *out << logging::SeverityName(line.severity) << " \"" << line.message << "\"";
}
inline Line Info(std::string text) { return {logging::LOG_INFO, std::move(text)}; }
inline Line Error(std::string text) { return {logging::LOG_ERROR, std::move(text)}; }

class LogCapture {
 public:
  LogCapture() : saved_level_(logging::GetMinimumLogLevel()) {
    active_ = this;
    logging::SetMinimumLogLevel(-1);
    logging::SetLogMessageHandler([](int severity, const char*, int, size_t start, const std::string& line) {
      std::lock_guard<std::mutex> lock(active_->mutex_);
      active_->lines_.push_back({severity, line.substr(start, line.size() - start - 1), line});
      return true;
    });
  }
  ~LogCapture() {
    logging::SetLogMessageHandler(nullptr);
    logging::SetMinimumLogLevel(saved_level_);
  }
  std::vector<Line> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  inline static LogCapture* active_ = nullptr;
  int saved_level_;
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

}  // namespace corvane_test

#endif  // TESTS_UNIT_LOG_CAPTURE_H_

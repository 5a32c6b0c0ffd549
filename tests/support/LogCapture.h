// Collects the library's log lines for the life of a test.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "quorvix/Log.h"

namespace quorvix::test {

class LogCapture {
 public:
  struct Line {
    LogLevel level;
    std::string category;
    std::string message;
  };

  LogCapture() {
    id_ = addLogHandler([this](const LogRecord& r) {
      std::lock_guard lock(mutex_);
      lines_.push_back({r.level, std::string(r.category), std::string(r.message)});
    });
  }
  ~LogCapture() { removeLogHandler(id_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Line> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  // Messages at exactly this level, in order.
  std::vector<std::string> messages(LogLevel level) const {
    std::vector<std::string> out;
    for (const auto& line : lines())
      if (line.level == level)
        out.push_back(line.message);
    return out;
  }
  bool contains(LogLevel level, const std::string& message) const {
    auto m = messages(level);
    return std::find(m.begin(), m.end(), message) != m.end();
  }
  // Whether any line, at any level, mentions the text.
  bool mentions(const std::string& text) const {
    for (const auto& line : lines())
      if (line.message.find(text) != std::string::npos)
        return true;
    return false;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
  int id_ = 0;
};

}  // namespace quorvix::test

// Where the library's log lines go. Every source unit logs under the subsystem "io.quorvi" with
// its own category, at two levels: debug for the normal course of events, error for host
// mistakes and lost sessions or frames. By default errors go to standard error.
#pragma once

#include <functional>
#include <string_view>

namespace quorvix {

enum class LogLevel { trace, debug, info, warn, error };

struct LogRecord {
  LogLevel level;
  std::string_view subsystem;  // "io.quorvi"
  std::string_view category;   // the source unit, e.g. "QRVRequest"
  std::string_view message;
};

using LogHandler = std::function<void(const LogRecord&)>;

// Adds a destination for every log line at or above minimum; returns an id for removeLogHandler.
// Handlers may be called from any of the library's threads, so they must be thread-safe. They may
// call the functions below and log. Once removeLogHandler returns, the handler is not running on
// any other thread and is never called again (a handler may remove itself).
int addLogHandler(LogHandler handler, LogLevel minimum = LogLevel::debug);
void removeLogHandler(int id);
// The level from which lines reach standard error (default: error), and whether any do.
void setStderrLogLevel(LogLevel minimum);
void setStderrLogging(bool enabled);

}  // namespace quorvix

#include "utils/Logging.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

#include <spdlog/sinks/sink.h>

#include "quorvix/Log.h"

namespace quorvix {
namespace {

LogLevel fromSpd(spdlog::level::level_enum l) {
  switch (l) {
    case spdlog::level::trace:
      return LogLevel::trace;
    case spdlog::level::debug:
      return LogLevel::debug;
    case spdlog::level::info:
      return LogLevel::info;
    case spdlog::level::warn:
      return LogLevel::warn;
    default:
      return LogLevel::error;
  }
}

const char* levelName(LogLevel l) {
  switch (l) {
    case LogLevel::trace:
      return "trace";
    case LogLevel::debug:
      return "debug";
    case LogLevel::info:
      return "info";
    case LogLevel::warn:
      return "warning";
    case LogLevel::error:
      return "error";
  }
  return "error";
}

// One handler and the calls of it under way, so that removing it can wait for them.
struct HandlerSlot {
  explicit HandlerSlot(LogHandler h) : handler(std::move(h)) {}
  const LogHandler handler;
  std::mutex mutex;
  std::condition_variable idle;
  int running = 0;  // guarded by mutex
  bool removed = false;
};

// The slots whose handler this thread is inside of, innermost last.
thread_local std::vector<const HandlerSlot*> tCalling;

// One sink shared by every unit's logger: hands each line to the host's handlers and, above its
// own threshold, to standard error. Handlers run outside every lock of the sink, on a snapshot of
// the list, so that one may remove itself or another, change the levels, or log. Removing a
// handler waits for its calls on other threads, so that once removal returns it is never called
// again and whatever it uses may go.
class DispatchSink final : public spdlog::sinks::sink {
 public:
  int add(LogHandler h, LogLevel min) {
    std::lock_guard lock(mutex_);
    auto next = std::make_shared<Handlers>(*handlers_);
    next->push_back({++lastId_, std::make_shared<HandlerSlot>(std::move(h)), min});
    handlers_ = std::move(next);
    return lastId_;
  }
  void remove(int id) {
    std::shared_ptr<HandlerSlot> slot;
    {
      std::lock_guard lock(mutex_);
      auto next = std::make_shared<Handlers>(*handlers_);
      for (const auto& e : *next)
        if (e.id == id)
          slot = e.slot;
      std::erase_if(*next, [id](const Entry& e) { return e.id == id; });
      handlers_ = std::move(next);
    }
    if (!slot)
      return;
    // A handler removing itself is inside one of its own calls: wait only for the others.
    const auto own = std::count(tCalling.begin(), tCalling.end(), slot.get());
    std::unique_lock lock(slot->mutex);
    slot->removed = true;
    slot->idle.wait(lock, [&] { return slot->running == own; });
  }
  void setStderrLevel(LogLevel min) { stderrMin_ = min; }
  void setStderrEnabled(bool enabled) { stderrEnabled_ = enabled; }

  void log(const spdlog::details::log_msg& msg) override {
    LogLevel level = fromSpd(msg.level);
    std::string_view category(msg.logger_name.data(), msg.logger_name.size());
    std::string_view text(msg.payload.data(), msg.payload.size());
    std::shared_ptr<const Handlers> handlers;
    {
      std::lock_guard lock(mutex_);
      handlers = handlers_;
    }
    for (const auto& e : *handlers) {
      if (level < e.min)
        continue;
      {
        std::lock_guard lock(e.slot->mutex);
        if (e.slot->removed)
          continue;
        ++e.slot->running;
      }
      // Ends the call even when the handler throws.
      struct Call {
        HandlerSlot& slot;
        explicit Call(HandlerSlot& s) : slot(s) { tCalling.push_back(&slot); }
        ~Call() {
          tCalling.pop_back();
          std::lock_guard lock(slot.mutex);
          --slot.running;
          slot.idle.notify_all();
        }
      } call(*e.slot);
      e.slot->handler(LogRecord{level, kLogSubsystem, category, text});
    }
    if (stderrEnabled_ && level >= stderrMin_) {
      // One call per line, so that lines from several threads do not interleave.
      std::fprintf(stderr, "[%.*s:%.*s] %s: %.*s\n", static_cast<int>(kLogSubsystem.size()),
                   kLogSubsystem.data(), static_cast<int>(category.size()), category.data(),
                   levelName(level), static_cast<int>(text.size()), text.data());
    }
  }
  void flush() override { std::fflush(stderr); }
  // Lines go out as their text only; patterns and formatters do not apply.
  void set_pattern(const std::string&) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

 private:
  struct Entry {
    int id;
    std::shared_ptr<HandlerSlot> slot;
    LogLevel min;
  };
  using Handlers = std::vector<Entry>;

  std::mutex mutex_;  // guards handlers_ and lastId_; never held while a handler runs
  std::shared_ptr<const Handlers> handlers_ = std::make_shared<Handlers>();
  int lastId_ = 0;
  std::atomic<LogLevel> stderrMin_{LogLevel::error};
  std::atomic<bool> stderrEnabled_{true};
};

struct Registry {
  std::mutex mutex;
  std::shared_ptr<DispatchSink> sink = std::make_shared<DispatchSink>();
  std::map<std::string, std::shared_ptr<spdlog::logger>, std::less<>> loggers;
};

Registry& registry() {
  // Leaked on purpose: loggers stay usable from static destructors and late threads.
  static Registry* r = new Registry;
  return *r;
}

}  // namespace

std::shared_ptr<spdlog::logger> loggerFor(std::string_view category) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.loggers.find(category);
  if (it != r.loggers.end())
    return it->second;
  auto logger = std::make_shared<spdlog::logger>(std::string(category), r.sink);
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::err);
  r.loggers.emplace(std::string(category), logger);
  return logger;
}

void fatal(std::string_view category, std::string_view message) {
  loggerFor(category)->critical("Fatal: {}", message);
  std::fprintf(stderr, "[%s] fatal: %.*s\n", std::string(category).c_str(),
               static_cast<int>(message.size()), message.data());
  std::abort();
}

int addLogHandler(LogHandler handler, LogLevel minimum) {
  return registry().sink->add(std::move(handler), minimum);
}

void removeLogHandler(int id) {
  registry().sink->remove(id);
}

void setStderrLogLevel(LogLevel minimum) {
  registry().sink->setStderrLevel(minimum);
}

void setStderrLogging(bool enabled) {
  registry().sink->setStderrEnabled(enabled);
}

}  // namespace quorvix

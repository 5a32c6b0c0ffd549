// The main queue. Almost all of the library runs on one serial executor: REST completions,
// session notifications, socket listeners, timers. The library ships an implementation on a
// thread of its own; a host with its own loop (GLib, Qt) can install an adaptor, and tests
// install a manual executor with a virtual clock.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

namespace quorvix {

using Task = std::function<void()>;
using Duration = std::chrono::steady_clock::duration;
using SteadyTime = std::chrono::steady_clock::time_point;
using WallTime = std::chrono::system_clock::time_point;

// Converts a delay given in seconds, as the wire formats and timer tables state them.
constexpr Duration seconds(double s) {
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(s));
}

class Clock {
 public:
  virtual ~Clock() = default;
  // Monotonic time for timers and latency figures.
  virtual SteadyTime now() const = 0;
  // Calendar time for dates reported to the host or the service.
  virtual WallTime wallNow() const = 0;
};

// The cancellation side of a delayed task. Cancelling is idempotent, thread-safe, and
// guarantees the task will not start afterwards; a default-constructed handle is inert.
class TaskHandle {
 public:
  TaskHandle() = default;
  explicit TaskHandle(std::shared_ptr<std::atomic<bool>> cancelled)
      : cancelled_(std::move(cancelled)) {}
  void cancel() const {
    if (cancelled_)
      cancelled_->store(true);
  }
  bool isActive() const { return cancelled_ && !cancelled_->load(); }

 private:
  std::shared_ptr<std::atomic<bool>> cancelled_;
};

class Executor {
 public:
  virtual ~Executor() = default;
  // True on the executor's own thread, where tasks may run inline.
  virtual bool isCurrent() const = 0;
  // Runs the task later on the executor, after every task posted before it. Thread-safe.
  virtual void post(Task task) = 0;
  // Runs the task once the delay has passed on clock(). Thread-safe.
  virtual TaskHandle postAfter(Duration delay, Task task) = 0;
  virtual const Clock& clock() const = 0;
};

// The process-wide main queue. The first call makes the library's own executor unless the host
// or a test installed another one with setMainQueue.
std::shared_ptr<Executor> mainQueue();
// Replaces the main queue (nullptr restores the library's own). Install it before start; work
// already posted to the previous executor stays there.
void setMainQueue(std::shared_ptr<Executor> executor);

// Runs the task inline when already on the main queue, else hands it over and waits for it.
// Returns without running the task when the main queue shuts down first.
void runOnMainSync(const Task& task);
// Always queues the task, never runs it inline.
void runOnMainAsync(Task task);

// The library's own main queue: a thread it owns running an Asio io_context.
std::shared_ptr<Executor> makeThreadExecutor(const char* threadName = "quorvix-main");

}  // namespace quorvix

#pragma once

#include <memory>
#include <mutex>

#include "quorvix/Executor.h"

namespace quorvix {

// A timer that runs a task on an executor at a fixed interval until stopped. Thread-safe; the
// task is never started after stop() returns on the executor's thread, and never after the
// timer is destroyed.
class RepeatingTimer {
 public:
  RepeatingTimer() = default;
  ~RepeatingTimer() { stop(); }
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;

  // Starts ticking unless already running; returns whether it started.
  bool start(std::shared_ptr<Executor> executor, Duration interval, Task tick);
  void stop();
  bool isRunning() const;

 private:
  struct State;
  static void schedule(const std::shared_ptr<State>& state);

  mutable std::mutex mutex_;
  std::shared_ptr<State> state_;
};

}  // namespace quorvix

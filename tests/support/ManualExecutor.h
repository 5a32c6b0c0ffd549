// A main queue for tests: its thread is the test's thread and its clock is virtual. Nothing runs
// until the test says so: advance() moves the clock and runs what falls due, in deadline order
// (FIFO among equal deadlines, including tasks posted while running). Work posted from real
// threads (HTTP, sockets) is waited for with runUntil(), bounded by a real-time limit.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "quorvix/Executor.h"

namespace quorvix::test {

class ManualExecutor final : public Executor, public Clock {
 public:
  ManualExecutor();

  bool isCurrent() const override;
  void post(Task task) override;
  TaskHandle postAfter(Duration delay, Task task) override;
  const Clock& clock() const override { return *this; }
  SteadyTime now() const override;
  WallTime wallNow() const override;

  // Moves virtual time forward, running every task due by the end; returns how many ran.
  std::size_t advance(Duration by);
  std::size_t advanceSeconds(double s) { return advance(seconds(s)); }
  // Runs what is due now, without moving the clock.
  std::size_t runUntilIdle() { return advance(Duration::zero()); }
  // Sets the wall clock apart from the steady one, as when the user sets the system time.
  void setWallClock(Duration offset);
  // Tasks not yet run and not cancelled, due now or later.
  std::size_t pendingCount() const;
  // The delay until the earliest pending task, if any.
  std::optional<Duration> nextDelay() const;
  // Runs due tasks, waiting for tasks from other threads, until `done` holds or `limit` of real
  // time has passed. Returns `done()`.
  bool runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds limit = std::chrono::seconds(10));

 private:
  struct Entry {
    SteadyTime due;
    std::uint64_t seq;
    Task task;
    std::shared_ptr<std::atomic<bool>> cancelled;
  };
  bool popDue(SteadyTime limit, Entry& out);

  const std::thread::id owner_;
  mutable std::mutex mutex_;
  std::condition_variable posted_;
  std::vector<Entry> queue_;
  std::uint64_t nextSeq_ = 0;
  SteadyTime now_{};
  Duration wallOffset_{};
};

// RAII: installs a ManualExecutor as the main queue for the scope of a test.
class ScopedManualMainQueue {
 public:
  ScopedManualMainQueue();
  ~ScopedManualMainQueue();
  ManualExecutor& operator*() { return *executor_; }
  ManualExecutor* operator->() { return executor_.get(); }
  std::shared_ptr<ManualExecutor> get() { return executor_; }

 private:
  std::shared_ptr<ManualExecutor> executor_;
};

}  // namespace quorvix::test

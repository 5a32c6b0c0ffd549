#include "utils/RepeatingTimer.h"

namespace quorvix {

struct RepeatingTimer::State {
  std::shared_ptr<Executor> executor;
  Duration interval;
  Task tick;
  std::mutex mutex;
  bool stopped = false;
  TaskHandle pending;
};

bool RepeatingTimer::start(std::shared_ptr<Executor> executor, Duration interval, Task tick) {
  std::lock_guard lock(mutex_);
  if (state_)
    return false;
  state_ = std::make_shared<State>();
  state_->executor = std::move(executor);
  state_->interval = interval;
  state_->tick = std::move(tick);
  schedule(state_);
  return true;
}

void RepeatingTimer::schedule(const std::shared_ptr<State>& state) {
  std::lock_guard lock(state->mutex);
  if (state->stopped)
    return;
  std::weak_ptr<State> weak = state;
  state->pending = state->executor->postAfter(state->interval, [weak] {
    auto s = weak.lock();
    if (!s)
      return;
    {
      std::lock_guard lock(s->mutex);
      if (s->stopped)
        return;
    }
    // The next tick is due one interval after this one started, like a run-loop timer.
    schedule(s);
    s->tick();
  });
}

void RepeatingTimer::stop() {
  std::shared_ptr<State> state;
  {
    std::lock_guard lock(mutex_);
    state = std::move(state_);
  }
  if (!state)
    return;
  std::lock_guard lock(state->mutex);
  state->stopped = true;
  state->pending.cancel();
}

bool RepeatingTimer::isRunning() const {
  std::lock_guard lock(mutex_);
  return state_ != nullptr;
}

}  // namespace quorvix

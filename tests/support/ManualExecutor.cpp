#include "ManualExecutor.h"

#include <algorithm>

namespace quorvix::test {

namespace {
// Virtual calendar time starts at 2026-01-01T00:00:00Z.
constexpr auto kWallEpoch = std::chrono::seconds(1767225600);
}  // namespace

ManualExecutor::ManualExecutor() : owner_(std::this_thread::get_id()) {}

bool ManualExecutor::isCurrent() const {
  return std::this_thread::get_id() == owner_;
}

void ManualExecutor::post(Task task) {
  postAfter(Duration::zero(), std::move(task));
}

TaskHandle ManualExecutor::postAfter(Duration delay, Task task) {
  auto cancelled = std::make_shared<std::atomic<bool>>(false);
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(
        {now_ + std::max(delay, Duration::zero()), nextSeq_++, std::move(task), cancelled});
  }
  posted_.notify_all();
  return TaskHandle(cancelled);
}

SteadyTime ManualExecutor::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

WallTime ManualExecutor::wallNow() const {
  std::lock_guard lock(mutex_);
  return WallTime(std::chrono::duration_cast<WallTime::duration>(kWallEpoch + wallOffset_)) +
         std::chrono::duration_cast<WallTime::duration>(now_.time_since_epoch());
}

void ManualExecutor::setWallClock(Duration offset) {
  std::lock_guard lock(mutex_);
  wallOffset_ = offset;
}

bool ManualExecutor::popDue(SteadyTime limit, Entry& out) {
  std::lock_guard lock(mutex_);
  std::erase_if(queue_, [](const Entry& e) { return e.cancelled->load(); });
  auto it = std::min_element(queue_.begin(), queue_.end(), [](const Entry& a, const Entry& b) {
    return a.due != b.due ? a.due < b.due : a.seq < b.seq;
  });
  if (it == queue_.end() || it->due > limit)
    return false;
  out = std::move(*it);
  queue_.erase(it);
  now_ = std::max(now_, out.due);
  return true;
}

std::size_t ManualExecutor::advance(Duration by) {
  SteadyTime target = now() + by;
  std::size_t ran = 0;
  Entry e;
  while (popDue(target, e)) {
    if (!e.cancelled->load()) {
      e.task();
      ++ran;
    }
  }
  std::lock_guard lock(mutex_);
  now_ = std::max(now_, target);
  return ran;
}

std::size_t ManualExecutor::pendingCount() const {
  std::lock_guard lock(mutex_);
  return std::count_if(queue_.begin(), queue_.end(),
                       [](const Entry& e) { return !e.cancelled->load(); });
}

std::optional<Duration> ManualExecutor::nextDelay() const {
  std::lock_guard lock(mutex_);
  std::optional<Duration> best;
  for (const auto& e : queue_) {
    if (!e.cancelled->load() && (!best || e.due - now_ < *best))
      best = e.due - now_;
  }
  return best;
}

namespace {
constexpr std::chrono::milliseconds kPoll(2);
}  // namespace

bool ManualExecutor::runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (true) {
    runUntilIdle();
    if (done())
      return true;
    std::unique_lock lock(mutex_);
    bool anyDue =
        std::any_of(queue_.begin(), queue_.end(), [this](const Entry& e) { return e.due <= now_; });
    if (std::chrono::steady_clock::now() >= deadline)
      return done();
    // Conditions may also change on other threads without a post: look again now and then.
    if (!anyDue)
      posted_.wait_until(lock, std::min(deadline, std::chrono::steady_clock::now() + kPoll));
  }
}

ScopedManualMainQueue::ScopedManualMainQueue() : executor_(std::make_shared<ManualExecutor>()) {
  setMainQueue(executor_);
}

ScopedManualMainQueue::~ScopedManualMainQueue() {
  setMainQueue(nullptr);
}

}  // namespace quorvix::test

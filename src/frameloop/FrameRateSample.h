// A frames-per-second meter for diagnostics: counts ticks and logs the measured rate once per
// interval. Used on the thread that ticks it (the main queue).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "quorvix/Executor.h"

namespace quorvix {

class FrameRateSample {
 public:
  // The interval is at least a millisecond.
  FrameRateSample(std::shared_ptr<Executor> executor, std::chrono::milliseconds interval);

  void tick();

 private:
  void restartIfNeeded();
  std::int64_t nowMilliseconds() const;

  const std::shared_ptr<Executor> executor_;
  std::int64_t frameCount_ = 0;  // ticks in the current interval
  std::int64_t startTime_;       // ms since 1970, start of the interval
  std::int64_t timestamp_;       // ms since 1970, the latest tick
  const std::int64_t interval_;  // ms
};

}  // namespace quorvix

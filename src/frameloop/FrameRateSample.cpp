#include "frameloop/FrameRateSample.h"

#include <algorithm>

#include "utils/Logging.h"

namespace quorvix {

FrameRateSample::FrameRateSample(std::shared_ptr<Executor> executor,
                                 std::chrono::milliseconds interval)
    : executor_(std::move(executor)),
      startTime_(nowMilliseconds()),
      timestamp_(startTime_),
      interval_(std::max<std::int64_t>(interval.count(), 1)) {}

std::int64_t FrameRateSample::nowMilliseconds() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             executor_->clock().wallNow().time_since_epoch())
      .count();
}

void FrameRateSample::tick() {
  timestamp_ = nowMilliseconds();
  ++frameCount_;
  restartIfNeeded();
}

void FrameRateSample::restartIfNeeded() {
  const std::int64_t elapsed = timestamp_ - startTime_;
  if (elapsed < interval_)
    return;
  const double fps = double(frameCount_) * 1000.0 / double(elapsed);
  QRV_LOGGER_FOR("FrameRateSample")->debug("FPS: {:.2f}", fps);
  frameCount_ = 0;
  startTime_ = timestamp_;
}

}  // namespace quorvix

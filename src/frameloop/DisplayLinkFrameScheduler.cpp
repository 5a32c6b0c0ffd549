#include "frameloop/DisplayLinkFrameScheduler.h"

#include "utils/Logging.h"

namespace quorvix {

std::shared_ptr<DisplayLinkFrameScheduler> DisplayLinkFrameScheduler::create(
    std::weak_ptr<FrameSchedulerDelegate> delegate,
    DisplayLinkFactory displayLinkFactory) {
  return std::shared_ptr<DisplayLinkFrameScheduler>(
      new DisplayLinkFrameScheduler(std::move(delegate), std::move(displayLinkFactory)));
}

DisplayLinkFrameScheduler::DisplayLinkFrameScheduler(std::weak_ptr<FrameSchedulerDelegate> delegate,
                                                     DisplayLinkFactory displayLinkFactory)
    : delegate_(std::move(delegate)), displayLinkFactory_(std::move(displayLinkFactory)) {}

DisplayLinkFrameScheduler::~DisplayLinkFrameScheduler() {
  invalidate();
}

void DisplayLinkFrameScheduler::start() {
  invalidate();
  if (delegate_.expired()) {
    QRV_LOGGER_FOR("DisplayLinkFrameScheduler")
        ->debug("Attempted to start a QRVFrameScheduler without a delegate.");
    return;
  }
  displayLink_ = displayLinkFactory_([weak = weak_from_this()] {
    if (auto self = weak.lock())
      self->onVsync();
  });
  displayLink_->setPreferredFrameRate(frameRate_);
  displayLink_->begin();
}

void DisplayLinkFrameScheduler::invalidate() {
  if (!displayLink_)
    return;
  displayLink_->invalidate();
  displayLink_.reset();
}

void DisplayLinkFrameScheduler::setFrameRateSample(std::unique_ptr<FrameRateSample> sample) {
  frameRateSample_ = std::move(sample);
}

void DisplayLinkFrameScheduler::onVsync() {
  auto delegate = delegate_.lock();
  if (!delegate) {
    invalidate();
    return;
  }
  if (!displayLink_)
    return;
  const ScheduleResult result = delegate->performFrameLoopTasks();
  // The pass may have stopped the loop, which drops the link.
  if (displayLink_) {
    const int wanted = result == ScheduleResult::regular ? frameRate_ : kRetryFrameRate;
    if (displayLink_->preferredFrameRate() != wanted)
      displayLink_->setPreferredFrameRate(wanted);
  }
  if (frameRateSample_)
    frameRateSample_->tick();
}

}  // namespace quorvix

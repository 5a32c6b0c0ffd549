#include "frameloop/QRVFrameLoop.h"

#include <algorithm>
#include <cassert>

#include "frameloop/linux/QRVTimerDisplayLink.h"
#include "utils/Logging.h"
#include "utils/Signpost.h"

namespace quorvix {
namespace {

auto logger() {
  return QRV_LOGGER_FOR("QRVFrameLoop");
}

bool sameObserver(const std::weak_ptr<QRVFrameLoopObserver>& a,
                  const std::shared_ptr<QRVFrameLoopObserver>& b) {
  return !a.owner_before(b) && !b.owner_before(a);
}

}  // namespace

std::shared_ptr<QRVFrameLoop> QRVFrameLoop::create(std::weak_ptr<QRVFrameLoopDelegate> delegate,
                                                   Environment environment) {
  return std::shared_ptr<QRVFrameLoop>(
      new QRVFrameLoop(std::move(delegate), std::move(environment)));
}

QRVFrameLoop::QRVFrameLoop(std::weak_ptr<QRVFrameLoopDelegate> delegate, Environment environment)
    : executor_(environment.executor ? std::move(environment.executor) : mainQueue()),
      displayLinkFactory_(environment.displayLinkFactory
                              ? std::move(environment.displayLinkFactory)
                              : QRVTimerDisplayLink::factory(executor_, environment.refreshRate)),
      delegate_(std::move(delegate)),
      lastEncodedFrameTime_(nowMilliseconds()) {
  logger()->debug("Created frame loop");
}

QRVFrameLoop::~QRVFrameLoop() {
  // Only the link's timer needs ending; the source is told by an explicit stop().
  if (frameScheduler_)
    frameScheduler_->invalidate();
}

void QRVFrameLoop::assertOnExecutor() const {
  assert(executor_->isCurrent() && "QRVFrameLoop used off its executor");
}

std::int64_t QRVFrameLoop::nowMilliseconds() const {
  // Integral clocks make the time stamp finite by construction.
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             executor_->clock().wallNow().time_since_epoch())
      .count();
}

void QRVFrameLoop::start() {
  assertOnExecutor();
  if (frameScheduler_)
    return;
  if (source_)
    source_->capturingWillStart();
  frameScheduler_ = DisplayLinkFrameScheduler::create(weak_from_this(), displayLinkFactory_);
  frameScheduler_->start();
  lastEncodedFrameTime_ = nowMilliseconds();
  logger()->debug("Started frame loop");
}

void QRVFrameLoop::stop() {
  assertOnExecutor();
  if (source_)
    source_->capturingWillStop();
  if (frameScheduler_)
    frameScheduler_->invalidate();
  frameScheduler_.reset();
  logger()->debug("Stopped frame loop");
}

void QRVFrameLoop::registerFrameLoopObserver(
    const std::shared_ptr<QRVFrameLoopObserver>& observer) {
  if (!observer)
    return;
  std::erase_if(observers_, [](const auto& weak) { return weak.expired(); });
  if (std::none_of(observers_.begin(), observers_.end(),
                   [&](const auto& weak) { return sameObserver(weak, observer); }))
    observers_.push_back(observer);
}

void QRVFrameLoop::removeFrameLoopObserver(const std::shared_ptr<QRVFrameLoopObserver>& observer) {
  std::erase_if(observers_,
                [&](const auto& weak) { return weak.expired() || sameObserver(weak, observer); });
}

std::vector<std::shared_ptr<QRVFrameLoopObserver>> QRVFrameLoop::liveObservers() {
  std::vector<std::shared_ptr<QRVFrameLoopObserver>> live;
  for (const auto& weak : observers_) {
    if (auto observer = weak.lock())
      live.push_back(std::move(observer));
  }
  return live;
}

ScheduleResult QRVFrameLoop::performFrameLoopTasks() {
  assertOnExecutor();
  auto delegate = delegate_.lock();
  // Held for the pass: the delegate may swap sources meanwhile.
  auto source = source_;
  if (!delegate || !source) {
    logger()->error("Attempting to render a frame without a delegate or frameSource");
    stop();
    return ScheduleResult::regular;
  }

  std::shared_ptr<QRVFrame> frame;
  if (delegate->shouldCaptureFrame()) {
    // An unchanged screen hands the previous frame object on again, re-stamped.
    frame = source->isNewFrameAvailable() ? renderFrame(*delegate, *source) : source->lastFrame();
  }
  if (!frame) {
    logger()->debug("Frame couldn't be rendered, scheduled a delay.");
    return ScheduleResult::retrySoon;
  }

  const std::int64_t now = nowMilliseconds();
  frame->setTiming({
      .duration = QRVTime::milliseconds(now - lastEncodedFrameTime_),
      .presentationTimeStamp = QRVTime::milliseconds(now),
      .decodeTimeStamp = QRVTime{},
  });
  lastEncodedFrameTime_ = nowMilliseconds();
  // Nothing waits for the frame to be sent.
  delegate->handleFrame(std::move(frame), [] {});
  return ScheduleResult::regular;
}

std::shared_ptr<QRVFrame> QRVFrameLoop::renderFrame(QRVFrameLoopDelegate& delegate,
                                                    QRVFrameSource& source) {
  // Snapshots, so that observers may register or leave while being called.
  {
    SignpostInterval signpost("Showing redactions");
    for (const auto& observer : liveObservers())
      observer->willCaptureFrame();
  }
  auto frame = source.newFrame(delegate.scale());
  {
    SignpostInterval signpost("Hiding redactions");
    for (const auto& observer : liveObservers())
      observer->didCaptureFrame(frame);
  }
  return frame;
}

}  // namespace quorvix

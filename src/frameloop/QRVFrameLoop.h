// The heartbeat of screen sharing. While running, each pass asks the delegate whether to capture,
// takes a new frame from the source (with the observers told around the capture) or else the
// source's last frame, stamps it with its timing and hands it to the delegate. Passes come about
// ten times a second, and sixty while no frame can be produced.
//
// Made, started, stopped and driven on the main queue; the delegate, the source and the observers
// are called there. The loop takes no locks.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "frameloop/DisplayLink.h"
#include "frameloop/DisplayLinkFrameScheduler.h"
#include "frameloop/FrameScheduler.h"
#include "frameloop/QRVFrameLoopDelegate.h"
#include "frameloop/QRVFrameLoopObserver.h"
#include "frameloop/QRVFrameSource.h"

namespace quorvix {

class QRVFrameLoop final : public FrameSchedulerDelegate,
                           public std::enable_shared_from_this<QRVFrameLoop> {
 public:
  struct Environment {
    // The main queue when empty.
    std::shared_ptr<Executor> executor;
    // The main screen's refresh rate in Hz for the default display link; 0 when unknown.
    double refreshRate = 0;
    // Makes the display link at each start; a QRVTimerDisplayLink on the executor when empty.
    DisplayLinkFactory displayLinkFactory;
  };

  // The delegate is held weakly and never replaced; a loop whose delegate is gone stops itself at
  // its next pass.
  static std::shared_ptr<QRVFrameLoop> create(std::weak_ptr<QRVFrameLoopDelegate> delegate,
                                              Environment environment);
  static std::shared_ptr<QRVFrameLoop> create(std::weak_ptr<QRVFrameLoopDelegate> delegate) {
    return create(std::move(delegate), Environment{});
  }
  ~QRVFrameLoop() override;
  QRVFrameLoop(const QRVFrameLoop&) = delete;
  QRVFrameLoop& operator=(const QRVFrameLoop&) = delete;

  // The source is held strongly and may be swapped while running.
  const std::shared_ptr<QRVFrameSource>& source() const { return source_; }
  void setSource(std::shared_ptr<QRVFrameSource> source) { source_ = std::move(source); }

  // Does nothing when already running.
  void start();
  // Tells the source and drops the scheduler, also when not running.
  void stop();
  bool isRunning() const { return frameScheduler_ != nullptr; }

  // Observers are held weakly and vanish when freed. Registering one twice keeps one entry.
  void registerFrameLoopObserver(const std::shared_ptr<QRVFrameLoopObserver>& observer);
  void removeFrameLoopObserver(const std::shared_ptr<QRVFrameLoopObserver>& observer);

  // One pass.
  ScheduleResult performFrameLoopTasks() override;

 private:
  QRVFrameLoop(std::weak_ptr<QRVFrameLoopDelegate> delegate, Environment environment);
  std::shared_ptr<QRVFrame> renderFrame(QRVFrameLoopDelegate& delegate, QRVFrameSource& source);
  std::vector<std::shared_ptr<QRVFrameLoopObserver>> liveObservers();
  std::int64_t nowMilliseconds() const;
  void assertOnExecutor() const;

  const std::shared_ptr<Executor> executor_;
  const DisplayLinkFactory displayLinkFactory_;
  const std::weak_ptr<QRVFrameLoopDelegate> delegate_;
  std::shared_ptr<QRVFrameSource> source_;
  std::shared_ptr<DisplayLinkFrameScheduler> frameScheduler_;
  std::int64_t lastEncodedFrameTime_;  // ms since 1970: last frame handed on, or the start
  std::vector<std::weak_ptr<QRVFrameLoopObserver>> observers_;
};

}  // namespace quorvix

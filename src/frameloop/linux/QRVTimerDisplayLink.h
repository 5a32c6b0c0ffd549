// The display link of this platform: a timer on the executor ticking at the main screen's refresh
// rate, whose ticks are divided down to the preferred rate the way a vsync callback would be. All
// methods and the target's calls run on the executor's thread.
#pragma once

#include <memory>

#include "frameloop/DisplayLink.h"
#include "utils/RepeatingTimer.h"

namespace quorvix {

class QRVTimerDisplayLink final : public DisplayLink {
 public:
  static constexpr double kUnknownRefreshRate = 60.0;
  static constexpr int kInitialFrameRate = 10;

  // `refreshRate` is the main screen's in Hz; one not positive, not finite or above 1000 is taken
  // as unknown, which ticks at 60 Hz. `onVsync` is called on the executor until invalidate() or
  // destruction.
  QRVTimerDisplayLink(std::shared_ptr<Executor> executor, double refreshRate, Task onVsync);
  ~QRVTimerDisplayLink() override;
  QRVTimerDisplayLink(const QRVTimerDisplayLink&) = delete;
  QRVTimerDisplayLink& operator=(const QRVTimerDisplayLink&) = delete;

  // A factory for the frame scheduler, for a screen with the given refresh rate.
  static DisplayLinkFactory factory(std::shared_ptr<Executor> executor, double refreshRate);

  int preferredFrameRate() const override;
  void setPreferredFrameRate(int rate) override;
  void begin() override;
  void invalidate() override;

  double refreshRate() const;

 private:
  // What a tick reads; the timer's task holds it weakly.
  struct State {
    double refreshRate;
    Task onVsync;
    int preferredFrameRate = kInitialFrameRate;
    int ticksInCurrentInterval = 0;

    void tick();
  };

  const std::shared_ptr<Executor> executor_;
  const std::shared_ptr<State> state_;
  RepeatingTimer timer_;
};

}  // namespace quorvix

// Drives the frame loop from a display link: one pass per call of the link, at 10 calls a second
// after a pass that handed a frame on and 60 after one that could not. Made, started, stopped and
// called on the main queue; the link's calls arrive there too.
#pragma once

#include <memory>

#include "frameloop/DisplayLink.h"
#include "frameloop/FrameRateSample.h"
#include "frameloop/FrameScheduler.h"

namespace quorvix {

class DisplayLinkFrameScheduler final
    : public FrameScheduler,
      public std::enable_shared_from_this<DisplayLinkFrameScheduler> {
 public:
  static constexpr int kRegularFrameRate = 10;
  static constexpr int kRetryFrameRate = 60;

  // The delegate is held weakly; the factory makes the link at each start.
  static std::shared_ptr<DisplayLinkFrameScheduler> create(
      std::weak_ptr<FrameSchedulerDelegate> delegate,
      DisplayLinkFactory displayLinkFactory);
  ~DisplayLinkFrameScheduler() override;
  DisplayLinkFrameScheduler(const DisplayLinkFrameScheduler&) = delete;
  DisplayLinkFrameScheduler& operator=(const DisplayLinkFrameScheduler&) = delete;

  // Replaces any running link with a new one at 10 calls a second.
  void start() override;
  // Stops and drops the link; start() makes a new one. Idempotent.
  void invalidate();
  bool hasDisplayLink() const { return displayLink_ != nullptr; }

  // Measuring is off unless a sample is installed.
  void setFrameRateSample(std::unique_ptr<FrameRateSample> sample);

 private:
  DisplayLinkFrameScheduler(std::weak_ptr<FrameSchedulerDelegate> delegate,
                            DisplayLinkFactory displayLinkFactory);
  void onVsync();

  std::unique_ptr<FrameRateSample> frameRateSample_;
  const int frameRate_ = kRegularFrameRate;
  std::unique_ptr<DisplayLink> displayLink_;
  const std::weak_ptr<FrameSchedulerDelegate> delegate_;
  const DisplayLinkFactory displayLinkFactory_;
};

}  // namespace quorvix

// The frame loop's owner (the session context): decides whether to capture and takes the frames.
// Every method is called on the thread that runs the loop's passes (the main queue).
#pragma once

#include <functional>
#include <memory>

#include "frameloop/QRVFrame.h"

namespace quorvix {

class QRVFrameLoopDelegate {
 public:
  virtual ~QRVFrameLoopDelegate() = default;

  // Asked first on every pass; false skips the capture and speeds the loop up.
  virtual bool shouldCaptureFrame() = 0;
  // The capture scale handed to the source's newFrame().
  virtual double scale() = 0;
  // Takes a stamped frame. The loop never waits for the callback; calling it is optional.
  virtual void handleFrame(std::shared_ptr<QRVFrame> frame, std::function<void()> callback) = 0;
};

}  // namespace quorvix

// Told around each capture, so that it can paint itself onto the screen just before (redaction
// masks) and take itself away just after. Called on the thread that runs the loop's passes (the
// main queue); an observer may register or leave while being called.
#pragma once

#include <memory>

#include "frameloop/QRVFrame.h"

namespace quorvix {

class QRVFrameLoopObserver {
 public:
  virtual ~QRVFrameLoopObserver() = default;

  virtual void willCaptureFrame() = 0;
  // With the source's new frame, or nullptr when the capture produced none.
  virtual void didCaptureFrame(const std::shared_ptr<QRVFrame>& frame) = 0;
};

}  // namespace quorvix

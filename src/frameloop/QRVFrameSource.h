// What the frame loop asks of a frame source. Every method is called on the thread that runs the
// loop's passes (the main queue).
#pragma once

#include <memory>

#include "frameloop/QRVFrame.h"

namespace quorvix {

class QRVFrameSource {
 public:
  virtual ~QRVFrameSource() = default;

  virtual void capturingWillStart() = 0;
  virtual void capturingWillStop() = 0;
  // Whether a capture now would produce a picture newer than lastFrame().
  virtual bool isNewFrameAvailable() = 0;
  // A new frame at the given capture scale, or nullptr when none is ready.
  virtual std::shared_ptr<QRVFrame> newFrame(double scale) = 0;
  // The most recent frame, handed on again while nothing changed; may be nullptr.
  virtual std::shared_ptr<QRVFrame> lastFrame() = 0;
};

}  // namespace quorvix

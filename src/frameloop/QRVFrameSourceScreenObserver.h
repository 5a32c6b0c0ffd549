// A frame source that can be pointed at another screen. Called on the frame loop's thread.
#pragma once

#include <memory>

#include "frameloop/QRVScreen.h"

namespace quorvix {

class QRVFrameSourceScreenObserver {
 public:
  virtual ~QRVFrameSourceScreenObserver() = default;
  // The screen to capture; nullptr means the main screen.
  virtual void setScreen(std::shared_ptr<const QRVScreen> screen) = 0;
};

}  // namespace quorvix

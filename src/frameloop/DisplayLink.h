// A timer synchronised with the display, calling its target at a preferred rate. Used on the
// thread that runs its callback (the main queue).
#pragma once

#include <functional>
#include <memory>

#include "quorvix/Executor.h"

namespace quorvix {

class DisplayLink {
 public:
  virtual ~DisplayLink() = default;

  // Calls per second wanted from the link.
  virtual int preferredFrameRate() const = 0;
  virtual void setPreferredFrameRate(int rate) = 0;
  // Starts the calls unless they already run.
  virtual void begin() = 0;
  // Stops the calls; none starts afterwards. Idempotent.
  virtual void invalidate() = 0;
};

// Makes a display link that runs `onVsync` on each of its calls, not yet begun.
using DisplayLinkFactory = std::function<std::unique_ptr<DisplayLink>(Task onVsync)>;

}  // namespace quorvix

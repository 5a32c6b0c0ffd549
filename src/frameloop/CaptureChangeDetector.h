// Decides, capture by capture, whether the screen has to be read again. Change notifications
// (damage) and the pointer say when something changed; since notifications can be missing on some
// servers, a full read compared with the previous one checks them about once a second, and once
// that finds a change they missed, every capture is read and compared for the rest of the session.
// Not thread-safe: used by one capturing thread.
#pragma once

#include <chrono>
#include <optional>

#include "frameloop/CursorOverlay.h"
#include "quorvix/Executor.h"

namespace quorvix {

class CaptureChangeDetector {
 public:
  static constexpr Duration kVerifyInterval = std::chrono::seconds(1);

  enum class Action {
    reuse,        // nothing changed: hand out the held picture again
    recomposite,  // only the pointer changed: redraw it over the screen read last time
    capture,      // read the screen; the result is new
    compare,      // read the screen; new only when it differs from the last read
  };

  // What to do now. `damaged` is whether a notification arrived since the last call; `havePicture`
  // whether a held picture exists to reuse.
  Action decide(SteadyTime now, bool damaged, const QRVPointerState& pointer, bool havePicture);
  // Reports the outcome of a `compare`: whether the read differed from the previous one. Returns
  // true when that switched to comparing every capture.
  bool compared(bool differs);
  // Forgets the previous read (new target, size or connection): the next decision captures.
  void reset();

  bool isPolling() const { return polling_; }
  // Compares every capture from now on, as when change notifications are missing altogether.
  void startPolling() { polling_ = true; }
  // Whether the pointer given to the last decide() differed from the one before.
  bool pointerChanged() const { return pointerChanged_; }

 private:
  bool polling_ = false;
  bool verifying_ = false;
  bool pointerChanged_ = false;
  std::optional<QRVPointerState> pointer_;
  SteadyTime lastFullRead_{};
};

}  // namespace quorvix

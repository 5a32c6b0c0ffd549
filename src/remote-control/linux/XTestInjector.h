// Plays the remote control's events on an X server through XTEST, on an XCB connection of its
// own (never Xlib, whose default error handlers end the process).
//
// Mouse: absolute motion in root coordinates, buttons 1, 2 and 3 through the inverse of the
// pointer mapping, so a left-handed mapping does not swap what the agent pressed.
// Physical keys: the web code's evdev key code plus 8 when the server uses evdev keycodes, else
// the key found by its XKB name in the current keymap.
// Characters: typed through their keysym at whatever level the current layout has them, with
// the modifiers that level needs locked for just that key; when the layout lacks the keysym, on
// a spare keycode (one without keysyms) mapped to it for the moment. Spare keycodes rotate and
// are emptied only a while after their last use, because clients re-read the whole keymap when
// told it changed and would otherwise decode an earlier key with a later mapping; a character
// that finds every spare still fresh waits for one, and the events after it wait behind it.
// Auto-repeat: a physical key is held from the agent's keydown to its keyup, so while the
// injector holds it the server's auto-repeat is switched off for that key alone and restored at
// the release; a stalled keyup then leaves one press, not a line of repeats. Characters are tapped
// (press and release at the keydown), so they never repeat; the agent's own repeats arrive as
// further keydowns and are played as such.
//
// Main queue only: every method runs on the executor it is given, and X requests are made
// synchronously there, flushed after each event. Its delayed work (emptying spare keycodes,
// resuming a waiting character) runs on that executor and holds only a weak reference. A lost
// connection or a failed request is logged; the next call tries to connect again.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "quorvix/Executor.h"
#include "remote-control/InputInjector.h"

namespace quorvix {

class XTestInjector final : public InputInjector {
 public:
  struct Options {
    // A spare keycode is given another keysym only this long after its last use.
    Duration spareReuseAfter = std::chrono::milliseconds(300);
    // And emptied after idling this long.
    Duration spareClearAfter = std::chrono::seconds(1);
    // At most this many spare keycodes are used, taken from the top of the keycode range.
    std::size_t maxSpareKeycodes = 16;
    // Events waiting for a spare keycode; more are dropped.
    std::size_t maxPendingEvents = 1024;
    // Finds physical keys by XKB key name even where evdev key codes would do.
    bool keysByName = false;
  };

  // `display` as for xcb_connect ("" for $DISPLAY); `queue` is the main queue.
  XTestInjector(std::string display, std::shared_ptr<Executor> queue);
  XTestInjector(std::string display, std::shared_ptr<Executor> queue, Options options);
  // Plays what still waits, releases what it holds, restores auto-repeat and empties the spare
  // keycodes it used.
  ~XTestInjector() override;
  XTestInjector(const XTestInjector&) = delete;
  XTestInjector& operator=(const XTestInjector&) = delete;

  bool isAvailable() override;
  void post(const InjectedMouseEvent& event) override;
  void post(const InjectedKeyEvent& event) override;
  QRVPoint pointerLocation() override;

  // Whether physical keys go by evdev key code (else by XKB key name).
  bool usesEvdevKeycodes();
  // The X keycode a web code name plays, if the server has one for it.
  std::optional<int> keycodeFor(const std::string& code);
  // Events waiting for a spare keycode to age.
  std::size_t pendingCount() const;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace quorvix

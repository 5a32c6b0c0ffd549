// What the remote control needs from the platform to play input: the events of its event table,
// posted as they are. The X11 backend plays them through XTEST; tests record them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "quorvix/QRVPoint.h"

namespace quorvix {

// Mouse event kinds, numbered as the wire and the event table have always numbered them.
enum class MouseEventType {
  leftDown = 1,
  leftUp = 2,
  rightDown = 3,
  rightUp = 4,
  moved = 5,
  leftDragged = 6,
  rightDragged = 7,
  otherDown = 25,
  otherUp = 26,
  otherDragged = 27,
};

// Buttons as the event table names them: left 0, right 1, centre 2.
enum class MouseButton { left = 0, right = 1, center = 2 };

// Modifier flags of a key event.
enum KeyFlags : std::uint32_t {
  kFlagShift = 0x20000,
  kFlagControl = 0x40000,
  kFlagAlternate = 0x80000,
  kFlagCommand = 0x100000,
};

struct InjectedMouseEvent {
  MouseEventType type;
  MouseButton button;
  // In root-window coordinates.
  QRVPoint location;
  // 2 for a double click, 3 for a triple; absent for a single click.
  std::optional<int> clickState;
};

struct InjectedKeyEvent {
  // The web code name and the key code the table gives it.
  std::string code;
  int keyCode;
  bool down;
  // Absent: the backend's own idea of the modifiers (the events of modifier keys themselves).
  std::optional<std::uint32_t> flags;
  // The character to type, whatever key the layout has it on; absent: the bare physical key.
  std::optional<std::string> character;
};

// Called on the main queue only.
class InputInjector {
 public:
  virtual ~InputInjector() = default;
  // Whether input can be played at all (on X11: the XTEST extension is there).
  virtual bool isAvailable() = 0;
  virtual void post(const InjectedMouseEvent& event) = 0;
  virtual void post(const InjectedKeyEvent& event) = 0;
  // Where the pointer is now, in root-window coordinates.
  virtual QRVPoint pointerLocation() = 0;
};

}  // namespace quorvix

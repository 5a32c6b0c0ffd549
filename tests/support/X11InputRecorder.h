// A test client on an X server: a window over the whole screen, with the input focus, that
// records the pointer and key events it receives. Keys are decoded as toolkits decode them: with
// xkbcommon, from the server's current keymap (re-read when the server says it changed) and the
// modifiers and group carried by each event. Used from the test's thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

struct xcb_connection_t;

namespace quorvix::test {

class X11InputRecorder {
 public:
  enum class Kind { buttonPress, buttonRelease, motion, keyPress, keyRelease };
  struct Event {
    Kind kind;
    // The button or keycode.
    int detail = 0;
    int x = 0, y = 0;
    // Modifier and button state at the event, as X reports it.
    std::uint16_t state = 0;
    std::uint32_t keysym = 0;
    // What a key press types, control characters included.
    std::string utf8;
  };

  explicit X11InputRecorder(const std::string& display);
  ~X11InputRecorder();
  X11InputRecorder(const X11InputRecorder&) = delete;
  X11InputRecorder& operator=(const X11InputRecorder&) = delete;

  bool ok() const;
  // Reads events until `done` holds or `limit` of real time has passed; returns done(). `done`
  // may also ask the server about state that sends no event.
  bool waitUntil(const std::function<bool()>& done,
                 std::chrono::milliseconds limit = std::chrono::seconds(10));
  // Waits until the text typed so far is at least as long as `expected`; the text then.
  std::string waitForText(const std::string& expected);

  const std::vector<Event>& events() const { return events_; }
  // The printable text of the key presses without Control or Alt, in order.
  std::string text() const;
  void clear() { events_.clear(); }
  xcb_connection_t* connection() const;

 private:
  void handle(void* event);
  void loadKeymap();

  struct Xkb;
  std::unique_ptr<Xkb> xkb_;
  xcb_connection_t* conn_ = nullptr;
  std::uint32_t window_ = 0;
  std::uint8_t xkbEventBase_ = 0;
  std::vector<Event> events_;
};

// Everything about the server's keyboard and pointer that a session must leave as it found.
struct X11InputSnapshot {
  std::vector<std::uint32_t> keysyms;
  int keysymsPerKeycode = 0;
  std::vector<std::uint8_t> keysDown;  // keycodes held
  std::uint16_t buttonMask = 0;        // Button1..5 held
  std::vector<std::uint8_t> autoRepeats;
  // Modifiers locked or latched through XKB (needs a connection that set XKB up).
  std::uint8_t lockedMods = 0, latchedMods = 0;
  friend bool operator==(const X11InputSnapshot&, const X11InputSnapshot&) = default;
};
X11InputSnapshot snapshotInput(xcb_connection_t* c);
void PrintTo(const X11InputSnapshot& s, std::ostream* os);

}  // namespace quorvix::test

// What the whole-display source needs of the display server: its main screen, reads of a
// rectangle of it, change notifications, the pointer and the cursor picture. One grabber is one
// connection, used by one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "frameloop/CursorOverlay.h"
#include "frameloop/QRVScreen.h"

namespace quorvix {

// A read's rows, rect.width × rect.height × 4 bytes at `data`, alive for as long as `owner` is
// held. Its holder may write them until it hands them on; whoever holds `owner` after that only
// reads.
struct GrabbedPixels {
  std::uint8_t* data = nullptr;
  std::shared_ptr<void> owner;

  bool empty() const { return data == nullptr; }
};

class DisplayGrabber {
 public:
  virtual ~DisplayGrabber() = default;

  // The main screen now; nullptr once the connection is lost.
  virtual std::shared_ptr<const QRVScreen> mainScreen() = 0;
  // Whether the server sends change notifications; without them every capture reads and compares.
  virtual bool notifiesChanges() const = 0;
  // Whether the rectangle may have changed since the previous call (true on the first call and
  // for a new rectangle, and always when the server sends no change notifications).
  virtual bool takeDamage(const QRVScreenRect& rect) = 0;
  // Reads the rectangle (inside the root window) as packed BGRX rows into memory of its own,
  // which the caller may draw on and hand on as a picture (see GrabbedPixels). Empty on failure,
  // which is logged.
  virtual GrabbedPixels read(const QRVScreenRect& rect) = 0;
  // The rectangles the last takeDamage() found changed, inside its rectangle; nullopt when it
  // could not tell which (a first or new rectangle, no change notifications, too many pieces).
  virtual std::optional<std::vector<QRVScreenRect>> lastDamage() const = 0;
  // Reads a part of the screen as packed BGRX rows, valid until the next read or part read: for
  // bringing a held picture up to date where it changed. Empty on failure, which is logged.
  virtual std::span<const std::uint8_t> readPart(const QRVScreenRect& part) = 0;
  virtual QRVPointerState pointer() = 0;
  // The cursor's picture for the serial in the last pointer(): the server's, else the last one it
  // gave, else the built-in arrow. Never nullptr.
  virtual std::shared_ptr<const QRVCursorImage> cursor() = 0;
  // Whether the connection broke; a lost grabber is dropped and a new one made later.
  virtual bool lost() const = 0;

  // A 1 × 1 read of the root window of the display ("" = $DISPLAY) on a connection of its own.
  static bool canReadX11Display(const std::string& displayName);
  // A grabber on a new connection to the display; nullptr when it cannot be reached.
  static std::unique_ptr<DisplayGrabber> createX11(const std::string& displayName);
};

}  // namespace quorvix

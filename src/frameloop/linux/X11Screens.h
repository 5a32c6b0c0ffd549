// Reading the main screen of an X display. Runs on the calling thread, on its connection.
#pragma once

#include <cstdint>
#include <memory>

#include "frameloop/CursorOverlay.h"
#include "frameloop/QRVScreen.h"
#include "frameloop/linux/XcbConnection.h"

namespace quorvix::x11 {

// The primary RandR monitor (RandR 1.5), else the first active one, else the whole root window;
// nullptr when the connection is lost.
std::shared_ptr<const QRVScreen> readMainScreen(const XcbConnection& c);

// Asks for RandR screen, CRTC and output change notifications and the root's structure
// notifications on this connection; false when RandR is absent. A selection replaces the
// connection's last one, so `rootEvents` carries whatever else the caller wants on the root.
bool selectScreenChanges(const XcbConnection& c, std::uint32_t rootEvents = 0);

// Whether an event read from a connection set up with selectScreenChanges() may mean a new layout.
bool isScreenChangeEvent(const XcbConnection& c, const xcb_generic_event_t& event);

// The cursor's picture, read from the server only when its serial moved on. When the server
// refuses (a cursor whose creator is gone can be off limits), the last picture, or a built-in
// arrow.
class CursorCache {
 public:
  // `serial` is the serial the caller last heard of; it becomes the served picture's serial.
  std::shared_ptr<const QRVCursorImage> image(const XcbConnection& c,
                                              bool hasXFixes,
                                              std::uint32_t& serial);

 private:
  std::shared_ptr<const QRVCursorImage> image_;
  std::uint32_t imageSerial_ = 0;
};

}  // namespace quorvix::x11

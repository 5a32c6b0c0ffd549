// Reading the main screen of an X display. Runs on the calling thread, on its connection.
#pragma once

#include <cstdint>
#include <memory>

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

}  // namespace quorvix::x11

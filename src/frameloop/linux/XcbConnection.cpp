#include "frameloop/linux/XcbConnection.h"

#include "utils/Logging.h"

namespace quorvix::x11 {
namespace {

const char* lossText(int code) {
  switch (code) {
    case 0:
      return "none";
    case XCB_CONN_ERROR:
      return "socket, pipe or stream error";
    case XCB_CONN_CLOSED_EXT_NOTSUPPORTED:
      return "extension not supported";
    case XCB_CONN_CLOSED_MEM_INSUFFICIENT:
      return "out of memory";
    case XCB_CONN_CLOSED_REQ_LEN_EXCEED:
      return "request too long";
    case XCB_CONN_CLOSED_PARSE_ERR:
      return "bad display name";
    case XCB_CONN_CLOSED_INVALID_SCREEN:
      return "no such screen";
    default:
      return "unknown";
  }
}

}  // namespace

std::unique_ptr<XcbConnection> XcbConnection::open(const std::string& displayName,
                                                   std::string_view category) {
  int screenNumber = 0;
  xcb_connection_t* c =
      xcb_connect(displayName.empty() ? nullptr : displayName.c_str(), &screenNumber);
  if (const int code = xcb_connection_has_error(c); code != 0) {
    QRV_LOGGER_FOR(category)->debug("cannot connect to X display \"{}\": {}", displayName,
                                    lossText(code));
    xcb_disconnect(c);
    return nullptr;
  }
  auto it = xcb_setup_roots_iterator(xcb_get_setup(c));
  for (int i = 0; i < screenNumber && it.rem > 0; ++i)
    xcb_screen_next(&it);
  if (it.rem == 0) {
    QRV_LOGGER_FOR(category)->debug("X display \"{}\" has no screen {}", displayName, screenNumber);
    xcb_disconnect(c);
    return nullptr;
  }
  return std::unique_ptr<XcbConnection>(new XcbConnection(c, it.data, std::string(category)));
}

XcbConnection::~XcbConnection() {
  xcb_disconnect(connection_);
}

bool XcbConnection::lost() const {
  return xcb_connection_has_error(connection_) != 0;
}

std::string XcbConnection::lossReason() const {
  return lossText(xcb_connection_has_error(connection_));
}

bool XcbConnection::check(xcb_void_cookie_t cookie, std::string_view what) const {
  return noError(xcb_request_check(connection_, cookie), what);
}

bool XcbConnection::noError(xcb_generic_error_t* error, std::string_view what) const {
  if (error == nullptr) {
    if (lost()) {
      QRV_LOGGER_FOR(category_)->debug("{} failed: X connection lost ({})", what, lossReason());
      return false;
    }
    return true;
  }
  QRV_LOGGER_FOR(category_)->debug("{} failed: X error {} (request {}.{}, resource {:#x})", what,
                                   error->error_code, error->major_code, error->minor_code,
                                   error->resource_id);
  std::free(error);
  return false;
}

bool XcbConnection::hasExtension(xcb_extension_t* extension) const {
  const xcb_query_extension_reply_t* data = xcb_get_extension_data(connection_, extension);
  return data != nullptr && data->present;
}

}  // namespace quorvix::x11

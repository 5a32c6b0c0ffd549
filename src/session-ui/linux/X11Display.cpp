#include "session-ui/linux/X11Display.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <cairo-xcb.h>

#include "utils/Logging.h"

namespace quorvix {
namespace {

std::shared_ptr<spdlog::logger> logger() {
  static const auto log = QRV_LOGGER_FOR("X11Display");
  return log;
}

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T>
Reply<T> reply(T* r) {
  return Reply<T>(r, &std::free);
}

}  // namespace

std::shared_ptr<X11Display> X11Display::open(const std::string& name,
                                             std::shared_ptr<Executor> mainQueue) {
  int screen = 0;
  xcb_connection_t* c = xcb_connect(name.empty() ? nullptr : name.c_str(), &screen);
  if (xcb_connection_has_error(c)) {
    logger()->warn("Could not connect to the X server {}", name.empty() ? "of $DISPLAY" : name);
    xcb_disconnect(c);
    return nullptr;
  }
  std::shared_ptr<X11Display> display(new X11Display(c, screen, std::move(mainQueue)));
  display->startReader();
  return display;
}

X11Display::X11Display(xcb_connection_t* connection,
                       int screenNumber,
                       std::shared_ptr<Executor> mainQueue)
    : connection_(connection), screenNumber_(screenNumber), mainQueue_(std::move(mainQueue)) {
  auto it = xcb_setup_roots_iterator(xcb_get_setup(connection_));
  for (int i = 0; i < screenNumber_ && it.rem; ++i)
    xcb_screen_next(&it);
  screen_ = it.data;
  for (auto depths = xcb_screen_allowed_depths_iterator(screen_); depths.rem;
       xcb_depth_next(&depths)) {
    if (depths.data->depth != 32)
      continue;
    for (auto v = xcb_depth_visuals_iterator(depths.data); v.rem; xcb_visualtype_next(&v)) {
      if (v.data->_class == XCB_VISUAL_CLASS_TRUE_COLOR) {
        argbVisual_ = v.data->visual_id;
        break;
      }
    }
  }
  wakeWindow_ = xcb_generate_id(connection_);
  xcb_create_window(connection_, XCB_COPY_FROM_PARENT, wakeWindow_, screen_->root, -1, -1, 1, 1, 0,
                    XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, 0, nullptr);
  xcb_flush(connection_);
}

X11Display::~X11Display() {
  if (cairoDevice_) {
    cairo_device_finish(cairoDevice_);
    cairo_device_destroy(cairoDevice_);
  }
  *stopping_ = true;
  if (reader_.joinable()) {
    if (isConnected()) {
      xcb_client_message_event_t wake{};
      wake.response_type = XCB_CLIENT_MESSAGE;
      wake.format = 32;
      wake.window = wakeWindow_;
      xcb_send_event(connection_, false, wakeWindow_, XCB_EVENT_MASK_NO_EVENT,
                     reinterpret_cast<const char*>(&wake));
      xcb_flush(connection_);
    }
    reader_.join();
  }
  xcb_disconnect(connection_);
}

void X11Display::startReader() {
  std::weak_ptr<X11Display> weak = weak_from_this();
  auto queue = mainQueue_;
  xcb_connection_t* c = connection_;
  // The connection outlives this thread: the display joins it before disconnecting.
  reader_ = std::thread([weak, queue, c, stopping = stopping_] {
    while (xcb_generic_event_t* raw = xcb_wait_for_event(c)) {
      auto event = reply(raw);
      if (*stopping)
        return;
      xcb_generic_event_t copy;
      std::memcpy(&copy, event.get(), sizeof copy);
      queue->post([weak, copy] {
        if (auto self = weak.lock())
          self->dispatch(copy);
      });
    }
    if (!*stopping)
      queue->post([weak] {
        if (auto self = weak.lock())
          self->connectionLost();
      });
  });
}

void X11Display::dispatch(const xcb_generic_event_t& event) {
  // A handler may add or remove handlers while being told.
  std::vector<int> ids;
  for (const auto& [id, handler] : handlers_)
    ids.push_back(id);
  for (int id : ids) {
    auto it = handlers_.find(id);
    if (it != handlers_.end()) {
      auto handler = it->second;
      handler(event);
    }
  }
}

void X11Display::connectionLost() {
  logger()->error("The X connection was lost; overlays and prompts are gone");
  auto handlers = std::move(lostHandlers_);
  lostHandlers_.clear();
  for (auto& [id, handler] : handlers)
    handler();
}

int X11Display::addEventHandler(EventHandler handler) {
  assert(mainQueue_->isCurrent());
  handlers_.emplace(nextHandler_, std::move(handler));
  return nextHandler_++;
}

void X11Display::removeEventHandler(int id) {
  handlers_.erase(id);
  lostHandlers_.erase(id);
}

int X11Display::addConnectionLostHandler(std::function<void()> handler) {
  assert(mainQueue_->isCurrent());
  lostHandlers_.emplace(nextHandler_, std::move(handler));
  return nextHandler_++;
}

cairo_surface_t* X11Display::createCairoSurface(xcb_drawable_t drawable,
                                                xcb_visualid_t visual,
                                                int width,
                                                int height) {
  auto* type = const_cast<xcb_visualtype_t*>(visualType(visual));
  if (!type)
    return nullptr;
  cairo_surface_t* surface = cairo_xcb_surface_create(connection_, drawable, type, width, height);
  if (!cairoDevice_ && cairo_surface_status(surface) == CAIRO_STATUS_SUCCESS) {
    if (cairo_device_t* device = cairo_surface_get_device(surface))
      cairoDevice_ = cairo_device_reference(device);
  }
  return surface;
}

xcb_atom_t X11Display::atom(const char* name) {
  if (auto it = atoms_.find(name); it != atoms_.end())
    return it->second;
  auto r = reply(xcb_intern_atom_reply(
      connection_,
      xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(std::strlen(name)), name),
      nullptr));
  const xcb_atom_t atom = r ? r->atom : xcb_atom_t{XCB_ATOM_NONE};
  if (atom != XCB_ATOM_NONE)
    atoms_.emplace(name, atom);
  return atom;
}

bool X11Display::isComposited() {
  const std::string name = "_NET_WM_CM_S" + std::to_string(screenNumber_);
  auto r = reply(xcb_get_selection_owner_reply(
      connection_, xcb_get_selection_owner(connection_, atom(name.c_str())), nullptr));
  return r && r->owner != XCB_NONE && argbVisual_ != 0;
}

bool X11Display::hasWindowManager() {
  const std::string name = "WM_S" + std::to_string(screenNumber_);
  auto r = reply(xcb_get_selection_owner_reply(
      connection_, xcb_get_selection_owner(connection_, atom(name.c_str())), nullptr));
  return r && r->owner != XCB_NONE;
}

const xcb_visualtype_t* X11Display::visualType(xcb_visualid_t visual) const {
  for (auto depths = xcb_screen_allowed_depths_iterator(screen_); depths.rem;
       xcb_depth_next(&depths)) {
    for (auto v = xcb_depth_visuals_iterator(depths.data); v.rem; xcb_visualtype_next(&v)) {
      if (v.data->visual_id == visual)
        return v.data;
    }
  }
  return nullptr;
}

void X11Display::setOwnWindow(xcb_window_t window, bool own) {
  if (own)
    ownWindows_.insert(window);
  else
    ownWindows_.erase(window);
}

bool X11Display::failed(xcb_void_cookie_t cookie, const char* what) {
  auto error = reply(xcb_request_check(connection_, cookie));
  if (!error)
    return false;
  logger()->warn("X request failed: {} (error {}, resource {:#x})", what, error->error_code,
                 error->resource_id);
  return true;
}

}  // namespace quorvix

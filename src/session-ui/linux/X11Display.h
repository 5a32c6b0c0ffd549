// The main queue's X connection for what the library shows: overlays, the border and prompts.
// Requests are made on the main queue; a reader thread waits for events and hands each to the
// handlers on the main queue. A lost connection is logged once and leaves every window call a
// no-op; nothing here ends the process.
//
// Threads: everything on the main queue, except the reader thread's own loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include <cairo.h>
#include <xcb/xcb.h>

#include "quorvix/Executor.h"

namespace quorvix {

class X11Display : public std::enable_shared_from_this<X11Display> {
 public:
  using EventHandler = std::function<void(const xcb_generic_event_t& event)>;

  // Connects to `name` (empty: $DISPLAY). Nothing when no server answers.
  static std::shared_ptr<X11Display> open(const std::string& name,
                                          std::shared_ptr<Executor> mainQueue);
  ~X11Display();
  X11Display(const X11Display&) = delete;
  X11Display& operator=(const X11Display&) = delete;

  xcb_connection_t* connection() const { return connection_; }
  const xcb_screen_t& screen() const { return *screen_; }
  xcb_window_t root() const { return screen_->root; }
  bool isConnected() const { return !xcb_connection_has_error(connection_); }
  const std::shared_ptr<Executor>& mainQueue() const { return mainQueue_; }

  xcb_atom_t atom(const char* name);
  // A compositing manager owns _NET_WM_CM_S<screen>: 32-bit windows blend with what lies below.
  bool isComposited();
  // A window manager owns WM_S<screen>: it places, stacks and focuses managed windows.
  bool hasWindowManager();
  // A 32-bit TrueColor visual of the screen, or 0.
  xcb_visualid_t argbVisual() const { return argbVisual_; }
  const xcb_visualtype_t* visualType(xcb_visualid_t visual) const;

  // Handlers run on the main queue, in the order events arrive, until removed.
  int addEventHandler(EventHandler handler);
  void removeEventHandler(int id);
  // Runs once on the main queue when the connection is lost (not when the display closes).
  int addConnectionLostHandler(std::function<void()> handler);

  // A cairo surface on `drawable`; the caller destroys it. All share the connection's cairo
  // device, which the display finishes before it disconnects: cairo finds devices by connection
  // address, so a later connection at the same address would otherwise inherit a dead one.
  cairo_surface_t* createCairoSurface(xcb_drawable_t drawable,
                                      xcb_visualid_t visual,
                                      int width,
                                      int height);

  // The library's own windows on this connection (overlays, the border, prompts), which keep
  // themselves above others without answering one another.
  void setOwnWindow(xcb_window_t window, bool own);
  bool isOwnWindow(xcb_window_t window) const { return ownWindows_.count(window) != 0; }

  // Logs the error of a checked request; true when there was one.
  bool failed(xcb_void_cookie_t cookie, const char* what);
  void flush() { xcb_flush(connection_); }

 private:
  X11Display(xcb_connection_t* connection, int screenNumber, std::shared_ptr<Executor> mainQueue);
  void startReader();
  void dispatch(const xcb_generic_event_t& event);
  void connectionLost();

  xcb_connection_t* const connection_;
  const int screenNumber_;
  xcb_screen_t* screen_ = nullptr;
  xcb_visualid_t argbVisual_ = 0;
  const std::shared_ptr<Executor> mainQueue_;
  std::map<std::string, xcb_atom_t> atoms_;
  std::map<int, EventHandler> handlers_;
  std::set<xcb_window_t> ownWindows_;
  std::map<int, std::function<void()>> lostHandlers_;
  int nextHandler_ = 1;
  // Woken at shutdown by an event sent to this window of our own.
  xcb_window_t wakeWindow_ = XCB_NONE;
  cairo_device_t* cairoDevice_ = nullptr;
  const std::shared_ptr<std::atomic<bool>> stopping_ = std::make_shared<std::atomic<bool>>(false);
  std::thread reader_;
};

}  // namespace quorvix

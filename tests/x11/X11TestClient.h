// A plain XCB client for the x11 tests: windows with known pictures, drawing, pointer moves and
// button presses through XTEST. Windows are override-redirect, so that a window manager neither
// moves nor frames them, and keep button events from reaching the root (where a window manager
// would open its menu). Every call waits until the server has done it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <xcb/composite.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

namespace quorvix::test {

class X11TestClient {
 public:
  // 0x00RRGGBB for each pixel of a window, by window-local coordinates.
  using Pattern = std::function<std::uint32_t(int x, int y)>;

  explicit X11TestClient(const std::string& display) : c_(xcb_connect(display.c_str(), nullptr)) {}
  ~X11TestClient() { xcb_disconnect(c_); }
  X11TestClient(const X11TestClient&) = delete;
  X11TestClient& operator=(const X11TestClient&) = delete;

  bool ok() const { return xcb_connection_has_error(c_) == 0; }
  xcb_connection_t* get() const { return c_; }
  xcb_window_t root() const { return screen()->root; }

  // A mapped window showing the pattern (kept as its background, so it repaints itself).
  // `managed` windows are left to the window manager (framed, maybe moved) like an
  // application's main window; the others are placed as they are, like menus.
  xcb_window_t createWindow(int x,
                            int y,
                            int width,
                            int height,
                            const Pattern& pattern,
                            bool managed = false,
                            std::uint32_t claimedPid = 0) {
    const xcb_screen_t* s = screen();
    const xcb_pixmap_t pixmap = xcb_generate_id(c_);
    xcb_create_pixmap(c_, s->root_depth, pixmap, s->root, std::uint16_t(width),
                      std::uint16_t(height));
    const xcb_gcontext_t gc = xcb_generate_id(c_);
    xcb_create_gc(c_, gc, pixmap, 0, nullptr);
    // In strips, to stay under the request size limit.
    constexpr int kStrip = 16;
    for (int top = 0; top < height; top += kStrip) {
      const int rows = std::min(kStrip, height - top);
      std::vector<std::uint32_t> pixels(std::size_t(width) * rows);
      for (int row = 0; row < rows; ++row)
        for (int col = 0; col < width; ++col)
          pixels[std::size_t(row) * width + col] = pattern(col, top + row);
      xcb_put_image(c_, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, gc, std::uint16_t(width),
                    std::uint16_t(rows), 0, std::int16_t(top), 0, s->root_depth,
                    std::uint32_t(pixels.size() * 4),
                    reinterpret_cast<const std::uint8_t*>(pixels.data()));
    }
    xcb_free_gc(c_, gc);
    const xcb_window_t window = xcb_generate_id(c_);
    const std::uint32_t values[] = {pixmap, managed ? 0u : 1u,
                                    XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE};
    xcb_create_window(
        c_, s->root_depth, window, s->root, std::int16_t(x), std::int16_t(y), std::uint16_t(width),
        std::uint16_t(height), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, s->root_visual,
        XCB_CW_BACK_PIXMAP | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_DONT_PROPAGATE, values);
    xcb_free_pixmap(c_, pixmap);
    if (claimedPid != 0) {
      static constexpr char kName[] = "_NET_WM_PID";
      std::unique_ptr<xcb_intern_atom_reply_t, decltype(&free)> atom(
          xcb_intern_atom_reply(c_, xcb_intern_atom(c_, 0, sizeof kName - 1, kName), nullptr),
          &free);
      if (atom)
        xcb_change_property(c_, XCB_PROP_MODE_REPLACE, window, atom->atom, XCB_ATOM_CARDINAL, 32, 1,
                            &claimedPid);
    }
    xcb_map_window(c_, window);
    sync();
    return window;
  }

  // Waits (bounded) until the window shows on screen: a window manager maps managed windows
  // only after framing them.
  bool waitViewable(xcb_window_t window) {
    for (int i = 0; i < 500; ++i) {
      std::unique_ptr<xcb_get_window_attributes_reply_t, decltype(&free)> reply(
          xcb_get_window_attributes_reply(c_, xcb_get_window_attributes(c_, window), nullptr),
          &free);
      if (reply && reply->map_state == XCB_MAP_STATE_VIEWABLE)
        return true;
      usleep(10'000);
    }
    return false;
  }

  // Where the window's top left is on the root, wherever a window manager put it.
  std::pair<int, int> rootPosition(xcb_window_t window) {
    std::unique_ptr<xcb_translate_coordinates_reply_t, decltype(&free)> reply(
        xcb_translate_coordinates_reply(c_, xcb_translate_coordinates(c_, window, root(), 0, 0),
                                        nullptr),
        &free);
    return reply ? std::pair<int, int>{reply->dst_x, reply->dst_y} : std::pair<int, int>{-1, -1};
  }

  void fill(xcb_drawable_t window, std::uint32_t rgb, int x, int y, int width, int height) {
    const xcb_gcontext_t gc = xcb_generate_id(c_);
    xcb_create_gc(c_, gc, window, XCB_GC_FOREGROUND, &rgb);
    const xcb_rectangle_t rect{std::int16_t(x), std::int16_t(y), std::uint16_t(width),
                               std::uint16_t(height)};
    xcb_poly_fill_rectangle(c_, window, gc, 1, &rect);
    xcb_free_gc(c_, gc);
    sync();
  }

  // Takes the root's windows off the screen, as a compositing manager does; nothing paints them
  // back while this client lives. False when another client did so first.
  bool redirectManually() {
    xcb_generic_error_t* error = xcb_request_check(
        c_, xcb_composite_redirect_subwindows_checked(c_, root(), XCB_COMPOSITE_REDIRECT_MANUAL));
    std::free(error);
    return error == nullptr;
  }

  // A pixmap of the root's size in one colour, published as the desktop background; draw on it
  // with fill().
  xcb_pixmap_t publishBackground(std::uint32_t rgb) {
    const xcb_screen_t* s = screen();
    const xcb_pixmap_t pixmap = xcb_generate_id(c_);
    xcb_create_pixmap(c_, s->root_depth, pixmap, s->root, s->width_in_pixels, s->height_in_pixels);
    fill(pixmap, rgb, 0, 0, s->width_in_pixels, s->height_in_pixels);
    static constexpr char kName[] = "_XROOTPMAP_ID";
    std::unique_ptr<xcb_intern_atom_reply_t, decltype(&free)> atom(
        xcb_intern_atom_reply(c_, xcb_intern_atom(c_, 0, sizeof kName - 1, kName), nullptr), &free);
    if (atom)
      xcb_change_property(c_, XCB_PROP_MODE_REPLACE, s->root, atom->atom, XCB_ATOM_PIXMAP, 32, 1,
                          &pixmap);
    sync();
    return pixmap;
  }

  void destroy(xcb_window_t window) {
    xcb_destroy_window(c_, window);
    sync();
  }

  void movePointer(int x, int y) {
    xcb_test_fake_input(c_, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, root(), std::int16_t(x),
                        std::int16_t(y), 0);
    sync();
  }

  void button(int number, bool down) {
    xcb_test_fake_input(c_, down ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, std::uint8_t(number),
                        XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    sync();
  }

  // A round trip: everything sent before has been done.
  void sync() { std::free(xcb_get_input_focus_reply(c_, xcb_get_input_focus(c_), nullptr)); }

 private:
  const xcb_screen_t* screen() const { return xcb_setup_roots_iterator(xcb_get_setup(c_)).data; }

  xcb_connection_t* const c_;
};

}  // namespace quorvix::test

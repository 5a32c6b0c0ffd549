#include "Timecode.h"

#include <chrono>
#include <cstdlib>
#include <memory>
#include <vector>

#include <xcb/xcb.h>

namespace quorvix::bench {

Timecode::Timecode(const std::string& display) : display_(display) {
  thread_ = std::thread([this] { run(); });
}

Timecode::~Timecode() {
  stop_ = true;
  if (thread_.joinable())
    thread_.join();
}

void Timecode::run() {
  int screenNumber = 0;
  xcb_connection_t* c = xcb_connect(display_.empty() ? nullptr : display_.c_str(), &screenNumber);
  std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)> owner(c, &xcb_disconnect);
  if (xcb_connection_has_error(c))
    return;
  auto it = xcb_setup_roots_iterator(xcb_get_setup(c));
  for (int i = 0; i < screenNumber; ++i)
    xcb_screen_next(&it);
  const xcb_screen_t* screen = it.data;
  constexpr int kWidth = kBits * kBlock;
  constexpr int kHeight = 2 * kBlock;

  const xcb_window_t window = xcb_generate_id(c);
  const std::uint32_t attributes[] = {screen->black_pixel, 1};
  xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, kWidth, kHeight, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                    XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, attributes);
  const xcb_pixmap_t pixmap = xcb_generate_id(c);
  xcb_create_pixmap(c, screen->root_depth, pixmap, window, kWidth, kHeight);
  const xcb_gcontext_t black = xcb_generate_id(c);
  const xcb_gcontext_t white = xcb_generate_id(c);
  const std::uint32_t blackValues[] = {screen->black_pixel, 0};
  const std::uint32_t whiteValues[] = {screen->white_pixel, 0};
  xcb_create_gc(c, black, pixmap, XCB_GC_FOREGROUND | XCB_GC_GRAPHICS_EXPOSURES, blackValues);
  xcb_create_gc(c, white, pixmap, XCB_GC_FOREGROUND | XCB_GC_GRAPHICS_EXPOSURES, whiteValues);
  xcb_map_window(c, window);

  std::vector<xcb_rectangle_t> ones;
  while (!stop_) {
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    const std::uint32_t value = std::uint32_t(now) & ((1u << kBits) - 1);
    ones.clear();
    for (int bit = 0; bit < kBits; ++bit) {
      const bool set = (value >> (kBits - 1 - bit)) & 1;
      ones.push_back({std::int16_t(bit * kBlock), std::int16_t(set ? 0 : kBlock), kBlock, kBlock});
    }
    const xcb_rectangle_t all{0, 0, kWidth, kHeight};
    xcb_poly_fill_rectangle(c, pixmap, black, 1, &all);
    xcb_poly_fill_rectangle(c, pixmap, white, std::uint32_t(ones.size()), ones.data());
    // One request puts the whole value on screen; staying on top of the scene's windows.
    xcb_copy_area(c, pixmap, window, black, 0, 0, 0, 0, kWidth, kHeight);
    const std::uint32_t above[] = {XCB_STACK_MODE_ABOVE};
    xcb_configure_window(c, window, XCB_CONFIG_WINDOW_STACK_MODE, above);
    xcb_flush(c);
    if (xcb_connection_has_error(c))
      return;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace quorvix::bench

// Watches what the X server holds down: polls the core keyboard's key map and the pointer's
// button mask, and prints a line whenever either changes, so that the soak run sees a key or
// button the agent left held and its release.
//
//   quorvix-soak-input-watch :N
//
// Lines: "held none", or "held keys=CODE,CODE buttons=MASK" (MASK as in the core protocol:
// 0x100 is button 1). Runs until the X connection breaks or it is stopped by its PID. Single
// threaded.
#include <xcb/xcb.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

constexpr useconds_t kPollInterval = 20'000;
constexpr std::uint16_t kButtonMask = XCB_BUTTON_MASK_1 | XCB_BUTTON_MASK_2 | XCB_BUTTON_MASK_3 |
                                      XCB_BUTTON_MASK_4 | XCB_BUTTON_MASK_5;

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DISPLAY\n", argv[0]);
    return 2;
  }
  int screenNumber = 0;
  xcb_connection_t* connection = xcb_connect(argv[1], &screenNumber);
  if (xcb_connection_has_error(connection)) {
    std::fprintf(stderr, "cannot open display %s\n", argv[1]);
    return 1;
  }
  auto it = xcb_setup_roots_iterator(xcb_get_setup(connection));
  for (int i = 0; i < screenNumber; ++i)
    xcb_screen_next(&it);
  const xcb_window_t root = it.data->root;

  std::string last;
  for (;;) {
    Reply<xcb_query_keymap_reply_t> keys(
        xcb_query_keymap_reply(connection, xcb_query_keymap(connection), nullptr), &std::free);
    Reply<xcb_query_pointer_reply_t> pointer(
        xcb_query_pointer_reply(connection, xcb_query_pointer(connection, root), nullptr),
        &std::free);
    if (!keys || !pointer)
      return 1;
    std::string held;
    for (int code = 8; code < 256; ++code) {
      if (keys->keys[code / 8] & (1u << (code % 8)))
        held += (held.empty() ? "" : ",") + std::to_string(code);
    }
    const unsigned buttons = pointer->mask & kButtonMask;
    char line[1100];
    if (held.empty() && buttons == 0)
      std::snprintf(line, sizeof line, "held none");
    else
      std::snprintf(line, sizeof line, "held keys=%s buttons=0x%x", held.c_str(), buttons);
    if (line != last) {
      last = line;
      std::printf("%s\n", line);
      std::fflush(stdout);
    }
    usleep(kPollInterval);
  }
}

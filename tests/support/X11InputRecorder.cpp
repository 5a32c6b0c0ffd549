#include "X11InputRecorder.h"

#include <poll.h>
#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <cstdlib>

#include "remote-control/linux/XcbXkb.h"

namespace quorvix::test {
namespace {

template <typename T>
struct FreeDeleter {
  void operator()(T* p) const { std::free(p); }
};
template <typename T>
using Reply = std::unique_ptr<T, FreeDeleter<T>>;

}  // namespace

struct X11InputRecorder::Xkb {
  ~Xkb() {
    xkb_state_unref(state);
    xkb_keymap_unref(keymap);
    xkb_context_unref(context);
  }
  xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
  xkb_keymap* keymap = nullptr;
  xkb_state* state = nullptr;
  std::int32_t device = -1;
};

X11InputRecorder::X11InputRecorder(const std::string& display) : xkb_(std::make_unique<Xkb>()) {
  int screenNumber = 0;
  conn_ = xcb_connect(display.c_str(), &screenNumber);
  if (xcb_connection_has_error(conn_))
    return;
  xkb_x11_setup_xkb_extension(conn_, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
                              XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr,
                              &xkbEventBase_, nullptr);
  xkb_->device = xkb_x11_get_core_keyboard_device_id(conn_);
  const std::uint16_t events =
      XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY;
  xcb_xkb_select_events(conn_, XCB_XKB_ID_USE_CORE_KBD, events, 0, events, 0xff, 0xff, nullptr);
  loadKeymap();

  auto screens = xcb_setup_roots_iterator(xcb_get_setup(conn_));
  for (int i = 0; i < screenNumber && screens.rem; ++i)
    xcb_screen_next(&screens);
  const xcb_screen_t* screen = screens.data;
  window_ = xcb_generate_id(conn_);
  const std::uint32_t values[] = {
      screen->black_pixel, XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE |
                               XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE |
                               XCB_EVENT_MASK_POINTER_MOTION | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
  xcb_create_window(conn_, XCB_COPY_FROM_PARENT, window_, screen->root, 0, 0,
                    screen->width_in_pixels, screen->height_in_pixels, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                    XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, values);
  xcb_map_window(conn_, window_);
  xcb_flush(conn_);
  bool mapped = false;
  while (!mapped) {
    Reply<xcb_generic_event_t> e(xcb_wait_for_event(conn_));
    if (!e)
      return;
    mapped = (e->response_type & 0x7f) == XCB_MAP_NOTIFY;
  }
  xcb_set_input_focus(conn_, XCB_INPUT_FOCUS_POINTER_ROOT, window_, XCB_CURRENT_TIME);
  Reply<xcb_get_input_focus_reply_t>(
      xcb_get_input_focus_reply(conn_, xcb_get_input_focus(conn_), nullptr));
}

X11InputRecorder::~X11InputRecorder() {
  if (conn_)
    xcb_disconnect(conn_);
}

bool X11InputRecorder::ok() const {
  return conn_ && !xcb_connection_has_error(conn_) && xkb_->keymap && window_;
}

xcb_connection_t* X11InputRecorder::connection() const {
  return conn_;
}

void X11InputRecorder::loadKeymap() {
  xkb_keymap* keymap = xkb_x11_keymap_new_from_device(xkb_->context, conn_, xkb_->device,
                                                      XKB_KEYMAP_COMPILE_NO_FLAGS);
  if (!keymap)
    return;
  xkb_state_unref(xkb_->state);
  xkb_keymap_unref(xkb_->keymap);
  xkb_->keymap = keymap;
  xkb_->state = xkb_state_new(keymap);
}

bool X11InputRecorder::waitUntil(const std::function<bool()>& done,
                                 std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    while (xcb_generic_event_t* e = xcb_poll_for_event(conn_)) {
      handle(e);
      std::free(e);
    }
    if (done())
      return true;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || xcb_connection_has_error(conn_))
      return done();
    pollfd fd{xcb_get_file_descriptor(conn_), POLLIN, 0};
    // Short slices, so that conditions on server state that sends this client no event are
    // seen too.
    ::poll(&fd, 1, int(std::min<std::chrono::milliseconds::rep>(left.count(), 10)));
  }
  return true;
}

std::string X11InputRecorder::waitForText(const std::string& expected) {
  waitUntil([&] { return text().size() >= expected.size(); });
  return text();
}

void X11InputRecorder::handle(void* raw) {
  auto* e = static_cast<xcb_generic_event_t*>(raw);
  const std::uint8_t type = e->response_type & 0x7f;
  if (type == xkbEventBase_ || type == XCB_MAPPING_NOTIFY) {
    // As toolkits do: the whole keymap again, as the server has it now.
    loadKeymap();
    return;
  }
  switch (type) {
    case XCB_BUTTON_PRESS:
    case XCB_BUTTON_RELEASE: {
      auto* b = reinterpret_cast<xcb_button_press_event_t*>(e);
      events_.push_back({type == XCB_BUTTON_PRESS ? Kind::buttonPress : Kind::buttonRelease,
                         b->detail, b->root_x, b->root_y, b->state});
      break;
    }
    case XCB_MOTION_NOTIFY: {
      auto* m = reinterpret_cast<xcb_motion_notify_event_t*>(e);
      events_.push_back({Kind::motion, 0, m->root_x, m->root_y, m->state});
      break;
    }
    case XCB_KEY_PRESS:
    case XCB_KEY_RELEASE: {
      auto* k = reinterpret_cast<xcb_key_press_event_t*>(e);
      Event out{type == XCB_KEY_PRESS ? Kind::keyPress : Kind::keyRelease, k->detail, k->root_x,
                k->root_y, k->state};
      xkb_state_update_mask(xkb_->state, k->state & 0xff, 0, 0, 0, 0, (k->state >> 13) & 0x3);
      out.keysym = xkb_state_key_get_one_sym(xkb_->state, k->detail);
      if (type == XCB_KEY_PRESS) {
        char buffer[64] = {};
        xkb_state_key_get_utf8(xkb_->state, k->detail, buffer, sizeof buffer);
        out.utf8 = buffer;
      }
      events_.push_back(std::move(out));
      break;
    }
    default:
      break;
  }
}

std::string X11InputRecorder::text() const {
  std::string out;
  for (const auto& e : events_) {
    if (e.kind != Kind::keyPress || (e.state & (XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1)))
      continue;
    if (!e.utf8.empty() && static_cast<unsigned char>(e.utf8[0]) >= 0x20)
      out += e.utf8;
  }
  return out;
}

X11InputSnapshot snapshotInput(xcb_connection_t* c) {
  X11InputSnapshot s;
  const xcb_setup_t* setup = xcb_get_setup(c);
  const int count = setup->max_keycode - setup->min_keycode + 1;
  Reply<xcb_get_keyboard_mapping_reply_t> mapping(xcb_get_keyboard_mapping_reply(
      c, xcb_get_keyboard_mapping(c, setup->min_keycode, std::uint8_t(count)), nullptr));
  if (mapping) {
    const xcb_keysym_t* syms = xcb_get_keyboard_mapping_keysyms(mapping.get());
    s.keysyms.assign(syms, syms + xcb_get_keyboard_mapping_keysyms_length(mapping.get()));
    s.keysymsPerKeycode = mapping->keysyms_per_keycode;
  }
  Reply<xcb_query_keymap_reply_t> keys(xcb_query_keymap_reply(c, xcb_query_keymap(c), nullptr));
  if (keys)
    for (int kc = 0; kc < 256; ++kc)
      if (keys->keys[kc / 8] & (1 << (kc % 8)))
        s.keysDown.push_back(std::uint8_t(kc));
  const xcb_window_t root = xcb_setup_roots_iterator(setup).data->root;
  Reply<xcb_query_pointer_reply_t> pointer(
      xcb_query_pointer_reply(c, xcb_query_pointer(c, root), nullptr));
  if (pointer)
    s.buttonMask = pointer->mask & (XCB_BUTTON_MASK_1 | XCB_BUTTON_MASK_2 | XCB_BUTTON_MASK_3 |
                                    XCB_BUTTON_MASK_4 | XCB_BUTTON_MASK_5);
  Reply<xcb_get_keyboard_control_reply_t> control(
      xcb_get_keyboard_control_reply(c, xcb_get_keyboard_control(c), nullptr));
  if (control)
    s.autoRepeats.assign(std::begin(control->auto_repeats), std::end(control->auto_repeats));
  Reply<xcb_xkb_get_state_reply_t> state(
      xcb_xkb_get_state_reply(c, xcb_xkb_get_state(c, XCB_XKB_ID_USE_CORE_KBD), nullptr));
  if (state) {
    s.lockedMods = state->lockedMods;
    s.latchedMods = state->latchedMods;
  }
  return s;
}

void PrintTo(const X11InputSnapshot& s, std::ostream* os) {
  std::size_t mapped = 0;
  for (auto sym : s.keysyms)
    mapped += sym != 0;
  *os << "{" << mapped << " keysyms in " << s.keysymsPerKeycode << " columns, keys down:";
  for (auto kc : s.keysDown)
    *os << " " << int(kc);
  *os << ", buttons 0x" << std::hex << s.buttonMask << std::dec << ", repeating:";
  for (std::size_t kc = 0; kc < s.autoRepeats.size() * 8; ++kc)
    if (!(s.autoRepeats[kc / 8] & (1 << (kc % 8))))
      *os << " !" << kc;
  *os << ", locked 0x" << std::hex << int(s.lockedMods) << ", latched 0x" << int(s.latchedMods)
      << std::dec << "}";
}

}  // namespace quorvix::test

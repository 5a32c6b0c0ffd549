#include "remote-control/linux/XTestInjector.h"

#include <xcb/xcb.h>
#include <xcb/xtest.h>
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <limits>
#include <map>
#include <set>
#include <utility>
#include <variant>
#include <vector>

#include "remote-control/linux/Keysyms.h"
#include "remote-control/linux/XTestKeyTable.h"
#include "remote-control/linux/XcbXkb.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

auto logger() {
  static auto l = QRV_LOGGER_FOR("XTestInjector");
  return l;
}

template <typename T>
struct FreeDeleter {
  void operator()(T* p) const { std::free(p); }
};
template <typename T>
using Reply = std::unique_ptr<T, FreeDeleter<T>>;

struct ConnectionDeleter {
  void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
};
struct KeymapDeleter {
  void operator()(xkb_keymap* k) const { xkb_keymap_unref(k); }
};
struct StateDeleter {
  void operator()(xkb_state* s) const { xkb_state_unref(s); }
};
struct ContextDeleter {
  void operator()(xkb_context* c) const { xkb_context_unref(c); }
};

// Real modifier bits as X numbers them.
constexpr std::uint32_t kControlMask = XCB_MOD_MASK_CONTROL;
// Characters come in strings of one; a longer one is cut here.
constexpr std::size_t kMaxCharactersPerEvent = 64;
constexpr Duration kReconnectInterval = std::chrono::seconds(1);

std::int16_t toCoordinate(double v) {
  if (!std::isfinite(v))
    return 0;
  return static_cast<std::int16_t>(std::clamp(std::lround(v),
                                              long{std::numeric_limits<std::int16_t>::min()},
                                              long{std::numeric_limits<std::int16_t>::max()}));
}

// The logical button (1 left, 2 middle, 3 right) a press or release is about; 0 for motion.
int logicalButton(MouseEventType type) {
  switch (type) {
    case MouseEventType::leftDown:
    case MouseEventType::leftUp:
      return 1;
    case MouseEventType::otherDown:
    case MouseEventType::otherUp:
      return 2;
    case MouseEventType::rightDown:
    case MouseEventType::rightUp:
      return 3;
    default:
      return 0;
  }
}

bool isPress(MouseEventType type) {
  return type == MouseEventType::leftDown || type == MouseEventType::rightDown ||
         type == MouseEventType::otherDown;
}

}  // namespace

class XTestInjector::Impl : public std::enable_shared_from_this<Impl> {
 public:
  Impl(std::string display, std::shared_ptr<Executor> queue, Options options)
      : display_(std::move(display)), queue_(std::move(queue)), options_(options) {}

  ~Impl() { shutdown(); }

  bool isAvailable() {
    assertOnQueue();
    return ensureConnected() && xtest_;
  }

  void post(std::variant<InjectedMouseEvent, InjectedKeyEvent> event) {
    assertOnQueue();
    if (pending_.size() >= options_.maxPendingEvents) {
      logger()->warn("Dropping input: {} events already wait for a spare keycode", pending_.size());
      return;
    }
    pending_.push_back(std::move(event));
    drainPending(false);
  }

  QRVPoint pointerLocation() {
    assertOnQueue();
    if (!ensureConnected())
      return lastMotion_ ? QRVPoint{double(lastMotion_->first), double(lastMotion_->second)}
                         : QRVPoint{};
    Reply<xcb_query_pointer_reply_t> reply(
        xcb_query_pointer_reply(conn(), xcb_query_pointer(conn(), root_), nullptr));
    if (!reply)
      return {};
    return {double(reply->root_x), double(reply->root_y)};
  }

  bool usesEvdevKeycodes() {
    ensureConnected();
    return evdevKeycodes_ && !options_.keysByName;
  }

  std::optional<int> keycodeFor(const std::string& code) {
    if (!ensureConnected())
      return std::nullopt;
    refreshKeymap();
    return resolveKeycode(code);
  }

  std::size_t pendingCount() const { return pending_.size(); }

  void shutdown() {
    if (shutDown_)
      return;
    shutDown_ = true;
    resumeTask_.cancel();
    clearTask_.cancel();
    if (!conn_ || xcb_connection_has_error(conn()))
      return;
    // Ending: order matters more than freshness, so waiting characters take the oldest spare.
    drainPending(true);
    for (auto it = heldKeys_.begin(); it != heldKeys_.end(); it = heldKeys_.erase(it))
      fakeKey(XCB_KEY_RELEASE, it->second);
    for (int physical : heldButtons_)
      xcb_test_fake_input(conn(), XCB_BUTTON_RELEASE, std::uint8_t(physical), XCB_CURRENT_TIME,
                          XCB_NONE, 0, 0, 0);
    heldButtons_.clear();
    for (std::uint8_t keycode : std::set(repeatOff_))
      restoreRepeat(keycode);
    for (auto& spare : spares_)
      if (spare.keysym != XKB_KEY_NoSymbol)
        mapSpare(spare, XKB_KEY_NoSymbol);
    // The server has played and restored everything before the connection goes.
    Reply<xcb_get_input_focus_reply_t>(
        xcb_get_input_focus_reply(conn(), xcb_get_input_focus(conn()), nullptr));
    conn_.reset();
  }

 private:
  struct Spare {
    std::uint8_t keycode;
    std::uint32_t keysym = XKB_KEY_NoSymbol;
    SteadyTime lastUse{};
  };
  struct Candidate {
    std::uint8_t keycode = 0;
    std::uint32_t add = 0, removeLocked = 0, removeBase = 0;
    int cost = std::numeric_limits<int>::max();
  };

  xcb_connection_t* conn() const { return conn_.get(); }
  SteadyTime now() const { return queue_->clock().now(); }

  void assertOnQueue() const {
    assert(queue_->isCurrent() && "XTestInjector used off the main queue");
  }

  bool ensureConnected() {
    if (conn_ && !xcb_connection_has_error(conn()))
      return true;
    if (shutDown_)
      return false;
    if (conn_) {
      logger()->error("Lost the X connection for input; will connect again");
      reset();
    }
    if (lastConnectAttempt_ && now() - *lastConnectAttempt_ < kReconnectInterval)
      return false;
    lastConnectAttempt_ = now();
    return connect();
  }

  void reset() {
    conn_.reset();
    keymap_.reset();
    scratch_.reset();
    xtest_ = false;
    heldKeys_.clear();
    heldButtons_.clear();
    repeatOff_.clear();
    spares_.clear();
    lastMotion_.reset();
  }

  bool connect() {
    int screenNumber = 0;
    conn_.reset(xcb_connect(display_.empty() ? nullptr : display_.c_str(), &screenNumber));
    if (xcb_connection_has_error(conn())) {
      // Said once; retried quietly at most once a second.
      if (!reportedConnectFailure_)
        logger()->error("Cannot connect to the X display for input");
      reportedConnectFailure_ = true;
      conn_.reset();
      return false;
    }
    reportedConnectFailure_ = false;
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(conn()));
    for (int i = 0; i < screenNumber && screens.rem; ++i)
      xcb_screen_next(&screens);
    root_ = screens.data->root;

    const xcb_query_extension_reply_t* xtest = xcb_get_extension_data(conn(), &xcb_test_id);
    xtest_ = xtest && xtest->present;
    if (!xtest_)
      logger()->error("The X server has no XTEST extension: input cannot be played");

    if (!xkb_x11_setup_xkb_extension(
            conn(), XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
            XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, &xkbEventBase_, nullptr)) {
      logger()->error("The X server has no usable XKEYBOARD extension: keys cannot be played");
      xtest_ = false;
      return true;
    }
    deviceId_ = xkb_x11_get_core_keyboard_device_id(conn());
    const std::uint16_t events =
        XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY;
    xcb_xkb_select_events(conn(), XCB_XKB_ID_USE_CORE_KBD, events, 0, events, 0xff, 0xff, nullptr);
    if (!context_)
      context_.reset(xkb_context_new(XKB_CONTEXT_NO_FLAGS));
    keymapDirty_ = true;
    refreshKeymap();
    readKeycodesName();
    readPointerMapping();
    readRepeatingKeys();
    return true;
  }

  // Requests on a broken connection do nothing; the connection is only replaced at the start of
  // the next call from outside, so that nothing in between finds it gone.
  void flush() { xcb_flush(conn()); }

  // ----- Server state -------------------------------------------------------------------------

  void readKeycodesName() {
    evdevKeycodes_ = false;
    Reply<xcb_xkb_get_names_reply_t> reply(xcb_xkb_get_names_reply(
        conn(), xcb_xkb_get_names(conn(), XCB_XKB_ID_USE_CORE_KBD, XCB_XKB_NAME_DETAIL_KEYCODES),
        nullptr));
    std::string name;
    if (reply) {
      xcb_xkb_get_names_value_list_t list{};
      xcb_xkb_get_names_value_list_unpack(xcb_xkb_get_names_value_list(reply.get()), reply->nTypes,
                                          reply->indicators, reply->virtualMods, reply->groupNames,
                                          reply->nKeys, reply->nKeyAliases, reply->nRadioGroups,
                                          reply->which, &list);
      Reply<xcb_get_atom_name_reply_t> atom(
          xcb_get_atom_name_reply(conn(), xcb_get_atom_name(conn(), list.keycodesName), nullptr));
      if (atom)
        name.assign(xcb_get_atom_name_name(atom.get()),
                    std::size_t(xcb_get_atom_name_name_length(atom.get())));
    }
    evdevKeycodes_ = name.rfind("evdev", 0) == 0;
    if (!evdevKeycodes_)
      logger()->info(
          "The X server's keycodes are \"{}\", not evdev: physical keys are found by their XKB "
          "names in the current keymap",
          name);
  }

  void readPointerMapping() {
    physicalButton_ = {0, 1, 2, 3};
    Reply<xcb_get_pointer_mapping_reply_t> reply(
        xcb_get_pointer_mapping_reply(conn(), xcb_get_pointer_mapping(conn()), nullptr));
    if (!reply)
      return;
    const std::uint8_t* map = xcb_get_pointer_mapping_map(reply.get());
    const int length = xcb_get_pointer_mapping_map_length(reply.get());
    for (int logical = 1; logical <= 3; ++logical) {
      // The physical button that reports this logical one; itself when none does.
      for (int physical = 1; physical <= length; ++physical) {
        if (map[physical - 1] == logical) {
          physicalButton_[logical] = physical;
          break;
        }
      }
    }
  }

  void readRepeatingKeys() {
    repeating_.fill(0);
    Reply<xcb_get_keyboard_control_reply_t> reply(
        xcb_get_keyboard_control_reply(conn(), xcb_get_keyboard_control(conn()), nullptr));
    if (reply)
      std::copy(std::begin(reply->auto_repeats), std::end(reply->auto_repeats), repeating_.begin());
  }

  void readModifierMapping() {
    keycodeMods_.fill(0);
    Reply<xcb_get_modifier_mapping_reply_t> reply(
        xcb_get_modifier_mapping_reply(conn(), xcb_get_modifier_mapping(conn()), nullptr));
    if (!reply)
      return;
    const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(reply.get());
    const int perModifier = reply->keycodes_per_modifier;
    for (int mod = 0; mod < 8; ++mod)
      for (int i = 0; i < perModifier; ++i)
        if (const auto kc = codes[mod * perModifier + i])
          keycodeMods_[kc] |= 1u << mod;
  }

  // Reads what the server says happened since the last event: mapping changes and the errors
  // of requests made without waiting for an answer.
  void drainEvents() {
    while (xcb_generic_event_t* raw = xcb_poll_for_event(conn())) {
      Reply<xcb_generic_event_t> event(raw);
      const std::uint8_t type = event->response_type & 0x7f;
      if (type == 0) {
        const auto* error = reinterpret_cast<const xcb_generic_error_t*>(event.get());
        logger()->warn("An input request failed: X error {} (request {}.{})",
                       int(error->error_code), int(error->major_code), int(error->minor_code));
      } else if (type == XCB_MAPPING_NOTIFY) {
        const auto* notify = reinterpret_cast<const xcb_mapping_notify_event_t*>(event.get());
        if (notify->request == XCB_MAPPING_POINTER)
          readPointerMapping();
        else
          keymapDirty_ = true;
      } else if (type == xkbEventBase_) {
        keymapDirty_ = true;
      }
    }
  }

  void refreshKeymap() {
    drainEvents();
    if (!keymapDirty_ && keymap_)
      return;
    keymapDirty_ = false;
    std::unique_ptr<xkb_keymap, KeymapDeleter> keymap(xkb_x11_keymap_new_from_device(
        context_.get(), conn(), deviceId_, XKB_KEYMAP_COMPILE_NO_FLAGS));
    if (!keymap) {
      logger()->warn("Cannot read the keymap; characters wait for the next one");
      return;
    }
    keymap_ = std::move(keymap);
    scratch_.reset(xkb_state_new(keymap_.get()));
    readModifierMapping();
    updateSpares();
  }

  // Spare keycodes: those without keysyms, and those still holding what this injector put
  // there. A keycode that someone else has mapped since is no longer spare.
  void updateSpares() {
    std::vector<Spare> spares;
    const xkb_keycode_t low = std::max<xkb_keycode_t>(xkb_keymap_min_keycode(keymap_.get()), 8);
    const xkb_keycode_t high =
        std::min<xkb_keycode_t>(xkb_keymap_max_keycode(keymap_.get()), kMaxXKeycode);
    for (xkb_keycode_t kc = high; kc >= low && spares.size() < options_.maxSpareKeycodes; --kc) {
      const auto old = std::find_if(spares_.begin(), spares_.end(),
                                    [&](const Spare& s) { return s.keycode == kc; });
      if (xkb_keymap_num_layouts_for_key(keymap_.get(), kc) == 0) {
        Spare spare{std::uint8_t(kc)};
        if (old != spares_.end())
          spare.lastUse = old->lastUse;
        spares.push_back(spare);
      } else if (old != spares_.end() && old->keysym != XKB_KEY_NoSymbol) {
        const xkb_keysym_t* syms = nullptr;
        if (xkb_keymap_key_get_syms_by_level(keymap_.get(), kc, 0, 0, &syms) == 1 &&
            syms[0] == old->keysym)
          spares.push_back(*old);
      }
    }
    spares_ = std::move(spares);
  }

  // ----- Playing ------------------------------------------------------------------------------

  // Plays waiting events in order. One that needs a spare keycode still in use stops the queue
  // until that keycode has aged, unless `force`.
  void drainPending(bool force) {
    while (!pending_.empty()) {
      if (!ensureConnected() || !xtest_) {
        pending_.clear();
        return;
      }
      drainEvents();
      auto& front = pending_.front();
      bool done = true;
      if (auto* mouse = std::get_if<InjectedMouseEvent>(&front))
        play(*mouse);
      else
        done = play(std::get<InjectedKeyEvent>(front), force);
      flush();
      if (!done) {
        scheduleResume();
        return;
      }
      pending_.pop_front();
    }
  }

  void scheduleResume() {
    if (resumeTask_.isActive())
      return;
    SteadyTime earliest = SteadyTime::max();
    for (const auto& s : spares_)
      earliest = std::min(earliest, s.lastUse + options_.spareReuseAfter);
    const Duration delay = std::max(Duration::zero(), earliest - now());
    resumeTask_ = queue_->postAfter(delay, [weak = weak_from_this()] {
      if (auto self = weak.lock())
        self->drainPending(false);
    });
  }

  void play(const InjectedMouseEvent& event) {
    const std::pair<int, int> at{toCoordinate(event.location.x), toCoordinate(event.location.y)};
    const int logical = logicalButton(event.type);
    // A motion to where the pointer already is still makes a MotionNotify, which some clients
    // take for a drag starting at the release.
    if (logical == 0 || isPress(event.type) || lastMotion_ != at) {
      xcb_test_fake_input(conn(), XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, root_,
                          std::int16_t(at.first), std::int16_t(at.second), 0);
      lastMotion_ = at;
    }
    if (logical == 0)
      return;
    // X has no click count: the server and the toolkits count clicks from the time and distance
    // between presses themselves. The click state therefore needs nothing here beyond playing
    // each press and release at once and in order, at the place the agent clicked.
    const int physical = physicalButton_[logical];
    if (isPress(event.type)) {
      xcb_test_fake_input(conn(), XCB_BUTTON_PRESS, std::uint8_t(physical), XCB_CURRENT_TIME,
                          XCB_NONE, 0, 0, 0);
      heldButtons_.insert(physical);
    } else {
      xcb_test_fake_input(conn(), XCB_BUTTON_RELEASE, std::uint8_t(physical), XCB_CURRENT_TIME,
                          XCB_NONE, 0, 0, 0);
      heldButtons_.erase(physical);
    }
  }

  // False when a character waits for a spare keycode; the event is then played again later,
  // from its first character not yet typed.
  bool play(InjectedKeyEvent& event, bool force) {
    refreshKeymap();
    // The flags describe modifiers whose own key events were already played: X takes the
    // modifier state from the keys held, so they add nothing.
    if (!event.down) {
      releaseKey(event.code);
      return true;
    }
    if (!event.character) {
      pressKey(event.code);
      return true;
    }
    releaseKey(event.code);
    auto characters = codePoints(*event.character, kMaxCharactersPerEvent);
    for (std::size_t i = 0; i < characters.size(); ++i) {
      if (!typeCharacter(characters[i], force)) {
        std::u32string rest(characters.begin() + std::ptrdiff_t(i), characters.end());
        event.character = toUTF8(rest);
        return false;
      }
    }
    return true;
  }

  static std::string toUTF8(const std::u32string& text) {
    std::string out;
    for (char32_t c : text) {
      if (c < 0x80) {
        out += char(c);
      } else if (c < 0x800) {
        out += char(0xc0 | (c >> 6));
        out += char(0x80 | (c & 0x3f));
      } else if (c < 0x10000) {
        out += char(0xe0 | (c >> 12));
        out += char(0x80 | ((c >> 6) & 0x3f));
        out += char(0x80 | (c & 0x3f));
      } else {
        out += char(0xf0 | (c >> 18));
        out += char(0x80 | ((c >> 12) & 0x3f));
        out += char(0x80 | ((c >> 6) & 0x3f));
        out += char(0x80 | (c & 0x3f));
      }
    }
    return out;
  }

  std::optional<int> resolveKeycode(const std::string& code) {
    const auto key = physicalKeyFor(code);
    if (!key)
      return std::nullopt;
    int keycode = XKB_KEYCODE_INVALID;
    if (evdevKeycodes_ && !options_.keysByName)
      keycode = key->evdev + kEvdevToXKeycode;
    else if (keymap_ && !key->xkbName.empty())
      keycode = int(xkb_keymap_key_by_name(keymap_.get(), std::string(key->xkbName).c_str()));
    if (keycode == int(XKB_KEYCODE_INVALID) || keycode < 8 || keycode > kMaxXKeycode)
      return std::nullopt;
    return keycode;
  }

  void pressKey(const std::string& code) {
    const auto keycode = resolveKeycode(code);
    if (!keycode) {
      logger()->debug("No X keycode for {}", code);
      return;
    }
    // The agent's browser repeats a held key as further keydowns: play each as a fresh press.
    releaseKey(code);
    const auto kc = std::uint8_t(*keycode);
    if (repeating_[kc / 8] & (1u << (kc % 8))) {
      setRepeat(kc, false);
      repeatOff_.insert(kc);
    }
    fakeKey(XCB_KEY_PRESS, kc);
    heldKeys_[code] = kc;
  }

  void releaseKey(const std::string& code) {
    const auto it = heldKeys_.find(code);
    if (it == heldKeys_.end())
      return;
    const std::uint8_t kc = it->second;
    heldKeys_.erase(it);
    fakeKey(XCB_KEY_RELEASE, kc);
    const bool stillHeld = std::any_of(heldKeys_.begin(), heldKeys_.end(),
                                       [&](const auto& held) { return held.second == kc; });
    if (!stillHeld)
      restoreRepeat(kc);
  }

  void restoreRepeat(std::uint8_t kc) {
    if (repeatOff_.erase(kc))
      setRepeat(kc, true);
  }

  void setRepeat(std::uint8_t kc, bool on) {
    const std::uint32_t values[] = {kc, on ? XCB_AUTO_REPEAT_MODE_ON : XCB_AUTO_REPEAT_MODE_OFF};
    xcb_change_keyboard_control(conn(), XCB_KB_KEY | XCB_KB_AUTO_REPEAT_MODE, values);
  }

  void fakeKey(std::uint8_t type, std::uint8_t keycode) {
    xcb_test_fake_input(conn(), type, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  }

  // ----- Characters ---------------------------------------------------------------------------

  bool typeCharacter(char32_t c, bool force) {
    const std::uint32_t keysym = keysymForCharacter(c);
    if (keysym == XKB_KEY_NoSymbol) {
      logger()->debug("No keysym types U+{:04X}", std::uint32_t(c));
      return true;
    }
    if (!keymap_)
      return true;
    Reply<xcb_xkb_get_state_reply_t> state(xcb_xkb_get_state_reply(
        conn(), xcb_xkb_get_state(conn(), XCB_XKB_ID_USE_CORE_KBD), nullptr));
    if (!state)
      return true;
    const Candidate found = findOnLayout(keysym, *state);
    if (found.keycode) {
      tap(found);
      return true;
    }
    return typeOnSpare(keysym, force);
  }

  // The cheapest key and modifier change that types the keysym in the current group. Levels
  // that need Control would turn the key into a shortcut and are not used.
  Candidate findOnLayout(std::uint32_t keysym, const xcb_xkb_get_state_reply_t& state) {
    const std::uint32_t effective = state.mods;
    std::uint32_t ownBase = 0;
    for (const auto& held : heldKeys_)
      ownBase |= keycodeMods_[held.second];
    Candidate best;
    const xkb_keycode_t low = std::max<xkb_keycode_t>(xkb_keymap_min_keycode(keymap_.get()), 8);
    const xkb_keycode_t high =
        std::min<xkb_keycode_t>(xkb_keymap_max_keycode(keymap_.get()), kMaxXKeycode);
    xkb_state_update_mask(scratch_.get(), 0, 0, 0, 0, 0, state.group);
    for (xkb_keycode_t kc = low; kc <= high; ++kc) {
      const xkb_layout_index_t layout = xkb_state_key_get_layout(scratch_.get(), kc);
      if (layout == XKB_LAYOUT_INVALID)
        continue;
      const xkb_level_index_t levels = xkb_keymap_num_levels_for_key(keymap_.get(), kc, layout);
      std::vector<std::vector<xkb_mod_mask_t>> masks(levels);
      std::uint32_t relevant = 0;
      for (xkb_level_index_t level = 0; level < levels; ++level) {
        std::array<xkb_mod_mask_t, 32> buffer{};
        const std::size_t n = xkb_keymap_key_get_mods_for_level(keymap_.get(), kc, layout, level,
                                                                buffer.data(), buffer.size());
        masks[level].assign(buffer.begin(), buffer.begin() + std::ptrdiff_t(n));
        if (level == 0)
          masks[level].push_back(0);
        for (auto m : masks[level])
          relevant |= m;
      }
      for (xkb_level_index_t level = 0; level < levels; ++level) {
        const xkb_keysym_t* syms = nullptr;
        if (xkb_keymap_key_get_syms_by_level(keymap_.get(), kc, layout, level, &syms) != 1 ||
            syms[0] != keysym)
          continue;
        for (const auto m : masks[level]) {
          if (m & kControlMask || m > 0xff)
            continue;
          const std::uint32_t wanted = (effective & ~relevant) | m;
          xkb_state_update_mask(scratch_.get(), wanted, 0, 0, 0, 0, state.group);
          if (xkb_state_key_get_one_sym(scratch_.get(), kc) != keysym)
            continue;
          Candidate c{std::uint8_t(kc)};
          c.add = wanted & ~effective;
          const std::uint32_t remove = effective & ~wanted;
          c.removeLocked = remove & state.lockedMods;
          c.removeBase = remove & state.baseMods;
          // A latched modifier or one the user's own keyboard holds cannot be taken away.
          if ((remove & state.latchedMods) || (c.removeBase & ~ownBase))
            continue;
          c.cost = std::popcount(c.add) + std::popcount(c.removeLocked) +
                   2 * std::popcount(c.removeBase);
          if (c.cost < best.cost)
            best = c;
        }
      }
    }
    return best;
  }

  // Presses and releases the key with the modifiers its level needs locked for just that key,
  // and any the agent holds that would change it let go for the moment.
  void tap(const Candidate& c) {
    std::vector<std::uint8_t> lifted;
    for (const auto& held : heldKeys_)
      if (keycodeMods_[held.second] & c.removeBase)
        lifted.push_back(held.second);
    for (auto kc : lifted)
      fakeKey(XCB_KEY_RELEASE, kc);
    const std::uint32_t affected = c.add | c.removeLocked;
    if (affected)
      lockMods(affected, c.add);
    fakeKey(XCB_KEY_PRESS, c.keycode);
    fakeKey(XCB_KEY_RELEASE, c.keycode);
    if (affected)
      lockMods(affected, c.removeLocked);
    for (auto kc : lifted)
      fakeKey(XCB_KEY_PRESS, kc);
  }

  void lockMods(std::uint32_t affect, std::uint32_t locks) {
    xcb_xkb_latch_lock_state(conn(), XCB_XKB_ID_USE_CORE_KBD, std::uint8_t(affect),
                             std::uint8_t(locks), 0, 0, 0, 0, 0);
  }

  bool typeOnSpare(std::uint32_t keysym, bool force) {
    if (spares_.empty()) {
      logger()->warn("No spare keycode to type keysym 0x{:x} with", keysym);
      return true;
    }
    auto spare = std::find_if(spares_.begin(), spares_.end(),
                              [&](const Spare& s) { return s.keysym == keysym; });
    if (spare == spares_.end()) {
      const SteadyTime t = now();
      // Empty ones first, then the one idle longest, and only once it has aged.
      spare = std::min_element(spares_.begin(), spares_.end(), [](const Spare& a, const Spare& b) {
        const bool aEmpty = a.keysym == XKB_KEY_NoSymbol, bEmpty = b.keysym == XKB_KEY_NoSymbol;
        return aEmpty != bEmpty ? aEmpty : a.lastUse < b.lastUse;
      });
      if (spare->keysym != XKB_KEY_NoSymbol && t - spare->lastUse < options_.spareReuseAfter &&
          !force)
        return false;
      mapSpare(*spare, keysym);
    }
    spare->lastUse = now();
    Candidate c{spare->keycode};
    // Both levels hold the keysym, so Shift changes nothing; a locked Caps Lock is let go for
    // the key, since clients would capitalise the character under it.
    Reply<xcb_xkb_get_state_reply_t> state(xcb_xkb_get_state_reply(
        conn(), xcb_xkb_get_state(conn(), XCB_XKB_ID_USE_CORE_KBD), nullptr));
    if (state)
      c.removeLocked = state->lockedMods & XCB_MOD_MASK_LOCK;
    tap(c);
    scheduleClear();
    return true;
  }

  void mapSpare(Spare& spare, std::uint32_t keysym) {
    const xcb_keysym_t syms[] = {keysym, keysym};
    xcb_change_keyboard_mapping(conn(), 1, spare.keycode, 2, syms);
    spare.keysym = keysym;
    keymapDirty_ = true;
  }

  void scheduleClear() {
    if (clearTask_.isActive())
      return;
    SteadyTime earliest = SteadyTime::max();
    for (const auto& s : spares_)
      if (s.keysym != XKB_KEY_NoSymbol)
        earliest = std::min(earliest, s.lastUse + options_.spareClearAfter);
    if (earliest == SteadyTime::max())
      return;
    clearTask_ =
        queue_->postAfter(std::max(Duration::zero(), earliest - now()), [weak = weak_from_this()] {
          if (auto self = weak.lock())
            self->clearIdleSpares();
        });
  }

  void clearIdleSpares() {
    clearTask_ = {};
    if (!conn_ || xcb_connection_has_error(conn()))
      return;
    const SteadyTime t = now();
    for (auto& s : spares_)
      if (s.keysym != XKB_KEY_NoSymbol && t - s.lastUse >= options_.spareClearAfter)
        mapSpare(s, XKB_KEY_NoSymbol);
    flush();
    scheduleClear();
  }

  const std::string display_;
  const std::shared_ptr<Executor> queue_;
  const Options options_;
  bool shutDown_ = false;
  std::optional<SteadyTime> lastConnectAttempt_;
  bool reportedConnectFailure_ = false;

  std::unique_ptr<xcb_connection_t, ConnectionDeleter> conn_;
  xcb_window_t root_ = XCB_NONE;
  bool xtest_ = false;
  bool evdevKeycodes_ = false;
  std::uint8_t xkbEventBase_ = 0;
  std::int32_t deviceId_ = -1;
  std::unique_ptr<xkb_context, ContextDeleter> context_;
  std::unique_ptr<xkb_keymap, KeymapDeleter> keymap_;
  std::unique_ptr<xkb_state, StateDeleter> scratch_;
  bool keymapDirty_ = true;
  std::array<std::uint32_t, 256> keycodeMods_{};
  std::array<std::uint8_t, 32> repeating_{};
  std::array<int, 4> physicalButton_{0, 1, 2, 3};

  std::optional<std::pair<int, int>> lastMotion_;
  std::set<int> heldButtons_;
  std::map<std::string, std::uint8_t> heldKeys_;
  std::set<std::uint8_t> repeatOff_;
  std::vector<Spare> spares_;
  std::deque<std::variant<InjectedMouseEvent, InjectedKeyEvent>> pending_;
  TaskHandle resumeTask_, clearTask_;
};

XTestInjector::XTestInjector(std::string display, std::shared_ptr<Executor> queue)
    : XTestInjector(std::move(display), std::move(queue), Options{}) {}

XTestInjector::XTestInjector(std::string display, std::shared_ptr<Executor> queue, Options options)
    : impl_(std::make_shared<Impl>(std::move(display), std::move(queue), options)) {}

XTestInjector::~XTestInjector() {
  impl_->shutdown();
}

bool XTestInjector::isAvailable() {
  return impl_->isAvailable();
}

void XTestInjector::post(const InjectedMouseEvent& event) {
  impl_->post(event);
}

void XTestInjector::post(const InjectedKeyEvent& event) {
  impl_->post(event);
}

QRVPoint XTestInjector::pointerLocation() {
  return impl_->pointerLocation();
}

bool XTestInjector::usesEvdevKeycodes() {
  return impl_->usesEvdevKeycodes();
}

std::optional<int> XTestInjector::keycodeFor(const std::string& code) {
  return impl_->keycodeFor(code);
}

std::size_t XTestInjector::pendingCount() const {
  return impl_->pendingCount();
}

}  // namespace quorvix

// The X11 window capturer. The host's top-level windows are kept in a list in stacking order,
// maintained from the root's structure notifications; each window's contents come from the
// off-screen pixmap that Composite keeps for it, so whatever lies over it on screen never shows.
// Changes are watched on what is read (the host's windows, the desktop window, the root pixmap),
// never on the root: a compositing manager paints the root late, when it gets round to it, and
// its painting of other windows is no change to the capture.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <vector>

#include <libyuv/scale_argb.h>
#include <xcb/composite.h>
#include <xcb/damage.h>
#include <xcb/res.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include "frameloop/CaptureChangeDetector.h"
#include "frameloop/CursorOverlay.h"
#include "frameloop/WindowCapturer.h"
#include "frameloop/linux/X11Screens.h"
#include "frameloop/linux/XcbConnection.h"
#include "frameloop/linux/XcbShm.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

constexpr std::string_view kCategory = "QRVX11WindowFrameSource";
// Behind the host's windows when the desktop shows neither a desktop window nor a root pixmap.
constexpr std::uint8_t kBackgroundBgrx[4] = {0x30, 0x30, 0x30, 0xff};

// Fills `size` bytes (a multiple of 4) with the background colour, doubling what is filled with
// each copy: memcpy's pace instead of a store per pixel.
void fillPattern(std::uint8_t* data, std::size_t size) {
  if (size < 4)
    return;
  std::memcpy(data, kBackgroundBgrx, 4);
  for (std::size_t filled = 4; filled < size; filled *= 2)
    std::memcpy(data + filled, data, std::min(filled, size - filled));
}
// How deep below a top-level window (a window manager's frame) the client window is looked for.
constexpr int kClientSearchDepth = 2;

auto logger() {
  return QRV_LOGGER_FOR(kCategory);
}

struct TopLevel {
  xcb_window_t id = XCB_NONE;
  QRVScreenRect rect;  // outer, border included, in root coordinates
  bool mapped = false;
  std::optional<bool> own;                // unknown until first needed while mapped
  xcb_damage_damage_t damage = XCB_NONE;  // made when the window is first read
  bool damaged = false;                   // a notification came since the last capture
  // The low bits of the request that made `damage`, while its first report may be pending.
  std::optional<std::uint16_t> created;
};

class X11WindowCapturer final : public WindowCapturer {
 public:
  X11WindowCapturer(std::unique_ptr<x11::XcbConnection> c,
                    std::shared_ptr<const QRVWindowRegistry> registry)
      : c_(std::move(c)), registry_(std::move(registry)), pid_(std::uint32_t(getpid())) {}

  // False when the display lacks what the capture needs.
  bool setUp() {
    if (!c_->hasExtension(&xcb_composite_id)) {
      logger()->debug("the X server has no Composite extension; windows cannot be captured");
      return false;
    }
    if (!x11::replyOf(*c_, xcb_composite_query_version_reply,
                      xcb_composite_query_version(c_->get(), 0, 4), "Composite version"))
      return false;
    // Before the redirect, so that no top-level window is missed between the scan and the events.
    const std::uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY |
                               XCB_EVENT_MASK_STRUCTURE_NOTIFY | XCB_EVENT_MASK_PROPERTY_CHANGE;
    if (!c_->check(
            xcb_change_window_attributes_checked(c_->get(), c_->root(), XCB_CW_EVENT_MASK, &mask),
            "select root substructure notifications"))
      return false;
    if (!c_->check(xcb_composite_redirect_subwindows_checked(c_->get(), c_->root(),
                                                             XCB_COMPOSITE_REDIRECT_AUTOMATIC),
                   "Composite redirect"))
      return false;
    x11::selectScreenChanges(*c_, mask);
    hasRes_ = c_->hasExtension(&xcb_res_id) &&
              x11::replyOf(*c_, xcb_res_query_version_reply, xcb_res_query_version(c_->get(), 1, 2),
                           "X-Resource version");
    hasXFixes_ = c_->hasExtension(&xcb_xfixes_id) &&
                 x11::replyOf(*c_, xcb_xfixes_query_version_reply,
                              xcb_xfixes_query_version(c_->get(), 5, 0), "XFixes version");
    if (hasXFixes_) {
      cursorEvent_ =
          xcb_get_extension_data(c_->get(), &xcb_xfixes_id)->first_event + XCB_XFIXES_CURSOR_NOTIFY;
      c_->check(xcb_xfixes_select_cursor_input_checked(
                    c_->get(), c_->root(), XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR),
                "cursor notifications");
    }
    useShm_ = c_->hasExtension(&xcb_shm_id) &&
              x11::replyOf(*c_, xcb_shm_query_version_reply, xcb_shm_query_version(c_->get()),
                           "MIT-SHM version");
    setUpDamage();
    netWmPid_ = atom("_NET_WM_PID");
    libraryWindow_ = atom("_QUORVIX_OWN_WINDOW");
    clientLeader_ = atom("WM_CLIENT_LEADER");
    windowType_ = atom("_NET_WM_WINDOW_TYPE");
    windowTypeDesktop_ = atom("_NET_WM_WINDOW_TYPE_DESKTOP");
    rootPixmap_ = atom("_XROOTPMAP_ID");
    scan();
    screen_ = x11::readMainScreen(*c_);
    return !c_->lost();
  }

  std::shared_ptr<const QRVImage> capture(const std::shared_ptr<const QRVScreen>& target,
                                          double scale) override {
    // A round trip first: every notification of what happened before it is queued by its reply.
    const auto pointer = readPointer();
    drain();
    if (c_->lost())
      return nullptr;
    if (screenDirty_) {
      screenDirty_ = false;
      screen_ = x11::readMainScreen(*c_);
    }
    const auto screen = target ? target : screen_;
    if (!screen || screen->frame().isEmpty())
      return nullptr;
    const QRVScreenRect area = screen->frame();
    const int width = int(area.width * scale);
    const int height = int(area.height * scale);
    if (width <= 0 || height <= 0)
      return nullptr;
    if (const auto generation = registry_->generation(); generation != registryGeneration_) {
      registryGeneration_ = generation;
      for (auto& t : stack_)
        t.own.reset();
      listChanged_ = true;
    }

    // The drawing buffer at the screen's full size, kept while the size stays.
    const std::size_t bytes = std::size_t(area.width) * area.height * 4;
    const bool samePicture = lastImage_ && context_.size() == bytes && area == lastArea_ &&
                             lastImage_->width() == width && lastImage_->height() == height;
    const bool damaged = takeDamage(area) || std::exchange(listChanged_, false);
    const auto action = detector_.decide(std::chrono::steady_clock::now(), damaged,
                                         pointer.value_or(QRVPointerState{}), samePicture);
    if (action == CaptureChangeDetector::Action::reuse)
      return lastImage_;
    if (action != CaptureChangeDetector::Action::recomposite) {
      const bool comparing = action == CaptureChangeDetector::Action::compare;
      if (comparing)
        previousContext_.assign(context_.begin(), context_.end());
      if (context_.size() != bytes)
        context_.assign(bytes, 0);
      composeWindows(area);
      if (c_->lost())
        return nullptr;
      if (comparing) {
        const bool differs = context_ != previousContext_;
        if (detector_.compared(differs))
          logger()->debug(
              "the windows changed without a change notification; comparing every capture");
        if (!differs && !detector_.pointerChanged())
          return lastImage_;
      }
    }

    auto out = QRVImage::allocate(width, height);
    if (!out)
      return nullptr;
    if (width == area.width && height == area.height)
      std::memcpy(out.get(), context_.data(), std::size_t(width) * height * 4);
    else if (libyuv::ARGBScale(context_.data(), area.width * 4, area.width, area.height, out.get(),
                               width * 4, width, height, libyuv::kFilterBilinear) != 0)
      return nullptr;
    if (pointer)
      drawCursor(out.get(), width, height, area, *cursor(), *pointer);
    lastImage_ = QRVImage::wrap(width, height, out.get(), out);
    lastArea_ = area;
    return lastImage_;
  }

  void resetBackground() override {
    desktopWindow_ = XCB_NONE;
    listChanged_ = true;
  }

  void releaseContext() override {
    context_ = {};
    previousContext_ = {};
    lastImage_.reset();
    detector_.reset();
  }

  bool lost() const override { return c_->lost(); }

 private:
  // The background, then the host's windows bottom to top, into the buffer.
  void composeWindows(const QRVScreenRect& area) {
    drawBackground(area);
    for (auto& t : stack_) {
      if (!t.mapped || t.id == desktopWindow_ || !intersects(area, t.rect))
        continue;
      if (!t.own)
        t.own = ownsTopLevel(t.id);
      if (*t.own) {
        watch(t);
        drawWindow(t, area, true);
      }
    }
  }

  // Damage is watched per drawable read: see watch() and watchBackground().
  void setUpDamage() {
    if (!c_->hasExtension(&xcb_damage_id) ||
        !x11::replyOf(*c_, xcb_damage_query_version_reply,
                      xcb_damage_query_version(c_->get(), 1, 1), "DAMAGE version")) {
      detector_.startPolling();
      return;
    }
    hasDamage_ = true;
    damageEvent_ =
        xcb_get_extension_data(c_->get(), &xcb_damage_id)->first_event + XCB_DAMAGE_NOTIFY;
  }

  // Notifications of drawing on the window from now on, before it is read, so that nothing drawn
  // after the read goes unseen. Drawing in its children counts: they share its pixmap.
  void watch(TopLevel& t) {
    if (!hasDamage_ || t.damage != XCB_NONE)
      return;
    t.damage = xcb_generate_id(c_->get());
    // Unchecked: a window closing meanwhile answers with an error that drain() logs.
    t.created = std::uint16_t(
        xcb_damage_create(c_->get(), t.damage, t.id, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY).sequence);
    // The server reports a new damage as the whole window; that and whatever was drawn before
    // this subtraction is in the read that follows, so their notification is no change.
    xcb_damage_subtract(c_->get(), t.damage, XCB_NONE, XCB_NONE);
  }

  // The same for the root pixmap, which its owner may draw on in place.
  void watchBackground(xcb_pixmap_t pixmap) {
    if (!hasDamage_ || pixmap == backgroundPixmap_)
      return;
    if (backgroundDamage_ != XCB_NONE)
      xcb_damage_destroy(c_->get(), backgroundDamage_);
    backgroundPixmap_ = pixmap;
    backgroundDamage_ = xcb_generate_id(c_->get());
    xcb_damage_create(c_->get(), backgroundDamage_, pixmap, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
  }

  // Whether what lies in the area was drawn on since the last call. Every notified damage is
  // emptied, which asks the server for the next notification.
  bool takeDamage(const QRVScreenRect& area) {
    if (!hasDamage_)
      return true;
    bool damaged = false;
    if (std::exchange(backgroundDamaged_, false)) {
      xcb_damage_subtract(c_->get(), backgroundDamage_, XCB_NONE, XCB_NONE);
      damaged = true;
    }
    for (auto& t : stack_) {
      t.created.reset();  // its first report, if any, came with the round trip before this
      if (!std::exchange(t.damaged, false))
        continue;
      xcb_damage_subtract(c_->get(), t.damage, XCB_NONE, XCB_NONE);
      if (t.mapped && (t.own.value_or(false) || t.id == desktopWindow_) && intersects(area, t.rect))
        damaged = true;
    }
    return damaged;
  }

  // A window leaving the list: its damage goes with it, by the server when the window is gone.
  void forget(xcb_window_t id, bool destroyed) {
    if (auto* t = find(id); t && t->damage != XCB_NONE && !destroyed)
      xcb_damage_destroy(c_->get(), t->damage);
    erase(id);
  }

  static bool intersects(const QRVScreenRect& a, const QRVScreenRect& b) {
    return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height &&
           b.y < a.y + a.height;
  }

  xcb_atom_t atom(const char* name) {
    auto reply = x11::replyOf(*c_, xcb_intern_atom_reply,
                              xcb_intern_atom(c_->get(), 0, std::uint16_t(std::strlen(name)), name),
                              "intern atom");
    return reply ? reply->atom : XCB_NONE;
  }

  // The root's children now, bottom to top; from then on the list follows the notifications.
  void scan() {
    stack_.clear();
    auto tree = x11::replyOf(*c_, xcb_query_tree_reply, xcb_query_tree(c_->get(), c_->root()),
                             "window list");
    if (!tree)
      return;
    const xcb_window_t* children = xcb_query_tree_children(tree.get());
    const int count = xcb_query_tree_children_length(tree.get());
    std::vector<xcb_get_window_attributes_cookie_t> attributes;
    std::vector<xcb_get_geometry_cookie_t> geometries;
    for (int i = 0; i < count; ++i) {
      attributes.push_back(xcb_get_window_attributes(c_->get(), children[i]));
      geometries.push_back(xcb_get_geometry(c_->get(), children[i]));
    }
    for (int i = 0; i < count; ++i) {
      // A window gone since the list was made answers with an error: leave it out quietly.
      x11::XcbPtr<xcb_get_window_attributes_reply_t> a(
          xcb_get_window_attributes_reply(c_->get(), attributes[i], nullptr));
      x11::XcbPtr<xcb_get_geometry_reply_t> g(
          xcb_get_geometry_reply(c_->get(), geometries[i], nullptr));
      if (!a || !g)
        continue;
      TopLevel t;
      t.id = children[i];
      t.rect = {g->x, g->y, g->width + 2 * g->border_width, g->height + 2 * g->border_width};
      t.mapped = a->map_state != XCB_MAP_STATE_UNMAPPED;
      stack_.push_back(t);
    }
  }

  TopLevel* find(xcb_window_t id) {
    auto it =
        std::find_if(stack_.begin(), stack_.end(), [id](const TopLevel& t) { return t.id == id; });
    return it == stack_.end() ? nullptr : &*it;
  }

  void erase(xcb_window_t id) {
    std::erase_if(stack_, [id](const TopLevel& t) { return t.id == id; });
  }

  // Moves a window just above `sibling`, or to the bottom when there is none.
  void restack(xcb_window_t id, xcb_window_t sibling) {
    auto it =
        std::find_if(stack_.begin(), stack_.end(), [id](const TopLevel& t) { return t.id == id; });
    if (it == stack_.end())
      return;
    TopLevel moved = *it;
    stack_.erase(it);
    auto below = std::find_if(stack_.begin(), stack_.end(),
                              [sibling](const TopLevel& t) { return t.id == sibling; });
    stack_.insert(below == stack_.end() ? stack_.begin() : below + 1, moved);
  }

  void drain() {
    while (auto event = x11::XcbPtr<xcb_generic_event_t>(xcb_poll_for_event(c_->get()))) {
      const std::uint8_t type = event->response_type & 0x7f;
      // A window appearing, going, moving or restacking changes the picture.
      if (type >= XCB_CREATE_NOTIFY && type <= XCB_CIRCULATE_NOTIFY)
        listChanged_ = true;
      switch (type) {
        case 0:
          c_->noError(reinterpret_cast<xcb_generic_error_t*>(event.release()), "X request");
          break;
        case XCB_CREATE_NOTIFY: {
          const auto* e = reinterpret_cast<const xcb_create_notify_event_t*>(event.get());
          if (e->parent == c_->root() && !find(e->window))
            stack_.push_back(
                {e->window,
                 {e->x, e->y, e->width + 2 * e->border_width, e->height + 2 * e->border_width},
                 false,
                 std::nullopt,
                 XCB_NONE,
                 false});
          break;
        }
        case XCB_DESTROY_NOTIFY: {
          const xcb_window_t window =
              reinterpret_cast<const xcb_destroy_notify_event_t*>(event.get())->window;
          if (auto* t = find(window); t && t->own.value_or(false))
            logger()->debug("window {:#x} closed", window);
          forget(window, true);
          break;
        }
        case XCB_REPARENT_NOTIFY: {
          const auto* e = reinterpret_cast<const xcb_reparent_notify_event_t*>(event.get());
          if (e->parent != c_->root()) {
            forget(e->window, false);
          } else if (!find(e->window)) {
            auto g =
                x11::replyOf(*c_, xcb_get_geometry_reply, xcb_get_geometry(c_->get(), e->window),
                             "reparented window geometry");
            auto a = x11::replyOf(*c_, xcb_get_window_attributes_reply,
                                  xcb_get_window_attributes(c_->get(), e->window),
                                  "reparented window attributes");
            if (g && a)
              stack_.push_back(
                  {e->window,
                   {e->x, e->y, g->width + 2 * g->border_width, g->height + 2 * g->border_width},
                   a->map_state != XCB_MAP_STATE_UNMAPPED,
                   std::nullopt,
                   XCB_NONE,
                   false});
          }
          break;
        }
        case XCB_MAP_NOTIFY:
          if (auto* t =
                  find(reinterpret_cast<const xcb_map_notify_event_t*>(event.get())->window)) {
            t->mapped = true;
            t->own.reset();  // a window manager has put the client inside by now
          }
          break;
        case XCB_UNMAP_NOTIFY:
          if (auto* t =
                  find(reinterpret_cast<const xcb_unmap_notify_event_t*>(event.get())->window))
            t->mapped = false;
          break;
        case XCB_CONFIGURE_NOTIFY: {
          const auto* e = reinterpret_cast<const xcb_configure_notify_event_t*>(event.get());
          if (e->window == c_->root()) {
            screenDirty_ = true;
          } else if (auto* t = find(e->window)) {
            t->rect = {e->x, e->y, e->width + 2 * e->border_width, e->height + 2 * e->border_width};
            restack(e->window, e->above_sibling);
          }
          break;
        }
        case XCB_CIRCULATE_NOTIFY: {
          const auto* e = reinterpret_cast<const xcb_circulate_notify_event_t*>(event.get());
          if (auto* t = find(e->window)) {
            TopLevel moved = *t;
            erase(e->window);
            if (e->place == XCB_PLACE_ON_TOP)
              stack_.push_back(moved);
            else
              stack_.insert(stack_.begin(), moved);
          }
          break;
        }
        default:
          if (hasDamage_ && type == damageEvent_)
            damageNotified(*reinterpret_cast<const xcb_damage_notify_event_t*>(event.get()));
          else if (type == XCB_PROPERTY_NOTIFY)
            propertyChanged(*reinterpret_cast<const xcb_property_notify_event_t*>(event.get()));
          else if (hasXFixes_ && type == cursorEvent_)
            cursorSerial_ = reinterpret_cast<const xcb_xfixes_cursor_notify_event_t*>(event.get())
                                ->cursor_serial;
          else if (x11::isScreenChangeEvent(*c_, *event))
            screenDirty_ = true;
          break;
      }
    }
  }

  void damageNotified(const xcb_damage_notify_event_t& e) {
    if (e.damage == backgroundDamage_) {
      backgroundDamaged_ = true;
      return;
    }
    auto it = std::find_if(stack_.begin(), stack_.end(),
                           [&e](const TopLevel& t) { return t.damage == e.damage; });
    if (it != stack_.end() && std::exchange(it->created, std::nullopt) != e.sequence)
      it->damaged = true;
  }

  void propertyChanged(const xcb_property_notify_event_t& e) {
    // A new background picture: drawn again whether or not anyone paints the root, and watched
    // afresh, since its id may be a freed one used again.
    if (e.window != c_->root() || e.atom != rootPixmap_)
      return;
    listChanged_ = true;
    if (backgroundDamage_ != XCB_NONE)
      xcb_damage_destroy(c_->get(), backgroundDamage_);
    backgroundDamage_ = XCB_NONE;
    backgroundPixmap_ = XCB_NONE;
  }

  std::optional<std::uint32_t> cardinal(xcb_window_t w, xcb_atom_t property, xcb_atom_t type) {
    if (property == XCB_NONE)
      return std::nullopt;
    x11::XcbPtr<xcb_get_property_reply_t> reply(xcb_get_property_reply(
        c_->get(), xcb_get_property(c_->get(), 0, w, property, type, 0, 1), nullptr));
    if (!reply || reply->format != 32 || xcb_get_property_value_length(reply.get()) < 4)
      return std::nullopt;
    std::uint32_t value;
    std::memcpy(&value, xcb_get_property_value(reply.get()), 4);
    return value;
  }

  // The process id of the client that made the window, as the server knows it.
  std::optional<std::uint32_t> clientPid(xcb_window_t w) {
    if (!hasRes_)
      return std::nullopt;
    const xcb_res_client_id_spec_t query{w, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
    x11::XcbPtr<xcb_res_query_client_ids_reply_t> reply(xcb_res_query_client_ids_reply(
        c_->get(), xcb_res_query_client_ids(c_->get(), 1, &query), nullptr));
    if (!reply)
      return std::nullopt;
    for (auto it = xcb_res_query_client_ids_ids_iterator(reply.get()); it.rem > 0;
         xcb_res_client_id_value_next(&it)) {
      const auto& [client, length] = *it.data;
      if ((client.mask & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID) && length >= 1)
        return xcb_res_client_id_value_value(it.data)[0];
    }
    return std::nullopt;
  }

  bool ownsWindow(xcb_window_t w) {
    // The library's own border, ink and dialogs are the host's too, but never part of a frame.
    if (cardinal(w, libraryWindow_, XCB_ATOM_CARDINAL))
      return false;
    if (registry_->contains(w))
      return true;
    if (cardinal(w, netWmPid_, XCB_ATOM_CARDINAL) == pid_ || clientPid(w) == pid_)
      return true;
    if (auto leader = cardinal(w, clientLeader_, XCB_ATOM_WINDOW);
        leader && *leader != w && *leader != XCB_NONE)
      return registry_->contains(*leader) ||
             cardinal(*leader, netWmPid_, XCB_ATOM_CARDINAL) == pid_ || clientPid(*leader) == pid_;
    return false;
  }

  // A top-level window is the host's when it, or the client a window manager framed in it, is.
  bool ownsTopLevel(xcb_window_t w, int depth = 0) {
    if (ownsWindow(w))
      return true;
    if (depth >= kClientSearchDepth)
      return false;
    x11::XcbPtr<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(c_->get(), xcb_query_tree(c_->get(), w), nullptr));
    if (!tree)
      return false;
    const xcb_window_t* children = xcb_query_tree_children(tree.get());
    for (int i = 0; i < xcb_query_tree_children_length(tree.get()); ++i)
      if (ownsTopLevel(children[i], depth + 1))
        return true;
    return false;
  }

  bool isDesktopWindow(xcb_window_t w) {
    if (windowType_ == XCB_NONE || windowTypeDesktop_ == XCB_NONE)
      return false;
    x11::XcbPtr<xcb_get_property_reply_t> reply(xcb_get_property_reply(
        c_->get(), xcb_get_property(c_->get(), 0, w, windowType_, XCB_ATOM_ATOM, 0, 16), nullptr));
    if (!reply || reply->format != 32)
      return false;
    const auto* atoms = static_cast<const xcb_atom_t*>(xcb_get_property_value(reply.get()));
    const int count = xcb_get_property_value_length(reply.get()) / 4;
    return std::find(atoms, atoms + count, windowTypeDesktop_) != atoms + count;
  }

  // A mapped desktop-type window covering the area, looked for while none is known.
  void findDesktopWindow(const QRVScreenRect& area) {
    if (desktopWindow_ != XCB_NONE && find(desktopWindow_) && find(desktopWindow_)->mapped)
      return;
    desktopWindow_ = XCB_NONE;
    for (const auto& t : stack_) {
      if (!t.mapped || t.rect.width < area.width || t.rect.height < area.height)
        continue;
      if (isDesktopWindow(t.id)) {
        desktopWindow_ = t.id;
        return;
      }
    }
  }

  void drawBackground(const QRVScreenRect& area) {
    findDesktopWindow(area);
    if (desktopWindow_ != XCB_NONE) {
      if (auto* t = find(desktopWindow_)) {
        watch(*t);
        if (drawWindow(*t, area, false))
          return;
      }
    }
    // The root's background as desktop programs publish it: a pixmap the size of the root.
    const QRVScreenRect rootRect{0, 0, c_->screen().width_in_pixels, c_->screen().height_in_pixels};
    if (auto pixmap = cardinal(c_->root(), rootPixmap_, XCB_ATOM_PIXMAP);
        pixmap && *pixmap != XCB_NONE) {
      watchBackground(*pixmap);
      if (drawDrawable(*pixmap, rootRect, area, false))
        return;
    }
    fillPattern(context_.data(), context_.size());
  }

  bool drawWindow(const TopLevel& t, const QRVScreenRect& area, bool log) {
    const xcb_pixmap_t pixmap = xcb_generate_id(c_->get());
    if (!c_->check(xcb_composite_name_window_pixmap_checked(c_->get(), t.id, pixmap),
                   "window contents")) {
      // Closed or unmapped since the last notification; the next one will say so.
      if (log)
        logger()->debug("window {:#x} vanished during capture", t.id);
      return false;
    }
    const bool drawn = drawDrawable(pixmap, t.rect, area, log);
    xcb_free_pixmap(c_->get(), pixmap);
    return drawn;
  }

  // Copies the part of a drawable (placed at `where` in root coordinates, its origin at its top
  // left) that falls inside `area` into the buffer.
  bool drawDrawable(xcb_drawable_t drawable,
                    const QRVScreenRect& where,
                    const QRVScreenRect& area,
                    bool log) {
    const int x0 = std::max(where.x, area.x);
    const int y0 = std::max(where.y, area.y);
    const int x1 = std::min(where.x + where.width, area.x + area.width);
    const int y1 = std::min(where.y + where.height, area.y + area.height);
    if (x1 <= x0 || y1 <= y0)
      return true;
    const int w = x1 - x0;
    const int h = y1 - y0;
    const std::size_t size = std::size_t(w) * h * 4;
    const std::uint8_t* pixels = nullptr;
    std::uint8_t depth = 0;
    x11::XcbPtr<xcb_get_image_reply_t> plain;
    if (useShm_ && (!segment_ || segment_->size() < size)) {
      segment_.reset();
      segment_ =
          x11::ShmSegment::create(*c_, std::max(size, std::size_t(area.width) * area.height * 4));
      if (!segment_) {
        useShm_ = false;
        logger()->warn("no shared memory with the X server; reading windows with GetImage");
      }
    }
    const std::string_view what = log ? "window read" : "background read";
    if (useShm_) {
      auto reply = x11::replyOf(
          *c_, xcb_shm_get_image_reply,
          xcb_shm_get_image(c_->get(), drawable, std::int16_t(x0 - where.x),
                            std::int16_t(y0 - where.y), std::uint16_t(w), std::uint16_t(h), ~0u,
                            XCB_IMAGE_FORMAT_Z_PIXMAP, segment_->id(), 0),
          what);
      if (!reply || reply->size < size)
        return false;
      pixels = segment_->data();
      depth = reply->depth;
    } else {
      plain = x11::replyOf(
          *c_, xcb_get_image_reply,
          xcb_get_image(c_->get(), XCB_IMAGE_FORMAT_Z_PIXMAP, drawable, std::int16_t(x0 - where.x),
                        std::int16_t(y0 - where.y), std::uint16_t(w), std::uint16_t(h), ~0u),
          what);
      if (!plain || std::size_t(xcb_get_image_data_length(plain.get())) < size)
        return false;
      pixels = xcb_get_image_data(plain.get());
      depth = plain->depth;
    }
    if (depth != 24 && depth != 32)
      return false;
    for (int row = 0; row < h; ++row) {
      const std::uint8_t* src = pixels + std::size_t(row) * w * 4;
      std::uint8_t* dst =
          context_.data() + (std::size_t(y0 - area.y + row) * area.width + (x0 - area.x)) * 4;
      if (depth == 24) {
        std::memcpy(dst, src, std::size_t(w) * 4);
        continue;
      }
      // Translucent windows hold premultiplied colour: blend them over what is below.
      for (int col = 0; col < w; ++col, src += 4, dst += 4) {
        const unsigned keep = 255u - src[3];
        for (int k = 0; k < 3; ++k)
          dst[k] = std::uint8_t(std::min(255u, src[k] + (dst[k] * keep + 127) / 255));
      }
    }
    return true;
  }

  std::optional<QRVPointerState> readPointer() {
    auto reply = x11::replyOf(*c_, xcb_query_pointer_reply,
                              xcb_query_pointer(c_->get(), c_->root()), "pointer query");
    if (!reply)
      return std::nullopt;
    QRVPointerState state{reply->root_x, reply->root_y, 0, cursorSerial_};
    if (reply->mask & XCB_KEY_BUT_MASK_BUTTON_1)
      state.buttons |= QRVPointerState::kLeftButton;
    if (reply->mask & XCB_KEY_BUT_MASK_BUTTON_3)
      state.buttons |= QRVPointerState::kRightButton;
    return state;
  }

  std::shared_ptr<const QRVCursorImage> cursor() {
    return cursors_.image(*c_, hasXFixes_, cursorSerial_);
  }

  const std::unique_ptr<x11::XcbConnection> c_;
  bool hasDamage_ = false;
  std::uint8_t damageEvent_ = 0;
  xcb_pixmap_t backgroundPixmap_ = XCB_NONE;
  xcb_damage_damage_t backgroundDamage_ = XCB_NONE;
  bool backgroundDamaged_ = false;
  bool listChanged_ = true;
  CaptureChangeDetector detector_;
  std::shared_ptr<const QRVImage> lastImage_;
  QRVScreenRect lastArea_;
  std::vector<std::uint8_t> previousContext_;
  const std::shared_ptr<const QRVWindowRegistry> registry_;
  const std::uint32_t pid_;
  std::uint64_t registryGeneration_ = 0;
  bool hasRes_ = false;
  bool hasXFixes_ = false;
  bool useShm_ = false;
  std::unique_ptr<x11::ShmSegment> segment_;
  xcb_atom_t netWmPid_ = XCB_NONE;
  xcb_atom_t libraryWindow_ = XCB_NONE;
  xcb_atom_t clientLeader_ = XCB_NONE;
  xcb_atom_t windowType_ = XCB_NONE;
  xcb_atom_t windowTypeDesktop_ = XCB_NONE;
  xcb_atom_t rootPixmap_ = XCB_NONE;
  std::vector<TopLevel> stack_;  // the root's children, bottom to top
  xcb_window_t desktopWindow_ = XCB_NONE;
  std::shared_ptr<const QRVScreen> screen_;
  bool screenDirty_ = false;
  std::vector<std::uint8_t> context_;
  std::uint8_t cursorEvent_ = 0;
  std::uint32_t cursorSerial_ = 0;
  x11::CursorCache cursors_;
};

}  // namespace

std::unique_ptr<WindowCapturer> WindowCapturer::createX11(
    const std::string& displayName,
    std::shared_ptr<const QRVWindowRegistry> registry) {
  auto c = x11::XcbConnection::open(displayName, kCategory);
  if (!c)
    return nullptr;
  auto capturer = std::make_unique<X11WindowCapturer>(std::move(c), std::move(registry));
  if (!capturer->setUp())
    return nullptr;
  return capturer;
}

}  // namespace quorvix

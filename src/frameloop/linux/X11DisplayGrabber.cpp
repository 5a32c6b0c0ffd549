// The X11 display grabber: MIT-SHM reads of the root window (a SysV segment, else a segment the
// server makes and passes as a file descriptor, else plain GetImage), DAMAGE for change
// notifications, XFixes for the cursor picture and its serial.
#include <algorithm>
#include <cstring>
#include <vector>

#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>
#include <xcb/xtest.h>

#include "frameloop/DisplayGrabber.h"
#include "frameloop/linux/X11Screens.h"
#include "frameloop/linux/XcbConnection.h"
#include "frameloop/linux/XcbShm.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

constexpr std::string_view kCategory = "QRVX11DisplayFrameSource";

auto logger() {
  return QRV_LOGGER_FOR(kCategory);
}

bool intersects(const QRVScreenRect& a, const xcb_rectangle_t& b) {
  return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

class X11DisplayGrabber final : public DisplayGrabber {
 public:
  explicit X11DisplayGrabber(std::unique_ptr<x11::XcbConnection> c) : c_(std::move(c)) {
    x11::selectScreenChanges(*c_);
    if (c_->hasExtension(&xcb_test_id))
      c_->check(xcb_test_grab_control_checked(c_->get(), 1), "XTEST grab control");
    setUpShm();
    // XFixes answers nothing before its version is asked, and damage regions are XFixes regions.
    hasXFixes_ =
        c_->hasExtension(&xcb_xfixes_id) &&
        x11::replyOf(*c_, xcb_xfixes_query_version_reply, xcb_xfixes_query_version(c_->get(), 5, 0),
                     "XFixes version") != nullptr;
    setUpDamage();
    setUpCursor();
    screen_ = x11::readMainScreen(*c_);
  }

  ~X11DisplayGrabber() override {
    segment_.reset();
    if (!c_->lost()) {
      if (damage_ != XCB_NONE)
        xcb_damage_destroy(c_->get(), damage_);
      if (region_ != XCB_NONE)
        xcb_xfixes_destroy_region(c_->get(), region_);
      xcb_flush(c_->get());
    }
  }

  std::shared_ptr<const QRVScreen> mainScreen() override {
    drain();
    if (c_->lost())
      return nullptr;
    if (screenDirty_) {
      screenDirty_ = false;
      screen_ = x11::readMainScreen(*c_);
    }
    return screen_;
  }

  bool takeDamage(const QRVScreenRect& rect) override {
    drain();
    const bool fresh = !(rect == lastRect_);
    lastRect_ = rect;
    if (damage_ == XCB_NONE)
      return true;
    if (!damageSeen_)
      return fresh;
    damageSeen_ = false;
    // Takes the damage so far into a region and clears it, which re-arms the notification.
    if (!c_->check(xcb_damage_subtract_checked(c_->get(), damage_, XCB_NONE, region_),
                   "damage subtract"))
      return true;
    auto region = x11::replyOf(*c_, xcb_xfixes_fetch_region_reply,
                               xcb_xfixes_fetch_region(c_->get(), region_), "damage region");
    if (!region)
      return true;
    const xcb_rectangle_t* rects = xcb_xfixes_fetch_region_rectangles(region.get());
    const int count = xcb_xfixes_fetch_region_rectangles_length(region.get());
    bool hit = fresh;
    for (int i = 0; i < count && !hit; ++i)
      hit = intersects(rect, rects[i]);
    return hit;
  }

  std::span<const std::uint8_t> read(const QRVScreenRect& rect) override {
    if (rect.isEmpty() || c_->lost())
      return {};
    const std::size_t size = std::size_t(rect.width) * rect.height * 4;
    if (useShm_ && (!segment_ || segment_->size() < size)) {
      segment_.reset();
      segment_ = x11::ShmSegment::create(*c_, size);
      if (!segment_) {
        useShm_ = false;
        logger()->warn("no shared memory with the X server; reading the screen with GetImage");
      }
    }
    if (useShm_) {
      auto reply = x11::replyOf(
          *c_, xcb_shm_get_image_reply,
          xcb_shm_get_image(c_->get(), c_->root(), std::int16_t(rect.x), std::int16_t(rect.y),
                            std::uint16_t(rect.width), std::uint16_t(rect.height), ~0u,
                            XCB_IMAGE_FORMAT_Z_PIXMAP, segment_->id(), 0),
          "MIT-SHM screen read");
      if (!reply || reply->size < size || !isBgrx(reply->depth))
        return {};
      return {segment_->data(), size};
    }
    auto reply =
        x11::replyOf(*c_, xcb_get_image_reply,
                     xcb_get_image(c_->get(), XCB_IMAGE_FORMAT_Z_PIXMAP, c_->root(),
                                   std::int16_t(rect.x), std::int16_t(rect.y),
                                   std::uint16_t(rect.width), std::uint16_t(rect.height), ~0u),
                     "screen read");
    if (!reply || std::size_t(xcb_get_image_data_length(reply.get())) < size ||
        !isBgrx(reply->depth))
      return {};
    plain_.assign(xcb_get_image_data(reply.get()), xcb_get_image_data(reply.get()) + size);
    return plain_;
  }

  QRVPointerState pointer() override {
    drain();
    QRVPointerState state;
    state.cursorSerial = cursorSerial_;
    auto reply = x11::replyOf(*c_, xcb_query_pointer_reply,
                              xcb_query_pointer(c_->get(), c_->root()), "pointer query");
    if (!reply) {
      state.x = state.y = -1'000'000;  // off every screen: no cursor drawn
      return state;
    }
    state.x = reply->root_x;
    state.y = reply->root_y;
    if (reply->mask & XCB_KEY_BUT_MASK_BUTTON_1)
      state.buttons |= QRVPointerState::kLeftButton;
    if (reply->mask & XCB_KEY_BUT_MASK_BUTTON_3)
      state.buttons |= QRVPointerState::kRightButton;
    return state;
  }

  std::shared_ptr<const QRVCursorImage> cursor() override {
    return cursors_.image(*c_, hasXFixes_, cursorSerial_);
  }

  bool lost() const override { return c_->lost(); }
  bool notifiesChanges() const override { return damage_ != XCB_NONE; }

 private:
  void setUpShm() {
    useShm_ = c_->hasExtension(&xcb_shm_id) &&
              x11::replyOf(*c_, xcb_shm_query_version_reply, xcb_shm_query_version(c_->get()),
                           "MIT-SHM version") != nullptr;
    if (!useShm_)
      logger()->warn("the X server has no MIT-SHM; reading the screen with GetImage");
  }

  void setUpDamage() {
    if (!c_->hasExtension(&xcb_damage_id) || !hasXFixes_) {
      logger()->debug("no change notifications; every capture reads the screen");
      return;
    }
    if (!x11::replyOf(*c_, xcb_damage_query_version_reply,
                      xcb_damage_query_version(c_->get(), 1, 1), "DAMAGE version"))
      return;
    const xcb_query_extension_reply_t* ext = xcb_get_extension_data(c_->get(), &xcb_damage_id);
    damageEvent_ = ext->first_event + XCB_DAMAGE_NOTIFY;
    region_ = xcb_generate_id(c_->get());
    damage_ = xcb_generate_id(c_->get());
    if (!c_->check(xcb_xfixes_create_region_checked(c_->get(), region_, 0, nullptr),
                   "damage region") ||
        !c_->check(xcb_damage_create_checked(c_->get(), damage_, c_->root(),
                                             XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY),
                   "damage create")) {
      damage_ = XCB_NONE;
      logger()->debug("no change notifications; every capture reads the screen");
    }
  }

  void setUpCursor() {
    if (!c_->hasExtension(&xcb_xfixes_id))
      return;
    hasXFixes_ =
        x11::replyOf(*c_, xcb_xfixes_query_version_reply, xcb_xfixes_query_version(c_->get(), 5, 0),
                     "XFixes version") != nullptr;
    if (!hasXFixes_)
      return;
    const xcb_query_extension_reply_t* ext = xcb_get_extension_data(c_->get(), &xcb_xfixes_id);
    cursorEvent_ = ext->first_event + XCB_XFIXES_CURSOR_NOTIFY;
    c_->check(xcb_xfixes_select_cursor_input_checked(c_->get(), c_->root(),
                                                     XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR),
              "cursor notifications");
  }

  // Reads queued events without a round trip.
  void drain() {
    while (auto event = x11::XcbPtr<xcb_generic_event_t>(xcb_poll_for_event(c_->get()))) {
      const std::uint8_t type = event->response_type & 0x7f;
      if (type == 0) {
        c_->noError(reinterpret_cast<xcb_generic_error_t*>(event.release()), "X request");
      } else if (damage_ != XCB_NONE && type == damageEvent_) {
        damageSeen_ = true;
      } else if (hasXFixes_ && type == cursorEvent_) {
        cursorSerial_ =
            reinterpret_cast<const xcb_xfixes_cursor_notify_event_t*>(event.get())->cursor_serial;
      } else if (x11::isScreenChangeEvent(*c_, *event)) {
        screenDirty_ = true;
      }
    }
  }

  bool isBgrx(std::uint8_t depth) const {
    if (depth != 24 && depth != 32) {
      logger()->debug("screen depth {} is not supported", depth);
      return false;
    }
    return true;
  }

  const std::unique_ptr<x11::XcbConnection> c_;
  std::shared_ptr<const QRVScreen> screen_;
  bool screenDirty_ = false;
  bool useShm_ = false;
  std::unique_ptr<x11::ShmSegment> segment_;
  std::vector<std::uint8_t> plain_;
  xcb_damage_damage_t damage_ = XCB_NONE;
  xcb_xfixes_region_t region_ = XCB_NONE;
  std::uint8_t damageEvent_ = 0;
  bool damageSeen_ = false;
  QRVScreenRect lastRect_;
  bool hasXFixes_ = false;
  std::uint8_t cursorEvent_ = 0;
  std::uint32_t cursorSerial_ = 0;
  x11::CursorCache cursors_;
};

}  // namespace

bool DisplayGrabber::canReadX11Display(const std::string& displayName) {
  auto c = x11::XcbConnection::open(displayName, kCategory);
  if (!c)
    return false;
  auto reply =
      x11::replyOf(*c, xcb_get_image_reply,
                   xcb_get_image(c->get(), XCB_IMAGE_FORMAT_Z_PIXMAP, c->root(), 0, 0, 1, 1, ~0u),
                   "screen read probe");
  return reply != nullptr;
}

std::unique_ptr<DisplayGrabber> DisplayGrabber::createX11(const std::string& displayName) {
  auto c = x11::XcbConnection::open(displayName, kCategory);
  if (!c)
    return nullptr;
  return std::make_unique<X11DisplayGrabber>(std::move(c));
}

}  // namespace quorvix

// The X11 display grabber: MIT-SHM reads of the root window (a SysV segment, else a segment the
// server makes and passes as a file descriptor, else plain GetImage), DAMAGE for change
// notifications, XFixes for the cursor picture and its serial. The library's own overlays are
// rebuilt out of each read (see X11OwnOverlays); damage that only they caused is checked by
// rebuilding the damaged part alone and comparing it with the held read.
#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>
#include <xcb/xtest.h>

#include "frameloop/BufferLeases.h"
#include "frameloop/DisplayGrabber.h"
#include "frameloop/linux/X11OwnOverlays.h"
#include "frameloop/linux/X11Screens.h"
#include "frameloop/linux/XcbConnection.h"
#include "frameloop/linux/XcbShm.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

constexpr std::string_view kCategory = "QRVX11DisplayFrameSource";
// More damaged rectangles than this, or more than this share of the screen, count as a change
// without looking closer.
constexpr int kMaxCheckedDamage = 64;
constexpr std::size_t kMaxCheckedShare = 8;

auto logger() {
  return QRV_LOGGER_FOR(kCategory);
}

class X11DisplayGrabber final : public DisplayGrabber {
 public:
  explicit X11DisplayGrabber(std::unique_ptr<x11::XcbConnection> c) : c_(std::move(c)) {
    // The root's children are followed for the overlays, and its background picture.
    x11::selectScreenChanges(*c_,
                             XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_PROPERTY_CHANGE);
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
    overlays_ = std::make_unique<x11::X11OwnOverlays>(*c_);
    if (damage_ != XCB_NONE)
      overlays_->setDamageEvent(damageEvent_);
  }

  ~X11DisplayGrabber() override {
    overlays_.reset();
    segments_.clear();
    spare_.reset();
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
    overlays_->update();
    const bool fresh = !(rect == lastRect_);
    lastRect_ = rect;
    lastDamage_.reset();
    if (damage_ == XCB_NONE)
      return true;
    std::vector<QRVScreenRect> damaged;
    for (const auto& part : overlays_->takeDamageBeneath())
      if (auto d = intersection(rect, part); !d.isEmpty())
        damaged.push_back(d);
    if (std::exchange(damageSeen_, false)) {
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
      for (int i = 0; i < count && damaged.size() <= kMaxCheckedDamage; ++i)
        if (auto d = intersection(rect, {rects[i].x, rects[i].y, rects[i].width, rects[i].height});
            !d.isEmpty())
          damaged.push_back(d);
      if (count > kMaxCheckedDamage)
        return true;
    }
    if (fresh)
      return true;
    if (damaged.empty())
      return false;
    lastDamage_ = damaged;
    return !onlyOverlaysChanged(rect, damaged);
  }

  GrabbedPixels read(const QRVScreenRect& rect) override {
    if (rect.isEmpty() || c_->lost())
      return {};
    const std::size_t size = std::size_t(rect.width) * rect.height * 4;
    if (auto [out, segment] = useShm_ ? takeSegment(size) : Target{}; segment) {
      if (!readShm(rect, *segment, "MIT-SHM screen read"))
        return {};
      if (out.empty())
        out = copyOf(segment->data(), size);
      return held(out, rect);
    }
    auto reply = readPlain(rect, "screen read");
    if (!reply)
      return {};
    return held(copyOf(xcb_get_image_data(reply.get()), size), rect);
  }

  std::optional<std::vector<QRVScreenRect>> lastDamage() const override { return lastDamage_; }

  std::span<const std::uint8_t> readPart(const QRVScreenRect& part) override {
    if (part.isEmpty() || c_->lost())
      return {};
    const std::size_t size = std::size_t(part.width) * part.height * 4;
    std::uint8_t* data = nullptr;
    if (useShm_) {
      if (!spare_ && segmentSize_ >= size)
        spare_ = x11::ShmSegment::create(*c_, segmentSize_);
      if (spare_ && spare_->size() >= size) {
        if (!readShm(part, *spare_, "MIT-SHM screen part read"))
          return {};
        data = spare_->mutableData();
      }
    }
    if (!data) {
      auto reply = readPlain(part, "screen part read");
      if (!reply)
        return {};
      scratch_.assign(xcb_get_image_data(reply.get()), xcb_get_image_data(reply.get()) + size);
      data = scratch_.data();
    }
    if (overlays_->active()) {
      const bool heldCovers = held_.data != nullptr && containsRect(held_.rect, part);
      overlays_->repair({data, part}, heldCovers ? ConstPixelView{held_.data, held_.rect}
                                                 : ConstPixelView{data, part});
    }
    return {data, size};
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
        continue;
      }
      if (overlays_)
        overlays_->handleEvent(*event);
      if (damage_ != XCB_NONE && type == damageEvent_) {
        if (reinterpret_cast<const xcb_damage_notify_event_t*>(event.get())->damage == damage_)
          damageSeen_ = true;
      } else if (hasXFixes_ && type == cursorEvent_) {
        cursorSerial_ =
            reinterpret_cast<const xcb_xfixes_cursor_notify_event_t*>(event.get())->cursor_serial;
      } else if (x11::isScreenChangeEvent(*c_, *event)) {
        screenDirty_ = true;
      }
    }
  }

  // A read of the root's rectangle into a segment, packed rows from its start.
  bool readShm(const QRVScreenRect& rect, const x11::ShmSegment& into, std::string_view what) {
    auto reply = x11::replyOf(
        *c_, xcb_shm_get_image_reply,
        xcb_shm_get_image(c_->get(), c_->root(), std::int16_t(rect.x), std::int16_t(rect.y),
                          std::uint16_t(rect.width), std::uint16_t(rect.height), ~0u,
                          XCB_IMAGE_FORMAT_Z_PIXMAP, into.id(), 0),
        what);
    return reply && reply->size >= std::size_t(rect.width) * rect.height * 4 &&
           isBgrx(reply->depth);
  }

  // A read of the root's rectangle through the socket; nullptr unless it holds the whole
  // rectangle in a depth this reads.
  x11::XcbPtr<xcb_get_image_reply_t> readPlain(const QRVScreenRect& rect, std::string_view what) {
    auto reply =
        x11::replyOf(*c_, xcb_get_image_reply,
                     xcb_get_image(c_->get(), XCB_IMAGE_FORMAT_Z_PIXMAP, c_->root(),
                                   std::int16_t(rect.x), std::int16_t(rect.y),
                                   std::uint16_t(rect.width), std::uint16_t(rect.height), ~0u),
                     what);
    if (!reply ||
        std::size_t(xcb_get_image_data_length(reply.get())) <
            std::size_t(rect.width) * rect.height * 4 ||
        !isBgrx(reply->depth))
      return nullptr;
    return reply;
  }

  static GrabbedPixels copyOf(const std::uint8_t* data, std::size_t size) {
    auto copy = std::make_shared_for_overwrite<std::uint8_t[]>(size);
    std::memcpy(copy.get(), data, size);
    return {copy.get(), copy};
  }

  // Where a read goes: a segment handed out with it, else (pixels empty) the spare segment it is
  // copied out of, else nowhere and GetImage.
  struct Target {
    GrabbedPixels pixels;
    x11::ShmSegment* segment = nullptr;
  };

  // A segment of `size` bytes that no picture holds, else the spare one. Turns MIT-SHM off when
  // the server gives no segment at all.
  Target takeSegment(std::size_t size) {
    if (size != segmentSize_) {
      held_ = {};
      heldOwner_.reset();
      segments_.clear();
      spare_.reset();
      leases_.clear();
      segmentSize_ = size;
    }
    std::optional<std::size_t> slot = leases_.take();
    if (!slot && segments_.size() < kMaxSegments) {
      if (auto segment = x11::ShmSegment::create(*c_, size)) {
        segments_.push_back(std::move(segment));
        slot = leases_.add();
      }
    }
    if (slot) {
      auto mapping = segments_[*slot]->mapping();
      auto* data = static_cast<std::uint8_t*>(mapping.get());
      return {{data, leases_.lease(*slot, data, std::move(mapping))}, segments_[*slot].get()};
    }
    if (!spare_)
      spare_ = x11::ShmSegment::create(*c_, size);
    if (!spare_ && segments_.empty()) {
      useShm_ = false;
      logger()->warn("no shared memory with the X server; reading the screen with GetImage");
    }
    // Without a spare segment either, this one read goes through GetImage.
    return {{}, spare_.get()};
  }

  // The read just made, with the overlays rebuilt out of it; kept to compare later reads with.
  GrabbedPixels held(GrabbedPixels read, const QRVScreenRect& rect) {
    if (overlays_->active())
      overlays_->repair({read.data, rect}, {read.data, rect});
    held_ = {read.data, rect};
    heldOwner_ = read.owner;
    heldOverlays_ = overlays_->overlays();
    return read;
  }

  // Whether the damage, touching overlays now or at the held read, reads the same as the held read
  // once rebuilt: the overlays' own drawing is no change of the screen.
  bool onlyOverlaysChanged(const QRVScreenRect& rect, const std::vector<QRVScreenRect>& damaged) {
    if (!overlays_->active() && heldOverlays_.empty())
      return false;
    if (held_.data == nullptr || !(held_.rect == rect) || damaged.size() > kMaxCheckedDamage)
      return false;
    // Compositing managers report the bounding box of what they painted, so a dot moving leaves
    // damage between its places too: any damage touching an overlay is looked at, when small.
    std::size_t area = 0;
    bool touches = false;
    for (const auto& d : damaged) {
      area += std::size_t(d.width) * d.height;
      auto meets = [&d](const QRVScreenRect& o) { return !intersection(o, d).isEmpty(); };
      touches = touches || std::any_of(heldOverlays_.begin(), heldOverlays_.end(), meets) ||
                std::any_of(overlays_->overlays().begin(), overlays_->overlays().end(), meets);
    }
    if (!touches || area > std::size_t(rect.width) * rect.height / kMaxCheckedShare)
      return false;
    const ConstPixelView reference{held_.data, held_.rect};
    for (const auto& d : damaged) {
      auto reply = readPlain(d, "damaged area read");
      if (!reply)
        return false;
      const std::size_t size = std::size_t(d.width) * d.height * 4;
      scratch_.assign(xcb_get_image_data(reply.get()), xcb_get_image_data(reply.get()) + size);
      if (overlays_->active())
        overlays_->repair({scratch_.data(), d}, reference);
      for (int row = 0; row < d.height; ++row) {
        const std::uint8_t* before =
            held_.data + (std::size_t(d.y - rect.y + row) * rect.width + (d.x - rect.x)) * 4;
        if (std::memcmp(before, scratch_.data() + std::size_t(row) * d.width * 4,
                        std::size_t(d.width) * 4) != 0)
          return false;
      }
    }
    heldOverlays_ = overlays_->overlays();
    ++overlayOnlyDamage_;
    logger()->debug("damage under own overlays only ({} so far); the held read stands",
                    overlayOnlyDamage_);
    return true;
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
  static constexpr std::size_t kMaxSegments = 6;
  std::vector<std::unique_ptr<x11::ShmSegment>> segments_;
  BufferLeases leases_;
  std::size_t segmentSize_ = 0;
  std::unique_ptr<x11::ShmSegment> spare_;
  xcb_damage_damage_t damage_ = XCB_NONE;
  xcb_xfixes_region_t region_ = XCB_NONE;
  std::uint8_t damageEvent_ = 0;
  bool damageSeen_ = false;
  QRVScreenRect lastRect_;
  std::optional<std::vector<QRVScreenRect>> lastDamage_;
  bool hasXFixes_ = false;
  std::uint8_t cursorEvent_ = 0;
  std::uint32_t cursorSerial_ = 0;
  x11::CursorCache cursors_;
  std::unique_ptr<x11::X11OwnOverlays> overlays_;
  // The last read and the overlays it was rebuilt under. Whoever it was handed to may have drawn
  // the cursor into it since, which at worst takes overlay-only damage for a change.
  PixelView held_;
  std::shared_ptr<void> heldOwner_;
  std::vector<QRVScreenRect> heldOverlays_;
  std::vector<std::uint8_t> scratch_;
  std::uint64_t overlayOnlyDamage_ = 0;
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

#include "frameloop/linux/X11OwnOverlays.h"

#include <algorithm>
#include <cstring>

#include <xcb/composite.h>
#include <xcb/damage.h>
#include <xcb/shm.h>

#include "utils/Logging.h"

namespace quorvix::x11 {
namespace {

xcb_atom_t internAtom(const XcbConnection& c, const char* name) {
  auto reply =
      replyOf(c, xcb_intern_atom_reply,
              xcb_intern_atom(c.get(), 0, std::uint16_t(std::strlen(name)), name), "intern atom");
  return reply ? reply->atom : XCB_NONE;
}

QRVScreenRect outerRect(int x, int y, int width, int height, int border) {
  return {x, y, width + 2 * border, height + 2 * border};
}

}  // namespace

X11OwnOverlays::X11OwnOverlays(const XcbConnection& c) : c_(c) {
  ownAtom_ = internAtom(c_, "_QUORVIX_OWN_WINDOW");
  rootPixmapAtom_ = internAtom(c_, "_XROOTPMAP_ID");
  useShm_ =
      c_.hasExtension(&xcb_shm_id) &&
      replyOf(c_, xcb_shm_query_version_reply, xcb_shm_query_version(c_.get()), "MIT-SHM version");
  canRedirect_ = c_.hasExtension(&xcb_composite_id) &&
                 replyOf(c_, xcb_composite_query_version_reply,
                         xcb_composite_query_version(c_.get(), 0, 4), "Composite version");
  scan();
}

X11OwnOverlays::~X11OwnOverlays() {
  scratch_.reset();
  for (auto& t : stack_)
    unwatch(t);
  setRedirected(false);
}

void X11OwnOverlays::unwatch(TopLevel& t) {
  if (t.damage != XCB_NONE && !c_.lost())
    xcb_damage_destroy(c_.get(), t.damage);
  t.damage = XCB_NONE;
  t.damaged = false;
}

void X11OwnOverlays::watchBeneath() {
  for (auto& t : stack_) {
    const bool beneath = redirected_ && damageEvent_ != 0 && t.mapped && !t.own.value_or(true) &&
                         std::any_of(overlays_.begin(), overlays_.end(), [&t](const auto& o) {
                           return !intersection(o, t.rect).isEmpty();
                         });
    if (!beneath) {
      unwatch(t);
    } else if (t.damage == XCB_NONE) {
      t.damage = xcb_generate_id(c_.get());
      // Unchecked: a window closing meanwhile answers with an error that the owner logs. Its
      // first report covers the whole window, which a comparison then finds unchanged.
      xcb_damage_create(c_.get(), t.damage, t.id, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
    }
  }
}

std::vector<QRVScreenRect> X11OwnOverlays::takeDamageBeneath() {
  std::vector<QRVScreenRect> parts;
  for (auto& t : stack_) {
    if (!std::exchange(t.damaged, false) || t.damage == XCB_NONE)
      continue;
    xcb_damage_subtract(c_.get(), t.damage, XCB_NONE, XCB_NONE);
    for (const auto& o : overlays_)
      if (auto part = intersection(o, t.rect); !part.isEmpty())
        parts.push_back(part);
  }
  return parts;
}

void X11OwnOverlays::scan() {
  stack_.clear();
  auto tree = replyOf(c_, xcb_query_tree_reply, xcb_query_tree(c_.get(), c_.root()), "window list");
  if (!tree)
    return;
  const xcb_window_t* children = xcb_query_tree_children(tree.get());
  const int count = std::min(xcb_query_tree_children_length(tree.get()), kMaxTopLevels);
  std::vector<xcb_get_window_attributes_cookie_t> attributes;
  std::vector<xcb_get_geometry_cookie_t> geometries;
  for (int i = 0; i < count; ++i) {
    attributes.push_back(xcb_get_window_attributes(c_.get(), children[i]));
    geometries.push_back(xcb_get_geometry(c_.get(), children[i]));
  }
  for (int i = 0; i < count; ++i) {
    // A window gone since the list was made answers with an error: left out quietly.
    XcbPtr<xcb_get_window_attributes_reply_t> a(
        xcb_get_window_attributes_reply(c_.get(), attributes[i], nullptr));
    XcbPtr<xcb_get_geometry_reply_t> g(xcb_get_geometry_reply(c_.get(), geometries[i], nullptr));
    if (!a || !g)
      continue;
    add({children[i], outerRect(g->x, g->y, g->width, g->height, g->border_width), g->border_width,
         a->map_state != XCB_MAP_STATE_UNMAPPED, a->override_redirect != 0, std::nullopt});
  }
}

void X11OwnOverlays::add(const TopLevel& t) {
  if (find(t.id))
    return;
  if (stack_.size() >= std::size_t(kMaxTopLevels)) {
    if (!std::exchange(warnedFull_, true))
      QRV_LOGGER_FOR(c_.category())
          ->warn("more than {} top-level windows; the rest are not followed", kMaxTopLevels);
    return;
  }
  stack_.push_back(t);
}

X11OwnOverlays::TopLevel* X11OwnOverlays::find(xcb_window_t id) {
  auto it =
      std::find_if(stack_.begin(), stack_.end(), [id](const TopLevel& t) { return t.id == id; });
  return it == stack_.end() ? nullptr : &*it;
}

// Moves a window just above `sibling`, or to the bottom when there is none.
void X11OwnOverlays::restack(xcb_window_t id, xcb_window_t sibling) {
  auto it =
      std::find_if(stack_.begin(), stack_.end(), [id](const TopLevel& t) { return t.id == id; });
  if (it == stack_.end())
    return;
  const TopLevel moved = *it;
  stack_.erase(it);
  auto below = std::find_if(stack_.begin(), stack_.end(),
                            [sibling](const TopLevel& t) { return t.id == sibling; });
  stack_.insert(below == stack_.end() ? stack_.begin() : below + 1, moved);
}

void X11OwnOverlays::handleEvent(const xcb_generic_event_t& event) {
  const std::uint8_t type = event.response_type & 0x7f;
  if (damageEvent_ != 0 && type == damageEvent_) {
    const auto& e = reinterpret_cast<const xcb_damage_notify_event_t&>(event);
    for (auto& t : stack_)
      if (t.damage != XCB_NONE && t.damage == e.damage)
        t.damaged = true;
    return;
  }
  switch (type) {
    case XCB_CREATE_NOTIFY: {
      const auto& e = reinterpret_cast<const xcb_create_notify_event_t&>(event);
      if (e.parent == c_.root())
        add({e.window, outerRect(e.x, e.y, e.width, e.height, e.border_width), e.border_width,
             false, e.override_redirect != 0, std::nullopt});
      break;
    }
    case XCB_DESTROY_NOTIFY: {
      const xcb_window_t window = reinterpret_cast<const xcb_destroy_notify_event_t&>(event).window;
      std::erase_if(stack_, [window](const TopLevel& t) { return t.id == window; });
      break;
    }
    case XCB_REPARENT_NOTIFY: {
      const auto& e = reinterpret_cast<const xcb_reparent_notify_event_t&>(event);
      if (e.parent != c_.root()) {
        std::erase_if(stack_, [&e](const TopLevel& t) { return t.id == e.window; });
      } else if (!find(e.window)) {
        auto g = replyOf(c_, xcb_get_geometry_reply, xcb_get_geometry(c_.get(), e.window),
                         "reparented window geometry");
        auto a =
            replyOf(c_, xcb_get_window_attributes_reply,
                    xcb_get_window_attributes(c_.get(), e.window), "reparented window attributes");
        if (g && a)
          add({e.window, outerRect(e.x, e.y, g->width, g->height, g->border_width), g->border_width,
               a->map_state != XCB_MAP_STATE_UNMAPPED, e.override_redirect != 0, std::nullopt});
      }
      break;
    }
    case XCB_MAP_NOTIFY: {
      const auto& e = reinterpret_cast<const xcb_map_notify_event_t&>(event);
      if (auto* t = find(e.window)) {
        t->mapped = true;
        t->overrideRedirect = e.override_redirect != 0;
        t->own.reset();
      }
      break;
    }
    case XCB_UNMAP_NOTIFY:
      if (auto* t = find(reinterpret_cast<const xcb_unmap_notify_event_t&>(event).window)) {
        t->mapped = false;
        unwatch(*t);
      }
      break;
    case XCB_CONFIGURE_NOTIFY: {
      const auto& e = reinterpret_cast<const xcb_configure_notify_event_t&>(event);
      if (auto* t = e.window != c_.root() ? find(e.window) : nullptr) {
        t->rect = outerRect(e.x, e.y, e.width, e.height, e.border_width);
        t->border = e.border_width;
        t->overrideRedirect = e.override_redirect != 0;
        restack(e.window, e.above_sibling);
      }
      break;
    }
    case XCB_CIRCULATE_NOTIFY: {
      const auto& e = reinterpret_cast<const xcb_circulate_notify_event_t&>(event);
      if (auto* t = find(e.window)) {
        const TopLevel moved = *t;
        std::erase_if(stack_, [&e](const TopLevel& w) { return w.id == e.window; });
        stack_.insert(e.place == XCB_PLACE_ON_TOP ? stack_.end() : stack_.begin(), moved);
      }
      break;
    }
    case XCB_PROPERTY_NOTIFY: {
      const auto& e = reinterpret_cast<const xcb_property_notify_event_t&>(event);
      if (e.window == c_.root() && e.atom == rootPixmapAtom_)
        rootPixmapKnown_ = false;
      break;
    }
    default:
      break;
  }
}

void X11OwnOverlays::update() {
  struct Description {
    TopLevel* t;
    xcb_get_window_attributes_cookie_t attributes;
    xcb_get_geometry_cookie_t geometry;
  };
  std::vector<Description> described;
  for (auto& t : stack_)
    if (t.mapped && !t.described)
      described.push_back(
          {&t, xcb_get_window_attributes(c_.get(), t.id), xcb_get_geometry(c_.get(), t.id)});
  for (auto& [t, attributesCookie, geometryCookie] : described) {
    // A window gone meanwhile answers with an error; its DestroyNotify follows.
    XcbPtr<xcb_get_window_attributes_reply_t> a(
        xcb_get_window_attributes_reply(c_.get(), attributesCookie, nullptr));
    XcbPtr<xcb_get_geometry_reply_t> g(xcb_get_geometry_reply(c_.get(), geometryCookie, nullptr));
    if (!a || !g)
      continue;
    t->described = true;
    t->drawn = a->_class == XCB_WINDOW_CLASS_INPUT_OUTPUT;
    t->depth = g->depth;
  }
  // Only override-redirect windows can be overlays; their marks are asked for together.
  std::vector<std::pair<TopLevel*, xcb_get_property_cookie_t>> asked;
  for (auto& t : stack_) {
    if (!t.mapped || t.own)
      continue;
    if (!t.overrideRedirect || ownAtom_ == XCB_NONE) {
      t.own = false;
      continue;
    }
    asked.emplace_back(&t, xcb_get_property(c_.get(), 0, t.id, ownAtom_, XCB_ATOM_CARDINAL, 0, 1));
  }
  for (auto& [t, cookie] : asked) {
    // A window gone meanwhile answers with an error; its DestroyNotify follows.
    XcbPtr<xcb_get_property_reply_t> reply(xcb_get_property_reply(c_.get(), cookie, nullptr));
    t->own = reply && reply->format == 32 && xcb_get_property_value_length(reply.get()) >= 4;
  }
  overlays_.clear();
  for (const auto& t : stack_)
    if (t.mapped && t.own.value_or(false))
      overlays_.push_back(t.rect);

  if (!overlays_.empty()) {
    idleCaptures_ = 0;
    if (!redirected_ && canRedirect_)
      setRedirected(true);
  } else if (redirected_ && ++idleCaptures_ >= kIdleCapturesBeforeUnredirect) {
    setRedirected(false);
  }
  watchBeneath();
}

void X11OwnOverlays::setRedirected(bool redirected) {
  if (redirected == redirected_ || c_.lost())
    return;
  auto log = QRV_LOGGER_FOR(c_.category());
  if (!redirected) {
    xcb_composite_unredirect_subwindows(c_.get(), c_.root(), XCB_COMPOSITE_REDIRECT_AUTOMATIC);
    xcb_flush(c_.get());
    redirected_ = false;
    log->debug("no own overlay on screen; top-level windows no longer redirected");
    return;
  }
  if (!c_.check(xcb_composite_redirect_subwindows_checked(c_.get(), c_.root(),
                                                          XCB_COMPOSITE_REDIRECT_AUTOMATIC),
                "Composite redirect")) {
    canRedirect_ = false;
    log->warn("top-level windows cannot be redirected; own overlays will show in frames");
    return;
  }
  redirected_ = true;
  log->debug("own overlays on screen; top-level windows redirected to read what lies beneath");
}

std::optional<X11OwnOverlays::RootPixmap> X11OwnOverlays::rootPixmap() {
  if (rootPixmapKnown_)
    return rootPixmap_;
  rootPixmapKnown_ = true;
  rootPixmap_.reset();
  if (rootPixmapAtom_ == XCB_NONE)
    return rootPixmap_;
  XcbPtr<xcb_get_property_reply_t> property(xcb_get_property_reply(
      c_.get(), xcb_get_property(c_.get(), 0, c_.root(), rootPixmapAtom_, XCB_ATOM_PIXMAP, 0, 1),
      nullptr));
  if (!property || property->format != 32 || xcb_get_property_value_length(property.get()) < 4)
    return rootPixmap_;
  xcb_pixmap_t id;
  std::memcpy(&id, xcb_get_property_value(property.get()), 4);
  // A stale id (its owner gone) answers with an error: no background picture then.
  auto g = replyOf(c_, xcb_get_geometry_reply, xcb_get_geometry(c_.get(), id),
                   "root background geometry");
  if (g && (g->depth == 24 || g->depth == 32))
    rootPixmap_ = RootPixmap{id, {0, 0, g->width, g->height}};
  return rootPixmap_;
}

void X11OwnOverlays::repair(PixelView dst, ConstPixelView reference) {
  std::vector<QRVScreenRect> holes;
  for (const auto& o : overlays_)
    if (auto hole = intersection(o, dst.rect); !hole.isEmpty())
      holes.push_back(hole);
  if (holes.empty())
    return;
  // The windows that show something, bottom to top.
  std::vector<const TopLevel*> shown;
  std::vector<QRVScreenRect> hidden;
  std::vector<QRVScreenRect> opaque;
  for (const auto& t : stack_)
    if (t.mapped && t.described && t.drawn) {
      shown.push_back(&t);
      hidden.push_back(t.rect);
      if (t.depth == 24 && !t.own.value_or(false))
        opaque.push_back(t.rect);
    }
  const auto background = rootPixmap();

  // Every read is asked for first and answered in order, so that the repair costs about one round
  // trip whatever the number of windows; into one shared segment when the server has MIT-SHM.
  struct Read {
    std::size_t hole;
    QRVScreenRect rect;
    xcb_drawable_t drawable;
    bool window;        // else the root background
    std::int16_t x, y;  // in the drawable
    std::size_t offset = 0;
    xcb_shm_get_image_cookie_t shmCookie{};
    xcb_get_image_cookie_t cookie{};
  };
  std::vector<Read> reads;
  std::vector<bool> needsBackground(holes.size(), true);
  std::size_t total = 0;
  auto add = [&](Read r) {
    r.offset = total;
    total += std::size_t(r.rect.width) * r.rect.height * 4;
    reads.push_back(r);
  };
  const std::size_t maxTotal = kMaxReadScreens * std::size_t(dst.rect.width) * dst.rect.height * 4;
  for (std::size_t h = 0; h < holes.size(); ++h) {
    const QRVScreenRect& hole = holes[h];
    // From the top down to the first opaque window that covers the whole hole.
    std::size_t bottom = 0;
    for (std::size_t i = shown.size(); i-- > 0;) {
      const TopLevel& t = *shown[i];
      if (!t.own.value_or(false) && t.depth == 24 && containsRect(t.rect, hole)) {
        needsBackground[h] = false;
        bottom = i;
        break;
      }
    }
    if (needsBackground[h] && background && containsRect(background->rect, hole))
      add({h, hole, background->id, false, std::int16_t(hole.x), std::int16_t(hole.y)});
    for (std::size_t i = bottom; i < shown.size(); ++i) {
      const TopLevel& t = *shown[i];
      if (t.own.value_or(false) || (t.depth != 24 && t.depth != 32))
        continue;
      const QRVScreenRect part = intersection(t.rect, hole);
      if (part.isEmpty())
        continue;
      if (total + std::size_t(part.width) * part.height * 4 > maxTotal) {
        if (!std::exchange(warnedReads_, true))
          QRV_LOGGER_FOR(c_.category())
              ->warn("too many windows under the overlays; some are left as they show");
        break;
      }
      // GetImage of a redirected window reads its own pixmap, overlays above it left out.
      add({h, part, t.id, true, std::int16_t(part.x - t.rect.x - t.border),
           std::int16_t(part.y - t.rect.y - t.border)});
    }
  }
  if (useShm_ && total > 0 && (!scratch_ || scratch_->size() < total)) {
    scratch_.reset();
    // Sized for the whole screen at once, so that it is rarely made again.
    scratch_ =
        ShmSegment::create(c_, std::max(total, std::size_t(dst.rect.width) * dst.rect.height * 4));
    useShm_ = scratch_ != nullptr;
  }
  for (auto& r : reads) {
    if (useShm_)
      r.shmCookie = xcb_shm_get_image(c_.get(), r.drawable, r.x, r.y, std::uint16_t(r.rect.width),
                                      std::uint16_t(r.rect.height), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP,
                                      scratch_->id(), std::uint32_t(r.offset));
    else
      r.cookie = xcb_get_image(c_.get(), XCB_IMAGE_FORMAT_Z_PIXMAP, r.drawable, r.x, r.y,
                               std::uint16_t(r.rect.width), std::uint16_t(r.rect.height), ~0u);
  }

  std::size_t next = 0;
  for (std::size_t h = 0; h < holes.size(); ++h) {
    bool backgroundDrawn = !needsBackground[h];
    for (; next < reads.size() && reads[next].hole == h; ++next) {
      const Read& r = reads[next];
      if (r.window && !backgroundDrawn) {
        replicateBackground(dst, holes[h], reference, hidden, opaque);
        backgroundDrawn = true;
      }
      const std::size_t size = std::size_t(r.rect.width) * r.rect.height * 4;
      xcb_generic_error_t* error = nullptr;
      const std::uint8_t* pixels = nullptr;
      std::uint8_t depth = 0;
      XcbPtr<xcb_get_image_reply_t> image;
      if (useShm_) {
        XcbPtr<xcb_shm_get_image_reply_t> reply(
            xcb_shm_get_image_reply(c_.get(), r.shmCookie, &error));
        if (reply && reply->size == size) {
          pixels = scratch_->data() + r.offset;
          depth = reply->depth;
        }
      } else {
        image.reset(xcb_get_image_reply(c_.get(), r.cookie, &error));
        if (image && std::size_t(xcb_get_image_data_length(image.get())) == size) {
          pixels = xcb_get_image_data(image.get());
          depth = image->depth;
        }
      }
      if (error) {
        // Unmapped or closed since its last notification (BadMatch, BadDrawable): its
        // notification is on the way and the next capture goes without it.
        QRV_LOGGER_FOR(c_.category())
            ->debug("{} {:#x} could not be read under an overlay: X error {}",
                    r.window ? "window" : "background", r.drawable, error->error_code);
        std::free(error);
        continue;
      }
      if (pixels == nullptr || (depth != 24 && depth != 32))
        continue;
      drawPixels(dst, r.rect, pixels, r.window && depth == 32);
      if (!r.window)
        backgroundDrawn = true;
    }
    if (!backgroundDrawn)
      replicateBackground(dst, holes[h], reference, hidden, opaque);
  }
}

}  // namespace quorvix::x11

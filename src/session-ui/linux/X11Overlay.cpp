#include "session-ui/linux/X11Overlay.h"

#include <cairo.h>
#include <algorithm>
#include <cassert>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <vector>

#include <xcb/shape.h>

#include "annotations/linux/PictureDecoder.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

std::shared_ptr<spdlog::logger> logger() {
  static const auto log = QRV_LOGGER_FOR("QRVOverlay");
  return log;
}

constexpr auto kFadeStep = std::chrono::milliseconds(40);

std::int16_t coordinate(double v) {
  return static_cast<std::int16_t>(std::clamp(std::lround(v), -32768L, 32767L));
}

std::uint16_t extent(double v) {
  return static_cast<std::uint16_t>(std::clamp(std::lround(v), 1L, 32767L));
}

// Rectangles covering the pixels that are not transparent: runs per row, with runs repeated on
// the next rows merged into one rectangle.
std::vector<xcb_rectangle_t> opaqueRegion(const std::uint32_t* pixels, int width, int height) {
  std::vector<xcb_rectangle_t> done;
  std::vector<xcb_rectangle_t> open;
  for (int y = 0; y < height; ++y) {
    std::vector<xcb_rectangle_t> row;
    const std::uint32_t* line = pixels + static_cast<std::size_t>(y) * width;
    for (int x = 0; x < width;) {
      if ((line[x] >> 24) == 0) {
        ++x;
        continue;
      }
      const int start = x;
      while (x < width && (line[x] >> 24) != 0)
        ++x;
      row.push_back({static_cast<std::int16_t>(start), static_cast<std::int16_t>(y),
                     static_cast<std::uint16_t>(x - start), 1});
    }
    std::vector<xcb_rectangle_t> next;
    for (auto& run : row) {
      auto same = std::find_if(open.begin(), open.end(), [&](const xcb_rectangle_t& r) {
        return r.x == run.x && r.width == run.width;
      });
      if (same != open.end()) {
        same->height++;
        next.push_back(*same);
        open.erase(same);
      } else {
        next.push_back(run);
      }
    }
    done.insert(done.end(), open.begin(), open.end());
    open = std::move(next);
  }
  done.insert(done.end(), open.begin(), open.end());
  return done;
}

}  // namespace

X11OverlayWindow::X11OverlayWindow(std::shared_ptr<X11Display> display,
                                   const QRVRect& frame,
                                   std::optional<std::uint32_t> solidRGB)
    : display_(std::move(display)) {
  xcb_connection_t* c = display_->connection();
  const xcb_screen_t& screen = display_->screen();
  xcb_visualid_t visual = screen.root_visual;
  if (!solidRGB && display_->isComposited()) {
    depth_ = 32;
    visual = display_->argbVisual();
    colormap_ = xcb_generate_id(c);
    xcb_create_colormap(c, XCB_COLORMAP_ALLOC_NONE, colormap_, screen.root, visual);
  } else {
    depth_ = screen.root_depth;
  }
  std::uint32_t background = 0;
  if (solidRGB) {
    // TrueColor: place each channel under its mask.
    const xcb_visualtype_t* type = display_->visualType(visual);
    auto place = [](std::uint32_t value8, std::uint32_t mask) -> std::uint32_t {
      if (!mask)
        return 0;
      const int shift = __builtin_ctz(mask);
      const std::uint32_t max = mask >> shift;
      return ((value8 * max + 127) / 255) << shift;
    };
    background = type ? place((*solidRGB >> 16) & 0xFF, type->red_mask) |
                            place((*solidRGB >> 8) & 0xFF, type->green_mask) |
                            place(*solidRGB & 0xFF, type->blue_mask)
                      : screen.white_pixel;
  }
  window_ = xcb_generate_id(c);
  const std::uint32_t values[] = {background, 0, 1,
                                  colormap_ ? colormap_ : screen.default_colormap};
  auto cookie = xcb_create_window_checked(
      c, depth_, window_, screen.root, coordinate(frame.x), coordinate(frame.y),
      extent(frame.width), extent(frame.height), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, visual,
      XCB_CW_BACK_PIXEL | XCB_CW_BORDER_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_COLORMAP, values);
  if (display_->failed(cookie, "create an overlay window")) {
    window_ = XCB_NONE;
    return;
  }
  width_ = extent(frame.width);
  height_ = extent(frame.height);
  // Clicks pass through: an empty input region.
  xcb_shape_rectangles(c, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_INPUT, XCB_CLIP_ORDERING_UNSORTED, window_,
                       0, 0, 0, nullptr);
  if (!solidRGB && depth_ != 32) {
    // Nothing painted yet: nothing shown.
    xcb_shape_rectangles(c, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_BOUNDING, XCB_CLIP_ORDERING_UNSORTED,
                         window_, 0, 0, 0, nullptr);
  }
  display_->setOwnWindow(window_, true);
  const std::uint32_t one = 1;
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, display_->atom("_QUORVIX_OWN_WINDOW"),
                      XCB_ATOM_CARDINAL, 32, 1, &one);
  // Compositors draw no shadow under docks or under windows that ask for none: ink and the
  // border must not darken what lies beside them.
  const xcb_atom_t dock = display_->atom("_NET_WM_WINDOW_TYPE_DOCK");
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, display_->atom("_NET_WM_WINDOW_TYPE"),
                      XCB_ATOM_ATOM, 32, 1, &dock);
  const std::uint32_t zero = 0;
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, display_->atom("_COMPTON_SHADOW"),
                      XCB_ATOM_CARDINAL, 32, 1, &zero);
  static constexpr char kClass[] = "quorvix-overlay\0Quorvix";
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8,
                      sizeof kClass, kClass);
  display_->flush();
}

X11OverlayWindow::~X11OverlayWindow() {
  xcb_connection_t* c = display_->connection();
  if (window_ != XCB_NONE) {
    display_->setOwnWindow(window_, false);
    xcb_destroy_window(c, window_);
  }
  if (pixmap_ != XCB_NONE)
    xcb_free_pixmap(c, pixmap_);
  if (colormap_ != XCB_NONE)
    xcb_free_colormap(c, colormap_);
  display_->flush();
}

void X11OverlayWindow::setFrame(const QRVRect& frame) {
  if (window_ == XCB_NONE)
    return;
  const std::uint32_t values[] = {static_cast<std::uint32_t>(coordinate(frame.x)),
                                  static_cast<std::uint32_t>(coordinate(frame.y)),
                                  extent(frame.width), extent(frame.height)};
  xcb_configure_window(display_->connection(), window_,
                       XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y | XCB_CONFIG_WINDOW_WIDTH |
                           XCB_CONFIG_WINDOW_HEIGHT,
                       values);
  width_ = extent(frame.width);
  height_ = extent(frame.height);
  display_->flush();
}

void X11OverlayWindow::show() {
  if (window_ == XCB_NONE)
    return;
  xcb_map_window(display_->connection(), window_);
  raise();
}

void X11OverlayWindow::hide() {
  if (window_ == XCB_NONE)
    return;
  xcb_unmap_window(display_->connection(), window_);
  display_->flush();
}

void X11OverlayWindow::raise() {
  if (window_ == XCB_NONE)
    return;
  const std::uint32_t above = XCB_STACK_MODE_ABOVE;
  xcb_configure_window(display_->connection(), window_, XCB_CONFIG_WINDOW_STACK_MODE, &above);
  display_->flush();
}

void X11OverlayWindow::paint(const std::uint32_t* pixels, int width, int height) {
  if (window_ == XCB_NONE || width <= 0 || height <= 0)
    return;
  xcb_connection_t* c = display_->connection();
  std::vector<std::uint32_t> opaque;
  const std::uint32_t* source = pixels;
  if (depth_ != 32) {
    // No blending: ink at full strength where any of it is, cut to shape below.
    opaque.assign(pixels, pixels + static_cast<std::size_t>(width) * height);
    for (auto& p : opaque) {
      const std::uint32_t a = p >> 24;
      if (a != 0 && a != 255) {
        auto channel = [&](int shift) { return std::min(255u, ((p >> shift) & 0xFF) * 255 / a); };
        p = 0xFF000000u | (channel(16) << 16) | (channel(8) << 8) | channel(0);
      }
    }
    source = opaque.data();
  }
  if (pixmap_ != XCB_NONE)
    xcb_free_pixmap(c, pixmap_);
  pixmap_ = xcb_generate_id(c);
  xcb_create_pixmap(c, depth_, pixmap_, window_, static_cast<std::uint16_t>(width),
                    static_cast<std::uint16_t>(height));
  xcb_gcontext_t gc = xcb_generate_id(c);
  xcb_create_gc(c, gc, pixmap_, 0, nullptr);
  // Bands that fit one request each.
  const std::size_t maxBytes = static_cast<std::size_t>(xcb_get_maximum_request_length(c)) * 4 - 64;
  const int rowsPerBand =
      std::max(1, static_cast<int>(maxBytes / (static_cast<std::size_t>(width) * 4)));
  for (int y = 0; y < height; y += rowsPerBand) {
    const int rows = std::min(rowsPerBand, height - y);
    xcb_put_image(
        c, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap_, gc, static_cast<std::uint16_t>(width),
        static_cast<std::uint16_t>(rows), 0, static_cast<std::int16_t>(y), 0, depth_,
        static_cast<std::uint32_t>(rows) * width * 4,
        reinterpret_cast<const std::uint8_t*>(source + static_cast<std::size_t>(y) * width));
  }
  xcb_free_gc(c, gc);
  // The server repaints from the background on every exposure: nothing to redraw here.
  xcb_change_window_attributes(c, window_, XCB_CW_BACK_PIXMAP, &pixmap_);
  xcb_clear_area(c, 0, window_, 0, 0, 0, 0);
  if (depth_ != 32) {
    auto region = opaqueRegion(pixels, width, height);
    xcb_shape_rectangles(c, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_BOUNDING, XCB_CLIP_ORDERING_UNSORTED,
                         window_, 0, 0, static_cast<std::uint32_t>(region.size()), region.data());
  }
  display_->flush();
}

void X11OverlayWindow::setOpacity(double opacity) {
  if (window_ == XCB_NONE)
    return;
  const auto value = static_cast<std::uint32_t>(std::clamp(opacity, 0.0, 1.0) * 0xFFFFFFFFu);
  xcb_change_property(display_->connection(), XCB_PROP_MODE_REPLACE, window_,
                      display_->atom("_NET_WM_WINDOW_OPACITY"), XCB_ATOM_CARDINAL, 32, 1, &value);
  display_->flush();
}

X11KeepAbove::X11KeepAbove(std::shared_ptr<X11Display> display) : display_(std::move(display)) {
  xcb_connection_t* c = display_->connection();
  // Add to whatever this connection already selects on the root.
  std::unique_ptr<xcb_get_window_attributes_reply_t, decltype(&std::free)> attributes(
      xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, display_->root()), nullptr),
      &std::free);
  const std::uint32_t mask =
      (attributes ? attributes->your_event_mask : 0) | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
  xcb_change_window_attributes(c, display_->root(), XCB_CW_EVENT_MASK, &mask);
  display_->flush();
  handler_ = display_->addEventHandler([this](const xcb_generic_event_t& event) {
    xcb_window_t window = XCB_NONE;
    switch (event.response_type & 0x7F) {
      case XCB_MAP_NOTIFY:
        window = reinterpret_cast<const xcb_map_notify_event_t&>(event).window;
        break;
      case XCB_CONFIGURE_NOTIFY:
        window = reinterpret_cast<const xcb_configure_notify_event_t&>(event).window;
        break;
      default:
        return;
    }
    if (windows_.empty() || display_->isOwnWindow(window))
      return;
    for (xcb_window_t own : windows_) {
      const std::uint32_t above = XCB_STACK_MODE_ABOVE;
      xcb_configure_window(display_->connection(), own, XCB_CONFIG_WINDOW_STACK_MODE, &above);
    }
    display_->flush();
  });
}

X11KeepAbove::~X11KeepAbove() {
  display_->removeEventHandler(handler_);
}

void X11KeepAbove::add(xcb_window_t window) {
  if (window != XCB_NONE)
    windows_.insert(window);
}

void X11KeepAbove::remove(xcb_window_t window) {
  windows_.erase(window);
}

QRVLinuxSessionIndicator::QRVLinuxSessionIndicator(std::shared_ptr<X11Display> display,
                                                   MainScreenFrame mainScreen)
    : display_(std::move(display)), mainScreen_(std::move(mainScreen)) {}

QRVLinuxSessionIndicator::~QRVLinuxSessionIndicator() {
  hide();
}

void QRVLinuxSessionIndicator::show() {
  assert(display_->mainQueue()->isCurrent());
  const QRVRect f = mainScreen_();
  const double b = kBorderWidth;
  const QRVRect strips[] = {
      {f.x, f.y, f.width, b},
      {f.x, f.y + f.height - b, f.width, b},
      {f.x, f.y + b, b, f.height - 2 * b},
      {f.x + f.width - b, f.y + b, b, f.height - 2 * b},
  };
  if (strips_.empty()) {
    keepAbove_ = std::make_unique<X11KeepAbove>(display_);
    for (const QRVRect& strip : strips) {
      strips_.push_back(std::make_unique<X11OverlayWindow>(display_, strip, 0xFF0000u));
      keepAbove_->add(strips_.back()->id());
    }
  }
  for (std::size_t i = 0; i < strips_.size(); ++i) {
    strips_[i]->setFrame(strips[i]);
    strips_[i]->show();
  }
}

void QRVLinuxSessionIndicator::hide() {
  strips_.clear();
  keepAbove_.reset();
}

X11AnnotationCanvas::X11AnnotationCanvas(std::shared_ptr<X11Display> display,
                                         MainScreenFrame mainScreen)
    : display_(std::move(display)),
      mainScreen_(std::move(mainScreen)),
      keepAbove_(display_),
      frame_(mainScreen_()) {}

X11AnnotationCanvas::~X11AnnotationCanvas() = default;

void X11AnnotationCanvas::setVisible(bool visible, const QRVRect& frame) {
  visible_ = visible;
  frame_ = frame;
  for (auto& [id, view] : views_) {
    if (visible && view.painted)
      view.window->show();
    else
      view.window->hide();
  }
  if (laser_) {
    if (visible && laserShown_)
      laser_->show();
    else
      laser_->hide();
  }
}

QRVAnnotationCanvas::ViewId X11AnnotationCanvas::addView() {
  const ViewId id = nextView_++;
  View view;
  view.window = std::make_unique<X11OverlayWindow>(display_, QRVRect{frame_.x, frame_.y, 1, 1});
  keepAbove_.add(view.window->id());
  views_.emplace(id, std::move(view));
  return id;
}

void X11AnnotationCanvas::setPicture(ViewId id,
                                     const QRVRect& rect,
                                     const Value::Bytes& bytes,
                                     const std::string& mimeType) {
  auto it = views_.find(id);
  if (it == views_.end())
    return;
  View& view = it->second;
  view.fadeGeneration++;
  auto picture = decodePicture(bytes.data(), bytes.size());
  if (!picture) {
    logger()->warn("The agent's drawing ({}) could not be shown", mimeType);
    view.painted = false;
    view.window->hide();
    return;
  }
  const int width = extent(rect.width);
  const int height = extent(rect.height);
  // The picture scaled to fit the rectangle, keeping its proportions, centred.
  std::vector<std::uint32_t> pixels(static_cast<std::size_t>(width) * height, 0);
  const int stride = width * 4;
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> target(
      cairo_image_surface_create_for_data(reinterpret_cast<unsigned char*>(pixels.data()),
                                          CAIRO_FORMAT_ARGB32, width, height, stride),
      &cairo_surface_destroy);
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> source(
      cairo_image_surface_create_for_data(reinterpret_cast<unsigned char*>(picture->pixels.data()),
                                          CAIRO_FORMAT_ARGB32, picture->width, picture->height,
                                          picture->width * 4),
      &cairo_surface_destroy);
  {
    std::unique_ptr<cairo_t, decltype(&cairo_destroy)> cr(cairo_create(target.get()),
                                                          &cairo_destroy);
    const double scale = std::min(static_cast<double>(width) / picture->width,
                                  static_cast<double>(height) / picture->height);
    cairo_translate(cr.get(), (width - picture->width * scale) / 2,
                    (height - picture->height * scale) / 2);
    cairo_scale(cr.get(), scale, scale);
    cairo_set_source_surface(cr.get(), source.get(), 0, 0);
    cairo_paint(cr.get());
  }
  cairo_surface_flush(target.get());
  view.window->setFrame({frame_.x + rect.x, frame_.y + rect.y, rect.width, rect.height});
  view.window->paint(pixels.data(), width, height);
  view.window->setOpacity(1.0);
  view.painted = true;
  if (visible_)
    view.window->show();
}

void X11AnnotationCanvas::fadeOut(ViewId id, Duration duration) {
  auto it = views_.find(id);
  // Without blending there is nothing to animate: the drawing goes when it is removed.
  if (it == views_.end() || !it->second.window->translucent() || duration <= Duration::zero())
    return;
  fadeStep(id, ++it->second.fadeGeneration, display_->mainQueue()->clock().now(), duration);
}

void X11AnnotationCanvas::fadeStep(ViewId id, int generation, SteadyTime start, Duration duration) {
  auto it = views_.find(id);
  if (it == views_.end() || it->second.fadeGeneration != generation)
    return;
  const auto& queue = display_->mainQueue();
  const double done = std::chrono::duration<double>(queue->clock().now() - start) /
                      std::chrono::duration<double>(duration);
  it->second.window->setOpacity(1.0 - std::min(1.0, done));
  if (done >= 1.0)
    return;
  std::weak_ptr<X11AnnotationCanvas> weak = weak_from_this();
  queue->postAfter(kFadeStep, [weak, id, generation, start, duration] {
    if (auto self = weak.lock())
      self->fadeStep(id, generation, start, duration);
  });
}

void X11AnnotationCanvas::removeView(ViewId id) {
  auto it = views_.find(id);
  if (it == views_.end())
    return;
  keepAbove_.remove(it->second.window->id());
  views_.erase(it);
}

void X11AnnotationCanvas::showLaser(QRVPoint center, QRVColor color) {
  const double half = kLaserSize / 2.0;
  const QRVRect rect{frame_.x + center.x - half, frame_.y + center.y - half, kLaserSize,
                     kLaserSize};
  if (!laser_) {
    laser_ = std::make_unique<X11OverlayWindow>(display_, rect);
    keepAbove_.add(laser_->id());
  }
  std::vector<std::uint32_t> pixels(kLaserSize * kLaserSize, 0);
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface(
      cairo_image_surface_create_for_data(reinterpret_cast<unsigned char*>(pixels.data()),
                                          CAIRO_FORMAT_ARGB32, kLaserSize, kLaserSize,
                                          kLaserSize * 4),
      &cairo_surface_destroy);
  {
    std::unique_ptr<cairo_t, decltype(&cairo_destroy)> cr(cairo_create(surface.get()),
                                                          &cairo_destroy);
    cairo_set_source_rgba(cr.get(), color.red, color.green, color.blue, 1.0);
    cairo_arc(cr.get(), half, half, half, 0, 2 * M_PI);
    cairo_fill(cr.get());
  }
  cairo_surface_flush(surface.get());
  laser_->setFrame(rect);
  laser_->paint(pixels.data(), kLaserSize, kLaserSize);
  laserShown_ = true;
  if (visible_)
    laser_->show();
}

void X11AnnotationCanvas::hideLaser() {
  laserShown_ = false;
  if (laser_)
    laser_->hide();
}

}  // namespace quorvix

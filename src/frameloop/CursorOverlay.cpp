#include "frameloop/CursorOverlay.h"

#include <algorithm>
#include <cmath>

#include <cairo.h>

namespace quorvix {
namespace {

constexpr std::uint32_t kBlack = 0xff000000;
constexpr std::uint32_t kWhite = 0xffffffff;

// 12 × 19 arrow: '#' black, '.' white, ' ' clear.
constexpr const char* kArrow[] = {
    ".           ", "..          ", ".#.         ", ".##.        ", ".###.       ",
    ".####.      ", ".#####.     ", ".######.    ", ".#######.   ", ".########.  ",
    ".#########. ", ".######.....", ".###.##.    ", ".##. .##.   ", ".#.  .##.   ",
    "..    .##.  ", "      .##.  ", "       ..   ", "            ",
};

struct SurfaceDeleter {
  void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
};
struct ContextDeleter {
  void operator()(cairo_t* c) const { cairo_destroy(c); }
};

}  // namespace

std::shared_ptr<const QRVCursorImage> QRVCursorImage::builtinArrow() {
  static const auto arrow = [] {
    auto image = std::make_shared<QRVCursorImage>();
    image->width = 12;
    image->height = int(std::size(kArrow));
    image->argb.reserve(std::size_t(image->width) * image->height);
    for (const char* row : kArrow)
      for (int x = 0; x < image->width; ++x)
        image->argb.push_back(row[x] == '#' ? kBlack : row[x] == '.' ? kWhite : 0);
    return std::shared_ptr<const QRVCursorImage>(std::move(image));
  }();
  return arrow;
}

std::shared_ptr<const QRVCursorImage> QRVCursorImage::fromServer(int width,
                                                                 int height,
                                                                 int hotX,
                                                                 int hotY,
                                                                 const std::uint32_t* pixels,
                                                                 std::size_t count) {
  if (pixels == nullptr || width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide ||
      count != std::size_t(width) * std::size_t(height))
    return nullptr;
  auto image = std::make_shared<QRVCursorImage>();
  image->width = width;
  image->height = height;
  image->hotX = std::clamp(hotX, 0, width);
  image->hotY = std::clamp(hotY, 0, height);
  image->argb.assign(pixels, pixels + count);
  return image;
}

bool placeCursor(const QRVScreenRect& screen,
                 int pictureWidth,
                 const QRVCursorImage& cursor,
                 const QRVPointerState& pointer,
                 CursorPlacement& out) {
  if (!screen.contains(pointer.x, pointer.y) || screen.width <= 0)
    return false;
  // Root pixels are the backing pixels here, so the hot spot needs no rescaling of its own.
  out.ratio = double(pictureWidth) / screen.width;
  const double px = pointer.x - screen.x;
  const double py = pointer.y - screen.y;
  out.x = out.ratio * (px - cursor.hotX);
  out.y = out.ratio * (py - cursor.hotY);
  const double d = 1.5 * std::max(cursor.width, cursor.height);
  out.ringSide = out.ratio * d;
  out.ringX = out.ratio * (px - d / 2);
  out.ringY = out.ratio * (py - d / 2);
  return true;
}

QRVScreenRect cursorBounds(int width,
                           int height,
                           const QRVScreenRect& screen,
                           const QRVCursorImage& cursor,
                           const QRVPointerState& pointer) {
  CursorPlacement place;
  if (width <= 0 || height <= 0 || !cursor.isValid() ||
      !placeCursor(screen, width, cursor, pointer, place))
    return {};
  double left = place.x;
  double top = place.y;
  double right = place.x + cursor.width * place.ratio;
  double bottom = place.y + cursor.height * place.ratio;
  if (pointer.buttons & (QRVPointerState::kLeftButton | QRVPointerState::kRightButton)) {
    // The ring's stroke is centred on its circle: half of the wider stroke lies outside.
    const double stroke = 3 * place.ratio;
    left = std::min(left, place.ringX - stroke);
    top = std::min(top, place.ringY - stroke);
    right = std::max(right, place.ringX + place.ringSide + stroke);
    bottom = std::max(bottom, place.ringY + place.ringSide + stroke);
  }
  // A pixel further each way for the filter's and the antialiasing's reach.
  const int x0 = std::clamp(int(std::floor(left)) - 1, 0, width);
  const int y0 = std::clamp(int(std::floor(top)) - 1, 0, height);
  const int x1 = std::clamp(int(std::ceil(right)) + 1, 0, width);
  const int y1 = std::clamp(int(std::ceil(bottom)) + 1, 0, height);
  if (x1 <= x0 || y1 <= y0)
    return {};
  return {x0, y0, x1 - x0, y1 - y0};
}

void drawCursor(std::uint8_t* bgrx,
                int width,
                int height,
                const QRVScreenRect& screen,
                const QRVCursorImage& cursor,
                const QRVPointerState& pointer) {
  CursorPlacement place;
  if (bgrx == nullptr || width <= 0 || height <= 0 || !cursor.isValid() ||
      !placeCursor(screen, width, cursor, pointer, place))
    return;
  std::unique_ptr<cairo_surface_t, SurfaceDeleter> target(
      cairo_image_surface_create_for_data(bgrx, CAIRO_FORMAT_RGB24, width, height, width * 4));
  std::unique_ptr<cairo_t, ContextDeleter> cr(cairo_create(target.get()));
  // Cairo's ARGB32 is premultiplied native-endian words: exactly the cursor's layout. It only
  // reads the pixels, whatever the non-const pointer suggests.
  std::unique_ptr<cairo_surface_t, SurfaceDeleter> image(cairo_image_surface_create_for_data(
      reinterpret_cast<unsigned char*>(const_cast<std::uint32_t*>(cursor.argb.data())),
      CAIRO_FORMAT_ARGB32, cursor.width, cursor.height, cursor.width * 4));

  cairo_save(cr.get());
  cairo_translate(cr.get(), place.x, place.y);
  cairo_scale(cr.get(), place.ratio, place.ratio);
  cairo_set_source_surface(cr.get(), image.get(), 0, 0);
  if (place.ratio != 1.0)
    cairo_pattern_set_filter(cairo_get_source(cr.get()), CAIRO_FILTER_GOOD);
  cairo_paint(cr.get());
  cairo_restore(cr.get());

  if ((pointer.buttons & (QRVPointerState::kLeftButton | QRVPointerState::kRightButton)) == 0)
    return;
  const double r = place.ratio;
  const double radius = place.ringSide / 2;
  const double cx = place.ringX + radius;
  const double cy = place.ringY + radius;
  cairo_new_path(cr.get());
  cairo_arc(cr.get(), cx, cy, radius, 0, 2 * 3.14159265358979323846);
  if (pointer.buttons & QRVPointerState::kLeftButton)
    cairo_set_source_rgb(cr.get(), 1, 1, 1);
  else
    cairo_set_source_rgb(cr.get(), 0, 1, 0);
  cairo_set_line_width(cr.get(), 6 * r);
  cairo_stroke_preserve(cr.get());
  cairo_set_source_rgb(cr.get(), 0, 0, 0);
  cairo_set_line_width(cr.get(), 4 * r);
  cairo_stroke(cr.get());
  cairo_surface_flush(target.get());
}

}  // namespace quorvix

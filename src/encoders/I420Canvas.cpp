#include "encoders/I420Canvas.h"

#include <algorithm>
#include <atomic>

#include <libyuv/convert_from_argb.h>

namespace quorvix {
namespace {

// Converts a rectangle of `image` into the planes at the same place. Chroma samples cover 2 × 2
// pixels, so the rectangle starts on even rows and columns and ends on even ones or the edge; then
// every sample is made from the same pixels, by the same code, as in a whole conversion.
bool convert(const QRVImage& image, std::uint8_t* planes, QRVPixelRect r) {
  const int w = image.width();
  const int h = image.height();
  const int x0 = std::max(0, r.x) & ~1;
  const int y0 = std::max(0, r.y) & ~1;
  const int x1 = std::min(w, (r.x + r.width + 1) & ~1);
  const int y1 = std::min(h, (r.y + r.height + 1) & ~1);
  if (x1 <= x0 || y1 <= y0)
    return true;
  const int strideUV = (w + 1) / 2;
  std::uint8_t* y = planes;
  std::uint8_t* u = y + std::size_t(w) * h;
  std::uint8_t* v = u + std::size_t(strideUV) * ((h + 1) / 2);
  const std::size_t chroma = std::size_t(y0 / 2) * strideUV + std::size_t(x0 / 2);
  return libyuv::ARGBToI420(image.bytes().data() + std::size_t(y0) * image.stride() +
                                std::size_t(x0) * QRVImage::kBytesPerPixel,
                            image.stride(), y + std::size_t(y0) * w + x0, w, u + chroma, strideUV,
                            v + chroma, strideUV, x1 - x0, y1 - y0) == 0;
}

}  // namespace

void I420Canvas::clear() {
  planes_.reset();
  source_.reset();
  width_ = height_ = 0;
}

std::shared_ptr<const QRVPixelBuffer> I420Canvas::update(const QRVFrame& frame) {
  lastConvertedPixels_ = 0;
  const auto image = frame.imageIfMade();
  if (!image) {
    clear();
    return frame.pixelBuffer();
  }
  const int w = image->width();
  const int h = image->height();
  // The same picture again (a repeat the stream still encodes) is in the planes already, which
  // never change while anyone holds them.
  if (planes_ && w == width_ && h == height_ && !source_.owner_before(image) &&
      !image.owner_before(source_))
    return QRVPixelBuffer::create(w, h, planes_);
  const QRVPictureChanges* changes = frame.changes();
  // The planes are written in place only once no picture made over them is held any more: a
  // picture handed out never changes.
  const bool incremental = planes_ && planes_.use_count() == 1 && w == width_ && h == height_ &&
                           changes && changes->isBasedOn(source_);
  // Orders the other holders' last reads before the writes below.
  std::atomic_thread_fence(std::memory_order_acquire);
  if (!incremental) {
    planes_ = QRVPixelBuffer::allocate(w, h);
    width_ = w;
    height_ = h;
    if (!planes_ || !convert(*image, planes_.get(), {0, 0, w, h})) {
      clear();
      return nullptr;
    }
    lastConvertedPixels_ = std::size_t(w) * h;
  } else {
    for (const QRVPixelRect& r : changes->rects) {
      if (!convert(*image, planes_.get(), r)) {
        clear();
        return nullptr;
      }
      lastConvertedPixels_ +=
          std::size_t(std::max(0, r.width)) * std::size_t(std::max(0, r.height));
    }
  }
  source_ = image;
  return QRVPixelBuffer::create(w, h, planes_);
}

}  // namespace quorvix

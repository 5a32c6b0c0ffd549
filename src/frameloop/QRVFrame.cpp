#include "frameloop/QRVFrame.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <libyuv/convert_argb.h>
#include <libyuv/convert_from_argb.h>
#include <libyuv/scale_argb.h>

#include "frameloop/RecycledBuffers.h"
#include "utils/Signpost.h"

namespace quorvix {
namespace {

// Bounds a picture so that every byte count and stride below fits an int, as libyuv takes them.
constexpr std::int64_t kMaxPixels = std::numeric_limits<int>::max() / QRVImage::kBytesPerPixel;

bool isPossibleSize(int width, int height) {
  return width > 0 && height > 0 && std::int64_t(width) * height <= kMaxPixels;
}

// libyuv names pixel layouts by their 32-bit word read little-endian: B, G, R, X in memory is its
// "ARGB".
std::shared_ptr<const QRVPixelBuffer> toPixelBuffer(const QRVImage& image) {
  SignpostInterval signpost("newCVImageBufferFromCGImage");
  const int w = image.width();
  const int h = image.height();
  auto planes = QRVPixelBuffer::allocate(w, h);
  if (!planes)
    return nullptr;
  const int strideUV = (w + 1) / 2;
  std::uint8_t* y = planes.get();
  std::uint8_t* u = y + std::size_t(w) * h;
  std::uint8_t* v = u + std::size_t(strideUV) * ((h + 1) / 2);
  if (libyuv::ARGBToI420(image.bytes().data(), image.stride(), y, w, u, strideUV, v, strideUV, w,
                         h) != 0)
    return nullptr;
  return QRVPixelBuffer::create(w, h, std::move(planes));
}

std::shared_ptr<const QRVImage> toImage(const QRVPixelBuffer& buffer) {
  const int w = buffer.width();
  const int h = buffer.height();
  auto bgrx = QRVImage::allocate(w, h);
  if (!bgrx || libyuv::I420ToARGB(buffer.dataY(), buffer.strideY(), buffer.dataU(),
                                  buffer.strideUV(), buffer.dataV(), buffer.strideUV(), bgrx.get(),
                                  w * QRVImage::kBytesPerPixel, w, h) != 0)
    return nullptr;
  return QRVImage::wrap(w, h, bgrx.get(), bgrx);
}

}  // namespace

std::shared_ptr<const QRVImage> QRVImage::create(int width,
                                                 int height,
                                                 std::vector<std::uint8_t> bgrx) {
  if (!isPossibleSize(width, height) || bgrx.size() != std::size_t(width) * height * kBytesPerPixel)
    return nullptr;
  auto rows = std::make_shared<const std::vector<std::uint8_t>>(std::move(bgrx));
  const std::span<const std::uint8_t> bytes(*rows);
  return std::shared_ptr<const QRVImage>(new QRVImage(width, height, bytes, std::move(rows)));
}

std::shared_ptr<const QRVImage> QRVImage::wrap(int width,
                                               int height,
                                               const std::uint8_t* bgrx,
                                               std::shared_ptr<const void> owner) {
  if (bgrx == nullptr || !isPossibleSize(width, height))
    return nullptr;
  const std::span<const std::uint8_t> bytes(bgrx, std::size_t(width) * height * kBytesPerPixel);
  return std::shared_ptr<const QRVImage>(new QRVImage(width, height, bytes, std::move(owner)));
}

std::shared_ptr<std::uint8_t[]> QRVImage::allocate(int width, int height) {
  if (!isPossibleSize(width, height))
    return nullptr;
  return recycledBuffer(std::size_t(width) * height * kBytesPerPixel);
}

std::size_t QRVPixelBuffer::byteCount(int width, int height) {
  if (!isPossibleSize(width, height))
    return 0;
  const std::size_t chroma = std::size_t((width + 1) / 2) * ((height + 1) / 2);
  return std::size_t(width) * height + 2 * chroma;
}

std::shared_ptr<const QRVPixelBuffer> QRVPixelBuffer::create(int width,
                                                             int height,
                                                             std::vector<std::uint8_t> planes) {
  const std::size_t expected = byteCount(width, height);
  if (expected == 0 || planes.size() != expected)
    return nullptr;
  auto owned = std::make_shared<const std::vector<std::uint8_t>>(std::move(planes));
  const std::span<const std::uint8_t> bytes(*owned);
  return std::shared_ptr<const QRVPixelBuffer>(
      new QRVPixelBuffer(width, height, bytes, std::move(owned)));
}

std::shared_ptr<std::uint8_t[]> QRVPixelBuffer::allocate(int width, int height) {
  const std::size_t size = byteCount(width, height);
  if (size == 0)
    return nullptr;
  return recycledBuffer(size);
}

std::shared_ptr<const QRVPixelBuffer>
QRVPixelBuffer::create(int width, int height, std::shared_ptr<std::uint8_t[]> planes) {
  const std::size_t size = byteCount(width, height);
  if (size == 0 || !planes)
    return nullptr;
  const std::span<const std::uint8_t> bytes(planes.get(), size);
  return std::shared_ptr<const QRVPixelBuffer>(
      new QRVPixelBuffer(width, height, bytes, std::move(planes)));
}

bool QRVPictureChanges::isBasedOn(const std::weak_ptr<const QRVImage>& image) const {
  auto same = [](const std::weak_ptr<const QRVImage>& a, const std::weak_ptr<const QRVImage>& b) {
    return !a.owner_before(b) && !b.owner_before(a);
  };
  return !same(base, {}) && same(base, image);
}

QRVFrame::QRVFrame(std::shared_ptr<const QRVImage> image,
                   std::shared_ptr<const QRVPictureChanges> changes)
    : width_(image ? image->width() : 0),
      height_(image ? image->height() : 0),
      changes_(image ? std::move(changes) : nullptr),
      image_(std::move(image)) {}

QRVFrame::QRVFrame(std::shared_ptr<const QRVPixelBuffer> pixelBuffer)
    : width_(pixelBuffer ? pixelBuffer->width() : 0),
      height_(pixelBuffer ? pixelBuffer->height() : 0),
      pixelBuffer_(std::move(pixelBuffer)) {}

std::shared_ptr<const QRVImage> QRVFrame::image() const {
  std::lock_guard lock(formsMutex_);
  if (!image_ && pixelBuffer_)
    image_ = toImage(*pixelBuffer_);
  return image_;
}

std::shared_ptr<const QRVPixelBuffer> QRVFrame::pixelBuffer() const {
  std::lock_guard lock(formsMutex_);
  if (!pixelBuffer_ && image_)
    pixelBuffer_ = toPixelBuffer(*image_);
  return pixelBuffer_;
}

QRVFrame::Forms QRVFrame::currentForms() const {
  std::lock_guard lock(formsMutex_);
  return {image_, pixelBuffer_};
}

bool QRVFrame::sameAs(const QRVFrame& other) const {
  const Forms mine = currentForms();
  const Forms theirs = other.currentForms();
  if (mine.pixelBuffer && mine.pixelBuffer == theirs.pixelBuffer)
    return true;
  if (mine.image && mine.image == theirs.image)
    return true;
  if (width_ != other.width_ || height_ != other.height_)
    return false;
  if (mine.image && theirs.image)
    return std::ranges::equal(mine.image->bytes(), theirs.image->bytes());
  const auto a = pixelBuffer();
  const auto b = other.pixelBuffer();
  if (!a || !b)
    return false;
  return std::ranges::equal(a->bytes(), b->bytes());
}

std::shared_ptr<QRVFrame> QRVFrame::scale(double factor) const {
  const double w = width_ * factor;
  const double h = height_ * factor;
  const auto source = image();
  // Checked as doubles first: truncating a value outside int's range is undefined.
  if (!source || !std::isfinite(w) || !std::isfinite(h) || w < 1 || h < 1 || w > kMaxPixels ||
      h > kMaxPixels || !isPossibleSize(int(w), int(h)))
    return std::make_shared<QRVFrame>(std::shared_ptr<const QRVImage>());
  const int newWidth = int(w);
  const int newHeight = int(h);
  auto bgrx = QRVImage::allocate(newWidth, newHeight);
  if (!bgrx || libyuv::ARGBScale(source->bytes().data(), source->stride(), width_, height_,
                                 bgrx.get(), newWidth * QRVImage::kBytesPerPixel, newWidth,
                                 newHeight, libyuv::kFilterBox) != 0)
    return std::make_shared<QRVFrame>(std::shared_ptr<const QRVImage>());
  return std::make_shared<QRVFrame>(QRVImage::wrap(newWidth, newHeight, bgrx.get(), bgrx));
}

QRVSampleTiming QRVFrame::timing() const {
  std::lock_guard lock(timingMutex_);
  return timing_;
}

void QRVFrame::setTiming(const QRVSampleTiming& timing) {
  std::lock_guard lock(timingMutex_);
  timing_ = timing;
}

}  // namespace quorvix

#include "frameloop/linux/QRVX11DisplayFrameSource.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>
#include <vector>

#include <libyuv/scale_argb.h>

#include "utils/Logging.h"

namespace quorvix {
namespace {

auto logger() {
  return QRV_LOGGER_FOR("QRVX11DisplayFrameSource");
}

// Whether parts in groups of eight columns scale to what a whole row gives on this machine's
// vector code; checked once on a row long enough for every vector width.
bool partsScaleLikeWhole() {
  static const bool same = [] {
    constexpr int kWidth = 1928;
    std::vector<std::uint8_t> row(std::size_t(kWidth) * 2 * 4);
    std::uint32_t seed = 1;
    for (auto& b : row)
      b = std::uint8_t((seed = seed * 1103515245 + 12345) >> 16);
    std::vector<std::uint8_t> whole(std::size_t(kWidth / 2) * 4);
    std::vector<std::uint8_t> parts(whole.size());
    libyuv::ARGBScale(row.data(), kWidth * 4, kWidth, 2, whole.data(), kWidth * 2, kWidth / 2, 1,
                      libyuv::kFilterBilinear);
    for (const auto& [x, width] : {std::pair{0, 8}, {8, 24}, {32, 1888}, {1920, 8}})
      libyuv::ARGBScale(row.data() + x * 4, kWidth * 4, width, 2, parts.data() + x * 2, kWidth * 2,
                        width / 2, 1, libyuv::kFilterBilinear);
    return whole == parts;
  }();
  return same;
}

}  // namespace

QRVX11DisplayFrameSource::QRVX11DisplayFrameSource(std::shared_ptr<Executor> mainQueue,
                                                   const std::string& displayName)
    : QRVX11DisplayFrameSource(
          std::move(mainQueue),
          Platform{[displayName] { return canRecordScreen(displayName); },
                   [displayName] { return DisplayGrabber::createX11(displayName); }}) {}

QRVX11DisplayFrameSource::QRVX11DisplayFrameSource(std::shared_ptr<Executor> mainQueue,
                                                   Platform platform)
    : mainQueue_(std::move(mainQueue)), platform_(std::move(platform)) {}

QRVX11DisplayFrameSource::~QRVX11DisplayFrameSource() {
  capturingWillStop();
}

bool QRVX11DisplayFrameSource::canRecordScreen(const std::string& displayName) {
  return DisplayGrabber::canReadX11Display(displayName);
}

void QRVX11DisplayFrameSource::assertOnMainQueue() const {
  assert(mainQueue_->isCurrent() && "QRVX11DisplayFrameSource used off the main queue");
}

void QRVX11DisplayFrameSource::capturingWillStart() {
  assertOnMainQueue();
  if (!platform_.canRecordScreen()) {
    logger()->debug("no screen capture permission");
    if (auto delegate = delegate_.lock())
      delegate->screenCaptureDidFailWithError(
          QRVError(kErrorDomain, kNoPermissionCode, "The screen cannot be read."));
    return;
  }
  logger()->debug("starting system capture");
  if (auto delegate = delegate_.lock())
    delegate->screenCaptureDidStart();
  logger()->debug("will start capturing screen");
  sessionRunning_ = true;
  grabber_ = platform_.openGrabber();
  detector_.reset();
  if (grabber_ && !grabber_->notifiesChanges())
    detector_.startPolling();
  if (!targetScreen_ && grabber_)
    targetScreen_ = grabber_->mainScreen();
}

void QRVX11DisplayFrameSource::capturingWillStop() {
  assertOnMainQueue();
  logger()->debug("capturing will stop");
  sessionRunning_ = false;
  grabber_.reset();
  hasInput_ = false;
  latest_.reset();
  lastReadRect_ = {};
  detector_.reset();
}

std::shared_ptr<QRVFrame> QRVX11DisplayFrameSource::newFrame(double scale) {
  assertOnMainQueue();
  if (!hasInput_)
    createInput(scale);
  if (sessionRunning_)
    captureIfDue();
  if (latest_)
    return std::make_shared<QRVFrame>(latest_);
  logger()->debug("no frames yet");
  return nullptr;
}

void QRVX11DisplayFrameSource::setScreen(std::shared_ptr<const QRVScreen> screen) {
  assertOnMainQueue();
  if (sameScreen(screen, targetScreen_))
    return;
  logger()->debug("screen changed to {} from {}", describe(screen), describe(targetScreen_));
  hasInput_ = false;
  detector_.reset();
  targetScreen_ = std::move(screen);
}

void QRVX11DisplayFrameSource::createInput(double scale) {
  logger()->debug("creating screen input {:f} {}", scale, describe(targetScreen_));
  // Root pixels are backing pixels here: the factor is the scale asked for.
  inputScale_ = scale;
  hasInput_ = true;
  // A picture of the old screen or scale is not handed out for the new input.
  latest_.reset();
  detector_.reset();
  logger()->debug("final scale factor {:f}", inputScale_);
}

void QRVX11DisplayFrameSource::captureIfDue() {
  const SteadyTime now = mainQueue_->clock().now();
  if (now < nextCapture_)
    return;
  // Paced on a grid so that a tick arriving a little early is not skipped, while the average
  // stays at or under ten a second.
  constexpr Duration kEarlyTick = std::chrono::milliseconds(10);
  nextCapture_ =
      std::max(nextCapture_ + kMinCaptureInterval, now + kMinCaptureInterval - kEarlyTick);

  if (!grabber_) {
    if (now < nextReconnect_)
      return;
    nextReconnect_ = now + kReconnectInterval;
    grabber_ = platform_.openGrabber();
    if (!grabber_)
      return;
    logger()->debug("display connection made again");
    detector_.reset();
    if (!grabber_->notifiesChanges())
      detector_.startPolling();
  }

  auto screen = targetScreen_ ? targetScreen_ : grabber_->mainScreen();
  if (!screen) {
    if (grabber_->lost())
      connectionLost();
    return;
  }
  const QRVScreenRect rect = screen->frame();
  // The pointer query is a round trip, after which every notification of what happened before
  // it has arrived.
  const QRVPointerState pointer = grabber_->pointer();
  const bool damaged = grabber_->takeDamage(rect);
  if (grabber_->lost()) {
    connectionLost();
    return;
  }
  const bool sameArea = rect == lastReadRect_;
  const auto action = detector_.decide(now, damaged, pointer, latest_ != nullptr && sameArea);
  switch (action) {
    case CaptureChangeDetector::Action::reuse:
      return;
    case CaptureChangeDetector::Action::recomposite:
      recomposite(pointer);
      return;
    case CaptureChangeDetector::Action::capture:
    case CaptureChangeDetector::Action::compare:
      break;
  }
  if (action == CaptureChangeDetector::Action::capture && refreshParts(rect, pointer)) {
    logger()->debug("got capture output");
    return;
  }
  GrabbedPixels read = grabber_->read(rect);
  if (read.empty()) {
    if (grabber_->lost()) {
      connectionLost();
      return;
    }
    logger()->debug("capture output was NULL");
    detector_.reset();
    return;
  }
  const int width = int(rect.width * inputScale_);
  const int height = int(rect.height * inputScale_);
  GrabbedPixels scaled = scaleRead(std::move(read), rect, width, height);
  if (scaled.empty()) {
    detector_.reset();
    return;
  }
  if (action == CaptureChangeDetector::Action::compare) {
    const bool differs = !latest_ || lastReadRect_ != rect || latest_->width() != width ||
                         latest_->height() != height || !sameAsLatest(scaled.data);
    if (detector_.compared(differs))
      logger()->debug("the screen changed without a change notification; comparing every capture");
    if (!differs) {
      if (detector_.pointerChanged())
        recomposite(pointer);
      return;
    }
  }
  lastReadRect_ = rect;
  logger()->debug("got capture output");
  publish(std::move(scaled), width, height, pointer);
}

void QRVX11DisplayFrameSource::connectionLost() {
  logger()->error("display connection lost; capture resumes when the display is back");
  grabber_.reset();
  latest_.reset();
  lastReadRect_ = {};
  detector_.reset();
  nextReconnect_ = mainQueue_->clock().now() + kReconnectInterval;
}

GrabbedPixels QRVX11DisplayFrameSource::scaleRead(GrabbedPixels read,
                                                  const QRVScreenRect& rect,
                                                  int width,
                                                  int height) const {
  if (width <= 0 || height <= 0)
    return {};
  if (width == rect.width && height == rect.height)
    return read;
  auto out = QRVImage::allocate(width, height);
  if (!out || libyuv::ARGBScale(read.data, rect.width * 4, rect.width, rect.height, out.get(),
                                width * 4, width, height, libyuv::kFilterBilinear) != 0) {
    logger()->debug("scaling the capture output failed");
    return {};
  }
  return {out.get(), out};
}

bool QRVX11DisplayFrameSource::refreshParts(const QRVScreenRect& rect,
                                            const QRVPointerState& pointer) {
  // At exactly half size every output pixel is the mean of a 2 × 2 box, so a part starting on an
  // even row scales to what the whole would give there. Other scales read the whole. Columns go in
  // groups of eight: the scaler's vector code rounds differently from its scalar tail, so a part
  // must split its rows into groups where the whole does.
  if (!latest_ || rect != lastReadRect_ || rect.width % 2 != 0 || rect.height % 2 != 0 ||
      latest_->width() * 2 != rect.width || latest_->height() * 2 != rect.height ||
      !partsScaleLikeWhole())
    return false;
  const auto damage = grabber_->lastDamage();
  if (!damage || damage->empty())
    return false;
  std::vector<QRVScreenRect> parts;
  std::size_t area = 0;
  for (const QRVScreenRect& d : *damage) {
    const int x0 = (d.x - rect.x) & ~7;
    const int y0 = (d.y - rect.y) & ~1;
    const int x1 = std::min(rect.width, (d.x + d.width - rect.x + 7) & ~7);
    const int y1 = std::min(rect.height, (d.y + d.height - rect.y + 1) & ~1);
    if (x0 < 0 || y0 < 0 || x1 <= x0 || y1 <= y0)
      return false;
    parts.push_back({rect.x + x0, rect.y + y0, x1 - x0, y1 - y0});
    area += std::size_t(x1 - x0) * (y1 - y0);
  }
  // Past a third of the screen, one whole read costs less than the pieces and the copy.
  if (area * kMaxPartShare > std::size_t(rect.width) * rect.height)
    return false;
  const int width = latest_->width();
  const int height = latest_->height();
  auto out = QRVImage::allocate(width, height);
  if (!out)
    return false;
  std::memcpy(out.get(), latest_->bytes().data(), latest_->bytes().size());
  restorePatch(out.get(), width);
  for (const QRVScreenRect& part : parts) {
    const auto read = grabber_->readPart(part);
    std::uint8_t* at = out.get() + (std::size_t((part.y - rect.y) / 2) * width +
                                    std::size_t((part.x - rect.x) / 2)) *
                                       QRVImage::kBytesPerPixel;
    if (read.empty() ||
        libyuv::ARGBScale(read.data(), part.width * 4, part.width, part.height, at, width * 4,
                          part.width / 2, part.height / 2, libyuv::kFilterBilinear) != 0)
      return false;
  }
  publish({out.get(), out}, width, height, pointer);
  return true;
}

void QRVX11DisplayFrameSource::restorePatch(std::uint8_t* bgrx, int width) const {
  const std::size_t stride = std::size_t(width) * QRVImage::kBytesPerPixel;
  const std::size_t rowBytes = std::size_t(patch_.rect.width) * QRVImage::kBytesPerPixel;
  for (int row = 0; row < patch_.rect.height; ++row)
    std::memcpy(bgrx + (patch_.rect.y + row) * stride +
                    std::size_t(patch_.rect.x) * QRVImage::kBytesPerPixel,
                patch_.clean.data() + row * rowBytes, rowBytes);
}

void QRVX11DisplayFrameSource::publish(GrabbedPixels pixels,
                                       int width,
                                       int height,
                                       const QRVPointerState& pointer) {
  const std::size_t stride = std::size_t(width) * QRVImage::kBytesPerPixel;
  patch_ = {};
  if (grabber_) {
    const auto cursor = grabber_->cursor();
    patch_.rect = cursorBounds(width, height, lastReadRect_, *cursor, pointer);
    if (!patch_.rect.isEmpty()) {
      const std::size_t rowBytes = std::size_t(patch_.rect.width) * QRVImage::kBytesPerPixel;
      patch_.clean.resize(rowBytes * patch_.rect.height);
      for (int row = 0; row < patch_.rect.height; ++row)
        std::memcpy(patch_.clean.data() + row * rowBytes,
                    pixels.data + (patch_.rect.y + row) * stride +
                        std::size_t(patch_.rect.x) * QRVImage::kBytesPerPixel,
                    rowBytes);
      drawCursor(pixels.data, width, height, lastReadRect_, *cursor, pointer);
    }
  }
  latest_ = QRVImage::wrap(width, height, pixels.data, std::move(pixels.owner));
}

void QRVX11DisplayFrameSource::recomposite(const QRVPointerState& pointer) {
  if (!latest_)
    return;
  const int width = latest_->width();
  const int height = latest_->height();
  auto copy = QRVImage::allocate(width, height);
  if (!copy)
    return;
  std::memcpy(copy.get(), latest_->bytes().data(), latest_->bytes().size());
  restorePatch(copy.get(), width);
  publish({copy.get(), copy}, width, height, pointer);
}

bool QRVX11DisplayFrameSource::sameAsLatest(const std::uint8_t* clean) const {
  const std::uint8_t* shown = latest_->bytes().data();
  const std::size_t stride = std::size_t(latest_->width()) * QRVImage::kBytesPerPixel;
  const QRVScreenRect& p = patch_.rect;
  if (p.isEmpty())
    return std::memcmp(clean, shown, stride * latest_->height()) == 0;
  // Rows above and below the cursor compare whole; beside it, the clean pixels kept from under
  // it stand in for what is drawn.
  const std::size_t above = std::size_t(p.y) * stride;
  const std::size_t below = std::size_t(p.y + p.height) * stride;
  if (std::memcmp(clean, shown, above) != 0 ||
      std::memcmp(clean + below, shown + below, stride * latest_->height() - below) != 0)
    return false;
  const std::size_t left = std::size_t(p.x) * QRVImage::kBytesPerPixel;
  const std::size_t inside = std::size_t(p.width) * QRVImage::kBytesPerPixel;
  for (int row = 0; row < p.height; ++row) {
    const std::size_t at = (p.y + row) * stride;
    if (std::memcmp(clean + at, shown + at, left) != 0 ||
        std::memcmp(clean + at + left, patch_.clean.data() + row * inside, inside) != 0 ||
        std::memcmp(clean + at + left + inside, shown + at + left + inside,
                    stride - left - inside) != 0)
      return false;
  }
  return true;
}

}  // namespace quorvix

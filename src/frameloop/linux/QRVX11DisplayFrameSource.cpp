#include "frameloop/linux/QRVX11DisplayFrameSource.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include <libyuv/scale_argb.h>

#include "frameloop/OverlayRepair.h"
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
  latestChanges_.reset();
  unread_.reset();
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
    return std::make_shared<QRVFrame>(latest_, latestChanges_);
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
  latestChanges_.reset();
  unread_.reset();
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
  noteDamage(damaged);
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
  Picture scaled = scaleRead(std::move(read), rect, width, height);
  if (scaled.pixels.empty()) {
    detector_.reset();
    return;
  }
  if (action == CaptureChangeDetector::Action::compare) {
    const bool differs = !latest_ || lastReadRect_ != rect || latest_->width() != width ||
                         latest_->height() != height || !sameAsLatest(scaled.pixels.data);
    if (detector_.compared(differs))
      logger()->debug("the screen changed without a change notification; comparing every capture");
    // The notifications cannot say whether they account for the difference.
    if (differs)
      unread_.reset();
    if (!differs) {
      if (detector_.pointerChanged())
        recomposite(pointer);
      return;
    }
  }
  lastReadRect_ = rect;
  logger()->debug("got capture output");
  publish(std::move(scaled), width, height, pointer, nullptr);
}

void QRVX11DisplayFrameSource::connectionLost() {
  logger()->error("display connection lost; capture resumes when the display is back");
  grabber_.reset();
  latest_.reset();
  latestChanges_.reset();
  unread_.reset();
  lastReadRect_ = {};
  detector_.reset();
  nextReconnect_ = mainQueue_->clock().now() + kReconnectInterval;
}

QRVX11DisplayFrameSource::Picture QRVX11DisplayFrameSource::newPicture(const QRVScreenRect& of,
                                                                       int width,
                                                                       int height) {
  if (width * 2 != of.width || height * 2 != of.height) {
    auto bgrx = QRVImage::allocate(width, height);
    return {{bgrx.get(), bgrx}, std::nullopt};
  }
  if (!halves_.empty() && (halves_.front().width != width || halves_.front().height != height)) {
    halves_.clear();
    halfLeases_.clear();
  }
  std::optional<std::size_t> index = halfLeases_.take();
  if (!index && halves_.size() < kMaxHalfPictures) {
    auto bgrx = QRVImage::allocate(width, height);
    if (!bgrx)
      return {};
    halves_.push_back({bgrx, width, height});
    index = halfLeases_.add();
  }
  if (!index) {
    auto bgrx = QRVImage::allocate(width, height);
    return {{bgrx.get(), bgrx}, std::nullopt};
  }
  return leaseHalf(*index);
}

QRVX11DisplayFrameSource::Picture QRVX11DisplayFrameSource::leaseHalf(std::size_t index) {
  // Unusable for an update until it is handed out whole: a fill may stop halfway.
  halves_[index].generation = 0;
  std::uint8_t* data = halves_[index].pixels.get();
  return {{data, halfLeases_.lease(index, data, halves_[index].pixels)}, index};
}

QRVX11DisplayFrameSource::Picture QRVX11DisplayFrameSource::scaleRead(GrabbedPixels read,
                                                                      const QRVScreenRect& rect,
                                                                      int width,
                                                                      int height) {
  if (width <= 0 || height <= 0)
    return {};
  if (width == rect.width && height == rect.height)
    return {std::move(read), std::nullopt};
  Picture out = newPicture(rect, width, height);
  if (out.pixels.empty() ||
      libyuv::ARGBScale(read.data, rect.width * 4, rect.width, rect.height, out.pixels.data,
                        width * 4, width, height, libyuv::kFilterBilinear) != 0) {
    logger()->debug("scaling the capture output failed");
    return {};
  }
  return out;
}

namespace {

std::size_t areaOf(const std::vector<QRVScreenRect>& parts) {
  std::size_t area = 0;
  for (const auto& p : parts)
    area += std::size_t(p.width) * p.height;
  return area;
}

}  // namespace

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
  const auto& damage = unread_;
  if (!damage || damage->empty())
    return false;
  std::vector<QRVScreenRect> parts;
  for (const QRVScreenRect& d : *damage) {
    const int x0 = (d.x - rect.x) & ~7;
    const int y0 = (d.y - rect.y) & ~1;
    const int x1 = std::min(rect.width, (d.x + d.width - rect.x + 7) & ~7);
    const int y1 = std::min(rect.height, (d.y + d.height - rect.y + 1) & ~1);
    if (x0 < 0 || y0 < 0 || x1 <= x0 || y1 <= y0)
      return false;
    parts.push_back({rect.x + x0, rect.y + y0, x1 - x0, y1 - y0});
  }
  // Past a third of the screen, one whole read costs less than the pieces and the copy.
  const std::size_t most = std::size_t(rect.width) * rect.height / kMaxPartShare;
  if (areaOf(parts) > most)
    return false;
  const int width = latest_->width();
  const int height = latest_->height();

  // A picture nobody holds any more, made since the history starts, needs only what changed
  // since it was made; any other starts as a copy of the held one.
  std::optional<std::size_t> reuse;
  for (std::size_t i = 0; i < halves_.size(); ++i)
    if (halves_[i].width == width && halves_[i].height == height &&
        halves_[i].generation >= historyStart_ &&
        (!reuse || halves_[i].generation > halves_[*reuse].generation) && halfLeases_.isFree(i))
      reuse = i;
  std::vector<QRVScreenRect> toRead = parts;
  if (reuse) {
    // A busy window changes in the same place frame after frame: what one part contains is
    // read once.
    for (const auto& [generation, changed] : history_)
      if (generation > halves_[*reuse].generation)
        for (const QRVScreenRect& c : changed)
          if (std::none_of(toRead.begin(), toRead.end(),
                           [&c](const QRVScreenRect& r) { return containsRect(r, c); })) {
            std::erase_if(toRead, [&c](const QRVScreenRect& r) { return containsRect(c, r); });
            toRead.push_back(c);
          }
    if (areaOf(toRead) > most || !halfLeases_.take(*reuse)) {
      reuse.reset();
      toRead = parts;
    }
  }
  Picture out = reuse ? leaseHalf(*reuse) : newPicture(rect, width, height);
  if (out.pixels.empty())
    return false;
  if (reuse) {
    restorePatch(out.pixels.data, width, halves_[*reuse].patch);
    halves_[*reuse].patch = {};
  } else {
    std::memcpy(out.pixels.data, latest_->bytes().data(), latest_->bytes().size());
    restorePatch(out.pixels.data, width, patch_);
  }
  for (const QRVScreenRect& part : toRead) {
    const auto read = grabber_->readPart(part);
    std::uint8_t* at = out.pixels.data + (std::size_t((part.y - rect.y) / 2) * width +
                                          std::size_t((part.x - rect.x) / 2)) *
                                             QRVImage::kBytesPerPixel;
    if (read.empty() ||
        libyuv::ARGBScale(read.data(), part.width * 4, part.width, part.height, at, width * 4,
                          part.width / 2, part.height / 2, libyuv::kFilterBilinear) != 0)
      return false;
  }
  publish(std::move(out), width, height, pointer, &parts);
  return true;
}

void QRVX11DisplayFrameSource::restorePatch(std::uint8_t* bgrx,
                                            int width,
                                            const CursorPatch& patch) {
  const std::size_t stride = std::size_t(width) * QRVImage::kBytesPerPixel;
  const std::size_t rowBytes = std::size_t(patch.rect.width) * QRVImage::kBytesPerPixel;
  for (int row = 0; row < patch.rect.height; ++row)
    std::memcpy(
        bgrx + (patch.rect.y + row) * stride + std::size_t(patch.rect.x) * QRVImage::kBytesPerPixel,
        patch.clean.data() + row * rowBytes, rowBytes);
}

void QRVX11DisplayFrameSource::noteDamage(bool damaged) {
  if (!unread_)
    return;
  if (const auto damage = grabber_->lastDamage()) {
    unread_->insert(unread_->end(), damage->begin(), damage->end());
    if (unread_->size() > kMaxUnreadChanges)
      unread_.reset();
  } else if (damaged) {
    unread_.reset();
  }
}

std::shared_ptr<QRVPictureChanges> QRVX11DisplayFrameSource::changesSinceLatest(int width,
                                                                                int height) const {
  if (!latest_ || !unread_ || latest_->width() != width || latest_->height() != height ||
      lastReadRect_.isEmpty())
    return nullptr;
  auto changes = std::make_shared<QRVPictureChanges>();
  changes->base = latest_;
  const QRVScreenRect& from = lastReadRect_;
  const double sx = double(width) / from.width;
  const double sy = double(height) / from.height;
  // A scaled pixel is filtered from its neighbours too.
  const int margin = width == from.width && height == from.height ? 0 : 2;
  for (const QRVScreenRect& r : *unread_) {
    const int x0 = std::max(0, int(std::floor((r.x - from.x) * sx)) - margin);
    const int y0 = std::max(0, int(std::floor((r.y - from.y) * sy)) - margin);
    const int x1 = std::min(width, int(std::ceil((r.x + r.width - from.x) * sx)) + margin);
    const int y1 = std::min(height, int(std::ceil((r.y + r.height - from.y) * sy)) + margin);
    if (x1 > x0 && y1 > y0)
      changes->rects.push_back({x0, y0, x1 - x0, y1 - y0});
  }
  if (!patch_.rect.isEmpty())
    changes->rects.push_back({patch_.rect.x, patch_.rect.y, patch_.rect.width, patch_.rect.height});
  return changes;
}

void QRVX11DisplayFrameSource::publish(Picture picture,
                                       int width,
                                       int height,
                                       const QRVPointerState& pointer,
                                       const std::vector<QRVScreenRect>* changed,
                                       bool read) {
  std::uint8_t* const pixels = picture.pixels.data;
  const std::size_t stride = std::size_t(width) * QRVImage::kBytesPerPixel;
  // Made before patch_ goes: the cursor drawn in the held picture is a change too.
  auto changes = changesSinceLatest(width, height);
  // A whole read takes in whatever the notifications missed, where the comparison with the held
  // picture cannot see it any more. So at least once a second a picture comes without its
  // changes, and encoders that trust them look at all of it.
  const SteadyTime now = mainQueue_->clock().now();
  if (changes && now - lastUndescribed_ >= CaptureChangeDetector::kVerifyInterval)
    changes.reset();
  if (!changes)
    lastUndescribed_ = now;
  patch_ = {};
  if (grabber_) {
    const auto cursor = grabber_->cursor();
    patch_.rect = cursorBounds(width, height, lastReadRect_, *cursor, pointer);
    if (!patch_.rect.isEmpty()) {
      const std::size_t rowBytes = std::size_t(patch_.rect.width) * QRVImage::kBytesPerPixel;
      patch_.clean.resize(rowBytes * patch_.rect.height);
      for (int row = 0; row < patch_.rect.height; ++row)
        std::memcpy(patch_.clean.data() + row * rowBytes,
                    pixels + (patch_.rect.y + row) * stride +
                        std::size_t(patch_.rect.x) * QRVImage::kBytesPerPixel,
                    rowBytes);
      drawCursor(pixels, width, height, lastReadRect_, *cursor, pointer);
    }
  }
  latest_ = QRVImage::wrap(width, height, pixels, std::move(picture.pixels.owner));
  if (changes && !patch_.rect.isEmpty())
    changes->rects.push_back({patch_.rect.x, patch_.rect.y, patch_.rect.width, patch_.rect.height});
  latestChanges_ = std::move(changes);
  if (read)
    unread_.emplace();
  ++generation_;
  if (changed) {
    history_.emplace_back(generation_, *changed);
    if (history_.size() > kHistoryLength) {
      historyStart_ = history_.front().first;
      history_.pop_front();
    }
  } else {
    history_.clear();
    historyStart_ = generation_;
  }
  if (picture.half) {
    halves_[*picture.half].generation = generation_;
    halves_[*picture.half].patch = patch_;
  }
}

void QRVX11DisplayFrameSource::recomposite(const QRVPointerState& pointer) {
  if (!latest_)
    return;
  const int width = latest_->width();
  const int height = latest_->height();
  Picture copy = newPicture(lastReadRect_, width, height);
  if (copy.pixels.empty())
    return;
  std::memcpy(copy.pixels.data, latest_->bytes().data(), latest_->bytes().size());
  restorePatch(copy.pixels.data, width, patch_);
  const std::vector<QRVScreenRect> nothing;
  publish(std::move(copy), width, height, pointer, &nothing, false);
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

#include "frameloop/linux/QRVX11DisplayFrameSource.h"

#include <cassert>
#include <cstring>

#include <libyuv/scale_argb.h>

#include "utils/Logging.h"

namespace quorvix {
namespace {

auto logger() {
  return QRV_LOGGER_FOR("QRVX11DisplayFrameSource");
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
  lastRead_.reset();
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
  lastRead_.reset();
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
      latest_ = compose(pointer);
      return;
    case CaptureChangeDetector::Action::capture:
    case CaptureChangeDetector::Action::compare:
      break;
  }
  const std::span<const std::uint8_t> read = grabber_->read(rect);
  if (read.empty()) {
    if (grabber_->lost()) {
      connectionLost();
      return;
    }
    logger()->debug("capture output was NULL");
    detector_.reset();
    return;
  }
  auto scaled = scaleRead(read, rect);
  if (!scaled) {
    detector_.reset();
    return;
  }
  if (action == CaptureChangeDetector::Action::compare) {
    const auto now = scaled->bytes();
    const bool differs = !lastRead_ || lastReadRect_ != rect ||
                         now.size() != lastRead_->bytes().size() ||
                         std::memcmp(now.data(), lastRead_->bytes().data(), now.size()) != 0;
    if (detector_.compared(differs))
      logger()->debug("the screen changed without a change notification; comparing every capture");
    if (!differs) {
      if (detector_.pointerChanged())
        latest_ = compose(pointer);
      return;
    }
  }
  lastRead_ = std::move(scaled);
  lastReadRect_ = rect;
  logger()->debug("got capture output");
  latest_ = compose(pointer);
}

void QRVX11DisplayFrameSource::connectionLost() {
  logger()->error("display connection lost; capture resumes when the display is back");
  grabber_.reset();
  latest_.reset();
  lastRead_.reset();
  lastReadRect_ = {};
  detector_.reset();
  nextReconnect_ = mainQueue_->clock().now() + kReconnectInterval;
}

std::shared_ptr<const QRVImage> QRVX11DisplayFrameSource::scaleRead(
    std::span<const std::uint8_t> read,
    const QRVScreenRect& rect) const {
  const int width = int(rect.width * inputScale_);
  const int height = int(rect.height * inputScale_);
  if (width <= 0 || height <= 0 ||
      read.size() != std::size_t(rect.width) * rect.height * QRVImage::kBytesPerPixel)
    return nullptr;
  std::vector<std::uint8_t> out(std::size_t(width) * height * QRVImage::kBytesPerPixel);
  if (width == rect.width && height == rect.height) {
    std::memcpy(out.data(), read.data(), out.size());
  } else if (libyuv::ARGBScale(read.data(), rect.width * 4, rect.width, rect.height, out.data(),
                               width * 4, width, height, libyuv::kFilterBilinear) != 0) {
    logger()->debug("scaling the capture output failed");
    return nullptr;
  }
  return QRVImage::create(width, height, std::move(out));
}

std::shared_ptr<const QRVImage> QRVX11DisplayFrameSource::compose(const QRVPointerState& pointer) {
  if (!lastRead_)
    return nullptr;
  const auto bytes = lastRead_->bytes();
  std::vector<std::uint8_t> out(bytes.begin(), bytes.end());
  if (grabber_)
    drawCursor(out.data(), lastRead_->width(), lastRead_->height(), lastReadRect_,
               *grabber_->cursor(), pointer);
  return QRVImage::create(lastRead_->width(), lastRead_->height(), std::move(out));
}

}  // namespace quorvix

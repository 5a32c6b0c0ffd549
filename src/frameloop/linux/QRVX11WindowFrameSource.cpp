#include "frameloop/linux/QRVX11WindowFrameSource.h"

#include <cmath>

#include "utils/Logging.h"

namespace quorvix {
namespace {

auto logger() {
  return QRV_LOGGER_FOR("QRVX11WindowFrameSource");
}

}  // namespace

void QRVWindowRegistry::add(std::uint32_t window) {
  std::lock_guard lock(mutex_);
  if (windows_.insert(window).second)
    ++generation_;
}

void QRVWindowRegistry::remove(std::uint32_t window) {
  std::lock_guard lock(mutex_);
  if (windows_.erase(window) != 0)
    ++generation_;
}

bool QRVWindowRegistry::contains(std::uint32_t window) const {
  std::lock_guard lock(mutex_);
  return windows_.count(window) != 0;
}

std::uint64_t QRVWindowRegistry::generation() const {
  std::lock_guard lock(mutex_);
  return generation_;
}

// What the capture thread shares with the source; scheduled captures hold it weakly.
struct QRVX11WindowFrameSource::Core : std::enable_shared_from_this<Core> {
  Core(std::shared_ptr<Executor> background, CapturerFactory factory)
      : background(std::move(background)), factory(std::move(factory)) {}

  const std::shared_ptr<Executor> background;
  const CapturerFactory factory;

  std::atomic<bool> isLooping{false};
  std::atomic<bool> isCapturing{false};

  // Guards the pending capture's handle.
  std::mutex blockMutex;
  bool hasNextBlock = false;
  TaskHandle nextBlock;

  // Guards the target screen, set on the main queue and read by captures.
  std::mutex screenMutex;
  std::shared_ptr<const QRVScreen> targetScreen;
  std::atomic<bool> backgroundStale{false};

  // capturingContextLock: the capturer and a whole capture.
  std::mutex contextLock;
  std::unique_ptr<WindowCapturer> capturer;
  SteadyTime nextConnect{};

  // capturedImageLock: the latest picture and the scale it is made at.
  std::mutex imageLock;
  std::shared_ptr<const QRVImage> latestScaledCapture;
  double targetScale = 0;

  void loopStep() {
    if (!isCapturing)
      return;
    std::lock_guard lock(blockMutex);
    if (hasNextBlock)
      return;
    std::weak_ptr<Core> weak = weak_from_this();
    hasNextBlock = true;
    nextBlock = background->postAfter(isLooping ? kLoopingDelay : kCaptureDelay, [weak] {
      if (auto core = weak.lock())
        core->runBlock();
    });
  }

  // On the capture thread.
  void runBlock() {
    if (isLooping.exchange(true))
      return;
    std::shared_ptr<const QRVScreen> screen;
    {
      std::lock_guard lock(screenMutex);
      screen = targetScreen;
    }
    double scale;
    {
      std::lock_guard lock(imageLock);
      scale = targetScale;
    }
    auto picture = captureOnce(screen, scale);
    if (picture) {
      std::shared_ptr<const QRVImage> released;
      std::lock_guard lock(imageLock);
      if (std::fabs(targetScale - scale) <= kScaleEpsilon && isCapturing) {
        released = std::move(latestScaledCapture);
        latestScaledCapture = std::move(picture);
      }
    }
    isLooping = false;
    {
      std::lock_guard lock(blockMutex);
      hasNextBlock = false;
      nextBlock = {};
    }
    loopStep();
  }

  std::shared_ptr<const QRVImage> captureOnce(const std::shared_ptr<const QRVScreen>& screen,
                                              double scale) {
    std::lock_guard lock(contextLock);
    if (!capturer) {
      const SteadyTime now = background->clock().now();
      if (now < nextConnect)
        return nullptr;
      nextConnect = now + kReconnectInterval;
      capturer = factory();
      if (!capturer)
        return nullptr;
    }
    if (backgroundStale.exchange(false))
      capturer->resetBackground();
    auto picture = capturer->capture(screen, scale);
    if (capturer->lost()) {
      logger()->error("display connection lost; window capture resumes when the display is back");
      capturer.reset();
      nextConnect = background->clock().now() + kReconnectInterval;
      return nullptr;
    }
    return picture;
  }
};

QRVX11WindowFrameSource::QRVX11WindowFrameSource(const std::string& displayName)
    : registry_(std::make_shared<QRVWindowRegistry>()),
      core_(std::make_shared<Core>(makeThreadExecutor("qrv-window-cap"),
                                   [displayName, registry = registry_] {
                                     return WindowCapturer::createX11(displayName, registry);
                                   })) {}

QRVX11WindowFrameSource::QRVX11WindowFrameSource(std::shared_ptr<Executor> background,
                                                 CapturerFactory factory)
    : registry_(std::make_shared<QRVWindowRegistry>()),
      core_(std::make_shared<Core>(std::move(background), std::move(factory))) {}

QRVX11WindowFrameSource::~QRVX11WindowFrameSource() {
  capturingWillStop();
}

void QRVX11WindowFrameSource::registerWindow(std::uint32_t window) {
  registry_->add(window);
}

void QRVX11WindowFrameSource::unregisterWindow(std::uint32_t window) {
  registry_->remove(window);
}

void QRVX11WindowFrameSource::capturingWillStart() {
  core_->isCapturing = true;
}

void QRVX11WindowFrameSource::capturingWillStop() {
  core_->isCapturing = false;
  {
    std::lock_guard lock(core_->blockMutex);
    core_->nextBlock.cancel();
    core_->nextBlock = {};
    core_->hasNextBlock = false;
  }
  {
    std::lock_guard lock(core_->imageLock);
    core_->latestScaledCapture.reset();
  }
  std::lock_guard lock(core_->contextLock);
  if (core_->capturer)
    core_->capturer->releaseContext();
}

std::shared_ptr<QRVFrame> QRVX11WindowFrameSource::newFrame(double scale) {
  std::lock_guard lock(core_->imageLock);
  if (std::fabs(core_->targetScale - scale) > kScaleEpsilon) {
    core_->latestScaledCapture.reset();
    core_->targetScale = scale;
    return nullptr;
  }
  if (core_->latestScaledCapture)
    return std::make_shared<QRVFrame>(core_->latestScaledCapture);
  core_->loopStep();
  return nullptr;
}

void QRVX11WindowFrameSource::setScreen(std::shared_ptr<const QRVScreen> screen) {
  std::lock_guard lock(core_->screenMutex);
  if (sameScreen(screen, core_->targetScreen))
    return;
  logger()->debug("screen changed to {} from {}", describe(screen), describe(core_->targetScreen));
  core_->backgroundStale = true;
  core_->targetScreen = std::move(screen);
}

}  // namespace quorvix

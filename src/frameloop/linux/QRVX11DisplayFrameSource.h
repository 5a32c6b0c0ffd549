// The whole main screen (or the screen set with setScreen()) of an X display, read at most ten
// times a second, with the cursor and the click ring drawn in. It needs permission to read the
// screen, which it checks when capturing starts and reports to its delegate. An unchanged screen
// with a still pointer costs no read: the held picture is handed out again, the very same image.
//
// Every method runs on the main queue, which is also where the screen is read (one round trip
// and a copy, well under a frame). The delegate is called synchronously from
// capturingWillStart().
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "frameloop/CaptureChangeDetector.h"
#include "frameloop/DisplayGrabber.h"
#include "frameloop/QRVFrameSource.h"
#include "frameloop/QRVFrameSourceScreenObserver.h"
#include "quorvix/Executor.h"
#include "quorvix/QRVError.h"

namespace quorvix {

class QRVX11DisplayFrameSourceDelegate {
 public:
  virtual ~QRVX11DisplayFrameSourceDelegate() = default;
  virtual void screenCaptureDidStart() {}
  virtual void screenCaptureDidFailWithError(const QRVError& /*error*/) {}
};

class QRVX11DisplayFrameSource final : public QRVFrameSource, public QRVFrameSourceScreenObserver {
 public:
  static constexpr Duration kMinCaptureInterval = std::chrono::milliseconds(100);
  static constexpr Duration kReconnectInterval = std::chrono::seconds(1);
  static constexpr long kNoPermissionCode = 403;
  static constexpr const char* kErrorDomain = "ScreenCapture";

  // How the source reaches the display; the X11 one by default, a fake in tests.
  struct Platform {
    std::function<bool()> canRecordScreen;
    std::function<std::unique_ptr<DisplayGrabber>()> openGrabber;
  };

  // A source for the X display ("" = $DISPLAY).
  QRVX11DisplayFrameSource(std::shared_ptr<Executor> mainQueue, const std::string& displayName);
  QRVX11DisplayFrameSource(std::shared_ptr<Executor> mainQueue, Platform platform);
  ~QRVX11DisplayFrameSource() override;
  QRVX11DisplayFrameSource(const QRVX11DisplayFrameSource&) = delete;
  QRVX11DisplayFrameSource& operator=(const QRVX11DisplayFrameSource&) = delete;

  // Whether the display lets this process read its screen (a 1 × 1 read of the root window).
  static bool canRecordScreen(const std::string& displayName);

  void setDelegate(std::weak_ptr<QRVX11DisplayFrameSourceDelegate> delegate) {
    delegate_ = std::move(delegate);
  }

  void capturingWillStart() override;
  void capturingWillStop() override;
  bool isNewFrameAvailable() override { return true; }
  std::shared_ptr<QRVFrame> newFrame(double scale) override;
  std::shared_ptr<QRVFrame> lastFrame() override { return nullptr; }
  void setScreen(std::shared_ptr<const QRVScreen> screen) override;

  // Whether change notifications were found unreliable and every capture now compares.
  bool isPolling() const { return detector_.isPolling(); }

 private:
  void assertOnMainQueue() const;
  void createInput(double scale);
  void captureIfDue();
  void connectionLost();
  // A read of `rect` brought to the output scale; nullptr for an empty size or a failed scale.
  std::shared_ptr<const QRVImage> scaleRead(std::span<const std::uint8_t> read,
                                            const QRVScreenRect& rect) const;
  // A new picture from the last read with the pointer drawn in; nullptr without a read.
  std::shared_ptr<const QRVImage> compose(const QRVPointerState& pointer);

  const std::shared_ptr<Executor> mainQueue_;
  const Platform platform_;
  std::weak_ptr<QRVX11DisplayFrameSourceDelegate> delegate_;
  std::shared_ptr<const QRVScreen> targetScreen_;
  // The capture session: running between a permitted start and the stop; its connection is
  // dropped when lost and made again later.
  bool sessionRunning_ = false;
  std::unique_ptr<DisplayGrabber> grabber_;
  // The screen input: made by the first newFrame() for the target screen, with that call's scale.
  bool hasInput_ = false;
  double inputScale_ = 1.0;
  std::shared_ptr<const QRVImage> latest_;
  CaptureChangeDetector detector_;
  // The last read at the output scale, without the cursor: what a moved pointer is drawn over
  // and what the next read is compared with. Kept scaled, so that a read is never copied whole:
  // the scale is its only pass, and a difference too small to survive it would send nothing new.
  std::shared_ptr<const QRVImage> lastRead_;
  QRVScreenRect lastReadRect_;
  SteadyTime nextCapture_{};
  SteadyTime nextReconnect_{};
};

}  // namespace quorvix

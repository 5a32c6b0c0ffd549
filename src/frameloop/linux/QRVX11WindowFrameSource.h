// The host application's own windows (and the desktop background behind them) with the cursor
// and click ring, captured on a thread of the source's own about every 100 ms while capturing,
// so that a frame request returns the newest picture at once. Windows of other applications never
// appear, even where they overlap the host's: each of the host's windows is read from its own
// off-screen contents.
//
// Threads: the QRVFrameSource and setScreen() methods run on the frame loop's thread (the main
// queue); captures run on the background executor. Two locks are shared between them: the image
// lock guards the latest picture and the target scale, the context lock guards the capturer and
// a whole capture; they are never held together. registerWindow() may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "frameloop/QRVFrameSource.h"
#include "frameloop/QRVFrameSourceScreenObserver.h"
#include "frameloop/WindowCapturer.h"
#include "quorvix/Executor.h"

namespace quorvix {

class QRVX11WindowFrameSource final : public QRVFrameSource, public QRVFrameSourceScreenObserver {
 public:
  static constexpr Duration kCaptureDelay = std::chrono::milliseconds(100);
  static constexpr Duration kLoopingDelay = std::chrono::milliseconds(25);
  static constexpr Duration kReconnectInterval = std::chrono::seconds(1);
  // Scales closer than this are the same (single-precision epsilon).
  static constexpr double kScaleEpsilon = 1.1920928955078125e-7;

  using CapturerFactory = std::function<std::unique_ptr<WindowCapturer>()>;

  // A source for the X display ("" = $DISPLAY), capturing on a thread of its own.
  explicit QRVX11WindowFrameSource(const std::string& displayName);
  // A source capturing on `background` with capturers from `factory` (tests).
  QRVX11WindowFrameSource(std::shared_ptr<Executor> background, CapturerFactory factory);
  ~QRVX11WindowFrameSource() override;
  QRVX11WindowFrameSource(const QRVX11WindowFrameSource&) = delete;
  QRVX11WindowFrameSource& operator=(const QRVX11WindowFrameSource&) = delete;

  // Counts a window (an X window id) as the host's own, beside those found by process id.
  void registerWindow(std::uint32_t window);
  void unregisterWindow(std::uint32_t window);

  void capturingWillStart() override;
  void capturingWillStop() override;
  bool isNewFrameAvailable() override { return true; }
  std::shared_ptr<QRVFrame> newFrame(double scale) override;
  std::shared_ptr<QRVFrame> lastFrame() override { return nullptr; }
  void setScreen(std::shared_ptr<const QRVScreen> screen) override;

 private:
  struct Core;

  const std::shared_ptr<QRVWindowRegistry> registry_;
  const std::shared_ptr<Core> core_;
};

}  // namespace quorvix

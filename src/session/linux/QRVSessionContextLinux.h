// The desktop session context on X11: the whole-display and the application-window sources, the
// consent dialogs, the red border and the annotation overlay, and the XTEST injector. Follows the
// main screen: whenever it changes, the injector and both sources are pointed at the new one.
//
// Threads: main queue only. destroy() must be called: the screen subscription and the timer hold
// the context until then.
#pragma once

#include <memory>
#include <string>

#include "frameloop/QRVFrameSource.h"
#include "frameloop/QRVFrameSourceScreenObserver.h"
#include "frameloop/QRVScreenWatcher.h"
#include "frameloop/linux/QRVX11DisplayFrameSource.h"
#include "session/QRVSessionContext.h"
#include "utils/RepeatingTimer.h"

namespace quorvix {

class QRVSessionContextLinux : public QRVSessionContext, public QRVX11DisplayFrameSourceDelegate {
 public:
  static constexpr Duration kScreenPollInterval = std::chrono::milliseconds(100);

  // A frame source that can be pointed at a screen.
  struct Source {
    std::shared_ptr<QRVFrameSource> frames;
    std::shared_ptr<QRVFrameSourceScreenObserver> screen;
  };
  // The parts the context drives; x11Parts() makes the real ones, tests make fakes.
  struct Parts {
    Source systemCaptureSource;
    // Makes the context the display source's delegate.
    std::function<void(std::weak_ptr<QRVX11DisplayFrameSourceDelegate>)> setCaptureDelegate;
    Source windowSource;
    std::shared_ptr<QRVScreenWatcher> screens;
    std::shared_ptr<QRVAnnotations> annotations;
    std::shared_ptr<QRVConsentPrompt> prompt;
    std::shared_ptr<QRVSessionIndication> indicator;
    std::shared_ptr<QRVRemoteControl> control;
    QRVStreamProtocol::Environment stream;
    QRVFrameLoop::Environment frames;
  };

  // The parts on the X display `displayName` ("" = $DISPLAY).
  static Parts x11Parts(const std::shared_ptr<QRVSessionResource>& session,
                        const std::string& displayName,
                        const std::shared_ptr<Executor>& mainQueue);

  static std::shared_ptr<QRVSessionContextLinux> create(
      std::shared_ptr<QRVSessionResource> session,
      std::weak_ptr<QRVSessionContextDelegate> contextDelegate,
      Parts parts,
      std::shared_ptr<Executor> mainQueue = nullptr);
  ~QRVSessionContextLinux() override;

  // Points the injector and both sources at the main screen when it changed; one comparison
  // when it did not.
  void updateControls();
  // The display source while full-device sharing is on, the window source otherwise.
  std::shared_ptr<QRVFrameSource> frameSource() const;
  void switchCurrentSource(const std::shared_ptr<QRVFrameSource>& source);

  void sessionDidUpdate(const std::shared_ptr<QRVSession>& session) override;
  void destroy() override;

  void screenCaptureDidStart() override;
  void screenCaptureDidFailWithError(const QRVError& error) override;

 private:
  QRVSessionContextLinux(std::shared_ptr<QRVSessionResource> session,
                         Parts parts,
                         std::shared_ptr<Executor> mainQueue);
  void start(std::weak_ptr<QRVSessionContextDelegate> contextDelegate);

  Parts parts_;
  std::shared_ptr<const QRVScreen> targetScreen_;
  bool hasTarget_ = false;
  int screenSubscription_ = 0;
  RepeatingTimer updateTimer_;
};

}  // namespace quorvix

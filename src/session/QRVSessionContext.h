// One session driven end to end: its stream, frame loop, consent UI and input injector, wired
// together. Decides which of the agent's input events reach the injector, hands captured frames
// to the stream, and tears everything down in a fixed order. The platform context supplies the
// frame sources, the UI parts and the injector.
//
// Threads: main queue only (asserted). Made through create(): it observes the session, the
// stream and the frame loop.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/QRVSessionResource.h"
#include "frameloop/QRVFrameLoop.h"
#include "frameloop/QRVFrameLoopDelegate.h"
#include "frameloop/QRVFrameLoopObserver.h"
#include "quorvix/QuorvixDelegate.h"
#include "redaction/QRVSelector.h"
#include "remote-control/QRVXTestRemoteControl.h"
#include "session-ui/QRVSessionUI.h"
#include "stream/QRVStreamProtocol.h"

namespace quorvix {

// The host's configured selector lists, as the facade keeps them.
class QRVSessionContextDelegate {
 public:
  virtual ~QRVSessionContextDelegate() = default;
  virtual std::vector<std::string> redactedViews() const = 0;
  virtual std::vector<std::string> unredactedViews() const = 0;
};

// Masks matching views on screen while frames are captured. No platform here installs one; the
// calls stay in place for one that does.
class QRVRedaction {
 public:
  virtual ~QRVRedaction() = default;
  virtual void setRedactedSelectors(const QRVSelectorSet& selectors) = 0;
  virtual void setUnredactedSelectors(const QRVSelectorSet& selectors) = 0;
  virtual bool hasRedactedViews() const = 0;
  virtual void show() = 0;
  virtual void hide() = 0;
};

class QRVSessionContext : public QRVFrameLoopDelegate,
                          public QRVFrameLoopObserver,
                          public QRVSessionObserver,
                          public QRVStreamProtocolObserver,
                          public std::enable_shared_from_this<QRVSessionContext> {
 public:
  ~QRVSessionContext() override;
  QRVSessionContext(const QRVSessionContext&) = delete;
  QRVSessionContext& operator=(const QRVSessionContext&) = delete;

  const std::shared_ptr<QRVSessionResource>& session() const { return session_; }
  const std::shared_ptr<QRVStreamProtocol>& stream() const { return stream_; }
  const std::shared_ptr<QRVFrameLoop>& frames() const { return frames_; }
  const std::shared_ptr<QRVSessionUI>& ui() const { return ui_; }
  const std::shared_ptr<QRVRemoteControl>& control() const { return control_; }

  void setRedaction(std::shared_ptr<QRVRedaction> redaction);
  bool redactionIsActive() const { return redaction_ && redaction_->hasRedactedViews(); }
  // Also the UI's delegate.
  void setDelegate(std::shared_ptr<QuorvixDelegate> delegate);
  // See QRVStreamProtocol::setLatencyBound; 0 turns it off.
  void setLatencyBound(double seconds);
  const std::shared_ptr<QuorvixDelegate>& delegate() const { return delegate_; }

  // The host's lists joined with the agent's, for the redaction component.
  void updateSelectors(const QRVSessionResource& session);
  // Stops and lets go of every part, in order. Idempotent.
  virtual void destroy();

  // Frame loop.
  bool shouldCaptureFrame() override { return true; }
  double scale() override;
  void handleFrame(std::shared_ptr<QRVFrame> frame, std::function<void()> callback) override;
  void willCaptureFrame() override;
  void didCaptureFrame(const std::shared_ptr<QRVFrame>& frame) override;

  // Session.
  void sessionDidUpdate(const std::shared_ptr<QRVSession>& session) override;
  void sessionDidEnd(const std::shared_ptr<QRVSession>& session) override;

  // Stream: every event reaches the UI; allowed input reaches the injector.
  void onAgentEvent(const std::shared_ptr<QRVSession>& session,
                    const QRVAgentEvent& event) override;

  // The connection to the agent dropped: nothing the agent held stays held, no ink stays up.
  void onStreamDisconnected(const std::shared_ptr<QRVSession>& session) override;
  void failClosed();

  bool shouldAllowKeyEvent(const QRVKeyPress& event, const std::shared_ptr<QRVSession>& session);
  bool shouldAllowTouchEvent(const QRVTouchEvent& event,
                             const std::shared_ptr<QRVSession>& session);
  bool shouldAllowMouseEvent(const QRVMouseEvent& event,
                             const std::shared_ptr<QRVSession>& session);

 protected:
  QRVSessionContext(std::shared_ptr<QRVSessionResource> session,
                    std::shared_ptr<Executor> mainQueue);
  // The construction steps that need the object to be shared already.
  void attach(std::weak_ptr<QRVSessionContextDelegate> contextDelegate,
              QRVStreamProtocol::Environment streamEnvironment,
              QRVFrameLoop::Environment frameEnvironment);
  void setUI(std::shared_ptr<QRVSessionUI> ui) { ui_ = std::move(ui); }
  void setControl(std::shared_ptr<QRVRemoteControl> control) { control_ = std::move(control); }
  void assertOnMainQueue() const;
  const std::shared_ptr<Executor>& mainQueue() const { return mainQueue_; }

 private:
  bool permits(const QRVSession& session, const char* capability) const;

  std::shared_ptr<QRVSessionResource> session_;
  const std::shared_ptr<Executor> mainQueue_;
  std::shared_ptr<QRVStreamProtocol> stream_;
  std::shared_ptr<QRVFrameLoop> frames_;
  std::shared_ptr<QRVRedaction> redaction_;
  std::shared_ptr<QuorvixDelegate> delegate_;
  std::shared_ptr<QRVSessionUI> ui_;
  std::shared_ptr<QRVRemoteControl> control_;
  std::weak_ptr<QRVSessionContextDelegate> contextDelegate_;
};

// Makes the platform's context for a session; empty until the platform installs its own.
using QRVSessionContextFactory = std::function<std::shared_ptr<QRVSessionContext>(
    std::shared_ptr<QRVSessionResource> session,
    std::weak_ptr<QRVSessionContextDelegate> contextDelegate)>;
QRVSessionContextFactory sessionContextFactory();
// Tests install a context of their own; an empty factory restores the platform's.
void setSessionContextFactory(QRVSessionContextFactory factory);

}  // namespace quorvix

#include "session/QRVSessionContext.h"

#include <algorithm>
#include <cassert>
#include <mutex>

#include "redaction/QRVSelectorParser.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

std::shared_ptr<spdlog::logger> logger() {
  static const auto log = QRV_LOGGER_FOR("QRVSessionContext");
  return log;
}

std::mutex factoryMutex;
QRVSessionContextFactory& customFactory() {
  static QRVSessionContextFactory factory;
  return factory;
}

}  // namespace

// Defined by the platform's context.
QRVSessionContextFactory platformSessionContextFactory();

QRVSessionContextFactory sessionContextFactory() {
  std::lock_guard lock(factoryMutex);
  return customFactory() ? customFactory() : platformSessionContextFactory();
}

void setSessionContextFactory(QRVSessionContextFactory factory) {
  std::lock_guard lock(factoryMutex);
  customFactory() = std::move(factory);
}

QRVSessionContext::QRVSessionContext(std::shared_ptr<QRVSessionResource> session,
                                     std::shared_ptr<Executor> mainQueue)
    : session_(std::move(session)), mainQueue_(std::move(mainQueue)) {}

QRVSessionContext::~QRVSessionContext() {
  QRVSessionContext::destroy();
}

void QRVSessionContext::assertOnMainQueue() const {
  assert(mainQueue_->isCurrent() && "QRVSessionContext used off the main queue");
}

void QRVSessionContext::attach(std::weak_ptr<QRVSessionContextDelegate> contextDelegate,
                               QRVStreamProtocol::Environment streamEnvironment,
                               QRVFrameLoop::Environment frameEnvironment) {
  auto self = shared_from_this();
  session_->registerSessionObserver(self);
  if (!streamEnvironment.executor)
    streamEnvironment.executor = mainQueue_;
  stream_ = QRVStreamProtocol::create(session_, std::move(streamEnvironment));
  stream_->registerStreamProtocolObserver(self);
  if (!frameEnvironment.executor)
    frameEnvironment.executor = mainQueue_;
  frames_ =
      QRVFrameLoop::create(std::weak_ptr<QRVFrameLoopDelegate>(self), std::move(frameEnvironment));
  frames_->registerFrameLoopObserver(self);
  contextDelegate_ = std::move(contextDelegate);
}

void QRVSessionContext::setRedaction(std::shared_ptr<QRVRedaction> redaction) {
  redaction_ = std::move(redaction);
  if (session_)
    updateSelectors(*session_);
}

void QRVSessionContext::setLatencyBound(double seconds) {
  if (stream_)
    stream_->setLatencyBound(seconds);
}

void QRVSessionContext::setDelegate(std::shared_ptr<QuorvixDelegate> delegate) {
  delegate_ = std::move(delegate);
  if (ui_)
    ui_->setDelegate(delegate_);
}

void QRVSessionContext::updateSelectors(const QRVSessionResource& session) {
  auto host = contextDelegate_.lock();
  QRVSelectorSet redacted =
      host ? QRVSelectorParser::parseAll(host->redactedViews()) : QRVSelectorSet{};
  QRVSelectorSet unredacted =
      host ? QRVSelectorParser::parseAll(host->unredactedViews()) : QRVSelectorSet{};
  // The host's lists and the agent's are merged, never one replacing the other.
  for (const auto& s : session.redactedSelectors())
    redacted.insert(s);
  for (const auto& s : session.unredactedSelectors())
    unredacted.insert(s);
  if (!redaction_)
    return;
  redaction_->setRedactedSelectors(redacted);
  redaction_->setUnredactedSelectors(unredacted);
}

void QRVSessionContext::destroy() {
  if (stream_) {
    stream_->close();
    stream_.reset();
  }
  if (session_) {
    session_->cleanup();
    session_.reset();
  }
  if (redaction_) {
    redaction_->hide();
    redaction_.reset();
  }
  if (frames_) {
    frames_->stop();
    frames_->setSource(nullptr);
    frames_.reset();
  }
  if (ui_) {
    ui_->destroy();
    ui_.reset();
  }
  control_.reset();
  delegate_.reset();
}

double QRVSessionContext::scale() {
  return session_ ? session_->scale() : 1.0;
}

void QRVSessionContext::handleFrame(std::shared_ptr<QRVFrame> frame,
                                    std::function<void()> callback) {
  // After destroy, frames are dropped and their callback never runs.
  if (stream_)
    stream_->sendFrame(std::move(frame), std::move(callback));
}

void QRVSessionContext::willCaptureFrame() {
  if (redaction_)
    redaction_->show();
}

void QRVSessionContext::didCaptureFrame(const std::shared_ptr<QRVFrame>& /*frame*/) {
  if (redaction_ && session_ && session_->fullDevice() == QRVConsentState::off)
    redaction_->hide();
}

void QRVSessionContext::sessionDidUpdate(const std::shared_ptr<QRVSession>& /*session*/) {
  assertOnMainQueue();
  if (!session_)
    return;
  updateSelectors(*session_);
  // Input stops the moment the session stops being active; it resumes with the next allowed
  // event.
  if (!session_->isActive())
    failClosed();
  // Against off only: requested and rejected count as full-device here, on purpose.
  if (session_->isActive() && session_->fullDevice() != QRVConsentState::off && redaction_)
    redaction_->show();
  // Every update repeats it; starting a running loop is harmless.
  if (session_->isActive() && frames_)
    frames_->start();
}

void QRVSessionContext::onStreamDisconnected(const std::shared_ptr<QRVSession>& /*session*/) {
  failClosed();
}

void QRVSessionContext::failClosed() {
  if (control_)
    control_->releaseAll();
  if (ui_)
    ui_->clearAnnotations();
}

void QRVSessionContext::sessionDidEnd(const std::shared_ptr<QRVSession>& /*session*/) {
  destroy();
}

void QRVSessionContext::onAgentEvent(const std::shared_ptr<QRVSession>& session,
                                     const QRVAgentEvent& event) {
  assertOnMainQueue();
  if (ui_)
    ui_->onAgentEvent(event);
  // While the user is being asked, the agent's input goes nowhere: an agent who already
  // controls the desktop must not answer the question for the user. Dropped, not queued.
  if (ui_ && ui_->isPrompting() &&
      (std::holds_alternative<QRVTouchEvent>(event) ||
       std::holds_alternative<QRVMouseEvent>(event) ||
       std::holds_alternative<QRVKeyPress>(event))) {
    logger()->debug("Dropped the agent's input while the user is being asked");
    return;
  }
  if (!session || !control_)
    return;
  if (const auto* touch = std::get_if<QRVTouchEvent>(&event)) {
    if (shouldAllowTouchEvent(*touch, session))
      control_->injectTouch(*touch);
  } else if (const auto* mouse = std::get_if<QRVMouseEvent>(&event)) {
    if (shouldAllowMouseEvent(*mouse, session))
      control_->injectMouse(*mouse);
  } else if (const auto* key = std::get_if<QRVKeyPress>(&event)) {
    if (shouldAllowKeyEvent(*key, session))
      control_->injectKeyPress(*key);
  }
}

bool QRVSessionContext::permits(const QRVSession& session, const char* capability) const {
  if (!session.allowRemoteControl()) {
    logger()->trace("Dropped the agent's input: remote control is not on");
    return false;
  }
  const auto capabilities = session.capabilities();
  if (std::find(capabilities.begin(), capabilities.end(), capability) == capabilities.end()) {
    logger()->debug("Capability '{}' not allowed.", capability);
    return false;
  }
  return true;
}

// The session handed in with the event is the one asked, as the delegate is.
bool QRVSessionContext::shouldAllowKeyEvent(const QRVKeyPress& event,
                                            const std::shared_ptr<QRVSession>& session) {
  return permits(*session, "keypress") &&
         (!delegate_ || delegate_->quorviShouldAllowKeyEvent(event, session));
}

bool QRVSessionContext::shouldAllowTouchEvent(const QRVTouchEvent& event,
                                              const std::shared_ptr<QRVSession>& session) {
  return permits(*session, "pointer") &&
         (!delegate_ || delegate_->quorviShouldAllowTouchEvent(event, session));
}

bool QRVSessionContext::shouldAllowMouseEvent(const QRVMouseEvent& event,
                                              const std::shared_ptr<QRVSession>& session) {
  return permits(*session, "pointer") &&
         (!delegate_ || delegate_->quorviShouldAllowMouseEvent(event, session));
}

}  // namespace quorvix

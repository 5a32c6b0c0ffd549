#include "session-ui/QRVSessionUI.h"

#include <algorithm>
#include <cassert>

#include "utils/Logging.h"

namespace quorvix {
namespace {

std::shared_ptr<spdlog::logger> logger() {
  static const auto log = QRV_LOGGER_FOR("QRVSessionUI");
  return log;
}

}  // namespace

std::shared_ptr<QRVSessionUI> QRVSessionUI::create(std::shared_ptr<QRVSessionResource> session,
                                                   std::shared_ptr<QRVAnnotations> annotations,
                                                   std::shared_ptr<QRVConsentPrompt> prompt,
                                                   std::shared_ptr<QRVSessionIndication> indicator,
                                                   std::shared_ptr<Executor> mainQueue) {
  std::shared_ptr<QRVSessionUI> ui(new QRVSessionUI(std::move(session), std::move(annotations),
                                                    std::move(prompt), std::move(indicator),
                                                    std::move(mainQueue)));
  ui->session_->registerSessionObserver(ui);
  return ui;
}

QRVSessionUI::QRVSessionUI(std::shared_ptr<QRVSessionResource> session,
                           std::shared_ptr<QRVAnnotations> annotations,
                           std::shared_ptr<QRVConsentPrompt> prompt,
                           std::shared_ptr<QRVSessionIndication> indicator,
                           std::shared_ptr<Executor> mainQueue)
    : session_(std::move(session)),
      annotations_(std::move(annotations)),
      prompt_(std::move(prompt)),
      indicator_(std::move(indicator)),
      mainQueue_(std::move(mainQueue)) {}

QRVSessionUI::~QRVSessionUI() {
  destroy();
}

void QRVSessionUI::destroy() {
  assert(mainQueue_->isCurrent());
  if (session_) {
    hideSessionControls();
    // The session holds its observers strongly; while being destroyed from the destructor there
    // is no owner left to remove.
    if (auto self = weak_from_this().lock())
      session_->removeSessionObserver(self);
    session_.reset();
  }
  if (indicator_) {
    indicator_->hide();
    indicator_.reset();
  }
  if (prompt_) {
    prompt_->cancelSessionRequest();
    prompt_->cancelFullDeviceRequest();
    prompt_->cancelRemoteControlRequest();
    prompt_.reset();
  }
  if (annotations_) {
    annotations_->setActive(false);
    annotations_.reset();
  }
}

void QRVSessionUI::sessionDidUpdateFromPrevious(const std::shared_ptr<QRVSession>& session,
                                                const std::shared_ptr<QRVSession>& previous) {
  assert(mainQueue_->isCurrent());
  if (!session_)
    return;
  if (session->isPending() && session->hasAgent())
    confirmSession();
  updateSessionControls();

  if (!session->isEnded() && prompt_ && session->remoteControl() != previous->remoteControl()) {
    if (session->remoteControl() == QRVConsentState::requested) {
      auto delegate = delegate_.lock();
      if (!delegate || !delegate->quorviHandleRemoteControlRequest(session))
        prompt_->handleRemoteControlRequest(session);
    } else if (session->remoteControl() == QRVConsentState::off) {
      prompt_->cancelRemoteControlRequest();
    }
  }

  // Tested whether or not the session has ended, so that an ending session closes the prompt.
  if (session->fullDevice() != previous->fullDevice()) {
    if (session->isActive() && session->fullDevice() == QRVConsentState::requested) {
      showFullDevicePrompt(session);
      return;
    }
    if (session->fullDevice() == QRVConsentState::off && session_) {
      session_->toggleCapabilitiesForFullDeviceState(QRVConsentState::off);
      session_->update({}, nullptr);
    }
    hideFullDevicePrompt(session);
  }
}

void QRVSessionUI::sessionDidEnd(const std::shared_ptr<QRVSession>& /*session*/) {
  destroy();
}

void QRVSessionUI::confirmSession() {
  assert(mainQueue_->isCurrent());
  if (!session_)
    return;
  if ((session_->isPending() || session_->isAuthorizing()) && !session_->requireConsent()) {
    session_->activate(nullptr);
    return;
  }
  session_->update({{"state", "authorizing"}}, nullptr);
  if (session_->isPending() || session_->isAuthorizing()) {
    auto delegate = delegate_.lock();
    if ((!delegate || !delegate->quorviHandleSessionRequest(session_)) && prompt_)
      prompt_->handleSessionRequest(session_);
  }
}

void QRVSessionUI::showSessionControls() {
  auto delegate = delegate_.lock();
  if (delegate && session_ && delegate->quorviShowSessionControls(session_))
    return;
  if (indicator_)
    indicator_->show();
}

void QRVSessionUI::hideSessionControls() {
  if (auto delegate = delegate_.lock(); delegate && session_)
    delegate->quorviHideSessionControls(session_);
  // Hidden whoever handles hiding: a border the library showed must never outlive the session.
  if (indicator_)
    indicator_->hide();
}

void QRVSessionUI::updateSessionControls() {
  const bool active = session_ && session_->isActive();
  if (active)
    showSessionControls();
  else
    hideSessionControls();
  if (annotations_)
    annotations_->setActive(active);
}

void QRVSessionUI::showFullDevicePrompt(const std::shared_ptr<QRVSession>& session) {
  auto delegate = delegate_.lock();
  if (delegate && delegate->quorviHandleFullDeviceRequest(session))
    return;
  if (prompt_)
    prompt_->handleFullDeviceRequest(session);
}

void QRVSessionUI::hideFullDevicePrompt(const std::shared_ptr<QRVSession>& /*session*/) {
  if (prompt_)
    prompt_->cancelFullDeviceRequest();
}

bool QRVSessionUI::allows(std::initializer_list<const char*> names, const char* name) const {
  if (session_) {
    const auto capabilities = session_->capabilities();
    for (const char* wanted : names) {
      if (std::find(capabilities.begin(), capabilities.end(), wanted) != capabilities.end())
        return true;
    }
  }
  logger()->debug("Capability '{}' not allowed.", name);
  return false;
}

void QRVSessionUI::onAgentEvent(const QRVAgentEvent& event) {
  assert(mainQueue_->isCurrent());
  if (const auto* drawing = std::get_if<QRVDrawing>(&event)) {
    if (allows({"drawing", "disappearing_ink", "arrows", "rectangles"}, "drawing") && annotations_)
      annotations_->updateDrawnAnnotation(*drawing);
  } else if (const auto* laser = std::get_if<QRVLaser>(&event)) {
    if (allows({"laser"}, "laser") && annotations_)
      annotations_->updateLaserAnnotation(*laser);
  } else if (const auto* touch = std::get_if<QRVTouchEvent>(&event)) {
    if (allows({"pointer"}, "pointer") && annotations_)
      annotations_->updateAgentTouches(*touch);
  }
}

}  // namespace quorvix

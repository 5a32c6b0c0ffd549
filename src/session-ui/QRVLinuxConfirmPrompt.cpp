#include "session-ui/QRVLinuxConfirmPrompt.h"

#include <cassert>
#include <chrono>
#include <cstring>

#include <libintl.h>

namespace quorvix {
namespace {

constexpr const char* kTextDomain = "Quorvix";
constexpr auto kPermissionPollInterval = std::chrono::seconds(1);

QRVConsentState stateOf(const QRVSession& session, bool fullDevice) {
  return fullDevice ? session.fullDevice() : session.remoteControl();
}

}  // namespace

std::string promptText(const char* key, const char* defaultText) {
  // gettext hands back its argument itself when no catalogue translates it.
  const char* translated = dgettext(kTextDomain, key);
  return translated == key || std::strcmp(translated, key) == 0 ? defaultText : translated;
}

std::shared_ptr<QRVLinuxConfirmPrompt> QRVLinuxConfirmPrompt::create(
    std::shared_ptr<QRVDialogPresenter> presenter,
    QRVPromptPermissions permissions,
    std::shared_ptr<Executor> mainQueue) {
  return std::shared_ptr<QRVLinuxConfirmPrompt>(new QRVLinuxConfirmPrompt(
      std::move(presenter), std::move(permissions), std::move(mainQueue)));
}

QRVLinuxConfirmPrompt::QRVLinuxConfirmPrompt(std::shared_ptr<QRVDialogPresenter> presenter,
                                             QRVPromptPermissions permissions,
                                             std::shared_ptr<Executor> mainQueue)
    : presenter_(std::move(presenter)),
      permissions_(std::move(permissions)),
      mainQueue_(std::move(mainQueue)) {}

void QRVLinuxConfirmPrompt::handleSessionRequest(const std::shared_ptr<QRVSession>& session) {
  assert(mainQueue_->isCurrent());
  const QRVDialogContent content{
      promptText("SessionRequestConsentPromptTitle", "Support Request"),
      promptText("SessionRequestConsentPromptMessage",
                 "A support agent would like to use this app with you. Do you wish to allow "
                 "this?"),
      promptText("SessionRequestConsentPromptAllow", "Allow"),
      promptText("SessionRequestConsentPromptDeny", "Deny"),
  };
  std::weak_ptr<QRVLinuxConfirmPrompt> weak = weak_from_this();
  sessionDialog_.reset();
  sessionDialog_ = presenter_->present(content, [weak, session](int button) {
    if (auto self = weak.lock())
      self->sessionDialog_.reset();
    if (button == 0)
      session->activate(nullptr);
    else
      session->end(nullptr);
  });
}

void QRVLinuxConfirmPrompt::cancelSessionRequest() {
  sessionDialog_.reset();
}

void QRVLinuxConfirmPrompt::handleFullDeviceRequest(const std::shared_ptr<QRVSession>& session) {
  handleConsentRequest(Kind::fullDevice, session);
}

void QRVLinuxConfirmPrompt::cancelFullDeviceRequest() {
  fullDeviceDialog_.reset();
}

void QRVLinuxConfirmPrompt::handleRemoteControlRequest(const std::shared_ptr<QRVSession>& session) {
  handleConsentRequest(Kind::remoteControl, session);
}

void QRVLinuxConfirmPrompt::cancelRemoteControlRequest() {
  remoteControlDialog_.reset();
}

bool QRVLinuxConfirmPrompt::isPrompting() const {
  return sessionDialog_ || fullDeviceDialog_ || remoteControlDialog_;
}

bool QRVLinuxConfirmPrompt::permitted(Kind kind) const {
  const auto& check =
      kind == Kind::fullDevice ? permissions_.canRecordScreen : permissions_.canControl;
  return !check || check();
}

std::unique_ptr<QRVDialog>& QRVLinuxConfirmPrompt::dialog(Kind kind) {
  return kind == Kind::fullDevice ? fullDeviceDialog_ : remoteControlDialog_;
}

void QRVLinuxConfirmPrompt::handleConsentRequest(Kind kind,
                                                 const std::shared_ptr<QRVSession>& session) {
  assert(mainQueue_->isCurrent());
  const bool full = kind == Kind::fullDevice;
  const bool permission = permitted(kind);
  QRVDialogContent content;
  if (full) {
    content.title = promptText("FullDeviceConsentPromptTitle", "Full device screenshare");
    content.message =
        permission
            ? promptText("FullDeviceConsentPromptMessage",
                         "A support agent would like to view your entire desktop, including other "
                         "running applications. Do you wish to allow this?")
            : promptText("FullDeviceConsentPermissionPromptMessage",
                         "A support agent would like to view your entire desktop. To allow this, "
                         "please grant the Screen Sharing permission in System Preferences.");
    content.firstButton = permission ? promptText("FullDeviceConsentPromptAllow", "Allow")
                                     : promptText("FullDeviceConsentPromptPermissionAllow",
                                                  "Open System Preferences");
    content.secondButton = promptText("FullDeviceConsentPromptDeny", "Deny");
  } else {
    content.title = promptText("RemoteControlConsentPromptTitle", "Remote Control Request");
    content.message = promptText(
        "RemoteControlConsentPromptMessage",
        permission ? "A support agent would like to remotely control your device. Do you wish to "
                     "allow this?"
                   : "A support agent would like to remotely control your device. To allow this, "
                     "please grant the Accessibility permission in System Preferences.");
    content.firstButton = permission ? promptText("RemoteControlConsentPromptAllow", "Allow")
                                     : promptText("RemoteControlConsentPromptPermissionAllow",
                                                  "Open System Preferences");
    content.secondButton = promptText("RemoteControlConsentPromptDeny", "Deny");
  }
  std::weak_ptr<QRVLinuxConfirmPrompt> weak = weak_from_this();
  dialog(kind).reset();
  dialog(kind) = presenter_->present(content, [weak, kind, session, permission](int button) {
    if (auto self = weak.lock())
      self->answer(kind, session, permission, button);
  });
}

void QRVLinuxConfirmPrompt::answer(Kind kind,
                                   const std::shared_ptr<QRVSession>& session,
                                   bool permission,
                                   int button) {
  dialog(kind).reset();
  if (button != 1 && !permission) {
    if (permissions_.openSettings)
      permissions_.openSettings(kind == Kind::fullDevice
                                    ? QRVPromptPermissions::Settings::screenCapture
                                    : QRVPromptPermissions::Settings::accessibility);
    loopPermissionCheck(kind, session);
    return;
  }
  const QRVConsentState state = button == 1 ? QRVConsentState::rejected : QRVConsentState::on;
  if (kind == Kind::fullDevice)
    session->setFullDevice(state, nullptr);
  else
    session->setRemoteControl(state, nullptr);
}

void QRVLinuxConfirmPrompt::loopPermissionCheck(Kind kind,
                                                const std::shared_ptr<QRVSession>& session) {
  const bool full = kind == Kind::fullDevice;
  if (!session->isActive() || stateOf(*session, full) != QRVConsentState::requested)
    return;
  if (permitted(kind)) {
    if (full)
      session->setFullDevice(QRVConsentState::on, nullptr);
    else
      session->setRemoteControl(QRVConsentState::on, nullptr);
    return;
  }
  std::weak_ptr<QRVLinuxConfirmPrompt> weak = weak_from_this();
  std::weak_ptr<QRVSession> weakSession = session;
  mainQueue_->postAfter(kPermissionPollInterval, [weak, weakSession, kind] {
    auto self = weak.lock();
    auto session = weakSession.lock();
    if (self && session)
      self->loopPermissionCheck(kind, session);
  });
}

}  // namespace quorvix

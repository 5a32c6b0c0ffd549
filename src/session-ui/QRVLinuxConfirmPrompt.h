// The built-in consent prompt: a two-button question per request, answered later on the main
// queue, and applied to the session as the user answered. Where a system permission is missing
// the first button opens the system's settings instead, and the state stays requested while a
// poll waits for the permission.
//
// Threads: main queue only (asserted). Made through create(): polls hold it weakly.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "quorvix/Executor.h"
#include "session-ui/QRVSessionUIParts.h"

namespace quorvix {

// What a dialog shows; the first button is the one that says yes.
struct QRVDialogContent {
  std::string title;
  std::string message;
  std::string firstButton;
  std::string secondButton;
};

// One question on screen; destroying it closes the window without an answer.
class QRVDialog {
 public:
  virtual ~QRVDialog() = default;
};

// Puts dialogs on screen. The answer (0: first button, 1: second button, also for a closed
// window or Escape) arrives once, on the main queue, unless the dialog was destroyed before.
class QRVDialogPresenter {
 public:
  virtual ~QRVDialogPresenter() = default;
  virtual std::unique_ptr<QRVDialog> present(const QRVDialogContent& content,
                                             std::function<void(int answer)> onAnswer) = 0;
};

// The system permissions the requests depend on, and the way to the settings that grant them.
struct QRVPromptPermissions {
  std::function<bool()> canRecordScreen;
  std::function<bool()> canControl;
  enum class Settings { screenCapture, accessibility };
  std::function<void(Settings)> openSettings;
};

// A prompt text: the "Quorvix" translation of `key` when one is installed, else the default.
std::string promptText(const char* key, const char* defaultText);

class QRVLinuxConfirmPrompt : public QRVConsentPrompt,
                              public std::enable_shared_from_this<QRVLinuxConfirmPrompt> {
 public:
  static std::shared_ptr<QRVLinuxConfirmPrompt> create(
      std::shared_ptr<QRVDialogPresenter> presenter,
      QRVPromptPermissions permissions,
      std::shared_ptr<Executor> mainQueue);

  void handleSessionRequest(const std::shared_ptr<QRVSession>& session) override;
  void cancelSessionRequest() override;
  void handleFullDeviceRequest(const std::shared_ptr<QRVSession>& session) override;
  void cancelFullDeviceRequest() override;
  void handleRemoteControlRequest(const std::shared_ptr<QRVSession>& session) override;
  void cancelRemoteControlRequest() override;
  bool isPrompting() const override;

 private:
  enum class Kind { fullDevice, remoteControl };
  QRVLinuxConfirmPrompt(std::shared_ptr<QRVDialogPresenter> presenter,
                        QRVPromptPermissions permissions,
                        std::shared_ptr<Executor> mainQueue);
  void handleConsentRequest(Kind kind, const std::shared_ptr<QRVSession>& session);
  void answer(Kind kind, const std::shared_ptr<QRVSession>& session, bool permitted, int button);
  void loopPermissionCheck(Kind kind, const std::shared_ptr<QRVSession>& session);
  bool permitted(Kind kind) const;
  std::unique_ptr<QRVDialog>& dialog(Kind kind);

  const std::shared_ptr<QRVDialogPresenter> presenter_;
  const QRVPromptPermissions permissions_;
  const std::shared_ptr<Executor> mainQueue_;
  std::unique_ptr<QRVDialog> sessionDialog_;
  std::unique_ptr<QRVDialog> fullDeviceDialog_;
  std::unique_ptr<QRVDialog> remoteControlDialog_;
};

}  // namespace quorvix

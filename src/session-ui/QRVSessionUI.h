// Decides, from each update of a session, when to ask the user for consent, when to show the
// session indicator, and which of the agent's annotations the session allows. The host's delegate
// may take over each prompt and the indicator; otherwise the built-in ones are used.
//
// Threads: main queue only (asserted). Made through create(), since it observes the session.
#pragma once

#include <memory>

#include "core/QRVSessionResource.h"
#include "quorvix/Executor.h"
#include "quorvix/QuorvixDelegate.h"
#include "session-ui/QRVSessionUIParts.h"
#include "stream/QRVAgentEvent.h"

namespace quorvix {

class QRVSessionUI : public QRVSessionObserver, public std::enable_shared_from_this<QRVSessionUI> {
 public:
  static std::shared_ptr<QRVSessionUI> create(std::shared_ptr<QRVSessionResource> session,
                                              std::shared_ptr<QRVAnnotations> annotations,
                                              std::shared_ptr<QRVConsentPrompt> prompt,
                                              std::shared_ptr<QRVSessionIndication> indicator,
                                              std::shared_ptr<Executor> mainQueue);
  ~QRVSessionUI() override;
  QRVSessionUI(const QRVSessionUI&) = delete;
  QRVSessionUI& operator=(const QRVSessionUI&) = delete;

  void setDelegate(std::weak_ptr<QuorvixDelegate> delegate) { delegate_ = std::move(delegate); }

  // Hides the controls, stops observing, and closes every prompt and the overlay. Idempotent.
  void destroy();

  void sessionDidUpdateFromPrevious(const std::shared_ptr<QRVSession>& session,
                                    const std::shared_ptr<QRVSession>& previous) override;
  void sessionDidEnd(const std::shared_ptr<QRVSession>& session) override;

  void confirmSession();
  void showSessionControls();
  void hideSessionControls();
  void updateSessionControls();
  void showFullDevicePrompt(const std::shared_ptr<QRVSession>& session);
  void hideFullDevicePrompt(const std::shared_ptr<QRVSession>& session);
  // Annotations the session's capabilities allow go to the overlay; the rest are dropped.
  void onAgentEvent(const QRVAgentEvent& event);

  // Takes the agent's ink and laser off the screen.
  void clearAnnotations() {
    if (annotations_)
      annotations_->clear();
  }
  // The built-in prompt has a question on screen.
  bool isPrompting() const { return prompt_ && prompt_->isPrompting(); }

 private:
  QRVSessionUI(std::shared_ptr<QRVSessionResource> session,
               std::shared_ptr<QRVAnnotations> annotations,
               std::shared_ptr<QRVConsentPrompt> prompt,
               std::shared_ptr<QRVSessionIndication> indicator,
               std::shared_ptr<Executor> mainQueue);
  bool allows(std::initializer_list<const char*> capabilities, const char* name) const;

  std::shared_ptr<QRVSessionResource> session_;
  std::weak_ptr<QuorvixDelegate> delegate_;
  std::shared_ptr<QRVAnnotations> annotations_;
  std::shared_ptr<QRVConsentPrompt> prompt_;
  std::shared_ptr<QRVSessionIndication> indicator_;
  const std::shared_ptr<Executor> mainQueue_;
};

}  // namespace quorvix

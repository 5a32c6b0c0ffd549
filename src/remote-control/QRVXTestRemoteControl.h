// Plays the agent's allowed input on the desktop: mouse buttons, moves and drags with click
// counting, touches as the left button, and key presses with modifier flags and the typed
// character. The platform part sits behind InputInjector. Main queue only; the session context
// creates one per session and has already checked that the agent may control.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "frameloop/QRVScreen.h"
#include "quorvix/QRVKeyPress.h"
#include "quorvix/QRVMouseEvent.h"
#include "quorvix/QRVSession.h"
#include "quorvix/QRVTouchEvent.h"
#include "remote-control/InputInjector.h"
#include "remote-control/QRVKeyCodeMap.h"

namespace quorvix {

class QRVRemoteControl {
 public:
  virtual ~QRVRemoteControl() = default;
  virtual void setScreen(std::optional<QRVScreenRect> screen) = 0;
  virtual void injectMouse(const QRVMouseEvent& event) = 0;
  virtual void injectTouch(const QRVTouchEvent& event) = 0;
  virtual void injectKeyPress(const QRVKeyPress& event) = 0;
  // Lets go of every button and key the agent holds.
  virtual void releaseAll() = 0;
};

class QRVXTestRemoteControl final : public QRVRemoteControl {
 public:
  using MainScreen = std::function<QRVScreenRect()>;

  // `mainScreen` gives the screen agent positions refer to while no other is set.
  QRVXTestRemoteControl(std::shared_ptr<const QRVSession> session,
                        std::shared_ptr<InputInjector> injector,
                        MainScreen mainScreen);
  // Releases whatever the agent left held: buttons first (left, middle, right), then keys.
  ~QRVXTestRemoteControl() override;
  QRVXTestRemoteControl(const QRVXTestRemoteControl&) = delete;
  QRVXTestRemoteControl& operator=(const QRVXTestRemoteControl&) = delete;

  void setScreen(std::optional<QRVScreenRect> screen) override;
  void injectMouse(const QRVMouseEvent& event) override;
  void injectTouch(const QRVTouchEvent& event) override;
  void injectKeyPress(const QRVKeyPress& event) override;
  // Buttons first (left, middle, right), then keys.
  void releaseAll() override;

  // A point in fractions of the shared screen, in root-window coordinates. Not clamped.
  QRVPoint cursorPositionFor(QRVPoint fraction) const;
  // Whether touches and keys may be played: the session is active with full-device sharing on.
  static bool canControl(const QRVSession& session);
  // Whether input can be played at all.
  bool canControl();

  const std::set<std::string>& keysPressed() const { return keysPressed_; }

 private:
  // The click state of a press or release, from its history, which it then joins.
  template <typename Event>
  static std::optional<int> countClick(const Event& event,
                                       std::optional<Event>& last,
                                       std::optional<Event>& secondLast);
  void clearLeftHistory();

  std::shared_ptr<const QRVSession> session_;
  std::shared_ptr<InputInjector> injector_;
  MainScreen mainScreen_;
  std::optional<QRVScreenRect> targetScreen_;
  bool isMouseLeftDown_ = false;
  bool isMouseCenterDown_ = false;
  bool isMouseRightDown_ = false;
  std::optional<QRVMouseEvent> leftButtonDownLastEvent_, leftButtonUpLastEvent_;
  std::optional<QRVMouseEvent> leftButtonDownSecondLastEvent_, leftButtonUpSecondLastEvent_;
  std::optional<QRVTouchEvent> touchDownLastEvent_, touchUpLastEvent_;
  std::optional<QRVTouchEvent> touchDownSecondLastEvent_, touchUpSecondLastEvent_;
  const QRVKeyCodeMap& keyCodeMap_ = QRVKeyCodeMap::shared();
  std::set<std::string> keysPressed_;
};

}  // namespace quorvix

#include "remote-control/QRVXTestRemoteControl.h"

#include <atomic>
#include <utility>

#include <fmt/format.h>

#include "utils/Logging.h"

namespace quorvix {
namespace {

auto logger() {
  static auto l = QRV_LOGGER_FOR("QRVXTestRemoteControl");
  return l;
}

// Presses, releases and touches closer together than this (seconds) count as one more click.
constexpr double kClickInterval = 0.5;

std::atomic<bool> gReportedUnavailable{false};

std::string describe(const std::optional<QRVScreenRect>& s) {
  if (!s)
    return "(main screen)";
  return fmt::format("{{{}, {}, {}, {}}}", s->x, s->y, s->width, s->height);
}

template <typename Event>
std::string describe(const Event& e) {
  return fmt::format("{} {} at ({}, {})", e.id(), e.state(), e.position().x, e.position().y);
}

}  // namespace

QRVXTestRemoteControl::QRVXTestRemoteControl(std::shared_ptr<const QRVSession> session,
                                             std::shared_ptr<InputInjector> injector,
                                             MainScreen mainScreen)
    : session_(std::move(session)),
      injector_(std::move(injector)),
      mainScreen_(std::move(mainScreen)) {}

QRVXTestRemoteControl::~QRVXTestRemoteControl() {
  releaseAll();
}

void QRVXTestRemoteControl::releaseAll() {
  if (!isMouseLeftDown_ && !isMouseCenterDown_ && !isMouseRightDown_ && keysPressed_.empty())
    return;
  const QRVPoint at = injector_->pointerLocation();
  if (std::exchange(isMouseLeftDown_, false))
    injector_->post(InjectedMouseEvent{MouseEventType::leftUp, MouseButton::left, at});
  if (std::exchange(isMouseCenterDown_, false))
    injector_->post(InjectedMouseEvent{MouseEventType::otherUp, MouseButton::center, at});
  if (std::exchange(isMouseRightDown_, false))
    injector_->post(InjectedMouseEvent{MouseEventType::rightUp, MouseButton::right, at});
  for (const auto& code : keysPressed_)
    if (auto keyCode = keyCodeMap_.keyCodeFor(code))
      injector_->post(InjectedKeyEvent{code, *keyCode, false, std::nullopt, std::nullopt});
  keysPressed_.clear();
}

void QRVXTestRemoteControl::setScreen(std::optional<QRVScreenRect> screen) {
  if (screen == targetScreen_)
    return;
  logger()->debug("screen changed to {} from {}", describe(screen), describe(targetScreen_));
  targetScreen_ = screen;
}

QRVPoint QRVXTestRemoteControl::cursorPositionFor(QRVPoint fraction) const {
  const QRVScreenRect s = targetScreen_ ? *targetScreen_ : mainScreen_();
  return {fraction.x * s.width + s.x, fraction.y * s.height + s.y};
}

bool QRVXTestRemoteControl::canControl(const QRVSession& session) {
  return session.isActive() && session.fullDevice() == QRVConsentState::on;
}

bool QRVXTestRemoteControl::canControl() {
  if (injector_->isAvailable())
    return true;
  // The desktop has no prompt to nudge here: say it once.
  if (!gReportedUnavailable.exchange(true))
    logger()->error("Remote control is not possible: the display cannot take synthetic input");
  return false;
}

template <typename Event>
std::optional<int> QRVXTestRemoteControl::countClick(const Event& event,
                                                     std::optional<Event>& last,
                                                     std::optional<Event>& secondLast) {
  std::optional<int> state;
  if (event.duration(secondLast) < kClickInterval)
    state = 3;
  else if (event.duration(last) < kClickInterval)
    state = 2;
  secondLast = std::move(last);
  last = event;
  return state;
}

void QRVXTestRemoteControl::clearLeftHistory() {
  leftButtonDownLastEvent_.reset();
  leftButtonUpLastEvent_.reset();
  leftButtonDownSecondLastEvent_.reset();
  leftButtonUpSecondLastEvent_.reset();
}

void QRVXTestRemoteControl::injectMouse(const QRVMouseEvent& event) {
  if (!canControl())
    return;
  InjectedMouseEvent out{MouseEventType::moved, MouseButton::left,
                         cursorPositionFor(event.position())};
  const bool left = event.isButtonLeft(), center = event.isButtonCenter(),
             right = event.isButtonRight();
  if (event.isDown() && left) {
    out.type = MouseEventType::leftDown;
    isMouseLeftDown_ = true;
    out.clickState = countClick(event, leftButtonDownLastEvent_, leftButtonDownSecondLastEvent_);
  } else if (event.isDown() && center) {
    out = {MouseEventType::otherDown, MouseButton::center, out.location};
    isMouseCenterDown_ = true;
  } else if (event.isDown() && right) {
    out = {MouseEventType::rightDown, MouseButton::right, out.location};
    isMouseRightDown_ = true;
  } else if (event.isUp() && left) {
    out.type = MouseEventType::leftUp;
    isMouseLeftDown_ = false;
    out.clickState = countClick(event, leftButtonUpLastEvent_, leftButtonUpSecondLastEvent_);
  } else if (event.isUp() && center) {
    out = {MouseEventType::otherUp, MouseButton::center, out.location};
    isMouseCenterDown_ = false;
  } else if (event.isUp() && right) {
    // The release names the left button, unlike the press; its type says which button it is.
    out = {MouseEventType::rightUp, MouseButton::left, out.location};
    isMouseRightDown_ = false;
  } else if (event.isMove() && left) {
    out.type = isMouseLeftDown_ ? MouseEventType::leftDragged : MouseEventType::moved;
    // A double click needs both clicks on the same spot.
    const bool samePlace = leftButtonDownLastEvent_ && leftButtonUpLastEvent_ &&
                           leftButtonDownLastEvent_->position() == event.position() &&
                           leftButtonUpLastEvent_->position() == event.position();
    if (!samePlace)
      clearLeftHistory();
  } else if (event.isMove() && center) {
    out = {isMouseCenterDown_ ? MouseEventType::otherDragged : MouseEventType::moved,
           MouseButton::center, out.location};
  } else if (event.isMove() && right) {
    out = {isMouseRightDown_ ? MouseEventType::rightDragged : MouseEventType::moved,
           MouseButton::right, out.location};
  } else {
    logger()->debug("Cannot process mouse event {}", describe(event));
    return;
  }
  injector_->post(out);
}

void QRVXTestRemoteControl::injectTouch(const QRVTouchEvent& event) {
  if (!canControl(*session_))
    return;
  InjectedMouseEvent out{MouseEventType::moved, MouseButton::left,
                         cursorPositionFor(event.position())};
  if (event.isStart()) {
    out.type = MouseEventType::leftDown;
    isMouseLeftDown_ = true;
    out.clickState = countClick(event, touchDownLastEvent_, touchDownSecondLastEvent_);
  } else if (event.isMove()) {
    out.type = isMouseLeftDown_ ? MouseEventType::leftDragged : MouseEventType::moved;
  } else if (event.isEnd()) {
    out.type = MouseEventType::leftUp;
    isMouseLeftDown_ = false;
    // A touch's end always counts at least as a second click.
    out.clickState = countClick(event, touchUpLastEvent_, touchUpSecondLastEvent_).value_or(2);
  } else {
    logger()->debug("Cannot process touch event {}", describe(event));
    return;
  }
  injector_->post(out);
}

void QRVXTestRemoteControl::injectKeyPress(const QRVKeyPress& event) {
  if (!canControl(*session_))
    return;
  const auto keyCode = keyCodeMap_.keyCodeFor(event.code());
  if (!keyCode) {
    logger()->debug("Cannot find a key code for {}", event.code());
    return;
  }
  InjectedKeyEvent out{event.code(), *keyCode, event.isDown(), std::nullopt, std::nullopt};
  if (event.isDown()) {
    keysPressed_.insert(event.code());
  } else if (event.isUp()) {
    keysPressed_.erase(event.code());
  } else {
    logger()->debug("Cannot process touch event; key: {}; code: {}; state: {}", event.key(),
                    event.code(), event.state());
    return;
  }
  bool shift = false, control = false, alt = false, command = false;
  for (const auto& held : keysPressed_) {
    shift = shift || QRVKeyCodeMap::isShiftKey(held);
    control = control || QRVKeyCodeMap::isControlKey(held);
    alt = alt || QRVKeyCodeMap::isAltKey(held);
    command = command || QRVKeyCodeMap::isCommandKey(held);
  }
  if (!QRVKeyCodeMap::isModifierKey(event.code()))
    out.flags = (command ? kFlagCommand : 0u) | (shift ? kFlagShift : 0u) |
                (control ? kFlagControl : 0u) | (alt ? kFlagAlternate : 0u);
  // Typing the character itself keeps the text independent of the user's layout; a chord with
  // control, alt or command is a key, not text.
  if (!control && !alt && !command && event.isSingleCharacter())
    out.character = event.key();
  injector_->post(out);
}

}  // namespace quorvix

// One mouse event of the agent's: a press, move or release at a position on the shared screen.
// Immutable once decoded, so it may be read from any thread.
#pragma once

#include <optional>
#include <string>

#include "quorvix/Executor.h"
#include "quorvix/QRVPoint.h"
#include "quorvix/Value.h"

namespace quorvix {

class QRVMouseEvent {
 public:
  // An event from a decoded "mouse" message: a map whose "type" is "Mouse" with "id", "state",
  // "timestamp" and "button". Nothing for anything else, and for a position that is NaN.
  static std::optional<QRVMouseEvent> from(const Value& value);
  static std::optional<QRVMouseEvent> fromDictionary(const Value::Map& dictionary);

  // Absent when the agent's time stamp did not parse.
  const std::optional<WallTime>& timestamp() const { return timestamp_; }
  const std::string& id() const { return id_; }
  // "mousedown", "mousemove" or "mouseup".
  const std::string& state() const { return state_; }
  // As sent: 0 left, 1 middle, 2 right.
  const Value& button() const { return button_; }
  // (0, 0) when the message has no position.
  QRVPoint position() const { return position_; }

  bool isDown() const { return state_ == "mousedown"; }
  bool isMove() const { return state_ == "mousemove"; }
  bool isUp() const { return state_ == "mouseup"; }
  bool isButtonLeft() const;
  bool isButtonCenter() const;
  bool isButtonRight() const;

  // Seconds since `earlier`; the largest finite double when there is none, so that a missing
  // previous event counts as one long past. Meaningless when either time stamp is absent.
  double duration(const std::optional<QRVMouseEvent>& earlier) const;
  QRVPoint positionInFrame(QRVPoint origin) const { return position_ - origin; }

 private:
  std::optional<WallTime> timestamp_;
  std::string id_;
  std::string state_;
  Value button_;
  QRVPoint position_;
};

}  // namespace quorvix

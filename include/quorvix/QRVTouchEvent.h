// One touch of the agent's (the console's laser and pointer gestures): a start, move or end at a
// position on the shared screen. Immutable once decoded, so it may be read from any thread.
#pragma once

#include <optional>
#include <string>

#include "quorvix/Executor.h"
#include "quorvix/QRVPoint.h"
#include "quorvix/Value.h"

namespace quorvix {

class QRVTouchEvent {
 public:
  // An event from a decoded "touch" message: a map whose "type" is "Touch" with "id", "state"
  // and "timestamp". Nothing for anything else, and for a position that is NaN.
  static std::optional<QRVTouchEvent> from(const Value& value);
  static std::optional<QRVTouchEvent> fromDictionary(const Value::Map& dictionary);

  const std::string& id() const { return id_; }
  // "touchstart", "touchmove" or "touchend".
  const std::string& state() const { return state_; }
  const std::optional<WallTime>& timestamp() const { return timestamp_; }
  QRVPoint position() const { return position_; }

  bool isStart() const { return state_ == "touchstart"; }
  bool isMove() const { return state_ == "touchmove"; }
  bool isEnd() const { return state_ == "touchend"; }

  // As for mouse events.
  double duration(const std::optional<QRVTouchEvent>& earlier) const;
  QRVPoint positionInFrame(QRVPoint origin) const { return position_ - origin; }
  QRVPoint delta(const QRVTouchEvent& other) const { return position_ - other.position_; }
  // The length of delta(), computed in single precision.
  double distance(const QRVTouchEvent& other) const;

 private:
  std::string id_;
  std::string state_;
  std::optional<WallTime> timestamp_;
  QRVPoint position_;
};

}  // namespace quorvix

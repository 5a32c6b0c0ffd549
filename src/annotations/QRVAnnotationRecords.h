// The agent's annotations as the console sends them: finished drawings with a rectangle in screen
// fractions, and the laser dot's moves. Immutable once decoded; any thread may read them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "quorvix/QRVPoint.h"
#include "quorvix/Value.h"

namespace quorvix {

// A rectangle in screen fractions (or, once converted, in pixels), origin at the top left.
struct QRVRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  friend bool operator==(const QRVRect&, const QRVRect&) = default;
};

// The key under which drawings are filed: the text itself, or "default" for an empty one.
std::string idOrDefault(const std::string& key);

class QRVDrawing {
 public:
  // From a decoded "drawing" message: a map whose "type" is "Drawing" and that has an "id".
  // Nothing for anything else, and for bounds with a NaN component.
  static std::optional<QRVDrawing> from(const Value& message);

  // The rendered picture; empty means: clear this agent's drawings.
  const Value::Bytes& image() const { return image_; }
  const std::string& mimeType() const { return mimeType_; }
  const Value& id() const { return id_; }
  // The id as a filing key: text as it is, a number in decimal, anything else empty.
  std::string idKey() const;
  const std::string& agent() const { return agent_; }
  // Milliseconds before fading starts; none means the drawing stays.
  const std::optional<double>& disappearsIn() const { return disappearsIn_; }
  const std::optional<double>& fadeDuration() const { return fadeDuration_; }
  // Screen fractions; the whole screen when the message gives no complete rectangle.
  const QRVRect& bounds() const { return bounds_; }

 private:
  Value::Bytes image_;
  std::string mimeType_;
  Value id_;
  std::string agent_;
  std::optional<double> disappearsIn_;
  std::optional<double> fadeDuration_;
  QRVRect bounds_;
};

class QRVLaser {
 public:
  // From a decoded "laser" message: a map whose "type" is "Laser" with "id" and "state".
  // Nothing for anything else, and for a NaN coordinate.
  static std::optional<QRVLaser> from(const Value& message);

  const Value& id() const { return id_; }
  // Hexadecimal, with or without "#"; empty when the message has none.
  const std::string& color() const { return color_; }
  const std::string& state() const { return state_; }
  // Screen fractions, origin at the top left; (0, 0) without a complete position.
  QRVPoint position() const { return position_; }

  bool isStart() const { return state_ == "touchstart"; }
  bool isMove() const { return state_ == "touchmove"; }
  bool isEnd() const { return state_ == "touchend"; }

 private:
  Value id_;
  std::string color_;
  std::string state_;
  QRVPoint position_;
};

// An opaque colour, each channel in [0, 1].
struct QRVColor {
  double red = 1;
  double green = 0;
  double blue = 0;
  friend bool operator==(const QRVColor&, const QRVColor&) = default;
};

// The laser's colour from its hexadecimal text: every "#" removed, the rest scanned as a
// hexadecimal number (leading blanks and "0x" allowed, stopping at the first other character).
// Red when nothing scans.
QRVColor colorFromHexString(const std::string& text);

}  // namespace quorvix

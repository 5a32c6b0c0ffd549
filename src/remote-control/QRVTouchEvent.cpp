#include "quorvix/QRVTouchEvent.h"

#include <cmath>

#include "remote-control/EventFields.h"

namespace quorvix {

std::optional<QRVTouchEvent> QRVTouchEvent::from(const Value& value) {
  const Value::Map* map = events::typed(value, "Touch");
  return map ? fromDictionary(*map) : std::nullopt;
}

std::optional<QRVTouchEvent> QRVTouchEvent::fromDictionary(const Value::Map& dictionary) {
  auto fields = events::pointerFields(dictionary);
  if (!fields)
    return std::nullopt;
  QRVTouchEvent event;
  event.id_ = std::move(fields->id);
  event.state_ = std::move(fields->state);
  event.timestamp_ = fields->timestamp;
  event.position_ = fields->position;
  return event;
}

double QRVTouchEvent::duration(const std::optional<QRVTouchEvent>& earlier) const {
  return events::secondsBetween(timestamp_, earlier ? &earlier->timestamp_ : nullptr);
}

double QRVTouchEvent::distance(const QRVTouchEvent& other) const {
  const QRVPoint d = delta(other);
  return static_cast<double>(std::hypot(static_cast<float>(d.x), static_cast<float>(d.y)));
}

}  // namespace quorvix

#include "quorvix/QRVTouchEvent.h"

#include <cmath>

#include "remote-control/EventFields.h"

namespace quorvix {

std::optional<QRVTouchEvent> QRVTouchEvent::from(const Value& value) {
  const Value::Map* map = events::typed(value, "Touch");
  return map ? fromDictionary(*map) : std::nullopt;
}

std::optional<QRVTouchEvent> QRVTouchEvent::fromDictionary(const Value::Map& dictionary) {
  QRVTouchEvent event;
  auto id = events::text(dictionary, "id");
  auto state = events::text(dictionary, "state");
  if (!id || !state)
    return std::nullopt;
  event.id_ = std::move(*id);
  event.state_ = std::move(*state);
  auto time = dictionary.find("timestamp");
  if (time == dictionary.end())
    return std::nullopt;
  event.timestamp_ = events::timestamp(time->second);
  event.position_ = events::position(dictionary);
  if (std::isnan(event.position_.x) || std::isnan(event.position_.y))
    return std::nullopt;
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

#include "quorvix/QRVMouseEvent.h"

#include <cmath>

#include "remote-control/EventFields.h"

namespace quorvix {

std::optional<QRVMouseEvent> QRVMouseEvent::from(const Value& value) {
  const Value::Map* map = events::typed(value, "Mouse");
  return map ? fromDictionary(*map) : std::nullopt;
}

std::optional<QRVMouseEvent> QRVMouseEvent::fromDictionary(const Value::Map& dictionary) {
  QRVMouseEvent event;
  auto id = events::text(dictionary, "id");
  auto state = events::text(dictionary, "state");
  if (!id || !state)
    return std::nullopt;
  event.id_ = std::move(*id);
  event.state_ = std::move(*state);
  auto time = dictionary.find("timestamp");
  if (time == dictionary.end())
    return std::nullopt;
  // A time stamp in another form leaves the time unknown but keeps the event.
  event.timestamp_ = events::timestamp(time->second);
  event.position_ = events::position(dictionary);
  auto button = dictionary.find("button");
  if (button == dictionary.end())
    return std::nullopt;
  event.button_ = button->second;
  if (std::isnan(event.position_.x) || std::isnan(event.position_.y))
    return std::nullopt;
  return event;
}

bool QRVMouseEvent::isButtonLeft() const {
  return events::integerValue(button_) == 0;
}

bool QRVMouseEvent::isButtonCenter() const {
  return events::integerValue(button_) == 1;
}

bool QRVMouseEvent::isButtonRight() const {
  return events::integerValue(button_) == 2;
}

double QRVMouseEvent::duration(const std::optional<QRVMouseEvent>& earlier) const {
  return events::secondsBetween(timestamp_, earlier ? &earlier->timestamp_ : nullptr);
}

}  // namespace quorvix

#include "quorvix/QRVMouseEvent.h"

#include "remote-control/EventFields.h"

namespace quorvix {

std::optional<QRVMouseEvent> QRVMouseEvent::from(const Value& value) {
  const Value::Map* map = events::typed(value, "Mouse");
  return map ? fromDictionary(*map) : std::nullopt;
}

std::optional<QRVMouseEvent> QRVMouseEvent::fromDictionary(const Value::Map& dictionary) {
  auto fields = events::pointerFields(dictionary);
  auto button = dictionary.find("button");
  if (!fields || button == dictionary.end())
    return std::nullopt;
  QRVMouseEvent event;
  event.id_ = std::move(fields->id);
  event.state_ = std::move(fields->state);
  event.timestamp_ = fields->timestamp;
  event.position_ = fields->position;
  event.button_ = button->second;
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

#include "quorvix/QRVKeyPress.h"

#include "remote-control/EventFields.h"

namespace quorvix {

std::optional<QRVKeyPress> QRVKeyPress::from(const Value& value) {
  const Value::Map* map = events::typed(value, "KeyPress");
  if (!map)
    return std::nullopt;
  QRVKeyPress press;
  for (auto [key, field] : {std::pair{"key", &press.key_}, std::pair{"code", &press.code_},
                            std::pair{"state", &press.state_}}) {
    auto it = map->find(key);
    const std::string* s = it == map->end() ? nullptr : it->second.asString();
    if (!s)
      return std::nullopt;
    *field = *s;
  }
  return press;
}

bool QRVKeyPress::isSingleCharacter() const {
  // One UTF-16 unit: one code point below U+10000, which UTF-8 writes in one to three bytes.
  if (key_.empty())
    return false;
  const auto lead = static_cast<unsigned char>(key_[0]);
  const std::size_t length = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  return length < 4 && key_.size() == length;
}

}  // namespace quorvix

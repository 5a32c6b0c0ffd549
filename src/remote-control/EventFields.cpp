#include "remote-control/EventFields.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "utils/ISO8601.h"

namespace quorvix::events {

const Value::Map* typed(const Value& value, std::string_view type) {
  const Value::Map* map = value.asMap();
  if (!map)
    return nullptr;
  const Value* t = value.find("type");
  const std::string* name = t ? t->asString() : nullptr;
  return name && *name == type ? map : nullptr;
}

std::optional<std::string> text(const Value::Map& map, std::string_view key) {
  auto it = map.find(std::string(key));
  if (it == map.end())
    return std::nullopt;
  if (const std::string* s = it->second.asString())
    return *s;
  if (it->second.isInteger())
    return std::to_string(integerValue(it->second));
  return std::nullopt;
}

std::optional<WallTime> timestamp(const Value& value) {
  const std::string* s = value.asString();
  return s ? parseISO8601FractionalDate(*s) : std::nullopt;
}

QRVPoint position(const Value::Map& map) {
  auto x = map.find("x");
  auto y = map.find("y");
  if (x == map.end() || y == map.end() || !x->second.isNumber() || !y->second.isNumber())
    return {};
  // Single precision, as the agent's fractions have always been read.
  return {static_cast<double>(static_cast<float>(*x->second.toDouble())),
          static_cast<double>(static_cast<float>(*y->second.toDouble()))};
}

std::int64_t integerValue(const Value& value) {
  if (auto n = value.toInt64())
    return *n;
  if (const std::string* s = value.asString()) {
    std::string_view v = *s;
    while (!v.empty() && (v.front() == ' ' || v.front() == '\t'))
      v.remove_prefix(1);
    if (!v.empty() && v.front() == '+')
      v.remove_prefix(1);
    std::int64_t n = 0;
    std::from_chars(v.data(), v.data() + v.size(), n);
    return n;
  }
  return 0;
}

std::optional<PointerFields> pointerFields(const Value::Map& map) {
  auto id = text(map, "id");
  auto state = text(map, "state");
  auto time = map.find("timestamp");
  if (!id || !state || time == map.end())
    return std::nullopt;
  PointerFields fields{std::move(*id), std::move(*state), timestamp(time->second), position(map)};
  if (std::isnan(fields.position.x) || std::isnan(fields.position.y))
    return std::nullopt;
  return fields;
}

double secondsBetween(const std::optional<WallTime>& later,
                      const std::optional<WallTime>* earlier) {
  if (!earlier)
    return std::numeric_limits<double>::max();
  if (!later || !*earlier)
    return std::numeric_limits<double>::quiet_NaN();
  return std::chrono::duration<double>(*later - **earlier).count();
}

}  // namespace quorvix::events

// Field readers shared by the agent's input records.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "quorvix/Executor.h"
#include "quorvix/QRVPoint.h"
#include "quorvix/Value.h"

namespace quorvix::events {

// What mouse and touch events share: "id" and "state", a "timestamp" that must be there (a text
// that does not parse leaves the time unknown) and the position. Nothing when a field is
// missing or the position is NaN.
struct PointerFields {
  std::string id;
  std::string state;
  std::optional<WallTime> timestamp;
  QRVPoint position;
};
std::optional<PointerFields> pointerFields(const Value::Map& map);

// The map of a decoded message whose "type" is exactly `type`.
const Value::Map* typed(const Value& value, std::string_view type);
// Text, or a number in its decimal form (identifiers some agents send as numbers).
std::optional<std::string> text(const Value::Map& map, std::string_view key);
// "yyyy-MM-dd'T'HH:mm:ss.SSSZ", the zone as "Z" or a signed offset with or without a colon.
std::optional<WallTime> timestamp(const Value& value);
// The position when "x" and "y" are both numbers, read in single precision; (0, 0) otherwise.
QRVPoint position(const Value::Map& map);
// The integer value of a number, or of text that starts with one; 0 otherwise.
std::int64_t integerValue(const Value& value);
// this - earlier in seconds; the largest finite double without an earlier event.
double secondsBetween(const std::optional<WallTime>& later, const std::optional<WallTime>* earlier);

}  // namespace quorvix::events

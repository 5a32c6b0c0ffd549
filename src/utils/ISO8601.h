// Internet date-times (RFC 3339) with fractional seconds, as the service writes session dates:
// "2024-05-01T10:20:30.123Z", "2024-05-01T12:20:30.5+02:00".
#pragma once

#include <optional>
#include <string_view>

#include "quorvix/Executor.h"

namespace quorvix {

// Nothing for text of any other form, without a fraction, or naming a day that does not exist.
// Digits beyond nanoseconds are dropped.
std::optional<WallTime> parseISO8601FractionalDate(std::string_view text);

}  // namespace quorvix

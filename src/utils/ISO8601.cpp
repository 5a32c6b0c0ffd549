#include "utils/ISO8601.h"

#include <chrono>

namespace quorvix {
namespace {

bool digits(std::string_view s, std::size_t at, std::size_t n, int& out) {
  if (at + n > s.size())
    return false;
  out = 0;
  for (std::size_t i = at; i < at + n; ++i) {
    if (s[i] < '0' || s[i] > '9')
      return false;
    out = out * 10 + (s[i] - '0');
  }
  return true;
}

}  // namespace

std::optional<WallTime> parseISO8601FractionalDate(std::string_view s) {
  using namespace std::chrono;
  int year, month, day, hour, minute, second;
  if (!digits(s, 0, 4, year) || s.size() < 20 || s[4] != '-' || !digits(s, 5, 2, month) ||
      s[7] != '-' || !digits(s, 8, 2, day) || (s[10] != 'T' && s[10] != 't') ||
      !digits(s, 11, 2, hour) || s[13] != ':' || !digits(s, 14, 2, minute) || s[16] != ':' ||
      !digits(s, 17, 2, second) || s[19] != '.')
    return std::nullopt;
  std::size_t i = 20;
  std::int64_t nanos = 0;
  int fractionDigits = 0;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i, ++fractionDigits)
    if (fractionDigits < 9)
      nanos = nanos * 10 + (s[i] - '0');
  if (fractionDigits == 0)
    return std::nullopt;
  for (int k = fractionDigits; k < 9; ++k)
    nanos *= 10;

  int offsetMinutes = 0;
  if (i < s.size() && (s[i] == 'Z' || s[i] == 'z')) {
    ++i;
  } else if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
    int oh, om;
    const bool colon = i + 3 < s.size() && s[i + 3] == ':';
    if (!digits(s, i + 1, 2, oh) || !digits(s, i + (colon ? 4 : 3), 2, om) || oh > 23 || om > 59)
      return std::nullopt;
    offsetMinutes = (s[i] == '-' ? -1 : 1) * (oh * 60 + om);
    i += colon ? 6 : 5;
  } else {
    return std::nullopt;
  }
  if (i != s.size())
    return std::nullopt;

  const year_month_day date{std::chrono::year(year),
                            std::chrono::month(static_cast<unsigned>(month)),
                            std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok() || hour > 23 || minute > 59 || second > 59)
    return std::nullopt;
  const sys_seconds whole = sys_days(date) + hours(hour) + minutes(minute) +
                            std::chrono::seconds(second) - minutes(offsetMinutes);
  // The clock's range (about 1678 to 2262 with nanosecond ticks) bounds what can be held.
  const auto earliest = ceil<std::chrono::seconds>(WallTime::min().time_since_epoch()) + 1s;
  const auto latest = floor<std::chrono::seconds>(WallTime::max().time_since_epoch()) - 1s;
  if (whole.time_since_epoch() < earliest || whole.time_since_epoch() > latest)
    return std::nullopt;
  return WallTime(duration_cast<WallTime::duration>(whole.time_since_epoch()) +
                  duration_cast<WallTime::duration>(nanoseconds(nanos)));
}

}  // namespace quorvix

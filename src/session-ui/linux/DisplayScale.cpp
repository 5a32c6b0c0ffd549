#include "session-ui/linux/DisplayScale.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace quorvix {
namespace {

constexpr double kBaseDpi = 96;
constexpr double kMinScale = 0.75;
constexpr double kMaxScale = 3;

std::string_view trim(std::string_view s) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
  while (!s.empty() && blank(s.front()))
    s.remove_prefix(1);
  while (!s.empty() && blank(s.back()))
    s.remove_suffix(1);
  return s;
}

}  // namespace

std::optional<double> xftDpi(std::string_view resources) {
  resources = resources.substr(0, kMaxResourceBytes);
  std::optional<double> found;
  while (!resources.empty()) {
    const auto end = resources.find('\n');
    const std::string_view line = resources.substr(0, end);
    resources.remove_prefix(end == std::string_view::npos ? resources.size() : end + 1);
    const auto colon = line.find(':');
    if (colon == std::string_view::npos)
      continue;
    const std::string_view name = trim(line.substr(0, colon));
    if (name != "Xft.dpi" && name != "Xft*dpi")
      continue;
    const std::string_view value = trim(line.substr(colon + 1));
    double dpi = 0;
    const auto [rest, error] = std::from_chars(value.data(), value.data() + value.size(), dpi);
    if (error == std::errc() && rest == value.data() + value.size() && std::isfinite(dpi) &&
        dpi > 0)
      found = dpi;
  }
  return found;
}

std::optional<double> physicalDpi(int widthPixels, int widthMillimetres) {
  if (widthPixels <= 0 || widthMillimetres <= 0)
    return std::nullopt;
  // Reported sizes are whole millimetres and often rough: 24 dpi steps are quarter scale steps.
  return std::round(widthPixels * 25.4 / widthMillimetres / 24) * 24;
}

double scaleForDpi(double dpi) {
  if (!std::isfinite(dpi))
    return 1;
  return std::clamp(dpi / kBaseDpi, kMinScale, kMaxScale);
}

}  // namespace quorvix

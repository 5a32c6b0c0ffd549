#include "annotations/QRVAnnotationRecords.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "remote-control/EventFields.h"

namespace quorvix {
namespace {

std::optional<double> number(const Value::Map& map, std::string_view key) {
  auto it = map.find(key);
  return it != map.end() && it->second.isNumber() ? it->second.toDouble() : std::nullopt;
}

const std::string* string(const Value::Map& map, std::string_view key) {
  auto it = map.find(key);
  return it != map.end() ? it->second.asString() : nullptr;
}

// Read in single precision, as the console's fractions always have been.
double single(double value) {
  return static_cast<double>(static_cast<float>(value));
}

}  // namespace

std::string idOrDefault(const std::string& key) {
  return key.empty() ? "default" : key;
}

std::optional<QRVDrawing> QRVDrawing::from(const Value& message) {
  const Value::Map* map = events::typed(message, "Drawing");
  if (!map)
    return std::nullopt;
  auto id = map->find("id");
  if (id == map->end())
    return std::nullopt;

  QRVDrawing drawing;
  drawing.id_ = id->second;
  if (auto image = map->find("image"); image != map->end() && image->second.asBytes())
    drawing.image_ = *image->second.asBytes();
  if (const std::string* mime = string(*map, "mime_type"))
    drawing.mimeType_ = *mime;

  auto x = number(*map, "x");
  auto y = number(*map, "y");
  auto width = number(*map, "width");
  auto height = number(*map, "height");
  drawing.bounds_ = x && y && width && height
                        ? QRVRect{single(*x), single(*y), single(*width), single(*height)}
                        : QRVRect{0, 0, 1, 1};
  const QRVRect& b = drawing.bounds_;
  if (std::isnan(b.x) || std::isnan(b.y) || std::isnan(b.width) || std::isnan(b.height))
    return std::nullopt;

  drawing.disappearsIn_ = number(*map, "disappears_in");
  drawing.fadeDuration_ = number(*map, "fade_duration");
  if (const std::string* agent = string(*map, "agent"))
    drawing.agent_ = *agent;
  return drawing;
}

std::string QRVDrawing::idKey() const {
  if (const std::string* s = id_.asString())
    return *s;
  if (id_.isInteger())
    return std::to_string(events::integerValue(id_));
  return {};
}

std::optional<QRVLaser> QRVLaser::from(const Value& message) {
  const Value::Map* map = events::typed(message, "Laser");
  if (!map)
    return std::nullopt;
  auto id = map->find("id");
  auto state = map->find("state");
  if (id == map->end() || state == map->end())
    return std::nullopt;

  QRVLaser laser;
  laser.id_ = id->second;
  if (const std::string* s = state->second.asString())
    laser.state_ = *s;
  laser.position_ = events::position(*map);
  if (std::isnan(laser.position_.x) || std::isnan(laser.position_.y))
    return std::nullopt;
  if (const std::string* color = string(*map, "colour"))
    laser.color_ = *color;
  return laser;
}

QRVColor colorFromHexString(const std::string& text) {
  std::string hex;
  for (char c : text) {
    if (c != '#')
      hex.push_back(c);
  }
  std::size_t i = 0;
  while (i < hex.size() && (hex[i] == ' ' || hex[i] == '\t' || hex[i] == '\n'))
    ++i;
  if (i + 1 < hex.size() && hex[i] == '0' && (hex[i + 1] == 'x' || hex[i + 1] == 'X'))
    i += 2;
  std::uint64_t value = 0;
  std::size_t digits = 0;
  for (; i < hex.size(); ++i, ++digits) {
    const char c = hex[i];
    int d;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (c >= 'a' && c <= 'f')
      d = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F')
      d = c - 'A' + 10;
    else
      break;
    // A value too large for 32 bits saturates, as a 32-bit scan does.
    value = std::min<std::uint64_t>(value * 16 + static_cast<std::uint64_t>(d), 0xFFFFFFFFu);
  }
  if (digits == 0)
    return {};
  auto channel = [&](int shift) { return static_cast<double>((value >> shift) & 0xFF) / 255.0; };
  return {channel(16), channel(8), channel(0)};
}

}  // namespace quorvix

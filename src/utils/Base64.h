// Base64 (RFC 4648, standard alphabet, padded).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvix {

std::string base64Encode(const std::uint8_t* data, std::size_t size);
inline std::string base64Encode(std::string_view bytes) {
  return base64Encode(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}
// Strict: padding required, no whitespace, no bits left over. Nothing for anything else.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace quorvix

#include "utils/Base64.h"

#include <array>

namespace quorvix {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeDecodeTable() {
  std::array<std::int8_t, 256> table{};
  table.fill(-1);
  for (int i = 0; i < 64; ++i)
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
  return table;
}
constexpr auto kDecode = makeDecodeTable();

}  // namespace

std::string base64Encode(const std::uint8_t* data, std::size_t size) {
  std::string out;
  out.reserve(4 * ((size + 2) / 3));
  std::size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    std::uint32_t n = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (std::size_t rest = size - i) {
    std::uint32_t n = data[i] << 16;
    if (rest == 2)
      n |= data[i + 1] << 8;
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += rest == 2 ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0)
    return std::nullopt;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    const int pad = last ? (text[i + 3] == '=') + (text[i + 2] == '=') : 0;
    if (pad == 1 && text[i + 2] == '=')
      return std::nullopt;  // "x=y=" style
    std::uint32_t n = 0;
    for (int k = 0; k < 4 - pad; ++k) {
      std::int8_t v = kDecode[static_cast<unsigned char>(text[i + k])];
      if (v < 0)
        return std::nullopt;
      n |= static_cast<std::uint32_t>(v) << (18 - 6 * k);
    }
    // Bits beyond the last whole byte must be zero, so that every byte string has one encoding.
    if ((pad == 2 && (n & 0xFFFF)) || (pad == 1 && (n & 0xFF)))
      return std::nullopt;
    out += static_cast<char>(n >> 16);
    if (pad < 2)
      out += static_cast<char>((n >> 8) & 0xFF);
    if (pad < 1)
      out += static_cast<char>(n & 0xFF);
  }
  return out;
}

}  // namespace quorvix

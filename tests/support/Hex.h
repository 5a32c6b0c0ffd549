#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorvix::test {

// Bytes from hex digits; spaces between them are ignored.
inline std::vector<std::uint8_t> hex(std::string_view h) {
  std::vector<std::uint8_t> out;
  int high = -1;
  for (char c : h) {
    if (c == ' ')
      continue;
    int v = (c >= '0' && c <= '9') ? c - '0' : (c | 0x20) - 'a' + 10;
    if (high < 0) {
      high = v;
    } else {
      out.push_back(static_cast<std::uint8_t>(high << 4 | v));
      high = -1;
    }
  }
  return out;
}

inline std::string toHex(const std::vector<std::uint8_t>& b) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string s;
  for (auto c : b) {
    s.push_back(kDigits[c >> 4]);
    s.push_back(kDigits[c & 15]);
  }
  return s;
}

}  // namespace quorvix::test

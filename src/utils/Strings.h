// Small text helpers for protocol names and header fields, which are ASCII and case-insensitive.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace quorvix {

inline char asciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string asciiLower(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(), [](char c) { return asciiLower(c); });
  return out;
}

inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return asciiLower(x) == asciiLower(y);
         });
}

}  // namespace quorvix

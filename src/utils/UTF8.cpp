#include "utils/UTF8.h"

#include <cstring>

namespace quorvix {

bool isValidUTF8(std::span<const std::uint8_t> s) {
  std::size_t i = 0;
  const std::size_t n = s.size();
  while (i < n) {
    // ASCII runs eight bytes at a time.
    while (i + 8 <= n) {
      std::uint64_t chunk;
      std::memcpy(&chunk, s.data() + i, 8);
      if (chunk & 0x8080808080808080ull)
        break;
      i += 8;
    }
    if (i >= n)
      break;
    std::uint8_t c = s[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    int len;
    std::uint32_t cp;
    if ((c & 0xe0) == 0xc0) {
      len = 2;
      cp = c & 0x1f;
    } else if ((c & 0xf0) == 0xe0) {
      len = 3;
      cp = c & 0x0f;
    } else if ((c & 0xf8) == 0xf0) {
      len = 4;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (i + len > n)
      return false;
    for (int k = 1; k < len; ++k) {
      std::uint8_t cc = s[i + k];
      if ((cc & 0xc0) != 0x80)
        return false;
      cp = (cp << 6) | (cc & 0x3f);
    }
    // Overlong forms, surrogates and values beyond Unicode.
    if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) ||
        cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff))
      return false;
    i += len;
  }
  return true;
}

}  // namespace quorvix

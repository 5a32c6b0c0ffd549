#include "remote-control/linux/Keysyms.h"

#include <xkbcommon/xkbcommon-keysyms.h>
#include <xkbcommon/xkbcommon.h>

namespace quorvix {

std::vector<char32_t> codePoints(std::string_view utf8, std::size_t limit) {
  std::vector<char32_t> out;
  std::size_t i = 0;
  while (i < utf8.size() && out.size() < limit) {
    const auto lead = static_cast<unsigned char>(utf8[i]);
    const int length = lead < 0x80           ? 1
                       : (lead >> 5) == 0x6  ? 2
                       : (lead >> 4) == 0xe  ? 3
                       : (lead >> 3) == 0x1e ? 4
                                             : 0;
    if (length == 0 || i + length > utf8.size()) {
      ++i;
      continue;
    }
    char32_t c = length == 1 ? lead : lead & (0x7f >> length);
    bool ok = true;
    for (int k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(utf8[i + k]);
      ok = ok && (next & 0xc0) == 0x80;
      c = (c << 6) | (next & 0x3f);
    }
    static constexpr char32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
    ok = ok && c >= kMinimum[length] && c <= 0x10ffff && (c < 0xd800 || c > 0xdfff);
    if (ok)
      out.push_back(c);
    i += ok ? length : 1;
  }
  return out;
}

std::uint32_t keysymForCharacter(char32_t c) {
  switch (c) {
    case U'\n':
    case U'\r':
      return XKB_KEY_Return;
    case U'\t':
      return XKB_KEY_Tab;
    case U'\b':
      return XKB_KEY_BackSpace;
    default:
      break;
  }
  if (c < 0x20 || (c >= 0x7f && c < 0xa0))
    return XKB_KEY_NoSymbol;
  if (c <= 0xff)
    return c;
  return xkb_utf32_to_keysym(c);
}

}  // namespace quorvix

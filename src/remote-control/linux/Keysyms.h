// Characters as X keysyms. Safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace quorvix {

// The code points of UTF-8 text, at most `limit` of them; malformed sequences are skipped.
std::vector<char32_t> codePoints(std::string_view utf8, std::size_t limit);

// The keysym that types the character: Latin-1 as itself, the legacy keysym where X has one,
// else the Unicode keysym (0x01000000 | code point). Return, Tab and BackSpace for their control
// characters; 0 for any other control character, which nothing types.
std::uint32_t keysymForCharacter(char32_t c);

}  // namespace quorvix

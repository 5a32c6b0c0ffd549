// The X11 backend's pure parts: where each web key sits, and characters as keysyms.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include <xkbcommon/xkbcommon-keysyms.h>

#include "remote-control/QRVKeyCodeMap.h"
#include "remote-control/linux/Keysyms.h"
#include "remote-control/linux/XTestKeyTable.h"

namespace quorvix {
namespace {

TEST(XTestKeyTableTest, CoversEveryWebCodeWithAKeyXCanPlay) {
  std::set<std::string_view> names;
  for (const auto& key : physicalKeys())
    EXPECT_TRUE(names.insert(key.code).second) << key.code << " twice";
  for (const auto& [code, _] : QRVKeyCodeMap::shared().jsKeys()) {
    SCOPED_TRACE(std::string(code));
    const auto key = physicalKeyFor(code);
    ASSERT_TRUE(key);
    if (code == "Fn") {
      // Handled by the keyboard itself; past what an X keycode holds.
      EXPECT_GT(key->evdev + kEvdevToXKeycode, kMaxXKeycode);
      continue;
    }
    EXPECT_LE(key->evdev + kEvdevToXKeycode, kMaxXKeycode);
    EXPECT_FALSE(key->xkbName.empty());
  }
  EXPECT_EQ(names.size(), QRVKeyCodeMap::shared().jsKeys().size());
  EXPECT_FALSE(physicalKeyFor("KeyÄ"));
}

TEST(XTestKeyTableTest, KnownKeysSitWhereTheKernelPutsThem) {
  // Rows checked against the keyboard's own key names: X keycode = evdev + 8.
  const std::pair<const char*, int> rows[] = {
      {"KeyA", 38},          {"ShiftLeft", 50}, {"NumpadEnter", 104},
      {"IntlBackslash", 94}, {"MetaLeft", 133}, {"AudioVolumeUp", 123},
      {"Insert", 118},       {"Help", 146},     {"ContextMenu", 135},
  };
  for (const auto& [code, x] : rows) {
    SCOPED_TRACE(code);
    EXPECT_EQ(physicalKeyFor(code)->evdev + kEvdevToXKeycode, x);
  }
}

TEST(KeysymsTest, DecodesUTF8AndSkipsWhatIsMalformed) {
  EXPECT_EQ(codePoints("a\xc3\xa9\xe2\x82\xac\xd0\x96\xf0\x9f\x98\x80", 10),
            (std::vector<char32_t>{U'a', U'é', U'€', U'Ж', U'\U0001F600'}));
  EXPECT_EQ(codePoints("abcdef", 3), (std::vector<char32_t>{U'a', U'b', U'c'}));
  const std::string malformed[] = {
      "\xc0\xaf",          // overlong '/'
      "\xed\xa0\x80",      // a UTF-16 surrogate
      "\xf4\x90\x80\x80",  // past U+10FFFF
      "\xe2\x82",          // cut short
      "\x80",              // a continuation byte alone
      "\xff",              // never in UTF-8
  };
  for (const auto& bytes : malformed) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    EXPECT_EQ(codePoints(bytes + "x", 10), (std::vector<char32_t>{U'x'}));
  }
}

TEST(KeysymsTest, CharactersBecomeTheirKeysyms) {
  EXPECT_EQ(keysymForCharacter(U'a'), std::uint32_t(XKB_KEY_a));
  EXPECT_EQ(keysymForCharacter(U'é'), std::uint32_t(XKB_KEY_eacute));
  EXPECT_EQ(keysymForCharacter(U'ß'), std::uint32_t(XKB_KEY_ssharp));
  EXPECT_EQ(keysymForCharacter(U'€'), std::uint32_t(XKB_KEY_EuroSign));
  EXPECT_EQ(keysymForCharacter(U'Ж'), std::uint32_t(XKB_KEY_Cyrillic_ZHE));
  EXPECT_EQ(keysymForCharacter(U'\U0001F600'), 0x0101F600u);
  EXPECT_EQ(keysymForCharacter(U'\n'), std::uint32_t(XKB_KEY_Return));
  EXPECT_EQ(keysymForCharacter(U'\t'), std::uint32_t(XKB_KEY_Tab));
  EXPECT_EQ(keysymForCharacter(U'\x01'), std::uint32_t(XKB_KEY_NoSymbol));
  EXPECT_EQ(keysymForCharacter(U'\x85'), std::uint32_t(XKB_KEY_NoSymbol));
}

}  // namespace
}  // namespace quorvix

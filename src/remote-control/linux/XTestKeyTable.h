// Where the agent's physical keys sit on a Linux keyboard: the web "code" name of each key with
// its evdev key code and its XKB key name. Immutable; safe from any thread.
#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace quorvix {

struct PhysicalKey {
  std::string_view code;
  // linux/input-event-codes.h; the X keycode is this plus 8 on servers with evdev keycodes.
  int evdev;
  // The XKB name of the key ("AC01"), the same in every keycode set.
  std::string_view xkbName;
};

std::span<const PhysicalKey> physicalKeys();
std::optional<PhysicalKey> physicalKeyFor(std::string_view code);

// X keycodes are one byte on the wire: keys beyond that cannot be played.
inline constexpr int kMaxXKeycode = 255;
inline constexpr int kEvdevToXKeycode = 8;

}  // namespace quorvix

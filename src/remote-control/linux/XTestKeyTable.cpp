#include "remote-control/linux/XTestKeyTable.h"

#include <linux/input-event-codes.h>

#include <algorithm>
#include <array>

namespace quorvix {
namespace {

// Insert keeps its own key here: the X server tells the two apart, and nothing on Linux would
// take a help key for an insert. Fn never reaches X (the keyboard handles it itself, and its
// evdev code is past what X keycodes can hold); it stays in the table so that it is dropped with
// a reason rather than as unknown.
constexpr std::array<PhysicalKey, 127> kKeys{{
    {"KeyA", KEY_A, "AC01"},
    {"KeyS", KEY_S, "AC02"},
    {"KeyD", KEY_D, "AC03"},
    {"KeyF", KEY_F, "AC04"},
    {"KeyH", KEY_H, "AC06"},
    {"KeyG", KEY_G, "AC05"},
    {"KeyZ", KEY_Z, "AB01"},
    {"KeyX", KEY_X, "AB02"},
    {"KeyC", KEY_C, "AB03"},
    {"KeyV", KEY_V, "AB04"},
    {"IntlBackslash", KEY_102ND, "LSGT"},
    {"KeyB", KEY_B, "AB05"},
    {"KeyQ", KEY_Q, "AD01"},
    {"KeyW", KEY_W, "AD02"},
    {"KeyE", KEY_E, "AD03"},
    {"KeyR", KEY_R, "AD04"},
    {"KeyY", KEY_Y, "AD06"},
    {"KeyT", KEY_T, "AD05"},
    {"Digit1", KEY_1, "AE01"},
    {"Digit2", KEY_2, "AE02"},
    {"Digit3", KEY_3, "AE03"},
    {"Digit4", KEY_4, "AE04"},
    {"Digit6", KEY_6, "AE06"},
    {"Digit5", KEY_5, "AE05"},
    {"Equal", KEY_EQUAL, "AE12"},
    {"Digit9", KEY_9, "AE09"},
    {"Digit7", KEY_7, "AE07"},
    {"Minus", KEY_MINUS, "AE11"},
    {"Digit8", KEY_8, "AE08"},
    {"Digit0", KEY_0, "AE10"},
    {"BracketRight", KEY_RIGHTBRACE, "AD12"},
    {"KeyO", KEY_O, "AD09"},
    {"KeyU", KEY_U, "AD07"},
    {"BracketLeft", KEY_LEFTBRACE, "AD11"},
    {"KeyI", KEY_I, "AD08"},
    {"KeyP", KEY_P, "AD10"},
    {"Enter", KEY_ENTER, "RTRN"},
    {"KeyL", KEY_L, "AC09"},
    {"KeyJ", KEY_J, "AC07"},
    {"Quote", KEY_APOSTROPHE, "AC11"},
    {"KeyK", KEY_K, "AC08"},
    {"Semicolon", KEY_SEMICOLON, "AC10"},
    {"Backslash", KEY_BACKSLASH, "BKSL"},
    {"Comma", KEY_COMMA, "AB08"},
    {"Slash", KEY_SLASH, "AB10"},
    {"KeyN", KEY_N, "AB06"},
    {"KeyM", KEY_M, "AB07"},
    {"Period", KEY_DOT, "AB09"},
    {"Tab", KEY_TAB, "TAB"},
    {"Space", KEY_SPACE, "SPCE"},
    {"Backquote", KEY_GRAVE, "TLDE"},
    {"Backspace", KEY_BACKSPACE, "BKSP"},
    {"Escape", KEY_ESC, "ESC"},
    {"OSRight", KEY_RIGHTMETA, "RWIN"},
    {"MetaRight", KEY_RIGHTMETA, "RWIN"},
    {"OSLeft", KEY_LEFTMETA, "LWIN"},
    {"MetaLeft", KEY_LEFTMETA, "LWIN"},
    {"ShiftLeft", KEY_LEFTSHIFT, "LFSH"},
    {"CapsLock", KEY_CAPSLOCK, "CAPS"},
    {"AltLeft", KEY_LEFTALT, "LALT"},
    {"ControlLeft", KEY_LEFTCTRL, "LCTL"},
    {"ShiftRight", KEY_RIGHTSHIFT, "RTSH"},
    {"AltRight", KEY_RIGHTALT, "RALT"},
    {"ControlRight", KEY_RIGHTCTRL, "RCTL"},
    {"Fn", KEY_FN, ""},
    {"F17", KEY_F17, "FK17"},
    {"NumpadDecimal", KEY_KPDOT, "KPDL"},
    {"NumpadMultiply", KEY_KPASTERISK, "KPMU"},
    {"NumpadAdd", KEY_KPPLUS, "KPAD"},
    {"NumLock", KEY_NUMLOCK, "NMLK"},
    {"VolumeUp", KEY_VOLUMEUP, "VOL+"},
    {"AudioVolumeUp", KEY_VOLUMEUP, "VOL+"},
    {"VolumeDown", KEY_VOLUMEDOWN, "VOL-"},
    {"AudioVolumeDown", KEY_VOLUMEDOWN, "VOL-"},
    {"VolumeMute", KEY_MUTE, "MUTE"},
    {"AudioVolumeMute", KEY_MUTE, "MUTE"},
    {"NumpadDivide", KEY_KPSLASH, "KPDV"},
    {"NumpadEnter", KEY_KPENTER, "KPEN"},
    {"NumpadSubtract", KEY_KPMINUS, "KPSU"},
    {"F18", KEY_F18, "FK18"},
    {"F19", KEY_F19, "FK19"},
    {"NumpadEqual", KEY_KPEQUAL, "KPEQ"},
    {"Numpad0", KEY_KP0, "KP0"},
    {"Numpad1", KEY_KP1, "KP1"},
    {"Numpad2", KEY_KP2, "KP2"},
    {"Numpad3", KEY_KP3, "KP3"},
    {"Numpad4", KEY_KP4, "KP4"},
    {"Numpad5", KEY_KP5, "KP5"},
    {"Numpad6", KEY_KP6, "KP6"},
    {"Numpad7", KEY_KP7, "KP7"},
    {"F20", KEY_F20, "FK20"},
    {"Numpad8", KEY_KP8, "KP8"},
    {"Numpad9", KEY_KP9, "KP9"},
    {"IntlYen", KEY_YEN, "AE13"},
    {"IntlRo", KEY_RO, "AB11"},
    {"NumpadComma", KEY_KPCOMMA, "I129"},
    {"F5", KEY_F5, "FK05"},
    {"F6", KEY_F6, "FK06"},
    {"F7", KEY_F7, "FK07"},
    {"F3", KEY_F3, "FK03"},
    {"F8", KEY_F8, "FK08"},
    {"F9", KEY_F9, "FK09"},
    {"Lang2", KEY_HANJA, "HJCV"},
    {"F11", KEY_F11, "FK11"},
    {"Lang1", KEY_HANGEUL, "HNGL"},
    {"KanaMode", KEY_KATAKANAHIRAGANA, "HKTG"},
    {"F13", KEY_F13, "FK13"},
    {"F16", KEY_F16, "FK16"},
    {"F14", KEY_F14, "FK14"},
    {"F10", KEY_F10, "FK10"},
    {"ContextMenu", KEY_COMPOSE, "COMP"},
    {"F12", KEY_F12, "FK12"},
    {"F15", KEY_F15, "FK15"},
    {"Help", KEY_HELP, "HELP"},
    {"Insert", KEY_INSERT, "INS"},
    {"Home", KEY_HOME, "HOME"},
    {"PageUp", KEY_PAGEUP, "PGUP"},
    {"Delete", KEY_DELETE, "DELE"},
    {"F4", KEY_F4, "FK04"},
    {"End", KEY_END, "END"},
    {"F2", KEY_F2, "FK02"},
    {"PageDown", KEY_PAGEDOWN, "PGDN"},
    {"F1", KEY_F1, "FK01"},
    {"ArrowLeft", KEY_LEFT, "LEFT"},
    {"ArrowRight", KEY_RIGHT, "RGHT"},
    {"ArrowDown", KEY_DOWN, "DOWN"},
    {"ArrowUp", KEY_UP, "UP"},
}};

}  // namespace

std::span<const PhysicalKey> physicalKeys() {
  return kKeys;
}

std::optional<PhysicalKey> physicalKeyFor(std::string_view code) {
  const auto it = std::find_if(kKeys.begin(), kKeys.end(),
                               [&](const PhysicalKey& k) { return k.code == code; });
  if (it == kKeys.end())
    return std::nullopt;
  return *it;
}

}  // namespace quorvix

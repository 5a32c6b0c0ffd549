#include "remote-control/QRVKeyCodeMap.h"

#include <array>
#include <utility>

namespace quorvix {
namespace {

// Web "code" names to the key codes the wire and the rest of the library reason in. Two names
// share a code where the web renamed a key (OS/Meta, Volume/AudioVolume) or where one key has
// two names (Lang1/KanaMode; Insert is sent as Help).
constexpr std::array<std::pair<std::string_view, int>, 127> kJsKeys{{
    {"KeyA", 0},
    {"KeyS", 1},
    {"KeyD", 2},
    {"KeyF", 3},
    {"KeyH", 4},
    {"KeyG", 5},
    {"KeyZ", 6},
    {"KeyX", 7},
    {"KeyC", 8},
    {"KeyV", 9},
    {"IntlBackslash", 10},
    {"KeyB", 11},
    {"KeyQ", 12},
    {"KeyW", 13},
    {"KeyE", 14},
    {"KeyR", 15},
    {"KeyY", 16},
    {"KeyT", 17},
    {"Digit1", 18},
    {"Digit2", 19},
    {"Digit3", 20},
    {"Digit4", 21},
    {"Digit6", 22},
    {"Digit5", 23},
    {"Equal", 24},
    {"Digit9", 25},
    {"Digit7", 26},
    {"Minus", 27},
    {"Digit8", 28},
    {"Digit0", 29},
    {"BracketRight", 30},
    {"KeyO", 31},
    {"KeyU", 32},
    {"BracketLeft", 33},
    {"KeyI", 34},
    {"KeyP", 35},
    {"Enter", 36},
    {"KeyL", 37},
    {"KeyJ", 38},
    {"Quote", 39},
    {"KeyK", 40},
    {"Semicolon", 41},
    {"Backslash", 42},
    {"Comma", 43},
    {"Slash", 44},
    {"KeyN", 45},
    {"KeyM", 46},
    {"Period", 47},
    {"Tab", 48},
    {"Space", 49},
    {"Backquote", 50},
    {"Backspace", 51},
    {"Escape", 53},
    {"OSRight", 54},
    {"MetaRight", 54},
    {"OSLeft", 55},
    {"MetaLeft", 55},
    {"ShiftLeft", 56},
    {"CapsLock", 57},
    {"AltLeft", 58},
    {"ControlLeft", 59},
    {"ShiftRight", 60},
    {"AltRight", 61},
    {"ControlRight", 62},
    {"Fn", 63},
    {"F17", 64},
    {"NumpadDecimal", 65},
    {"NumpadMultiply", 67},
    {"NumpadAdd", 69},
    {"NumLock", 71},
    {"VolumeUp", 72},
    {"AudioVolumeUp", 72},
    {"VolumeDown", 73},
    {"AudioVolumeDown", 73},
    {"VolumeMute", 74},
    {"AudioVolumeMute", 74},
    {"NumpadDivide", 75},
    {"NumpadEnter", 76},
    {"NumpadSubtract", 78},
    {"F18", 79},
    {"F19", 80},
    {"NumpadEqual", 81},
    {"Numpad0", 82},
    {"Numpad1", 83},
    {"Numpad2", 84},
    {"Numpad3", 85},
    {"Numpad4", 86},
    {"Numpad5", 87},
    {"Numpad6", 88},
    {"Numpad7", 89},
    {"F20", 90},
    {"Numpad8", 91},
    {"Numpad9", 92},
    {"IntlYen", 93},
    {"IntlRo", 94},
    {"NumpadComma", 95},
    {"F5", 96},
    {"F6", 97},
    {"F7", 98},
    {"F3", 99},
    {"F8", 100},
    {"F9", 101},
    {"Lang2", 102},
    {"F11", 103},
    {"Lang1", 104},
    {"KanaMode", 104},
    {"F13", 105},
    {"F16", 106},
    {"F14", 107},
    {"F10", 109},
    {"ContextMenu", 110},
    {"F12", 111},
    {"F15", 113},
    {"Help", 114},
    {"Insert", 114},
    {"Home", 115},
    {"PageUp", 116},
    {"Delete", 117},
    {"F4", 118},
    {"End", 119},
    {"F2", 120},
    {"PageDown", 121},
    {"F1", 122},
    {"ArrowLeft", 123},
    {"ArrowRight", 124},
    {"ArrowDown", 125},
    {"ArrowUp", 126},
}};

}  // namespace

const QRVKeyCodeMap& QRVKeyCodeMap::shared() {
  static const QRVKeyCodeMap map;
  return map;
}

QRVKeyCodeMap::QRVKeyCodeMap() : jsKeys_(kJsKeys.begin(), kJsKeys.end()) {}

std::optional<int> QRVKeyCodeMap::keyCodeFor(std::string_view code) const {
  auto it = jsKeys_.find(code);
  return it == jsKeys_.end() ? std::nullopt : std::optional<int>(it->second);
}

bool QRVKeyCodeMap::isShiftKey(std::string_view code) {
  return code == "ShiftRight" || code == "ShiftLeft";
}

bool QRVKeyCodeMap::isControlKey(std::string_view code) {
  return code == "ControlRight" || code == "ControlLeft";
}

bool QRVKeyCodeMap::isAltKey(std::string_view code) {
  return code == "AltRight" || code == "AltLeft";
}

bool QRVKeyCodeMap::isCommandKey(std::string_view code) {
  return code == "OSRight" || code == "OSLeft" || code == "MetaRight" || code == "MetaLeft";
}

bool QRVKeyCodeMap::isModifierKey(std::string_view code) {
  // Shift is left out on purpose: the injector handles it through the character produced.
  return isControlKey(code) || isAltKey(code) || isCommandKey(code);
}

}  // namespace quorvix

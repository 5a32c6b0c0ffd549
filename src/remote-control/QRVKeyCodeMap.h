// The physical keys the agent's key presses name, by their web "code", with their key codes,
// and the modifier queries the injector asks. Immutable; safe from any thread.
#pragma once

#include <map>
#include <optional>
#include <string_view>

namespace quorvix {

class QRVKeyCodeMap {
 public:
  static const QRVKeyCodeMap& shared();
  QRVKeyCodeMap();

  std::optional<int> keyCodeFor(std::string_view code) const;
  const std::map<std::string_view, int, std::less<>>& jsKeys() const { return jsKeys_; }

  static bool isShiftKey(std::string_view code);
  static bool isControlKey(std::string_view code);
  static bool isAltKey(std::string_view code);
  // Both the old and the new web names of the command key.
  static bool isCommandKey(std::string_view code);
  // Control, alt or command; not shift.
  static bool isModifierKey(std::string_view code);

 private:
  const std::map<std::string_view, int, std::less<>> jsKeys_;
};

}  // namespace quorvix

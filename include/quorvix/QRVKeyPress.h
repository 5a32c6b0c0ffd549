// One key of the agent's going down or up: the character or named key it produces and the
// physical key's web code name. Immutable once decoded, so it may be read from any thread.
#pragma once

#include <optional>
#include <string>

#include "quorvix/Value.h"

namespace quorvix {

class QRVKeyPress {
 public:
  // A key press from a decoded "keypress" message: a map whose "type" is "KeyPress" with "key",
  // "code" and "state" as text. Nothing for anything else; unknown codes are the injector's
  // matter.
  static std::optional<QRVKeyPress> from(const Value& value);

  // A single character ("a", "Ä") or a named key ("Enter", "ArrowLeft").
  const std::string& key() const { return key_; }
  // The physical key, e.g. "KeyA", "ShiftLeft".
  const std::string& code() const { return code_; }
  // "keydown" or "keyup".
  const std::string& state() const { return state_; }

  bool isDown() const { return state_ == "keydown"; }
  bool isUp() const { return state_ == "keyup"; }
  // Exactly one UTF-16 unit: one character of the Basic Multilingual Plane.
  bool isSingleCharacter() const;

 private:
  std::string key_;
  std::string code_;
  std::string state_;
};

}  // namespace quorvix

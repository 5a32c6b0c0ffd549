// The on/off set of capability names that a session offers the agent.
#pragma once

#include <array>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace quorvix {

class QRVCapabilities {
 public:
  static constexpr std::array<std::string_view, 9> kNames = {
      "pointer",    "keypress", "drawing",   "disappearing_ink", "arrows",
      "rectangles", "laser",    "selectors", "full_device"};

  QRVCapabilities() = default;
  explicit QRVCapabilities(const std::vector<std::string>& capabilities) { fill(capabilities); }

  // Sets each name on.
  void fill(const std::vector<std::string>& capabilities);
  // Name to 1 (on) or 0 (off).
  const std::map<std::string, int, std::less<>>& all() const { return map_; }
  // The names that are on, in name order.
  std::vector<std::string> toArray() const;
  // Only names already in the set can be toggled; others are left out with an error line.
  void toggle(const std::string& name, bool on);
  void toggleMultiple(const std::vector<std::string>& names, bool on);

 private:
  std::map<std::string, int, std::less<>> map_;
};

}  // namespace quorvix

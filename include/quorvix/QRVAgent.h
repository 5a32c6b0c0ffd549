// The support agent admitted to a session. A plain value: any thread may copy and read it.
#pragma once

#include <optional>
#include <string>

#include "quorvix/Value.h"

namespace quorvix {

struct QRVAgent {
  std::string id;
  std::string name;
  std::optional<std::string> email;

  // An agent from a map with text "id" and "name" ("email" optional); nothing from anything else.
  static std::optional<QRVAgent> from(const Value* value);

  friend bool operator==(const QRVAgent&, const QRVAgent&) = default;
};

}  // namespace quorvix

#pragma once

#include <string>

namespace quorvix {

// A random (version 4) UUID in its canonical upper-case form,
// e.g. "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
std::string makeUUIDString();

}  // namespace quorvix

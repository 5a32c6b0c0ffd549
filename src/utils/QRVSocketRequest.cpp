#include "utils/QRVSocketRequest.h"

#include "utils/Strings.h"

namespace quorvix {

std::optional<std::string> QRVSocketRequest::header(std::string_view name) const {
  for (const auto& [k, v] : headers) {
    if (equalsIgnoringCase(k, name))
      return v;
  }
  return std::nullopt;
}

}  // namespace quorvix

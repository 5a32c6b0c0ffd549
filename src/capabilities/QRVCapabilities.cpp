#include "capabilities/QRVCapabilities.h"

#include "utils/Logging.h"

namespace quorvix {

void QRVCapabilities::fill(const std::vector<std::string>& capabilities) {
  for (const auto& name : capabilities)
    map_[name] = 1;
}

std::vector<std::string> QRVCapabilities::toArray() const {
  std::vector<std::string> out;
  for (const auto& [name, value] : map_)
    if (value == 1)
      out.push_back(name);
  return out;
}

void QRVCapabilities::toggle(const std::string& name, bool on) {
  auto it = map_.find(name);
  if (it == map_.end()) {
    static auto logger = QRV_LOGGER_FOR("QRVCapabilities");
    logger->error("Capability '{}' can't be toggled because it wasn't set beforehand.", name);
    return;
  }
  it->second = on ? 1 : 0;
}

void QRVCapabilities::toggleMultiple(const std::vector<std::string>& names, bool on) {
  for (const auto& name : names)
    toggle(name, on);
}

}  // namespace quorvix

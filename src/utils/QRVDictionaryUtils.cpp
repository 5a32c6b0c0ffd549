#include "utils/QRVDictionaryUtils.h"

namespace quorvix {

bool QRVDictionaryUtils::contains(const Value::Map& map, const Value::Map& values) {
  for (const auto& [key, value] : values) {
    auto it = map.find(key);
    if (it == map.end() || !(it->second == value))
      return false;
  }
  return true;
}

}  // namespace quorvix

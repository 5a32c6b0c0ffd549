#include "push/QRVPush.h"

namespace quorvix {

bool QRVPush::isQuorviNotification(const Value::Map& payload) {
  auto it = payload.find(kNotificationKey);
  if (it == payload.end())
    return false;
  const Value& flag = it->second;
  if (const std::string* text = flag.asString())
    return *text == "true";
  if (flag.isBool() || flag.isNumber())
    return flag.toDouble().value_or(0) != 0;
  return false;
}

}  // namespace quorvix

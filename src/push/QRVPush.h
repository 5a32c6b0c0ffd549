// Recognises the service's push payloads among the host's notifications.
#pragma once

#include "quorvix/Value.h"

namespace quorvix {

struct QRVPush {
  static constexpr const char* kNotificationKey = "quorvix-notification";
  static constexpr const char* kCodeKey = "quorvix-code";

  // "quorvix-notification": a number or boolean by its truth value, text only when it is "true".
  static bool isQuorviNotification(const Value::Map& payload);
};

}  // namespace quorvix

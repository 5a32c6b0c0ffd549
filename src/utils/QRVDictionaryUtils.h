#pragma once

#include "quorvix/Value.h"

namespace quorvix {

struct QRVDictionaryUtils {
  // True when every key of `values` is in `map` with an equal value; an empty `values` is true.
  static bool contains(const Value::Map& map, const Value::Map& values);
};

}  // namespace quorvix

// A fuzz input read as the stream socket reads an incoming message: one CBOR item, converted to
// the value its listeners get. Nothing when it does not decode or convert. Quiets the library's
// own log on first use, so that the fuzzer's output stays readable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "cbor/CBORDecoder.h"
#include "quorvix/CBOR.h"
#include "quorvix/Log.h"
#include "web-socket/CBORSocket.h"

namespace quorvix::fuzz {

inline std::optional<Value> incomingMessage(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (setStderrLogging(false), true);
  (void)quiet;
  auto item = CBORDecoder(std::vector<std::uint8_t>(data, data + size)).decodeItem();
  if (!item || !item.value())
    return std::nullopt;
  return convertIncoming(*item.value());
}

}  // namespace quorvix::fuzz

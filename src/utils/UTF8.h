// Whether bytes are well-formed UTF-8 (RFC 3629: no overlong forms, surrogates or values beyond
// U+10FFFF), as CBOR text, WebSocket text and stored items must be.
#pragma once

#include <cstdint>
#include <span>

namespace quorvix {

bool isValidUTF8(std::span<const std::uint8_t> bytes);

}  // namespace quorvix

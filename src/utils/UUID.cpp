#include "utils/UUID.h"

#include <array>
#include <cstdint>

#include <openssl/rand.h>

#include "utils/Logging.h"

namespace quorvix {

std::string makeUUIDString() {
  std::array<std::uint8_t, 16> b{};
  // Ids and session tokens must not be guessable; without a secure source there is no safe id.
  if (RAND_bytes(b.data(), static_cast<int>(b.size())) != 1)
    QRV_FATAL("UUID", "No secure random source");
  b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x40);
  b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (std::size_t i = 0; i < b.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10)
      out += '-';
    out += kHex[b[i] >> 4];
    out += kHex[b[i] & 0x0F];
  }
  return out;
}

}  // namespace quorvix

// The agent's annotation messages as they arrive: one CBOR item, converted as the socket
// converts it, parsed as a drawing and as a laser move. Nothing may crash, and what parses never
// carries a NaN into the overlay's geometry.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "IncomingMessage.h"
#include "annotations/QRVLinuxAnnotations.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvix;
  auto value = fuzz::incomingMessage(data, size);
  if (!value)
    return 0;
  const QRVRect screen{0, 0, 1920, 1080};
  if (auto drawing = QRVDrawing::from(*value)) {
    const QRVRect r = overlayRect(drawing->bounds(), screen);
    if (std::isnan(r.x) || std::isnan(r.y) || std::isnan(r.width) || std::isnan(r.height))
      std::abort();
    (void)idOrDefault(drawing->idKey());
  }
  if (auto laser = QRVLaser::from(*value)) {
    const QRVPoint p = overlayPoint(laser->position(), screen);
    if (std::isnan(p.x) || std::isnan(p.y))
      std::abort();
    const QRVColor c = colorFromHexString(laser->color());
    if (c.red < 0 || c.red > 1 || c.green < 0 || c.green > 1 || c.blue < 0 || c.blue > 1)
      std::abort();
  }
  return 0;
}

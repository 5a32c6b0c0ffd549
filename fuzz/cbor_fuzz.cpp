// Bytes from the service's sockets: decoding never crashes or over-allocates, and every item
// decoded re-encodes to bytes that decode and encode to the same bytes again. The same bytes also
// go through the keyed/unkeyed decoder, which must fail cleanly on anything it cannot read.
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cbor/CBORDecoder.h"
#include "cbor/CodableCBOR.h"

namespace {

struct Record {
  std::string name;
  std::vector<std::optional<double>> values;
  std::map<std::string, std::int16_t> counts;
  quorvix::Date at;
  static Record decode(quorvix::Decoder& d) {
    auto c = d.container();
    Record r;
    r.name = c.decode<std::string>("name");
    r.values = c.decode<std::vector<std::optional<double>>>({"values", 1});
    r.counts = c.decode<std::map<std::string, std::int16_t>>("counts");
    r.at = c.decode<quorvix::Date>("at");
    return r;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvix;
  std::span<const std::uint8_t> input(data, size);
  CBOROptions options;
  options.dateStrategy =
      size % 2 ? DateStrategy::annotatedMap : DateStrategy::taggedAsEpochTimestamp;
  CBORDecoder decoder(input, options);
  for (int i = 0; i < 64; ++i) {
    auto item = decoder.decodeItem();
    if (!item || !*item)
      break;
    // Dates keep whole nanoseconds only, so an item may change on its first trip (two dates
    // a fraction of a nanosecond apart may even become one map key). From the second trip on,
    // encoding and decoding must agree exactly.
    std::optional<CBOR> current = **item;
    std::vector<std::uint8_t> previous;
    for (int trip = 0; trip < 3; ++trip) {
      auto bytes = current->encode(options);
      if (!bytes)
        break;  // simple values without an encoding are refused, not written
      if (trip == 2 && *bytes != previous)
        std::abort();
      previous = *bytes;
      CBORDecoder again(*bytes, options);
      auto back = again.decodeItem();
      if (!back || !*back)
        std::abort();
      current = std::move(**back);
    }
  }
  (void)CodableCBORDecoder(options).decode<Record>(input);
  (void)CodableCBORDecoder(options).decode<std::vector<std::map<std::string, CBOR>>>(input);
  return 0;
}

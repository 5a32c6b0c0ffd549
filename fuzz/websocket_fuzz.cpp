// Bytes from a WebSocket server: the handshake answer, compressed messages, and frames split
// into pieces at places the input chooses. Nothing may crash or inflate past its limit, and
// frames read in pieces must equal frames read whole.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "web-socket/WSCompression.h"
#include "web-socket/WSFraming.h"
#include "web-socket/WSHandshake.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvix;
  if (size < 2)
    return 0;
  const bool compression = data[0] & 1;
  const std::size_t piece = 1 + data[1] % 64;
  std::span<const std::uint8_t> input(data + 2, size - 2);

  WSHandshakeReader handshake("dGhlIHNhbXBsZSBub25jZQ==");
  (void)handshake.feed(input);

  // The same bytes as a compressed message, twice, so that a kept window is exercised.
  WSDecompressor inflater(8 + data[1] % 8, compression, 1u << 20);
  std::vector<std::uint8_t> inflated;
  if (!inflater.decompress(input, inflated))
    (void)inflater.decompress(input, inflated);

  auto readAll = [&](std::size_t step, std::vector<WSFrame>& frames) {
    WSFrameReader reader(compression);
    WSMessageAssembler assembler;
    std::optional<WSError> error;
    for (std::size_t at = 0; at < input.size() && !error; at += step) {
      error = reader.feed(input.subspan(at, std::min(step, input.size() - at)), [&](WSFrame&& f) {
        frames.push_back(f);
        std::optional<WSError> assembly;
        (void)assembler.add(std::move(f), &assembly);
      });
    }
    return error.has_value();
  };
  std::vector<WSFrame> whole, pieces;
  bool wholeFailed = readAll(input.size() ? input.size() : 1, whole);
  bool piecesFailed = readAll(piece, pieces);
  if (wholeFailed != piecesFailed || whole.size() != pieces.size())
    std::abort();
  for (std::size_t i = 0; i < whole.size(); ++i) {
    if (whole[i].payload != pieces[i].payload || whole[i].opcode != pieces[i].opcode)
      std::abort();
  }
  return 0;
}

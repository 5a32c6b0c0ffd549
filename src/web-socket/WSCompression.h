// permessage-deflate (RFC 7692) on zlib: raw deflate per message, flushed to a byte boundary with
// the 00 00 FF FF tail left off, and the sliding window kept between messages unless the peer
// asked for no context takeover.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "web-socket/WSFraming.h"

namespace quorvix {

class WSCompressor {
 public:
  // windowBits 8 to 15; zlib's raw deflate cannot use 8, so 9 stands in (the peer accepts any
  // window up to what it allowed).
  WSCompressor(int windowBits, bool noContextTakeover);
  ~WSCompressor();
  WSCompressor(const WSCompressor&) = delete;
  WSCompressor& operator=(const WSCompressor&) = delete;

  // Appends the compressed message to `out`.
  std::optional<WSError> compress(std::span<const std::uint8_t> message,
                                  std::vector<std::uint8_t>& out);

 private:
  struct Stream;
  std::unique_ptr<Stream> stream_;
  bool noContextTakeover_;
};

class WSDecompressor {
 public:
  WSDecompressor(int windowBits, bool noContextTakeover, std::size_t maxMessage = 256u << 20);
  ~WSDecompressor();
  WSDecompressor(const WSDecompressor&) = delete;
  WSDecompressor& operator=(const WSDecompressor&) = delete;

  // Appends the inflated message to `out`. A message that would inflate beyond maxMessage is
  // refused rather than inflated.
  std::optional<WSError> decompress(std::span<const std::uint8_t> message,
                                    std::vector<std::uint8_t>& out);

 private:
  struct Stream;
  std::unique_ptr<Stream> stream_;
  bool noContextTakeover_;
  std::size_t maxMessage_;
};

}  // namespace quorvix

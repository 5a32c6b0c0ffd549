#include "web-socket/WSCompression.h"

#include <algorithm>
#include <string>

#include <zlib.h>

namespace quorvix {
namespace {

constexpr std::uint8_t kTail[] = {0x00, 0x00, 0xff, 0xff};
constexpr std::size_t kChunk = 16 * 1024;

WSError compressionError(std::string message) {
  return WSError{WSError::ErrorType::compressionError, std::move(message), 0};
}

}  // namespace

struct WSCompressor::Stream {
  z_stream z{};
  bool ready = false;
  ~Stream() {
    if (ready)
      deflateEnd(&z);
  }
};

WSCompressor::WSCompressor(int windowBits, bool noContextTakeover)
    : stream_(std::make_unique<Stream>()), noContextTakeover_(noContextTakeover) {
  int bits = std::clamp(windowBits, 9, 15);
  stream_->ready = deflateInit2(&stream_->z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -bits, 8,
                                Z_DEFAULT_STRATEGY) == Z_OK;
}

WSCompressor::~WSCompressor() = default;

std::optional<WSError> WSCompressor::compress(std::span<const std::uint8_t> message,
                                              std::vector<std::uint8_t>& out) {
  if (!stream_->ready)
    return compressionError("Error on compressing");
  z_stream& z = stream_->z;
  const std::size_t start = out.size();
  z.next_in = const_cast<Bytef*>(message.data());
  z.avail_in = static_cast<uInt>(message.size());
  do {
    const std::size_t at = out.size();
    const std::size_t room = deflateBound(&z, z.avail_in) + kChunk;
    out.resize(at + room);
    z.next_out = out.data() + at;
    z.avail_out = static_cast<uInt>(room);
    int rc = deflate(&z, Z_SYNC_FLUSH);
    out.resize(at + room - z.avail_out);
    if (rc != Z_OK && rc != Z_BUF_ERROR)
      return compressionError("Error on compressing");
  } while (z.avail_in > 0 || z.avail_out == 0);
  // The sync flush ends in 00 00 FF FF, which the receiver puts back.
  if (out.size() - start >= 4 && std::equal(out.end() - 4, out.end(), kTail))
    out.resize(out.size() - 4);
  if (noContextTakeover_ && deflateReset(&z) != Z_OK)
    return compressionError("Error for compressor on reset");
  return std::nullopt;
}

struct WSDecompressor::Stream {
  z_stream z{};
  bool ready = false;
  ~Stream() {
    if (ready)
      inflateEnd(&z);
  }
};

WSDecompressor::WSDecompressor(int windowBits, bool noContextTakeover, std::size_t maxMessage)
    : stream_(std::make_unique<Stream>()),
      noContextTakeover_(noContextTakeover),
      maxMessage_(maxMessage) {
  int bits = std::clamp(windowBits, 8, 15);
  stream_->ready = inflateInit2(&stream_->z, -bits) == Z_OK;
}

WSDecompressor::~WSDecompressor() = default;

std::optional<WSError> WSDecompressor::decompress(std::span<const std::uint8_t> message,
                                                  std::vector<std::uint8_t>& out) {
  if (!stream_->ready)
    return compressionError("Error on decompressing");
  z_stream& z = stream_->z;
  const std::size_t start = out.size();
  bool ended = false;
  auto inflateAll = [&](std::span<const std::uint8_t> in) -> std::optional<WSError> {
    z.next_in = const_cast<Bytef*>(in.data());
    z.avail_in = static_cast<uInt>(in.size());
    while (z.avail_in > 0) {
      const std::size_t at = out.size();
      if (at - start >= maxMessage_)
        return compressionError("Decompression failed: message too large");
      const std::size_t room = std::min(kChunk * 4, maxMessage_ - (at - start));
      out.resize(at + room);
      z.next_out = out.data() + at;
      z.avail_out = static_cast<uInt>(room);
      int rc = inflate(&z, Z_SYNC_FLUSH);
      out.resize(at + room - z.avail_out);
      if (rc == Z_STREAM_END) {
        ended = true;  // a final block: nothing after it belongs to this stream
        return std::nullopt;
      }
      if (rc != Z_OK && rc != Z_BUF_ERROR)
        return compressionError(std::string("Decompression failed: ") +
                                (z.msg ? z.msg : "invalid data"));
      if (rc == Z_BUF_ERROR && z.avail_out != 0)
        break;  // needs more input than the message holds
    }
    return std::nullopt;
  };
  if (auto error = inflateAll(message))
    return error;
  if (!ended) {
    if (auto error = inflateAll(kTail))
      return error;
  }
  // A peer that ended its stream starts the next message afresh.
  if ((noContextTakeover_ || ended) && inflateReset(&z) != Z_OK)
    return compressionError("Error for decompressor on reset");
  return std::nullopt;
}

}  // namespace quorvix

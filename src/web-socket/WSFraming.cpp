#include "web-socket/WSFraming.h"

#include <cstring>

namespace quorvix {
namespace {

WSError protocolError(std::string message, int code = closeCode::protocolError) {
  return WSError{WSError::ErrorType::protocolError, std::move(message), code};
}

bool isKnown(std::uint8_t op) {
  return op <= 0x2 || (op >= 0x8 && op <= 0xA);
}

bool isControl(std::uint8_t op) {
  return op & 0x8;
}

}  // namespace

void writeFrameHeader(std::vector<std::uint8_t>& out,
                      OpCode opcode,
                      std::uint64_t n,
                      const std::array<std::uint8_t, 4>& maskKey,
                      bool fin,
                      bool rsv1) {
  out.push_back(static_cast<std::uint8_t>((fin ? kFinMask : 0) | (rsv1 ? kRSV1Mask : 0) |
                                          static_cast<std::uint8_t>(opcode)));
  if (n <= 125) {
    out.push_back(static_cast<std::uint8_t>(kMaskMask | n));
  } else if (n <= 0xffff) {
    out.insert(out.end(), {static_cast<std::uint8_t>(kMaskMask | 126),
                           static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)});
  } else {
    out.push_back(kMaskMask | 127);
    for (int i = 7; i >= 0; --i)
      out.push_back(static_cast<std::uint8_t>(n >> (8 * i)));
  }
  out.insert(out.end(), maskKey.begin(), maskKey.end());
}

void applyMask(std::span<std::uint8_t> bytes, const std::array<std::uint8_t, 4>& maskKey) {
  std::uint8_t* p = bytes.data();
  std::size_t i = 0;
  // Eight bytes at a time with the key repeated; the rest byte by byte.
  std::uint8_t key8[8];
  for (int k = 0; k < 8; ++k)
    key8[k] = maskKey[k % 4];
  std::uint64_t wideKey;
  std::memcpy(&wideKey, key8, 8);
  for (; i + 8 <= bytes.size(); i += 8) {
    std::uint64_t chunk;
    std::memcpy(&chunk, p + i, 8);
    chunk ^= wideKey;
    std::memcpy(p + i, &chunk, 8);
  }
  for (; i < bytes.size(); ++i)
    p[i] ^= maskKey[i % 4];
}

void writeFrame(std::vector<std::uint8_t>& out,
                OpCode opcode,
                std::span<const std::uint8_t> payload,
                const std::array<std::uint8_t, 4>& maskKey,
                bool fin,
                bool rsv1) {
  out.reserve(out.size() + kMaxFrameSize + payload.size());
  writeFrameHeader(out, opcode, payload.size(), maskKey, fin, rsv1);
  const std::size_t body = out.size();
  out.insert(out.end(), payload.begin(), payload.end());
  applyMask(std::span(out).subspan(body), maskKey);
}

std::optional<WSError> WSFrameReader::feed(std::span<const std::uint8_t> bytes,
                                           const std::function<void(WSFrame&&)>& onFrame) {
  if (failed_)
    return failed_;
  // Drop what earlier frames used before growing the buffer.
  if (consumed_ > 0 && consumed_ == buffer_.size()) {
    buffer_.clear();
    consumed_ = 0;
  } else if (consumed_ > 4096 && consumed_ * 2 > buffer_.size()) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_));
    consumed_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());

  while (true) {
    const std::uint8_t* p = buffer_.data() + consumed_;
    const std::size_t avail = buffer_.size() - consumed_;
    if (avail < 2)
      return std::nullopt;
    const std::uint8_t b0 = p[0], b1 = p[1];
    const std::uint8_t opcode = b0 & kOpCodeMask;
    const bool fin = b0 & kFinMask;
    const bool rsv1 = b0 & kRSV1Mask;
    auto fail = [&](WSError e) {
      failed_ = std::move(e);
      return failed_;
    };
    if ((b1 & kMaskMask) || (b0 & (kRSVMask & ~kRSV1Mask)) || (rsv1 && !compression_) ||
        (rsv1 && isControl(opcode)))
      return fail(protocolError("masked and rsv data is not currently supported"));
    if (!isKnown(opcode))
      return fail(protocolError("unknown opcode: " + std::to_string(opcode)));
    if (isControl(opcode) && !fin)
      return fail(protocolError("control frames can't be fragmented"));
    std::size_t header = 2;
    std::uint64_t length = b1 & kPayloadLenMask;
    if (length == 126) {
      if (avail < 4)
        return std::nullopt;
      length = static_cast<std::uint64_t>(p[2]) << 8 | p[3];
      header = 4;
    } else if (length == 127) {
      if (avail < 10)
        return std::nullopt;
      length = 0;
      for (int i = 0; i < 8; ++i)
        length = length << 8 | p[2 + i];
      header = 10;
      if (length >> 63)
        return fail(protocolError("payload length with the most significant bit set"));
    }
    if (isControl(opcode) && length > 125)
      return fail(protocolError("control frame payload longer than 125 bytes"));
    if (length > maxPayload_)
      return fail(protocolError("frame payload too large", closeCode::messageTooBig));
    if (avail - header < length)
      return std::nullopt;
    WSFrame frame;
    frame.fin = fin;
    frame.rsv1 = rsv1;
    frame.opcode = opcode;
    frame.payload.assign(p + header, p + header + length);
    consumed_ += header + static_cast<std::size_t>(length);
    onFrame(std::move(frame));
  }
}

std::optional<WSMessageAssembler::Message> WSMessageAssembler::add(WSFrame&& frame,
                                                                   std::optional<WSError>* error) {
  auto fail = [&](std::string message) -> std::optional<Message> {
    *error = protocolError(std::move(message));
    return std::nullopt;
  };
  const auto op = static_cast<OpCode>(frame.opcode);
  if (isControl(frame.opcode))
    return Message{op, false, std::move(frame.payload)};
  if (op == OpCode::continueFrame) {
    if (!sawDataFrame_)
      return fail("first frame can't be a continue frame");
    if (!open_)
      return fail("continue frame before a binary or text frame");
    if (frame.rsv1)
      return fail("masked and rsv data is not currently supported");
    if (open_->payload.size() + frame.payload.size() > maxMessage_) {
      *error = protocolError("message too large", closeCode::messageTooBig);
      return std::nullopt;
    }
    open_->payload.insert(open_->payload.end(), frame.payload.begin(), frame.payload.end());
  } else {
    sawDataFrame_ = true;
    if (open_)
      return fail("second and beyond of fragment message must be a continue frame");
    open_ = Message{op, frame.rsv1, std::move(frame.payload)};
  }
  if (!frame.fin)
    return std::nullopt;
  std::optional<Message> done = std::move(open_);
  open_.reset();
  return done;
}

}  // namespace quorvix

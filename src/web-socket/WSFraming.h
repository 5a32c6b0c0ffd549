// RFC 6455 framing for the library's own WebSocket client, free of I/O: writing masked client
// frames, reading server frames incrementally (any split of the byte stream), and reassembling
// fragmented messages with the protocol's rules.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace quorvix {

enum class OpCode : std::uint8_t {
  continueFrame = 0x0,
  textFrame = 0x1,
  binaryFrame = 0x2,
  connectionClose = 0x8,
  ping = 0x9,
  pong = 0xA,
};

struct WSError {
  enum class ErrorType {
    outputStreamWriteError,
    compressionError,
    invalidSSLError,
    writeTimeoutError,
    protocolError,
    upgradeError,
    closeError,
  };
  ErrorType type;
  std::string message;
  int code;

  friend bool operator==(const WSError&, const WSError&) = default;
};

// Close codes of RFC 6455 section 7.4.1 that the client sends or reports.
namespace closeCode {
constexpr int normal = 1000;
constexpr int protocolError = 1002;
constexpr int invalidPayload = 1007;
constexpr int messageTooBig = 1009;
}  // namespace closeCode

struct WSFrame {
  bool fin = true;
  bool rsv1 = false;  // set on the first frame of a compressed message
  std::uint8_t opcode = 0;
  std::vector<std::uint8_t> payload;
};

// Frame header masks.
constexpr std::uint8_t kFinMask = 0x80;
constexpr std::uint8_t kOpCodeMask = 0x0F;
constexpr std::uint8_t kRSVMask = 0x70;
constexpr std::uint8_t kRSV1Mask = 0x40;
constexpr std::uint8_t kMaskMask = 0x80;
constexpr std::uint8_t kPayloadLenMask = 0x7F;
// Bytes reserved for a frame header when writing.
constexpr std::size_t kMaxFrameSize = 32;

// Appends a client frame's header for a payload of `length` bytes.
void writeFrameHeader(std::vector<std::uint8_t>& out,
                      OpCode opcode,
                      std::uint64_t length,
                      const std::array<std::uint8_t, 4>& maskKey,
                      bool fin = true,
                      bool rsv1 = false);
// Masks (or unmasks) bytes in place.
void applyMask(std::span<std::uint8_t> bytes, const std::array<std::uint8_t, 4>& maskKey);

// Appends one client frame: FIN and opcode, the mask bit, the shortest length form (inline up to
// 125, 126 and 16 bits up to 65535, else 127 and 64 bits), the key, then the masked payload.
void writeFrame(std::vector<std::uint8_t>& out,
                OpCode opcode,
                std::span<const std::uint8_t> payload,
                const std::array<std::uint8_t, 4>& maskKey,
                bool fin = true,
                bool rsv1 = false);

// Reads server frames from a byte stream fed in pieces of any size. Server frames are never
// masked; RSV1 is allowed only when compression was negotiated, RSV2 and RSV3 never.
class WSFrameReader {
 public:
  static constexpr std::uint64_t kDefaultMaxFrame = 64u << 20;

  explicit WSFrameReader(bool compressionNegotiated = false,
                         std::uint64_t maxFramePayload = kDefaultMaxFrame)
      : compression_(compressionNegotiated), maxPayload_(maxFramePayload) {}

  void setCompressionNegotiated(bool on) { compression_ = on; }

  // Adds bytes and hands every whole frame to `onFrame`, in order. After an error the reader
  // is spent: the connection must be closed.
  std::optional<WSError> feed(std::span<const std::uint8_t> bytes,
                              const std::function<void(WSFrame&&)>& onFrame);
  // Bytes held for a frame not yet complete.
  std::size_t buffered() const { return buffer_.size() - consumed_; }

 private:
  bool compression_;
  std::uint64_t maxPayload_;
  std::vector<std::uint8_t> buffer_;
  std::size_t consumed_ = 0;
  std::optional<WSError> failed_;
};

// Reassembles data messages from frames and enforces the fragmentation rules. Control frames
// pass straight through, also between the fragments of a message.
class WSMessageAssembler {
 public:
  struct Message {
    OpCode opcode;    // textFrame, binaryFrame, or a control opcode
    bool compressed;  // RSV1 was set on the first frame
    std::vector<std::uint8_t> payload;
  };

  explicit WSMessageAssembler(std::uint64_t maxMessage = 256u << 20) : maxMessage_(maxMessage) {}

  // Nothing while a fragmented message is still open.
  std::optional<Message> add(WSFrame&& frame, std::optional<WSError>* error);

 private:
  std::uint64_t maxMessage_;
  bool sawDataFrame_ = false;
  std::optional<Message> open_;
};

}  // namespace quorvix

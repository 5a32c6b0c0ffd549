// The byte stream under the library's own WebSocket client: TCP, with TLS for secure schemes.
// Every delegate call runs on the stream's work queue, and so does everything posted to it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "quorvix/Executor.h"
#include "quorvix/QRVError.h"
#include "web-socket/WSFraming.h"

namespace quorvix {

// Why a connection ended: the client's own error, or one from the system or TLS library.
using TransportError = std::variant<WSError, QRVError>;

// The stream's budget ran out: connecting, upgrading, or waiting for room to write.
inline WSError writeTimeoutError() {
  return WSError{WSError::ErrorType::writeTimeoutError,
                 "Timed out waiting for the socket to be ready for a write", 0};
}

struct WSStreamTarget {
  std::string host;  // without IPv6 brackets
  std::uint16_t port = 0;
  bool tls = false;
  // The connect budget, and the longest a write may wait for the socket to take more bytes.
  Duration timeout = seconds(10.0);
};

class WSStreamDelegate {
 public:
  virtual ~WSStreamDelegate() = default;
  // Connected (and encrypted, for TLS): ready for the upgrade request.
  virtual void streamDidOpen() = 0;
  virtual void streamDidReceive(std::span<const std::uint8_t> bytes) = 0;
  // The stream ended: with an error, or cleanly (the peer closed) with none.
  virtual void streamDidEnd(std::optional<TransportError> error) = 0;
};

class WSStream {
 public:
  using WriteDone = std::function<void()>;

  virtual ~WSStream() = default;
  virtual void connect(const WSStreamTarget& target, std::weak_ptr<WSStreamDelegate> delegate) = 0;
  // Writes `head` then `body`, after every earlier write; `done` runs on the work queue once they
  // are sent. A socket that fails, or takes no bytes for the whole timeout, ends the stream
  // instead, and no later `done` runs.
  virtual void write(std::vector<std::uint8_t> head,
                     std::vector<std::uint8_t> body,
                     WriteDone done) = 0;
  // Closes without another delegate call. Idempotent.
  virtual void close() = 0;
  // While paused, no more bytes are read from the socket, so a receiver that falls behind holds
  // the peer back instead of buffering. Call on the work queue.
  virtual void setReadingPaused(bool paused) = 0;
  virtual void post(Task task) = 0;
  virtual bool isCurrent() const = 0;
};

// The stream over Asio and OpenSSL on the shared network thread.
std::shared_ptr<WSStream> makeFoundationStream();

}  // namespace quorvix

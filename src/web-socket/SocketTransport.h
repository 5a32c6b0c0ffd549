// What a CBOR socket needs from a WebSocket connection, and the events it gets back. Two
// transports implement it: StarscreamSocket (the library's own client) and BeastSocket.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "quorvix/QRVURLSession.h"
#include "utils/QRVSocketRequest.h"
#include "web-socket/WSStream.h"

namespace quorvix {

class CBORSocket;

// The largest message a realtime socket takes. The service sends acknowledgements, session
// updates and agent events, all far below this (frames only go out); anything larger is a fault
// or an attack, and ends the connection.
constexpr std::size_t kMaxIncomingMessageBytes = 1u << 20;
// Received bytes that may wait for the main queue before a transport stops reading, so that a
// busy main queue slows the peer down instead of buffering without limit.
constexpr std::size_t kMaxQueuedIncomingBytes = 4u << 20;

// The receiver of one transport's events, installed by a CBOR socket: each transport gets its own,
// numbered, so that the socket can tell a current transport's events from those of one that has
// ended or been replaced. It holds the socket weakly so that a transport never keeps it alive.
class SocketDelegate {
 public:
  virtual ~SocketDelegate() = default;
  virtual void websocketDidConnect();
  virtual void websocketDidDisconnect(std::optional<TransportError> error);
  // One binary message.
  virtual void websocketDidReceiveData(std::vector<std::uint8_t> data);
  // A pong came back: the socket's pong deadline is cancelled.
  virtual void websocketDidReceivePong();

  std::weak_ptr<CBORSocket> cborSocket;
  std::uint64_t generation = 0;
};

class SocketTransport {
 public:
  using Completion = std::function<void()>;

  virtual ~SocketTransport() = default;
  virtual bool isConnected() const = 0;
  virtual std::shared_ptr<SocketDelegate> delegate() const = 0;
  virtual void setDelegate(std::shared_ptr<SocketDelegate> delegate) = 0;
  virtual void connect() = 0;
  virtual void disconnect(std::optional<TransportError> error = std::nullopt) = 0;
  // One binary message. Dropped without a completion when there is no connection.
  virtual void write(std::vector<std::uint8_t> data, Completion completion = {}) = 0;
  virtual void writePing(std::vector<std::uint8_t> data, Completion completion = {}) = 0;
};

// The host's choice of transport: the "QRVWebSocketMethod" setting of its bundle.
enum class WebsocketMethod { urlSession = 1, starscream = 2 };

// Reads the setting afresh: 2 selects the library's own client; absent, not an integer, or any
// other value selects the platform transport.
WebsocketMethod currentWebsocketMethod();
// A new transport of that kind for one connection attempt.
std::shared_ptr<SocketTransport> makeSocket(WebsocketMethod method,
                                            const QRVSocketRequest& request,
                                            std::shared_ptr<QRVURLSession> session);

}  // namespace quorvix

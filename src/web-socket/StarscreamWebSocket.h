// The library's own WebSocket client (RFC 6455 with RFC 7692 compression) over a WSStream.
// Frames are read, inflated and answered on the stream's work queue; every delegate call and
// callback runs on `callbackQueue` (the main queue unless changed before connecting).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "quorvix/Executor.h"
#include "utils/QRVSocketRequest.h"
#include "web-socket/WSFraming.h"
#include "web-socket/WSStream.h"

namespace quorvix {

class StarscreamWebSocket;

class WebSocketDelegate {
 public:
  virtual ~WebSocketDelegate() = default;
  virtual void websocketDidConnect(StarscreamWebSocket& socket) = 0;
  virtual void websocketDidDisconnect(StarscreamWebSocket& socket,
                                      const std::optional<TransportError>& error) = 0;
  virtual void websocketDidReceiveMessage(StarscreamWebSocket& socket, const std::string& text) = 0;
  virtual void websocketDidReceiveData(StarscreamWebSocket& socket,
                                       std::vector<std::uint8_t> data) = 0;
};

class WebSocketPongDelegate {
 public:
  virtual ~WebSocketPongDelegate() = default;
  virtual void websocketDidReceivePong(StarscreamWebSocket& socket,
                                       const std::vector<std::uint8_t>& data) = 0;
};

class StarscreamWebSocket : public std::enable_shared_from_this<StarscreamWebSocket> {
 public:
  using StreamFactory = std::function<std::shared_ptr<WSStream>()>;
  using Completion = std::function<void()>;

  static std::shared_ptr<StarscreamWebSocket> create(QRVSocketRequest request,
                                                     std::vector<std::string> protocols = {},
                                                     StreamFactory streamFactory = {});
  StarscreamWebSocket(QRVSocketRequest request,
                      std::vector<std::string> protocols,
                      StreamFactory streamFactory);
  ~StarscreamWebSocket();
  StarscreamWebSocket(const StarscreamWebSocket&) = delete;
  StarscreamWebSocket& operator=(const StarscreamWebSocket&) = delete;

  // Settings; change them before connecting.
  std::shared_ptr<Executor> callbackQueue;
  bool enableCompression = true;
  bool respondToPingWithPong = true;
  // A larger incoming message, compressed or not, ends the connection with 1009.
  std::uint64_t maximumMessageSize = 256u << 20;

  // Receivers, held weakly and read on the callback queue.
  std::weak_ptr<WebSocketDelegate> delegate;
  std::weak_ptr<WebSocketPongDelegate> pongDelegate;
  Completion onConnect;
  std::function<void(const std::optional<TransportError>&)> onDisconnect;
  std::function<void(const std::string&)> onText;
  std::function<void(const std::vector<std::uint8_t>&)> onData;
  std::function<void(const std::vector<std::uint8_t>&)> onPong;
  std::function<void(const std::map<std::string, std::string>&)> onHttpResponseHeaders;

  // Starts connecting unless already connecting; returns whether it did.
  bool connect();
  // The opening handshake on a new stream.
  void createHTTPRequest();
  // Without a timeout: sends a close frame and waits for the server's. With one: also drops the
  // connection once it has passed. Zero: drops it at once, reporting no error. Releasing the
  // client after a close frame was queued still sends it before the stream closes.
  void disconnect(std::optional<Duration> forceTimeout = std::nullopt,
                  int closeCode = closeCode::normal);
  void write(std::vector<std::uint8_t> data, Completion completion = {});
  void write(const std::string& text, Completion completion = {});
  void writePing(std::vector<std::uint8_t> data, Completion completion = {});
  // Sends a close frame with the status code.
  void writeError(int code);
  // Queues one frame; the completion runs on the callback queue once it is sent, and never when
  // the connection is gone first.
  void dequeueWrite(std::vector<std::uint8_t> data, OpCode code, Completion completion);

  bool isConnected() const;
  bool isConnecting() const;
  // The start of a connection attempt: clears didDisconnect and sets isConnecting, unless
  // already connecting.
  bool beginConnecting();

 private:
  struct Connection;
  friend struct Connection;

  std::shared_ptr<Connection> current() const;
  void post(std::function<void(StarscreamWebSocket&)> call);
  void connectionOpened(const Connection* connection);
  void connectionEnded(const Connection* connection, std::optional<TransportError> error);

  const QRVSocketRequest request_;
  const std::vector<std::string> protocols_;
  const StreamFactory streamFactory_;

  mutable std::mutex mutex_;
  bool connected_ = false;
  bool isConnecting_ = false;
  bool didDisconnect_ = false;
  std::shared_ptr<Connection> connection_;
};

}  // namespace quorvix

// The platform transport: a WebSocket connection on Boost.Beast with the behaviour of the
// system's URL-session WebSocket task. Binary messages only (a text message ends delivery on
// that connection while pings keep working), close codes other than 1000 become errors in
// domain "URLSessionWebSocketTask", disconnect() reports at once, and connect, disconnect and
// pong events come from the network thread while data arrives on the main queue. Its methods may
// be called from any thread (frames are sent from the encoder's).
#pragma once

#include <memory>
#include <mutex>

#include "web-socket/SocketTransport.h"

namespace quorvix {

class BeastSocket final : public SocketTransport {
 public:
  static constexpr const char* kErrorDomain = "URLSessionWebSocketTask";

  BeastSocket(QRVSocketRequest request, std::shared_ptr<QRVURLSession> session);
  // Closes the connection without another event.
  ~BeastSocket() override;

  bool isConnected() const override;
  std::shared_ptr<SocketDelegate> delegate() const override;
  void setDelegate(std::shared_ptr<SocketDelegate> delegate) override;
  void connect() override;
  void disconnect(std::optional<TransportError> error = std::nullopt) override;
  void write(std::vector<std::uint8_t> data, Completion completion = {}) override;
  // The payload is not sent: like the platform's, these pings are empty.
  void writePing(std::vector<std::uint8_t> data, Completion completion = {}) override;

  struct State;
  class Connection;

 private:
  const QRVSocketRequest request_;
  std::shared_ptr<QRVURLSession> session_;
  std::shared_ptr<Connection> task() const;

  std::shared_ptr<State> state_;
  mutable std::mutex taskMutex_;
  std::shared_ptr<Connection> task_;
};

}  // namespace quorvix

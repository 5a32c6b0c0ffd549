// The transport over the library's own WebSocket client; every event arrives on the main queue.
#pragma once

#include "web-socket/SocketTransport.h"
#include "web-socket/StarscreamWebSocket.h"

namespace quorvix {

class StarscreamSocket final : public SocketTransport {
 public:
  explicit StarscreamSocket(const QRVSocketRequest& request,
                            StarscreamWebSocket::StreamFactory streamFactory = {});
  ~StarscreamSocket() override;

  bool isConnected() const override;
  std::shared_ptr<SocketDelegate> delegate() const override { return delegate_; }
  void setDelegate(std::shared_ptr<SocketDelegate> delegate) override;
  void connect() override;
  // Sends a close frame when connected; the client reports the end later, never synchronously.
  void disconnect(std::optional<TransportError> error = std::nullopt) override;
  void write(std::vector<std::uint8_t> data, Completion completion = {}) override;
  void writePing(std::vector<std::uint8_t> data, Completion completion = {}) override;

  StarscreamWebSocket& client() { return *client_; }

 private:
  class Adapter;
  std::shared_ptr<StarscreamWebSocket> client_;
  std::shared_ptr<SocketDelegate> delegate_;
  std::shared_ptr<Adapter> adapter_;
};

}  // namespace quorvix

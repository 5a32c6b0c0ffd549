#include "web-socket/StarscreamSocket.h"

namespace quorvix {

// The client's delegates hold their receiver weakly; this adapter, owned by the transport,
// forwards to the SocketDelegate the transport holds.
class StarscreamSocket::Adapter final : public WebSocketDelegate, public WebSocketPongDelegate {
 public:
  explicit Adapter(std::shared_ptr<SocketDelegate> target) : target_(std::move(target)) {}

  void websocketDidConnect(StarscreamWebSocket&) override { target_->websocketDidConnect(); }
  void websocketDidDisconnect(StarscreamWebSocket&,
                              const std::optional<TransportError>& error) override {
    target_->websocketDidDisconnect(error);
  }
  // Text is not part of the socket protocol.
  void websocketDidReceiveMessage(StarscreamWebSocket&, const std::string&) override {}
  void websocketDidReceiveData(StarscreamWebSocket&, std::vector<std::uint8_t> data) override {
    target_->websocketDidReceiveData(std::move(data));
  }
  void websocketDidReceivePong(StarscreamWebSocket&, const std::vector<std::uint8_t>&) override {
    target_->websocketDidReceivePong();
  }

 private:
  std::shared_ptr<SocketDelegate> target_;
};

StarscreamSocket::StarscreamSocket(const QRVSocketRequest& request,
                                   StarscreamWebSocket::StreamFactory streamFactory)
    : client_(StarscreamWebSocket::create(request, {}, std::move(streamFactory))) {
  client_->maximumMessageSize = kMaxIncomingMessageBytes;
}

StarscreamSocket::~StarscreamSocket() = default;

bool StarscreamSocket::isConnected() const {
  return client_->isConnected();
}

void StarscreamSocket::setDelegate(std::shared_ptr<SocketDelegate> delegate) {
  delegate_ = std::move(delegate);
  adapter_ = delegate_ ? std::make_shared<Adapter>(delegate_) : nullptr;
  client_->delegate = adapter_;
  client_->pongDelegate = adapter_;
}

void StarscreamSocket::connect() {
  client_->connect();
}

void StarscreamSocket::disconnect(std::optional<TransportError>) {
  if (client_->isConnected())
    client_->writeError(closeCode::normal);
}

void StarscreamSocket::write(std::vector<std::uint8_t> data, Completion completion) {
  if (client_->isConnected())
    client_->dequeueWrite(std::move(data), OpCode::binaryFrame, std::move(completion));
}

void StarscreamSocket::writePing(std::vector<std::uint8_t> data, Completion completion) {
  if (client_->isConnected())
    client_->dequeueWrite(std::move(data), OpCode::ping, std::move(completion));
}

}  // namespace quorvix

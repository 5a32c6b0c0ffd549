// A WebSocket transport the test drives by hand, for the CBOR socket and what is built on it.
#pragma once

#include <thread>
#include <vector>

#include "quorvix/CBOR.h"
#include "web-socket/SocketTransport.h"

namespace quorvix::test {

// A transport the test drives by hand. Like the platform transport, disconnect() reports at once.
class FakeTransport final : public SocketTransport {
 public:
  explicit FakeTransport(QRVSocketRequest r) : request(std::move(r)) {}

  bool isConnected() const override { return connected; }
  std::shared_ptr<SocketDelegate> delegate() const override { return delegate_; }
  void setDelegate(std::shared_ptr<SocketDelegate> d) override { delegate_ = std::move(d); }
  void connect() override {
    ++connects;
    if (failsAtOnce)
      drop(QRVError("NSURLErrorDomain", -1004, "refused"));
    if (opensFromAnotherThread)
      std::thread([this] { open(); }).join();
  }
  void disconnect(std::optional<TransportError> error) override {
    ++disconnects;
    if (reportsDisconnectLater)
      return;
    connected = false;
    delegate_->websocketDidDisconnect(std::move(error));
  }
  void write(std::vector<std::uint8_t> data, Completion completion) override {
    writes.push_back(std::move(data));
    completions.push_back(std::move(completion));
  }
  void writePing(std::vector<std::uint8_t> data, Completion) override {
    pings.push_back(std::move(data));
  }

  // The server's side.
  void open() {
    connected = true;
    delegate_->websocketDidConnect();
  }
  void drop(std::optional<TransportError> error = std::nullopt) {
    connected = false;
    delegate_->websocketDidDisconnect(std::move(error));
  }
  void receive(const CBOR& item) { delegate_->websocketDidReceiveData(item.encode().value()); }

  QRVSocketRequest request;
  bool connected = false;
  // Reports the failure from inside connect(), as a transport that fails at once may.
  bool failsAtOnce = false;
  // Reports the connection from a thread of its own before connect() returns.
  bool opensFromAnotherThread = false;
  // Like the library's own client: disconnect() only starts the close handshake, and the end is
  // reported later (by drop()).
  bool reportsDisconnectLater = false;
  int connects = 0;
  int disconnects = 0;
  std::vector<std::vector<std::uint8_t>> writes;
  std::vector<SocketTransport::Completion> completions;
  std::vector<std::vector<std::uint8_t>> pings;

 private:
  std::shared_ptr<SocketDelegate> delegate_;
};

}  // namespace quorvix::test

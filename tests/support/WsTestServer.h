// A WebSocket server on 127.0.0.1 inside the test process, on Boost.Beast: plain or TLS, with or
// without permessage-deflate. It echoes, records, swallows, or never reads (so pings go
// unanswered), records what it gets, and can push messages, close, or drop its connections on
// request.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorvix::test {

struct WsServerOptions {
  // echo: records and sends back; record: records only; sink: counts only; mute: never reads.
  enum class Mode { echo, record, sink, mute };
  Mode mode = Mode::echo;
  bool deflate = false;
  bool serverNoContextTakeover = false;
  bool clientNoContextTakeover = false;
  // PEM texts of the certificate chain and its key: TLS when set.
  std::optional<std::string> certificate, privateKey;
  // Answer the upgrade with this HTTP status instead of 101.
  int refuseWithStatus = 0;
};

struct WsReceived {
  bool binary = true;
  std::vector<std::uint8_t> data;
};

class WsTestServer {
 public:
  explicit WsTestServer(WsServerOptions options = {});
  ~WsTestServer();
  WsTestServer(const WsTestServer&) = delete;
  WsTestServer& operator=(const WsTestServer&) = delete;

  unsigned short port() const;
  // "ws://127.0.0.1:PORT/path", or "wss://HOST:PORT/path" for TLS.
  std::string url(const std::string& path = "/", const std::string& host = "127.0.0.1") const;

  // Upgrades accepted so far, and the headers (lower-case names) of each upgrade request.
  int upgrades() const;
  std::vector<std::map<std::string, std::string>> requestHeaders() const;
  std::vector<WsReceived> received() const;
  std::uint64_t messagesReceived() const;
  std::uint64_t bytesReceived() const;
  // How each ended connection ended: the code of the client's close frame, or 0 without one.
  std::vector<int> endings() const;
  // Whether the last connection negotiated compression.
  bool lastUsedDeflate() const;

  void sendToAll(std::vector<std::uint8_t> data, bool binary = true);
  void closeAll(std::uint16_t code, const std::string& reason = "");
  // Closes the TCP connections without a close frame.
  void dropAll();

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace quorvix::test

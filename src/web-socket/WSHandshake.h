// The opening handshake of the library's own WebSocket client (RFC 6455 section 4, with the
// permessage-deflate offer of RFC 7692), free of I/O.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "utils/QRVURL.h"
#include "web-socket/WSFraming.h"

namespace quorvix {

inline constexpr const char* kWSGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
inline constexpr const char* kCompressionOffer =
    "permessage-deflate; client_max_window_bits; server_max_window_bits=15";

struct WSCompressionConfig {
  bool enabled = false;
  int serverMaxWindowBits = 15;  // the window the server compresses with: our inflater's
  int clientMaxWindowBits = 15;  // the window we compress with
  bool clientNoContextTakeover = false;
  bool serverNoContextTakeover = false;
};

// Where a socket request's URL points, in the forms the connection and the upgrade need.
struct WSEndpoint {
  std::string host;        // without IPv6 brackets, for resolving and certificate checks
  std::uint16_t port = 0;  // explicit, or the scheme's default
  bool tls = false;        // wss or https
  std::string authority;   // the Host value: brackets, and ":port" unless it is the default
  std::string resource;    // path and query, "/" at least
};
WSEndpoint wsEndpoint(const QRVURL& url);

struct WSHandshakeInput {
  std::string resource;  // path and query, e.g. "/sockets/1/ws?x=1"
  std::string host;      // the Host value, with ":port" unless it is the scheme's default
  std::string origin;    // e.g. "https://api.example.com"
  std::vector<std::pair<std::string, std::string>> headers;  // the request's own
  bool enableCompression = true;
};

// The Sec-WebSocket-Key for 16 random bytes, and the Sec-WebSocket-Accept the server must answer.
std::string webSocketKey(const std::array<std::uint8_t, 16>& nonce);
std::string webSocketAccept(const std::string& key);

// The request text. The request's own headers go first; the handshake headers are added unless
// the request already has one of the same name (Host, Origin) or must not override them.
std::string buildHandshake(const WSHandshakeInput& input, const std::string& key);

// Parses a server's Sec-WebSocket-Extensions value; `enabled` only when permessage-deflate was
// accepted with parameters this client can honour.
WSCompressionConfig parseExtensions(const std::string& value);

// Reads the server's answer up to the end of its headers (at most kMaxHeaderBytes) and checks
// it: status 101, "Upgrade: websocket", "Connection: upgrade" and the accept value.
class WSHandshakeReader {
 public:
  static constexpr std::size_t kMaxHeaderBytes = 16 * 1024;

  struct Response {
    int status = 0;
    std::map<std::string, std::string> headers;  // names in lower case
    WSCompressionConfig compression;
    // Bytes after the headers: the first frames, already sent by the server.
    std::vector<std::uint8_t> rest;
  };

  explicit WSHandshakeReader(std::string key) : key_(std::move(key)) {}

  // Nothing while more bytes are needed; the response, or an upgradeError, once decided.
  std::optional<std::pair<std::optional<Response>, std::optional<WSError>>> feed(
      std::span<const std::uint8_t> bytes);

 private:
  std::string key_;
  std::string buffer_;
};

}  // namespace quorvix

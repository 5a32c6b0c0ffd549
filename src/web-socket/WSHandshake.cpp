#include "web-socket/WSHandshake.h"

#include "utils/Base64.h"
#include "utils/Strings.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include <openssl/evp.h>
#include <openssl/sha.h>

namespace quorvix {
namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
    s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

// Comma-separated tokens of a header value, each compared without regard to case.
bool hasToken(const std::string& value, std::string_view token) {
  std::string_view rest = value;
  while (!rest.empty()) {
    auto comma = rest.find(',');
    if (asciiLower(trim(rest.substr(0, comma))) == token)
      return true;
    if (comma == std::string_view::npos)
      break;
    rest.remove_prefix(comma + 1);
  }
  return false;
}

WSError upgradeError(int code) {
  return WSError{WSError::ErrorType::upgradeError, "Invalid HTTP upgrade", code};
}

}  // namespace

WSEndpoint wsEndpoint(const QRVURL& url) {
  WSEndpoint e;
  const std::string scheme = asciiLower(url.scheme().value_or(""));
  e.tls = scheme == "wss" || scheme == "https";
  e.port = static_cast<std::uint16_t>(url.port().value_or(e.tls ? 443 : 80));
  e.host = url.host();
  e.authority = e.host.find(':') != std::string::npos ? "[" + e.host + "]" : e.host;
  if (!url.usesDefaultPort())
    e.authority += ":" + std::to_string(e.port);
  e.resource = url.path().empty() ? "/" : url.path();
  if (url.query())
    e.resource += "?" + *url.query();
  return e;
}

std::string webSocketKey(const std::array<std::uint8_t, 16>& nonce) {
  return base64Encode(nonce.data(), nonce.size());
}

std::string webSocketAccept(const std::string& key) {
  std::string text = key + kWSGuid;
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
  return base64Encode(digest, sizeof digest);
}

std::string buildHandshake(const WSHandshakeInput& input, const std::string& key) {
  std::string out =
      "GET " + (input.resource.empty() ? std::string("/") : input.resource) + " HTTP/1.1\r\n";
  auto has = [&](std::string_view name) {
    return std::any_of(input.headers.begin(), input.headers.end(),
                       [&](const auto& h) { return equalsIgnoringCase(h.first, name); });
  };
  // These belong to the handshake; a request's own value would break it.
  auto reserved = [](std::string_view name) {
    std::string n = asciiLower(name);
    return n == "upgrade" || n == "connection" || n == "sec-websocket-key" ||
           n == "sec-websocket-version" || n == "sec-websocket-extensions";
  };
  for (const auto& [name, value] : input.headers) {
    if (!reserved(name))
      out += name + ": " + value + "\r\n";
  }
  out += "Upgrade: websocket\r\nConnection: Upgrade\r\n";
  if (!has("Host"))
    out += "Host: " + input.host + "\r\n";
  if (!has("Origin") && !input.origin.empty())
    out += "Origin: " + input.origin + "\r\n";
  out += "Sec-WebSocket-Version: 13\r\n";
  if (input.enableCompression)
    out += std::string("Sec-WebSocket-Extensions: ") + kCompressionOffer + "\r\n";
  out += "Sec-WebSocket-Key: " + key + "\r\n\r\n";
  return out;
}

WSCompressionConfig parseExtensions(const std::string& value) {
  WSCompressionConfig config;
  // Only the first extension is considered: this client offers just one.
  std::string_view first = std::string_view(value).substr(0, value.find(','));
  std::string_view rest = first;
  bool sawName = false;
  while (true) {
    auto semi = rest.find(';');
    std::string param = asciiLower(trim(rest.substr(0, semi)));
    if (!sawName) {
      if (param != "permessage-deflate")
        return config;
      sawName = true;
      config.enabled = true;
    } else {
      auto bits = [&](std::string_view prefix, int& out) {
        if (param.rfind(prefix, 0) != 0)
          return false;
        std::string_view v = trim(std::string_view(param).substr(prefix.size()));
        if (v.size() >= 2 && v.front() == '"' && v.back() == '"')
          v = v.substr(1, v.size() - 2);
        int n = 0;
        auto [p, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
        if (ec != std::errc() || p != v.data() + v.size() || n < 8 || n > 15)
          config.enabled = false;  // a window this client cannot honour
        else
          out = n;
        return true;
      };
      if (param == "client_no_context_takeover")
        config.clientNoContextTakeover = true;
      else if (param == "server_no_context_takeover")
        config.serverNoContextTakeover = true;
      else if (!bits("server_max_window_bits=", config.serverMaxWindowBits) &&
               !bits("client_max_window_bits=", config.clientMaxWindowBits) && !param.empty())
        config.enabled = false;  // an unknown parameter
    }
    if (semi == std::string_view::npos)
      break;
    rest.remove_prefix(semi + 1);
  }
  return config;
}

std::optional<std::pair<std::optional<WSHandshakeReader::Response>, std::optional<WSError>>>
WSHandshakeReader::feed(std::span<const std::uint8_t> bytes) {
  using Result = std::pair<std::optional<Response>, std::optional<WSError>>;
  buffer_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  auto end = buffer_.find("\r\n\r\n");
  if (end == std::string::npos) {
    if (buffer_.size() > kMaxHeaderBytes)
      return Result{std::nullopt, upgradeError(0)};
    return std::nullopt;
  }
  if (end > kMaxHeaderBytes)
    return Result{std::nullopt, upgradeError(0)};
  std::string_view head(buffer_.data(), end);
  Response response;
  auto lineEnd = head.find("\r\n");
  std::string_view statusLine = head.substr(0, lineEnd);
  // "HTTP/1.1 101 Switching Protocols"
  if (!statusLine.starts_with("HTTP/1.1 ") || statusLine.size() < 12)
    return Result{std::nullopt, upgradeError(0)};
  auto codeText = statusLine.substr(9, 3);
  std::from_chars(codeText.data(), codeText.data() + 3, response.status);
  std::string_view rest =
      lineEnd == std::string_view::npos ? std::string_view() : head.substr(lineEnd + 2);
  while (!rest.empty()) {
    auto eol = rest.find("\r\n");
    std::string_view line = rest.substr(0, eol);
    auto colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0)
      return Result{std::nullopt, upgradeError(response.status)};
    std::string name = asciiLower(trim(line.substr(0, colon)));
    std::string value(trim(line.substr(colon + 1)));
    auto& slot = response.headers[name];
    slot = slot.empty() ? value : slot + ", " + value;
    if (eol == std::string_view::npos)
      break;
    rest.remove_prefix(eol + 2);
  }
  auto header = [&](const char* n) {
    auto it = response.headers.find(n);
    return it == response.headers.end() ? std::string() : it->second;
  };
  if (response.status != 101 || !hasToken(header("upgrade"), "websocket") ||
      !hasToken(header("connection"), "upgrade") ||
      header("sec-websocket-accept") != webSocketAccept(key_))
    return Result{std::nullopt, upgradeError(response.status)};
  response.compression = parseExtensions(header("sec-websocket-extensions"));
  response.rest.assign(buffer_.begin() + static_cast<std::ptrdiff_t>(end + 4), buffer_.end());
  return Result{std::move(response), std::nullopt};
}

}  // namespace quorvix

// An HTTP/1.1 server on 127.0.0.1 inside the test process, plain or TLS. It records every request
// and answers what the test's handler says. It picks its own port and stops its threads when
// destroyed.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quorvix::test {

struct RecordedRequest {
  std::string method;
  std::string target;
  // Names in lower case, values as received, in order (repeated names kept).
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  int connection = 0;  // 1 for the first connection accepted, 2 for the next...

  std::optional<std::string> header(std::string_view lowerName) const;
  std::size_t headerCount(std::string_view lowerName) const;
};

struct TestResponse {
  int status = 200;
  std::string body = "{}";
  std::vector<std::pair<std::string, std::string>> headers;
  // Close the connection without answering.
  bool hangUp = false;
  // Keep the connection open and silent until the client leaves or the server stops.
  bool neverAnswer = false;
};

// PEM texts of the certificate chain and its key.
struct TlsIdentity {
  std::string certificate, privateKey;
};

class HttpTestServer {
 public:
  using Handler = std::function<TestResponse(const RecordedRequest&)>;

  explicit HttpTestServer(Handler handler = nullptr, std::optional<TlsIdentity> tls = {});
  ~HttpTestServer();
  HttpTestServer(const HttpTestServer&) = delete;
  HttpTestServer& operator=(const HttpTestServer&) = delete;

  unsigned short port() const { return port_; }
  // "http://HOST:PORT" ("https://" with TLS) followed by `path`.
  std::string url(std::string_view path = "/", std::string_view host = "127.0.0.1") const;
  void setHandler(Handler handler);

  std::vector<RecordedRequest> requests() const;
  int connectionCount() const { return connections_.load(); }

  // A port on 127.0.0.1 that nothing listens on (bound once, then released).
  static unsigned short closedPort();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  unsigned short port_ = 0;
  std::atomic<int> connections_{0};
};

}  // namespace quorvix::test

// The HTTP client under the REST requests. The library makes a fresh session per request unless
// the host installs its own with setCustomURLSession (below), for example one that keeps cookies
// and connections between requests or goes through a particular proxy.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "quorvix/QRVError.h"

namespace quorvix {

struct QRVHTTPRequest {
  std::string url;
  std::string method = "GET";
  // In the order given; names are sent as written.
  std::vector<std::pair<std::string, std::string>> headers;
  std::optional<std::string> body;
  // Zero: no timeout of the request's own.
  std::chrono::milliseconds timeout{0};
};

struct QRVHTTPResponse {
  long statusCode = 0;
  std::string url;
  // Names in lower case; repeated fields joined with ", ".
  std::map<std::string, std::string> headers;
};

// Limits of the library's own sessions. A stalled transfer fails as a transport failure, so a
// request always completes even when the server accepts and never answers.
struct QRVURLSessionOptions {
  // Longest wait for the connection, TLS handshake included.
  std::chrono::milliseconds connectTimeout{std::chrono::seconds(30)};
  // A transfer during which not one byte of body moves for this long fails. Checked about once
  // a second.
  std::chrono::milliseconds stallTimeout{std::chrono::seconds(60)};
};

struct QRVHTTPResult {
  // A transport failure: no answer, or an answer that could not be read whole.
  std::optional<QRVError> error;
  std::optional<QRVHTTPResponse> response;
  std::string body;
};

class QRVURLSession {
 public:
  // Error domain of transport failures.
  static constexpr const char* kErrorDomain = "QRVURLSession";
  // Bodies larger than this are refused as a transport failure rather than buffered.
  static constexpr std::size_t kMaxBodyBytes = 64u << 20;

  virtual ~QRVURLSession() = default;
  // Starts the request. The completion runs exactly once, on a thread of the session's own.
  virtual void dataTask(QRVHTTPRequest request, std::function<void(QRVHTTPResult)> completion) = 0;

  // A session with nothing shared: no cookies, cache or connections survive the request.
  static std::shared_ptr<QRVURLSession> makeEphemeral(QRVURLSessionOptions options = {});
  // A session that keeps cookies, DNS answers, TLS sessions and connections across requests.
  static std::shared_ptr<QRVURLSession> makePersistent(QRVURLSessionOptions options = {});
};

// Runs every REST request of the library from now on through `session`, a subclass of the
// host's own or one made above; nullptr restores a fresh ephemeral session per request.
// Thread-safe; requests already started keep the session they began with.
void setCustomURLSession(std::shared_ptr<QRVURLSession> session);

}  // namespace quorvix

// HTTP requests with JSON bodies to the service, and the upgrade requests of its sockets.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "quorvix/QRVError.h"
#include "quorvix/QRVURLSession.h"
#include "quorvix/Value.h"
#include "utils/QRVSocketRequest.h"
#include "utils/QRVURL.h"

namespace quorvix {

using QRVHeaders = std::map<std::string, std::string>;

struct QRVRequestOptions {
  QRVHeaders headers;
  std::string method = "GET";  // "GET", "POST", "PUT" or "DELETE"
  std::optional<Value> body;   // sent as compact JSON
};

// The answer as classified: an error, or nothing; the JSON value; the HTTP response.
using QRVRequestCallback = std::function<void(std::optional<QRVError> error,
                                              std::optional<Value> json,
                                              std::optional<QRVHTTPResponse> response)>;

class QRVRequest {
 public:
  static constexpr const char* kContentType = "application/json; charset=utf-8";

  // The host's session if it set one, else a new ephemeral session on every call.
  static std::shared_ptr<QRVURLSession> urlSession();
  static void setCustomURLSession(std::shared_ptr<QRVURLSession> session);

  // Sends one request and classifies its answer. The callback runs exactly once, always
  // asynchronously on the main queue; a body that cannot be written as JSON is reported there
  // too, and then nothing is sent.
  static void request(const std::optional<QRVURL>& url,
                      const QRVRequestOptions& options,
                      QRVRequestCallback callback);

  // The upgrade request of a socket endpoint: "sockets/1/ws" under `path` (resolved against
  // `base`, or `base` itself), with the bearer token and the host's "User-Agent". Nothing when
  // the addresses cannot be resolved.
  static std::optional<QRVSocketRequest> socketRequest(const std::optional<std::string>& path,
                                                       const std::string& token,
                                                       const QRVHeaders& headers,
                                                       const QRVURL& base);
};

}  // namespace quorvix

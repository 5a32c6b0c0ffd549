#include "core/QRVRequest.h"

#include <algorithm>
#include <mutex>

#include "quorvix/QRVBundle.h"
#include "utils/Invokers.h"
#include "utils/Logging.h"
#include "utils/Strings.h"

namespace quorvix {
namespace {

std::mutex gSessionMutex;
std::shared_ptr<QRVURLSession> gCustomSession;

// Steps 1 to 6 of classifying an answer.
void classify(QRVHTTPResult result, const QRVRequestCallback& callback) {
  auto& response = result.response;
  if (result.error) {
    InvokeForRequestResponse(callback, std::move(result.error), std::optional<Value>(),
                             std::move(response));
    return;
  }
  std::optional<QRVError> parseError;
  std::optional<Value> json = Value::fromJson(result.body, &parseError);
  long status = response ? response->statusCode : 0;
  if (status == 204) {
    InvokeForRequestResponse(callback, std::optional<QRVError>(), std::optional<Value>(),
                             std::move(response));
  } else if (!json) {
    InvokeForRequestResponse(callback, std::move(parseError), std::optional<Value>(),
                             std::move(response));
  } else if (status < 400) {
    InvokeForRequestResponse(callback, std::optional<QRVError>(), std::move(json),
                             std::move(response));
  } else {
    const Value* message = json->find("message");
    std::string text = message && message->isString() ? *message->asString() : "Request failed";
    InvokeForRequestResponse(callback, std::optional<QRVError>(QRVError(text, status)),
                             std::move(json), std::move(response));
  }
}

}  // namespace

std::shared_ptr<QRVURLSession> QRVRequest::urlSession() {
  {
    std::lock_guard lock(gSessionMutex);
    if (gCustomSession)
      return gCustomSession;
  }
  return QRVURLSession::makeEphemeral();
}

void QRVRequest::setCustomURLSession(std::shared_ptr<QRVURLSession> session) {
  std::lock_guard lock(gSessionMutex);
  gCustomSession = std::move(session);
}

void setCustomURLSession(std::shared_ptr<QRVURLSession> session) {
  QRVRequest::setCustomURLSession(std::move(session));
}

void QRVRequest::request(const std::optional<QRVURL>& url,
                         const QRVRequestOptions& options,
                         QRVRequestCallback callback) {
  QRVHTTPRequest http;
  http.method = options.method.empty() ? "GET" : options.method;
  for (const auto& [name, value] : options.headers) {
    if (!equalsIgnoringCase(name, "Content-Type"))
      http.headers.emplace_back(name, value);
  }
  http.headers.emplace_back("Content-Type", kContentType);
  if (options.body) {
    std::optional<QRVError> error;
    auto text = options.body->toJson(&error);
    if (!text) {
      InvokeForRequestResponse(callback, std::move(error), std::optional<Value>(),
                               std::optional<QRVHTTPResponse>());
      return;
    }
    http.body = std::move(*text);
  }
  if (!url || !url->isAbsolute()) {
    InvokeForRequestResponse(
        callback,
        std::optional<QRVError>(QRVError(QRVURLSession::kErrorDomain, 3, "unsupported URL")),
        std::optional<Value>(), std::optional<QRVHTTPResponse>());
    return;
  }
  http.url = url->toString();
  urlSession()->dataTask(
      std::move(http), [callback = std::move(callback)](QRVHTTPResult result) mutable {
        // Classifying parses the body, which is work for the main queue rather than the HTTP
        // thread. The callback moves along so that the HTTP thread keeps nothing it captured alive.
        runOnMainAsync([callback = std::move(callback), result = std::move(result)]() mutable {
          classify(std::move(result), callback);
        });
      });
}

std::optional<QRVSocketRequest> QRVRequest::socketRequest(const std::optional<std::string>& path,
                                                          const std::string& token,
                                                          const QRVHeaders& headers,
                                                          const QRVURL& base) {
  std::optional<QRVURL> endpoint = path ? base.resolve(*path) : std::optional<QRVURL>(base);
  if (!endpoint)
    return std::nullopt;
  std::optional<QRVURL> url = endpoint->resolve("sockets/1/ws");
  if (!url || !url->scheme())
    return std::nullopt;
  std::string scheme = asciiLower(*url->scheme());
  if (scheme == "http")
    url->setScheme("ws");
  else if (scheme == "https")
    url->setScheme("wss");

  QRVSocketRequest request{*url, {}, std::chrono::milliseconds(10000)};
  auto set = [&request](const std::string& name, const std::string& value) {
    auto it = std::find_if(request.headers.begin(), request.headers.end(),
                           [&](const auto& h) { return equalsIgnoringCase(h.first, name); });
    if (it != request.headers.end())
      it->second = value;
    else
      request.headers.emplace_back(name, value);
  };
  for (const auto& [name, value] : headers)
    set(name, value);
  set("Authorization", "Bearer " + token);
  QRVBundle bundle = QRVBundle::main();
  set("User-Agent", bundle.name + "/" + bundle.version);
  if (endpoint->usesDefaultPort()) {
    // An IPv6 address is a valid Host value only inside its brackets.
    const std::string host = endpoint->host();
    set("Host", host.find(':') != std::string::npos ? "[" + host + "]" : host);
  }
  return request;
}

}  // namespace quorvix

#include "core/QRVRESTResource.h"

#include <mutex>

#include "utils/Invokers.h"

namespace quorvix {
namespace {

struct ClassState {
  std::mutex mutex;
  std::string baseUrl;
  // Installed when the library loads, before any host configuration.
  QRVHeaders headers{{QRVRESTResource::kAPIVersionHeader, QRVRESTResource::kAPIVersion}};
};

ClassState& classState() {
  static ClassState state;
  return state;
}

}  // namespace

std::string QRVRESTResource::baseUrl() {
  auto& s = classState();
  std::lock_guard lock(s.mutex);
  return s.baseUrl;
}

void QRVRESTResource::setBaseUrl(std::string url) {
  auto& s = classState();
  std::lock_guard lock(s.mutex);
  s.baseUrl = std::move(url);
}

std::optional<QRVURL> QRVRESTResource::baseNSURL() {
  return QRVURL::parse(baseUrl());
}

std::optional<QRVURL> QRVRESTResource::endpoint(std::string_view relativePath) {
  auto base = baseNSURL();
  if (!base)
    return std::nullopt;
  return base->resolve(relativePath);
}

void QRVRESTResource::setStaticHeaders(const QRVHeaders& headers) {
  auto& s = classState();
  std::lock_guard lock(s.mutex);
  for (const auto& [name, value] : headers)
    s.headers[name] = value;
}

QRVHeaders QRVRESTResource::staticHeaders() {
  auto& s = classState();
  std::lock_guard lock(s.mutex);
  return s.headers;
}

const Value* QRVRESTResource::field(std::string_view key) const {
  auto it = resource_.find(key);
  return it == resource_.end() ? nullptr : &it->second;
}

std::optional<std::string> QRVRESTResource::stringField(std::string_view key) const {
  const Value* v = field(key);
  if (v && v->asString())
    return *v->asString();
  return std::nullopt;
}

void QRVRESTResource::setHeaders(const QRVHeaders& headers) {
  for (const auto& [name, value] : headers)
    headers_[name] = value;
}

std::optional<std::string> QRVRESTResource::instanceHeader(const std::string& name) const {
  auto it = headers_.find(name);
  if (it == headers_.end())
    return std::nullopt;
  return it->second;
}

QRVHeaders QRVRESTResource::headers() const {
  QRVHeaders merged = staticHeaders();
  for (const auto& [name, value] : headers_)
    merged[name] = value;
  return merged;
}

void QRVRESTResource::fetch(Callback callback) {
  send("GET", std::nullopt, std::move(callback));
}

void QRVRESTResource::create(Value body, Callback callback) {
  send("POST", std::move(body), std::move(callback));
}

void QRVRESTResource::update(Value body, Callback callback) {
  send("PUT", std::move(body), std::move(callback));
}

void QRVRESTResource::deleteResource(Callback callback) {
  send("DELETE", std::nullopt, std::move(callback));
}

std::optional<QRVError> QRVRESTResource::updateResource(const std::optional<Value>& value) {
  const Value::Map* map = value ? value->asMap() : nullptr;
  resource_ = map ? *map : Value::Map{};
  return std::nullopt;
}

void QRVRESTResource::send(std::string method, std::optional<Value> body, Callback callback) {
  QRVRequestOptions options;
  options.headers = headers();
  options.method = std::move(method);
  options.body = std::move(body);
  // The request keeps the resource alive until its answer is merged.
  QRVRequest::request(url(), options,
                      [self = shared_from_this(), callback = std::move(callback)](
                          std::optional<QRVError> error, std::optional<Value> json,
                          std::optional<QRVHTTPResponse>) {
                        if (!error)
                          error = self->updateResource(json);
                        InvokeForResource(callback, std::move(error), self);
                      });
}

}  // namespace quorvix

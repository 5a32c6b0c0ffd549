// The base of the service's REST resources (the device, the session): the last JSON object the
// service returned for the resource, its request headers, and fetch/create/update/delete, whose
// answers are merged back through updateResource. Main queue only, apart from the class-wide
// configuration, which is thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/QRVRequest.h"
#include "quorvix/QRVError.h"
#include "quorvix/Value.h"
#include "utils/QRVURL.h"

namespace quorvix {

class QRVRESTResource : public std::enable_shared_from_this<QRVRESTResource> {
 public:
  // Receives the resource itself, also when an error is reported. Runs exactly once on the
  // main queue.
  using Callback =
      std::function<void(std::optional<QRVError> error, std::shared_ptr<QRVRESTResource> self)>;

  static constexpr const char* kAPIVersionHeader = "X-QuorviAPIVersion";
  static constexpr const char* kAPIVersion = "1.21.0";

  // The service's base address, stored exactly as given.
  static std::string baseUrl();
  static void setBaseUrl(std::string url);
  static std::optional<QRVURL> baseNSURL();
  // An endpoint path resolved against the base address. A base with a path keeps its last
  // segment only when it ends with "/".
  static std::optional<QRVURL> endpoint(std::string_view relativePath);

  // Headers sent with every resource request; merged key by key, never removed.
  static void setStaticHeaders(const QRVHeaders& headers);
  static QRVHeaders staticHeaders();

  QRVRESTResource() = default;
  virtual ~QRVRESTResource() = default;
  QRVRESTResource(const QRVRESTResource&) = delete;
  QRVRESTResource& operator=(const QRVRESTResource&) = delete;

  const Value::Map& resource() const { return resource_; }
  const Value* field(std::string_view key) const;
  // The field when it is text.
  std::optional<std::string> stringField(std::string_view key) const;
  const Value* id() const { return field("id"); }
  virtual std::optional<QRVURL> url() const { return std::nullopt; }

  // Instance headers, on top of the static ones.
  void setHeaders(const QRVHeaders& headers);
  QRVHeaders headers() const;
  // One instance header, without the static ones.
  std::optional<std::string> instanceHeader(const std::string& name) const;

  virtual void cleanup() { resource_.clear(); }

  void fetch(Callback callback);
  void create(Value body, Callback callback);
  void update(Value body, Callback callback);
  void deleteResource(Callback callback);

  // Takes a server answer (nothing for a 204 or an empty DELETE answer). The base stores an
  // object as the resource and anything else as an empty one; subclasses validate, store and
  // notify, and return an error for an answer they refuse.
  virtual std::optional<QRVError> updateResource(const std::optional<Value>& value);

 protected:
  void setResource(Value::Map resource) { resource_ = std::move(resource); }

 private:
  void send(std::string method, std::optional<Value> body, Callback callback);

  Value::Map resource_;
  QRVHeaders headers_;
};

}  // namespace quorvix

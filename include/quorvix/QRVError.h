#pragma once

#include <optional>
#include <ostream>
#include <string>

namespace quorvix {

// An error value. Library errors are in the domain "Quorvix" with the HTTP status, 400 for local
// refusals, or 0 for answers that fail validation; transport and socket layers use their own
// domains. No exception crosses the public API: operations report a QRVError instead.
class QRVError {
 public:
  static constexpr const char* kDomain = "Quorvix";

  QRVError(std::string message, long code)
      : domain_(kDomain), code_(code), message_(std::move(message)) {}
  QRVError(std::string domain, long code, std::string message)
      : domain_(std::move(domain)), code_(code), message_(std::move(message)) {}

  const std::string& domain() const { return domain_; }
  long code() const { return code_; }
  // The localized description.
  const std::string& message() const { return message_; }

  // "domain code: message", for log lines.
  std::string description() const {
    return domain_ + " " + std::to_string(code_) + ": " + message_;
  }

  friend bool operator==(const QRVError&, const QRVError&) = default;
  friend std::ostream& operator<<(std::ostream& os, const QRVError& e) {
    return os << e.description();
  }

 private:
  std::string domain_;
  long code_;
  std::string message_;
};

// An operation's outcome where only success or failure matters.
using QRVMaybeError = std::optional<QRVError>;

}  // namespace quorvix

// RAII: the URL session under the library's requests for the scope of a test, then the default.
#pragma once

#include <memory>

#include "core/QRVRequest.h"

namespace quorvix::test {

class ScopedURLSession {
 public:
  explicit ScopedURLSession(std::shared_ptr<QRVURLSession> session) {
    QRVRequest::setCustomURLSession(std::move(session));
  }
  ~ScopedURLSession() { QRVRequest::setCustomURLSession(nullptr); }
  ScopedURLSession(const ScopedURLSession&) = delete;
  ScopedURLSession& operator=(const ScopedURLSession&) = delete;
};

}  // namespace quorvix::test

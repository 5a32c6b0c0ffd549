// A URL session that takes every REST request and answers none; tests read what was sent.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "quorvix/QRVURLSession.h"

namespace quorvix::test {

// Takes every REST request and answers none; the tests read what was sent.
class RecordingURLSession : public QRVURLSession {
 public:
  void dataTask(QRVHTTPRequest request, std::function<void(QRVHTTPResult)>) override {
    std::lock_guard lock(mutex_);
    bodies_.push_back(request.method + " " + request.body.value_or(""));
  }
  std::vector<std::string> bodies() const {
    std::lock_guard lock(mutex_);
    return bodies_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> bodies_;
};

}  // namespace quorvix::test

// Signpost intervals for the capture path: a trace-level begin event when made and an end event
// when destroyed, on the "Performance" log category. Any thread.
#pragma once

#include <string_view>

#include "utils/Logging.h"

namespace quorvix {

inline constexpr std::string_view kPerformanceCategory = "Performance";

class SignpostInterval {
 public:
  explicit SignpostInterval(std::string_view name) : name_(name) {
    QRV_LOGGER_FOR(kPerformanceCategory)->trace("begin {}", name_);
  }
  ~SignpostInterval() { QRV_LOGGER_FOR(kPerformanceCategory)->trace("end {}", name_); }
  SignpostInterval(const SignpostInterval&) = delete;
  SignpostInterval& operator=(const SignpostInterval&) = delete;

 private:
  // Names are string literals, which outlive the interval.
  const std::string_view name_;
};

}  // namespace quorvix

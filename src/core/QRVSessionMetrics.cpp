#include "core/QRVSessionMetrics.h"

namespace quorvix {

QRVSessionMetrics::QRVSessionMetrics(Listener listener, std::shared_ptr<Executor> executor)
    : listener_(std::move(listener)), executor_(std::move(executor)) {}

double QRVSessionMetrics::latency() const {
  LatencySupplier supplier;
  {
    std::lock_guard lock(mutex_);
    supplier = latencySupplier_;
  }
  return supplier ? supplier() : 0.0;
}

std::optional<WallTime> QRVSessionMetrics::lastAlive() const {
  std::lock_guard lock(mutex_);
  return lastAlive_;
}

void QRVSessionMetrics::setLatencySupplier(LatencySupplier supplier) {
  bool enable = static_cast<bool>(supplier);
  {
    std::lock_guard lock(mutex_);
    latencySupplier_ = std::move(supplier);
  }
  if (enable) {
    // The timer dies with this object, so its tick never outlives it.
    metricsTimer_.start(executor_, kInterval, [this] { tick(); });
  } else {
    metricsTimer_.stop();
  }
}

void QRVSessionMetrics::onProbeResponded() {
  {
    std::lock_guard lock(mutex_);
    lastAlive_ = executor_->clock().wallNow();
  }
  if (listener_)
    listener_();
}

bool QRVSessionMetrics::isEmpty() const {
  if (latency() > 0.0)
    return false;
  std::lock_guard lock(mutex_);
  return !lastAlive_.has_value();
}

void QRVSessionMetrics::tick() {
  if (!isEmpty() && listener_)
    listener_();
}

}  // namespace quorvix

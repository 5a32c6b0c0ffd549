#include "core/QRVSessionMetrics.h"

namespace quorvix {

QRVSessionMetrics::QRVSessionMetrics(Listener listener, std::shared_ptr<Executor> executor)
    : state_(std::make_shared<State>()) {
  state_->listener = std::move(listener);
  state_->executor = std::move(executor);
}

double QRVSessionMetrics::State::latency() const {
  LatencySupplier supplier;
  {
    std::lock_guard lock(mutex);
    supplier = latencySupplier;
  }
  return supplier ? supplier() : 0.0;
}

bool QRVSessionMetrics::State::isEmpty() const {
  if (latency() > 0.0)
    return false;
  std::lock_guard lock(mutex);
  return !lastAlive.has_value();
}

void QRVSessionMetrics::State::tick() const {
  if (!isEmpty() && listener)
    listener();
}

double QRVSessionMetrics::latency() const {
  return state_->latency();
}

std::optional<WallTime> QRVSessionMetrics::lastAlive() const {
  std::lock_guard lock(state_->mutex);
  return state_->lastAlive;
}

void QRVSessionMetrics::setLatencySupplier(LatencySupplier supplier) {
  bool enable = static_cast<bool>(supplier);
  {
    std::lock_guard lock(state_->mutex);
    state_->latencySupplier = std::move(supplier);
  }
  if (enable) {
    metricsTimer_.start(state_->executor, kInterval, [weak = std::weak_ptr<const State>(state_)] {
      if (auto state = weak.lock())
        state->tick();
    });
  } else {
    metricsTimer_.stop();
  }
}

void QRVSessionMetrics::onProbeResponded() {
  {
    std::lock_guard lock(state_->mutex);
    state_->lastAlive = state_->executor->clock().wallNow();
  }
  if (state_->listener)
    state_->listener();
}

bool QRVSessionMetrics::isEmpty() const {
  return state_->isEmpty();
}

}  // namespace quorvix

// A once-a-second view of a running session's health: the stream connection's latency and when
// the last liveness probe was answered. The listener runs on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "quorvix/Executor.h"
#include "utils/RepeatingTimer.h"

namespace quorvix {

class QRVSessionMetrics {
 public:
  using Listener = std::function<void()>;
  using LatencySupplier = std::function<double()>;

  static constexpr Duration kInterval = std::chrono::seconds(1);

  explicit QRVSessionMetrics(Listener listener, std::shared_ptr<Executor> executor = mainQueue());
  ~QRVSessionMetrics() = default;
  QRVSessionMetrics(const QRVSessionMetrics&) = delete;
  QRVSessionMetrics& operator=(const QRVSessionMetrics&) = delete;

  // The supplier's latency in seconds, or 0 without one.
  double latency() const;
  std::optional<WallTime> lastAlive() const;

  // A supplier starts the 1-second reports (one timer however often it is set); an empty one
  // stops them. Callable from any thread.
  void setLatencySupplier(LatencySupplier supplier);
  // Records an answered probe and reports at once. Main queue.
  void onProbeResponded();
  // Nothing to report: no positive latency and no probe answered yet.
  bool isEmpty() const;

 private:
  // Everything a tick reads. A tick holds it for its duration, so the metrics (and the session
  // owning them) may be released meanwhile, on any thread.
  struct State {
    Listener listener;
    std::shared_ptr<Executor> executor;
    mutable std::mutex mutex;  // guards the supplier and lastAlive against the socket's thread
    LatencySupplier latencySupplier;
    std::optional<WallTime> lastAlive;

    double latency() const;
    bool isEmpty() const;
    void tick() const;
  };

  const std::shared_ptr<State> state_;
  RepeatingTimer metricsTimer_;
};

}  // namespace quorvix

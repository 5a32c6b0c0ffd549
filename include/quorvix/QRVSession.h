// A support session as the host sees it: one co-browsing engagement between this device and an
// agent, as the service last described it, and the changes the device may ask for.
//
// Threads: call every method on the main queue (quorvix/Executor.h). Observers are told there,
// and callbacks run there.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quorvix/Executor.h"
#include "quorvix/QRVAgent.h"
#include "quorvix/QRVError.h"
#include "quorvix/Value.h"

namespace quorvix {

class QRVSession;

// The user's consent to full-device sharing or to remote control. Ordered: the agent asks
// (requested), the user answers (rejected or on).
enum class QRVConsentState { off = 0, requested = 1, rejected = 2, on = 3 };

// Why the service ended a session; none also stands for a reason this version does not know.
enum class QRVEndedReason {
  none = 0,
  deviceEnded = 1,
  agentEnded = 2,
  pendingTimeout = 3,
  authorizingTimeout = 4,
  activeTimeout = 5,
  limitEnforcement = 6,
};

// Told about a session's updates, its metrics and its end. A session holds its observers
// strongly until they are removed or the session is dropped. Every method runs on the main
// queue; an observer may register or remove observers while being told.
class QRVSessionObserver {
 public:
  virtual ~QRVSessionObserver() = default;
  // The session has just moved into "ended". Told once, after the update that ended it.
  virtual void sessionDidEnd(const std::shared_ptr<QRVSession>& session) = 0;
  // Every accepted answer of the service, also when nothing changed.
  virtual void sessionDidUpdate(const std::shared_ptr<QRVSession>& /*session*/) {}
  // The same answer, told just before sessionDidUpdate, with a snapshot of the session as it was
  // before it.
  virtual void sessionDidUpdateFromPrevious(const std::shared_ptr<QRVSession>& /*session*/,
                                            const std::shared_ptr<QRVSession>& /*previous*/) {}
  // latency() or lastAlive() changed; about once a second while the session streams.
  virtual void sessionMetricsDidUpdate(const std::shared_ptr<QRVSession>& /*session*/) {}
};

// Made by the library only; hosts receive sessions from it and never derive from this class.
class QRVSession {
 public:
  // Called exactly once on the main queue with this session, also when an error is reported.
  // An empty callback is allowed.
  using Callback =
      std::function<void(std::optional<QRVError> error, std::shared_ptr<QRVSession> session)>;

  virtual ~QRVSession() = default;
  QRVSession(const QRVSession&) = delete;
  QRVSession& operator=(const QRVSession&) = delete;

  virtual std::optional<std::string> sessionId() const = 0;
  // What the user reads out to the agent.
  virtual std::optional<std::string> code() const = 0;
  // "pending", "authorizing", "active" or "ended".
  virtual std::optional<std::string> state() const = 0;
  bool isPending() const { return state() == "pending"; }
  bool isAuthorizing() const { return state() == "authorizing"; }
  bool isActive() const { return state() == "active"; }
  bool isEnded() const { return state() == "ended"; }

  // The agent admitted to the session, when the service names one completely.
  virtual std::optional<QRVAgent> agent() const = 0;
  // True when the service sends an agent field at all, even one agent() cannot read.
  virtual bool hasAgent() const = 0;
  virtual bool requireConsent() const = 0;
  virtual QRVConsentState fullDevice() const = 0;
  virtual QRVConsentState remoteControl() const = 0;
  bool allowRemoteControl() const { return remoteControl() == QRVConsentState::on; }
  // The host's data attached to the session, each value in its text form.
  virtual Value::Map customData() const = 0;
  // The capabilities this device offers that the service allows, in a stable order.
  virtual std::vector<std::string> capabilities() const = 0;
  // How far shared frames are scaled down: at most 1.0, 0.5 unless the service says otherwise.
  virtual double scale() const = 0;
  virtual QRVEndedReason endedReason() const = 0;

  virtual std::optional<WallTime> created() const = 0;
  virtual std::optional<WallTime> expires() const = 0;
  virtual std::optional<WallTime> activated() const = 0;
  virtual std::optional<WallTime> updated() const = 0;
  virtual std::optional<WallTime> ended() const = 0;

  // The stream connection's latency in seconds, 0 while unknown.
  virtual double latency() const = 0;
  // When the service last answered a liveness probe.
  virtual std::optional<WallTime> lastAlive() const = 0;

  // The device's changes. Each is sent to the service; the answer updates the session (and tells
  // its observers) before the callback runs.
  // Activates the session with this device's information and custom data.
  virtual void activate(Callback callback) = 0;
  virtual void end(Callback callback) = 0;
  // The user's answer to a consent request. The current state completes at once, sending nothing.
  virtual void setFullDevice(QRVConsentState state, Callback callback) = 0;
  virtual void setRemoteControl(QRVConsentState state, Callback callback) = 0;
  // An ended session refuses with code 400 and sends nothing.
  virtual void setCustomData(Value::Map customData, Callback callback) = 0;
  // Replaces the offered capabilities, all on.
  virtual void setCapabilities(const std::vector<std::string>& capabilities, Callback callback) = 0;

  // Registering the same observer twice tells it once.
  virtual void registerSessionObserver(std::shared_ptr<QRVSessionObserver> observer) = 0;
  virtual void removeSessionObserver(const std::shared_ptr<QRVSessionObserver>& observer) = 0;

 protected:
  QRVSession() = default;
};

}  // namespace quorvix

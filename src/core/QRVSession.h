// One co-browsing engagement as the service describes it. Holds the service's last answer for
// the session, reads typed values from it, sends the device's changes as partial PUTs, and tells
// its observers about every accepted update and, once, about the end. Main queue only.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "capabilities/QRVCapabilities.h"
#include "core/QRVAgent.h"
#include "core/QRVRESTResource.h"
#include "core/QRVSessionMetrics.h"
#include "quorvix/Executor.h"
#include "redaction/QRVSelector.h"

namespace quorvix {

class QRVSession;

// Consent of the user to full-device sharing or remote control; the setters send these names.
enum class QRVConsentState { off = 0, requested = 1, rejected = 2, on = 3 };
const char* consentStateName(QRVConsentState state);

enum class QRVEndedReason {
  none = 0,
  deviceEnded = 1,
  agentEnded = 2,
  pendingTimeout = 3,
  authorizingTimeout = 4,
  activeTimeout = 5,
  limitEnforcement = 6,
};

class QRVSessionObserver {
 public:
  virtual ~QRVSessionObserver() = default;
  virtual void sessionDidEnd(const std::shared_ptr<QRVSession>& session) = 0;
  virtual void sessionDidUpdate(const std::shared_ptr<QRVSession>&) {}
  virtual void sessionDidUpdate(const std::shared_ptr<QRVSession>&,
                                const std::shared_ptr<QRVSession>& /*previousSession*/) {}
  virtual void sessionMetricsDidUpdate(const std::shared_ptr<QRVSession>&) {}
};

// A domain mapped to its selector texts.
using QRVWebviewSelectors = std::map<std::string, std::vector<std::string>, std::less<>>;

class QRVSession : public QRVRESTResource {
 public:
  using Callback =
      std::function<void(std::optional<QRVError> error, std::shared_ptr<QRVSession> session)>;

  static constexpr const char* kSessionTokenHeader = "X-QuorviDeviceToken";
  static constexpr float kDefaultScale = 0.5f;

  // An empty session, without a session token. The executor runs the metrics reports (default:
  // the main queue).
  explicit QRVSession(std::shared_ptr<Executor> executor = {});
  // A session holding `resource` as it is (no validation, no notification) and a new token.
  explicit QRVSession(Value::Map resource, std::shared_ptr<Executor> executor = {});

  // "api/1/sessions/<id or code>", or "api/1/sessions" for nothing.
  static std::optional<QRVURL> url(const std::optional<std::string>& idOrCode);
  std::optional<QRVURL> url() const override;

  void setSessionToken(const std::string& token);
  std::optional<std::string> sessionToken() const;

  // Validates a server answer, stores it and notifies the observers. An answer that is not a
  // session leaves everything as it was and is reported with code 0.
  std::optional<QRVError> updateResource(const std::optional<Value>& value) override;

  void fetch(Callback callback);
  // POSTs the current resource; the answer becomes the session.
  void create(Callback callback);
  // PUTs the body, with "capabilities" set to this session's own list.
  void update(Value::Map body, Callback callback);
  // Removes every observer, then clears the resource.
  void cleanup() override;

  void registerSessionObserver(std::shared_ptr<QRVSessionObserver> observer);
  void removeSessionObserver(const std::shared_ptr<QRVSessionObserver>& observer);

  // The device's changes.
  void activate(Callback callback);
  void end(Callback callback);
  void setFullDevice(QRVConsentState state, Callback callback);
  void setRemoteControl(QRVConsentState state, Callback callback);
  void setCustomData(Value::Map customData, Callback callback);
  void setCapabilities(const std::vector<std::string>& capabilities, Callback callback);
  // Replaces the capability set without telling the service.
  void setCapabilities(const std::vector<std::string>& capabilities);

  // Typed values of the service's fields.
  std::optional<std::string> sessionId() const;
  std::optional<std::string> code() const;
  std::optional<std::string> state() const;
  bool isPending() const;
  bool isAuthorizing() const;
  bool isActive() const;
  bool isEnded() const;
  std::optional<QRVAgent> agent() const;
  bool hasAgent() const;
  bool requireConsent() const;
  QRVConsentState fullDevice() const;
  QRVConsentState remoteControl() const;
  bool allowRemoteControl() const { return remoteControl() == QRVConsentState::on; }
  Value::Map customData() const;
  // The local set's names that are on, narrowed to the service's list when it sends one.
  std::vector<std::string> capabilities() const;
  const std::optional<QRVCapabilities>& capabilitySet() const { return capabilities_; }
  std::optional<QRVCapabilities>& capabilitySet() { return capabilities_; }
  QRVSelectorSet redactedSelectors() const;
  QRVSelectorSet unredactedSelectors() const;
  std::vector<QRVWebviewSelectors> webviewRedactedSelectors() const;
  std::vector<QRVWebviewSelectors> webviewUnredactedSelectors() const;
  const Value* videoCodecs() const { return field("video_codecs"); }
  // The service's scale in single precision, at most 1.0; 0.5 when it sends none.
  double scale() const;
  QRVEndedReason endedReason() const;
  std::optional<WallTime> created() const;
  std::optional<WallTime> expires() const;
  std::optional<WallTime> activated() const;
  std::optional<WallTime> updated() const;
  std::optional<WallTime> ended() const;

  QRVSessionMetrics& metrics() { return *metrics_; }

  static QRVWebviewSelectors webviewSelectorFromMap(const Value::Map& map);

 private:
  std::shared_ptr<QRVSession> self();
  void send(Value::Map body, Callback callback);
  std::optional<WallTime> date(std::string_view key) const;
  QRVSelectorSet selectors(std::string_view key) const;
  std::vector<QRVWebviewSelectors> webviewSelectors(std::string_view key) const;

  const std::shared_ptr<Executor> executor_;
  std::set<std::shared_ptr<QRVSessionObserver>> observers_;
  std::optional<QRVCapabilities> capabilities_;
  // How the metrics listener reaches the session: weakly, so that a tick racing the session's
  // release on another thread finds it gone rather than freed. Set once observers register.
  struct WeakSelf;
  const std::shared_ptr<WeakSelf> weakSelf_;
  std::unique_ptr<QRVSessionMetrics> metrics_;
};

}  // namespace quorvix

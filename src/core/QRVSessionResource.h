// The service's session resource behind the public QRVSession: holds the service's last answer
// for the session, reads typed values from it, sends the device's changes as partial PUTs, and
// tells its observers about every accepted update and, once, about the end. What a host must not
// reach (addresses, the session token, selectors, the metrics object) stays here. Main queue only.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "capabilities/QRVCapabilities.h"
#include "core/QRVRESTResource.h"
#include "core/QRVSessionMetrics.h"
#include "quorvix/Executor.h"
#include "quorvix/QRVSession.h"
#include "redaction/QRVSelector.h"

namespace quorvix {

// The wire name the setters send.
const char* consentStateName(QRVConsentState state);

// A domain mapped to its selector texts.
using QRVWebviewSelectors = std::map<std::string, std::vector<std::string>, std::less<>>;

class QRVSessionResource : public QRVRESTResource, public QRVSession {
 public:
  using Callback = QRVSession::Callback;

  static constexpr const char* kSessionTokenHeader = "X-QuorviDeviceToken";
  static constexpr float kDefaultScale = 0.5f;

  // An empty session, without a session token. The executor runs the metrics reports (default:
  // the main queue).
  explicit QRVSessionResource(std::shared_ptr<Executor> executor = {});
  // A session holding `resource` as it is (no validation, no notification) and a new token.
  explicit QRVSessionResource(Value::Map resource, std::shared_ptr<Executor> executor = {});

  // "api/1/sessions/<id or code>", or "api/1/sessions" for nothing.
  static std::optional<QRVURL> url(const std::optional<std::string>& idOrCode);
  std::optional<QRVURL> url() const override;

  void setSessionToken(const std::string& token);
  std::optional<std::string> sessionToken() const;

  // Validates a server answer, stores it and notifies the observers. An answer that is not a
  // session leaves everything as it was and is reported with code 0.
  std::optional<QRVError> updateResource(const std::optional<Value>& value) override;

  void fetch(Callback callback);
  // POSTs the current resource; the answer becomes the session. A failure gives no session.
  void create(Callback callback);
  // PUTs the body, with "capabilities" set to this session's own list.
  void update(Value::Map body, Callback callback);
  // Removes every observer, then clears the resource.
  void cleanup() override;

  void registerSessionObserver(std::shared_ptr<QRVSessionObserver> observer) override;
  void removeSessionObserver(const std::shared_ptr<QRVSessionObserver>& observer) override;

  void activate(Callback callback) override;
  void end(Callback callback) override;
  void setFullDevice(QRVConsentState state, Callback callback) override;
  void setRemoteControl(QRVConsentState state, Callback callback) override;
  void setCustomData(Value::Map customData, Callback callback) override;
  void setCapabilities(const std::vector<std::string>& capabilities, Callback callback) override;
  // Switches on what an agent needs on a shared screen (pointer, keys, every annotation tool),
  // whatever the full-device state; sends nothing.
  void toggleCapabilitiesForFullDeviceState(QRVConsentState state);
  // Replaces the capability set without telling the service.
  void setCapabilities(const std::vector<std::string>& capabilities);

  std::optional<std::string> sessionId() const override;
  std::optional<std::string> code() const override;
  std::optional<std::string> state() const override;
  std::optional<QRVAgent> agent() const override;
  bool hasAgent() const override;
  bool requireConsent() const override;
  QRVConsentState fullDevice() const override;
  QRVConsentState remoteControl() const override;
  Value::Map customData() const override;
  // The local set's names that are on, narrowed to the service's list when it sends one.
  std::vector<std::string> capabilities() const override;
  const std::optional<QRVCapabilities>& capabilitySet() const { return capabilities_; }
  std::optional<QRVCapabilities>& capabilitySet() { return capabilities_; }
  QRVSelectorSet redactedSelectors() const;
  QRVSelectorSet unredactedSelectors() const;
  std::vector<QRVWebviewSelectors> webviewRedactedSelectors() const;
  std::vector<QRVWebviewSelectors> webviewUnredactedSelectors() const;
  const Value* videoCodecs() const { return field("video_codecs"); }
  // The service's scale in single precision, at most 1.0; 0.5 when it sends none.
  double scale() const override;
  QRVEndedReason endedReason() const override;
  std::optional<WallTime> created() const override;
  std::optional<WallTime> expires() const override;
  std::optional<WallTime> activated() const override;
  std::optional<WallTime> updated() const override;
  std::optional<WallTime> ended() const override;

  double latency() const override { return metrics_->latency(); }
  std::optional<WallTime> lastAlive() const override { return metrics_->lastAlive(); }
  QRVSessionMetrics& metrics() { return *metrics_; }

  static QRVWebviewSelectors webviewSelectorFromMap(const Value::Map& map);

 private:
  std::shared_ptr<QRVSessionResource> self();
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

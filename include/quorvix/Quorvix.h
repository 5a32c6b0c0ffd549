// The library's entry point. The host sets its account key (and whatever else it configures),
// starts the library, and creates or joins sessions; from then on an agent can see the screen
// and, with the user's consent, point, draw and control it.
//
//   auto& quorvix = quorvix::Quorvix::instance();
//   quorvix.setLicense("...");
//   quorvix.setDelegate(myDelegate);
//   quorvix.start();
//   quorvix.createSession([](auto error, auto session) { /* show session->code() */ });
//
// Threads: configure from any one thread before start(); start(), stop() and the session
// operations hop to the main queue (quorvix/Executor.h) and wait for it. Completions and the
// delegate run on the main queue.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quorvix/QRVError.h"
#include "quorvix/QRVSession.h"
#include "quorvix/QRVURLSession.h"
#include "quorvix/QuorvixDelegate.h"
#include "quorvix/Value.h"

namespace quorvix {

// Code the host adds to the library: each is configured once the library has started.
class QRVIntegration {
 public:
  virtual ~QRVIntegration() = default;
  virtual std::string name() const = 0;
  virtual void configure() = 0;
  static void addIntegration(std::shared_ptr<QRVIntegration> integration);
  static void initializeIntegrations();
};

class Quorvix {
 public:
  using SessionCallback =
      std::function<void(std::optional<QRVError> error, std::shared_ptr<QRVSession> session)>;
  using StopCallback = std::function<void(std::optional<QRVError> error)>;
  using Selectors = std::vector<std::string>;
  using DomainSelectors = std::map<std::string, Selectors, std::less<>>;

  static constexpr const char* kVersion = "3.13.2";
  // The service the library talks to unless setApi() names another.
  static constexpr const char* kDefaultApi = "https://api.quorvix.io/";

  // The one instance of the process, made on first use and never released.
  static Quorvix& instance();
  Quorvix(const Quorvix&) = delete;
  Quorvix& operator=(const Quorvix&) = delete;

  static const char* version() { return kVersion; }
  bool isStarted() const;
  // Needs an account key; registers the device and rejoins a session the mirror holds.
  Quorvix& start();
  // Ends an active session and deregisters the device.
  Quorvix& stop();
  // With registration off the completion is never called: nothing is deregistered.
  Quorvix& stop(StopCallback completion);

  // Configuration. Setters marked "locked" log an error and change nothing once started.
  void setApi(const std::string& api);  // locked
  std::string api() const;
  void setLicense(const std::string& license);  // locked
  std::string license() const;
  void setUrlSession(std::shared_ptr<QRVURLSession> session);  // locked
  void setRegistration(bool registration);                     // locked
  bool registration() const;
  // Keeps the supported names, in order (locked).
  void setCapabilities(const std::vector<std::string>& capabilities);
  // The active session's while one is current, else the configured list.
  std::vector<std::string> capabilities() const;
  void setRedactedViews(const Selectors& selectors);    // locked
  void setUnredactedViews(const Selectors& selectors);  // locked
  Selectors redactedViews() const;
  Selectors unredactedViews() const;
  // Per domain, "*" for every domain (locked).
  void setWebviewRedactedViews(const Selectors& selectors, const std::string& domain = "*");
  void setWebviewUnredactedViews(const Selectors& selectors, const std::string& domain = "*");
  Selectors webviewRedactedViews(const std::string& domain = "*") const;
  Selectors webviewUnredactedViews(const std::string& domain = "*") const;
  DomainSelectors allWebviewRedactedViews() const;
  DomainSelectors allWebviewUnredactedViews() const;
  // Merged into the device's data; sent to the service when anything changed.
  void setCustomData(const Value::Map& customData);
  Value::Map customData() const;
  void setDelegate(std::shared_ptr<QuorvixDelegate> delegate);
  // Off (0) by default. Above 0, frames are held back while the stream connection's measured
  // latency exceeds this many seconds, on top of the fixed limit of frames in flight: on a slow
  // link the agent then sees fewer but younger pictures.
  void setLatencyBound(double seconds);
  double latencyBound() const;
  std::string deviceId() const;

  // Sessions.
  Quorvix& createSession(SessionCallback callback);
  // By id or by the code the user reads out.
  Quorvix& getSession(const std::string& idOrCode, SessionCallback callback);
  std::shared_ptr<QRVSession> currentSession() const;

  // Push notifications.
  static void setDeviceToken(const std::optional<Value::Bytes>& token);
  static void onPushNotification(const Value::Map& payload);
  static bool isQuorviNotification(const Value::Map& payload);

  struct Impl;

 private:
  Quorvix();
  std::shared_ptr<Impl> impl_;
};

}  // namespace quorvix

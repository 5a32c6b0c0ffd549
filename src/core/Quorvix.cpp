#include "quorvix/Quorvix.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <mutex>
#include <set>

#include "capabilities/QRVCapabilities.h"
#include "core/QRVDevice.h"
#include "core/QRVDeviceInfo.h"
#include "core/QRVRequest.h"
#include "core/QRVSessionResource.h"
#include "push/QRVPush.h"
#include "redaction/QRVSelectorParser.h"
#include "session/QRVSessionContext.h"
#include "storage/QRVKeychain.h"
#include "utils/Invokers.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

std::shared_ptr<spdlog::logger> logger() {
  static const auto log = QRV_LOGGER_FOR("Quorvix");
  return log;
}

std::mutex integrationsMutex;
std::vector<std::shared_ptr<QRVIntegration>>& integrations() {
  static std::vector<std::shared_ptr<QRVIntegration>> all;
  return all;
}

constexpr const char* kMirrorKeys[] = {"io.quorvi.api", "io.quorvi.license", "io.quorvi.device",
                                       "io.quorvi.session", "io.quorvi.session-token"};

}  // namespace

void QRVIntegration::addIntegration(std::shared_ptr<QRVIntegration> integration) {
  if (!integration)
    return;
  std::lock_guard lock(integrationsMutex);
  auto& all = integrations();
  if (std::find(all.begin(), all.end(), integration) == all.end())
    all.push_back(std::move(integration));
}

void QRVIntegration::initializeIntegrations() {
  std::vector<std::shared_ptr<QRVIntegration>> all;
  {
    std::lock_guard lock(integrationsMutex);
    all = integrations();
  }
  for (const auto& integration : all) {
    logger()->debug("Initialised Quorvix integration for {}", integration->name());
    integration->configure();
  }
}

// The facade's state and its roles towards the session (observer) and the context (the host's
// selector lists). Touched on the main queue, or by configuration calls before start.
struct Quorvix::Impl : QRVSessionObserver,
                       QRVSessionContextDelegate,
                       std::enable_shared_from_this<Quorvix::Impl> {
  std::shared_ptr<QRVSessionContext> context;
  std::shared_ptr<QuorvixDelegate> delegate;
  bool started = false;
  DomainSelectors webviewRedactedViews;
  DomainSelectors webviewUnredactedViews;
  Selectors redacted;
  Selectors unredacted;
  bool registration = true;
  std::string license;
  std::vector<std::string> capabilities;
  double latencyBound = 0;

  std::vector<std::string> redactedViews() const override { return redacted; }
  std::vector<std::string> unredactedViews() const override { return unredacted; }

  std::shared_ptr<QRVSessionResource> current() const {
    return context ? context->session() : nullptr;
  }

  bool lockedWhileStarted(const char* message) const {
    if (started)
      logger()->error("{}", message);
    return started;
  }

  void sessionDidUpdate(const std::shared_ptr<QRVSession>& session) override {
    if (delegate)
      delegate->quorviSessionDidUpdate(session);
    writeSessionToSharedKeychain(session);
  }
  void sessionDidEnd(const std::shared_ptr<QRVSession>& session) override {
    if (delegate)
      delegate->quorviSessionDidEnd(session);
    setCurrentSession(nullptr);
  }
  void sessionMetricsDidUpdate(const std::shared_ptr<QRVSession>& session) override {
    if (delegate)
      delegate->quorviSessionMetricsDidUpdate(session);
  }

  void setCurrentSession(std::shared_ptr<QRVSessionResource> session) {
    if (context) {
      if (auto previous = context->session())
        previous->removeSessionObserver(shared_from_this());
      auto old = std::move(context);
      context.reset();
      old->destroy();
    }
    if (!session)
      return;
    if (auto factory = sessionContextFactory())
      context = factory(session, weak_from_this());
    if (!context) {
      logger()->error("Quorvix: no session context on this platform");
      return;
    }
    context->setDelegate(delegate);
    context->setLatencyBound(latencyBound);
    session->registerSessionObserver(shared_from_this());
  }

  void writeSessionToSharedKeychain(const std::shared_ptr<QRVSession>& session) {
    if (!QRVDeviceInfo::broadcastExtension())
      return;
    const auto group = QRVKeychain::sharedGroup();
    auto currentSession = current();
    if (!session || session->isEnded() || !currentSession) {
      for (const char* key : kMirrorKeys)
        QRVKeychain::clearKey(key, group);
      return;
    }
    const std::string values[] = {QRVRESTResource::baseUrl(), license, QRVDevice::id(),
                                  currentSession->sessionId().value_or(""),
                                  currentSession->sessionToken().value_or("")};
    for (std::size_t i = 0; i < std::size(kMirrorKeys); ++i)
      QRVKeychain::setValue(values[i], kMirrorKeys[i], group);
  }
};

Quorvix& Quorvix::instance() {
  // Never released: hosts may reach it from exit handlers and from other statics' destructors.
  static Quorvix* const quorvix = new Quorvix();
  return *quorvix;
}

Quorvix::Quorvix() : impl_(std::make_shared<Impl>()) {
  QRVDevice::instance()->setOnNotification(
      [](const Value::Map& payload) { Quorvix::onPushNotification(payload); });
  setApi(kDefaultApi);
  const Value::Map info = QRVDeviceInfo::info();
  std::vector<std::string> supported;
  if (auto it = info.find("capabilities"); it != info.end() && it->second.asArray()) {
    for (const auto& name : *it->second.asArray()) {
      if (const std::string* s = name.asString())
        supported.push_back(*s);
    }
  }
  setCapabilities(supported);
}

bool Quorvix::isStarted() const {
  return impl_->started;
}

Quorvix& Quorvix::start() {
  auto impl = impl_;
  runOnMainSync([this, impl] {
    logger()->debug("Quorvix.start");
    if (impl->started)
      return;
    if (impl->license.empty()) {
      logger()->error("Quorvix: You must set a license before calling start()");
      return;
    }
    logger()->debug("Initialised Quorvix SDK {}", kVersion);
    impl->started = true;
    QRVRESTResource::setStaticHeaders({{"X-QuorviPlatform", QRVDeviceInfo::platform()},
                                       {"X-QuorviLicense", impl->license},
                                       {"X-QuorviSDKVersion", kVersion},
                                       {"X-QuorviDevice", QRVDevice::id()}});
    // A session the mirror holds, as a companion process left it.
    if (QRVDeviceInfo::broadcastExtension()) {
      const auto group = QRVKeychain::sharedGroup();
      auto id = QRVKeychain::getValue("io.quorvi.session", group);
      auto token = QRVKeychain::getValue("io.quorvi.session-token", group);
      if (id) {
        getSession(*id, [token](std::optional<QRVError> error, std::shared_ptr<QRVSession> s) {
          if (error) {
            logger()->error("Quorvix: error restoring session {}", error->description());
            return;
          }
          logger()->error("Quorvix: restored session after app restart");
          if (auto resource = std::dynamic_pointer_cast<QRVSessionResource>(s); resource && token)
            resource->setSessionToken(*token);
        });
      }
    }
    if (impl->registration)
      QRVDevice::instance()->runRegistrationLoop();
    QRVIntegration::initializeIntegrations();
  });
  return *this;
}

Quorvix& Quorvix::stop() {
  return stop([](std::optional<QRVError> error) {
    if (error)
      logger()->error("Error stopping Quorvix: {}", error->description());
    else
      logger()->debug("Quorvix Stopped");
    // Started again while the deregistration was under way: register once more.
    auto& quorvix = instance();
    if (quorvix.impl_->started) {
      quorvix.impl_->started = false;
      quorvix.start();
    }
  });
}

Quorvix& Quorvix::stop(StopCallback completion) {
  auto impl = impl_;
  runOnMainSync([impl, completion] {
    if (auto session = impl->current(); session && session->isActive())
      session->end(nullptr);
    impl->writeSessionToSharedKeychain(nullptr);
    if (impl->context) {
      if (auto session = impl->context->session())
        session->removeSessionObserver(impl);
      auto context = std::move(impl->context);
      impl->context.reset();
      context->destroy();
    }
    impl->started = false;
    if (impl->registration) {
      QRVDevice::instance()->deregister(
          [completion](std::optional<QRVError> error, std::shared_ptr<QRVDevice>) {
            if (completion)
              completion(std::move(error));
          });
    }
  });
  return *this;
}

void Quorvix::setApi(const std::string& api) {
  if (api == QRVRESTResource::baseUrl())
    return;
  if (impl_->lockedWhileStarted("Error: Cannot change API once Quorvi is started"))
    return;
  QRVRESTResource::setBaseUrl(api);
}

std::string Quorvix::api() const {
  return QRVRESTResource::baseUrl();
}

void Quorvix::setLicense(const std::string& license) {
  if (license == impl_->license)
    return;
  if (impl_->lockedWhileStarted("Error: Cannot change license once Quorvi is started"))
    return;
  impl_->license = license;
}

std::string Quorvix::license() const {
  return impl_->license;
}

void Quorvix::setUrlSession(std::shared_ptr<QRVURLSession> session) {
  if (impl_->lockedWhileStarted("Error: Cannot change urlSession once Quorvi is started"))
    return;
  setCustomURLSession(std::move(session));
}

void Quorvix::setRegistration(bool registration) {
  if (impl_->lockedWhileStarted(
          "Error: Cannot change auto-registration configuration after Quorvi is started"))
    return;
  impl_->registration = registration;
}

bool Quorvix::registration() const {
  return impl_->registration;
}

void Quorvix::setCapabilities(const std::vector<std::string>& capabilities) {
  if (impl_->lockedWhileStarted("Error: Cannot set capabilities after Quorvi is started"))
    return;
  const auto& supported = QRVCapabilities::kNames;
  std::vector<std::string> kept;
  for (const auto& name : capabilities) {
    if (std::find(supported.begin(), supported.end(), name) == supported.end()) {
      logger()->debug("Warning: Capability '{}' not supported. Ignoring...", name);
      continue;
    }
    kept.push_back(name);
  }
  impl_->capabilities = std::move(kept);
}

std::vector<std::string> Quorvix::capabilities() const {
  if (auto session = impl_->current(); session && session->isActive())
    return session->capabilities();
  return impl_->capabilities;
}

namespace {

// Parsed only to tell the host early; the list is kept as given.
void validate(const Quorvix::Selectors& selectors, const char* message) {
  for (const auto& selector : selectors) {
    if (!QRVSelectorParser::parse(selector))
      logger()->error(fmt::runtime(message), selector);
  }
}

Quorvix::Selectors lookup(const Quorvix::DomainSelectors& map, const std::string& domain) {
  auto it = map.find(domain);
  return it == map.end() ? Quorvix::Selectors{} : it->second;
}

}  // namespace

void Quorvix::setRedactedViews(const Selectors& selectors) {
  if (impl_->lockedWhileStarted("Error: Cannot set redactedViews after Quorvi is started"))
    return;
  validate(selectors, "Failed to parse redaction selector {}");
  impl_->redacted = selectors;
}

void Quorvix::setUnredactedViews(const Selectors& selectors) {
  if (impl_->lockedWhileStarted("Error: Cannot set unredactedViews after Quorvi is started"))
    return;
  validate(selectors, "Failed to parse unredaction selector {}");
  impl_->unredacted = selectors;
}

Quorvix::Selectors Quorvix::redactedViews() const {
  return impl_->redacted;
}
Quorvix::Selectors Quorvix::unredactedViews() const {
  return impl_->unredacted;
}

void Quorvix::setWebviewRedactedViews(const Selectors& selectors, const std::string& domain) {
  if (impl_->lockedWhileStarted("Error: Cannot set webviewRedactedViews after Quorvi is started"))
    return;
  impl_->webviewRedactedViews[domain] = selectors;
}

void Quorvix::setWebviewUnredactedViews(const Selectors& selectors, const std::string& domain) {
  if (impl_->lockedWhileStarted("Error: Cannot set webviewUnredactedViews after Quorvi is started"))
    return;
  impl_->webviewUnredactedViews[domain] = selectors;
}

Quorvix::Selectors Quorvix::webviewRedactedViews(const std::string& domain) const {
  return lookup(impl_->webviewRedactedViews, domain);
}

Quorvix::Selectors Quorvix::webviewUnredactedViews(const std::string& domain) const {
  return lookup(impl_->webviewUnredactedViews, domain);
}

Quorvix::DomainSelectors Quorvix::allWebviewRedactedViews() const {
  return impl_->webviewRedactedViews;
}

Quorvix::DomainSelectors Quorvix::allWebviewUnredactedViews() const {
  return impl_->webviewUnredactedViews;
}

void Quorvix::setCustomData(const Value::Map& customData) {
  auto device = QRVDevice::instance();
  const Value::Map current = device->customData();
  // A subset of what the device already holds changes nothing.
  const bool cached = std::all_of(customData.begin(), customData.end(), [&](const auto& entry) {
    auto it = current.find(entry.first);
    return it != current.end() && it->second == entry.second;
  });
  if (cached) {
    logger()->debug("Supressing customData update as cache matches");
    return;
  }
  Value::Map merged = current;
  for (const auto& [key, value] : customData)
    merged[key] = value;
  device->setCustomData(merged);
  if (!impl_->started)
    return;
  if (impl_->registration)
    device->registerDevice(nullptr);
  if (auto session = impl_->current(); session && session->isActive())
    session->update(Value::Map{{"custom_data", Value(customData)}}, nullptr);
}

Value::Map Quorvix::customData() const {
  return QRVDevice::instance()->customData();
}

void Quorvix::setDelegate(std::shared_ptr<QuorvixDelegate> delegate) {
  impl_->delegate = std::move(delegate);
  if (impl_->context)
    impl_->context->setDelegate(impl_->delegate);
}

void Quorvix::setLatencyBound(double seconds) {
  impl_->latencyBound = std::isfinite(seconds) && seconds > 0 ? seconds : 0;
  if (impl_->context)
    impl_->context->setLatencyBound(impl_->latencyBound);
}

double Quorvix::latencyBound() const {
  return impl_->latencyBound;
}

std::string Quorvix::deviceId() const {
  return QRVDevice::id();
}

std::shared_ptr<QRVSession> Quorvix::currentSession() const {
  return impl_->current();
}

Quorvix& Quorvix::createSession(SessionCallback callback) {
  auto impl = impl_;
  if (!impl->started) {
    InvokeForSession(callback, QRVError("Quorvi not started", 400), nullptr);
    return *this;
  }
  std::shared_ptr<QRVSessionResource> session;
  bool busy = false;
  runOnMainSync([&] {
    if (auto current = impl->current();
        current && (current->isAuthorizing() || current->isActive())) {
      busy = true;
      return;
    }
    session = std::make_shared<QRVSessionResource>(
        Value::Map{{"device", Value(QRVDeviceInfo::info())},
                   {"custom_data", Value(QRVDevice::instance()->customData())}});
    session->setCapabilities(impl->capabilities);
    impl->setCurrentSession(session);
  });
  if (busy) {
    InvokeForSession(callback, QRVError("Already in a session", 400), nullptr);
    return *this;
  }
  session->create([impl, callback](std::optional<QRVError> error, std::shared_ptr<QRVSession> s) {
    if (error) {
      impl->setCurrentSession(nullptr);
      s.reset();
    }
    InvokeForSession(callback, error, s);
    if (impl->delegate)
      impl->delegate->quorviSessionDidLoad(s);
  });
  return *this;
}

Quorvix& Quorvix::getSession(const std::string& idOrCode, SessionCallback callback) {
  auto impl = impl_;
  if (!impl->started) {
    InvokeForSession(callback, QRVError("Quorvi not started", 400), nullptr);
    return *this;
  }
  if (idOrCode.empty()) {
    InvokeForSession(callback, QRVError("Invalid id or code (nil)", 400), nullptr);
    return *this;
  }
  std::shared_ptr<QRVSessionResource> session;
  std::shared_ptr<QRVSessionResource> already;
  runOnMainSync([&] {
    if (auto current = impl->current();
        current && (current->sessionId() == idOrCode || current->code() == idOrCode)) {
      already = current;
      return;
    }
    session = std::make_shared<QRVSessionResource>(Value::Map{{"id", idOrCode}});
    session->setCapabilities(impl->capabilities);
    impl->setCurrentSession(session);
  });
  if (already) {
    InvokeForSession(callback, std::nullopt, std::static_pointer_cast<QRVSession>(already));
    return *this;
  }
  session->fetch(
      [impl, callback, session](std::optional<QRVError> error, std::shared_ptr<QRVSession> s) {
        if (error)
          impl->setCurrentSession(nullptr);
        InvokeForSession(callback, error, error ? nullptr : s);
        // After a failed fetch, the session that failed to load.
        if (impl->delegate)
          impl->delegate->quorviSessionDidLoad(s ? s : session);
      });
  return *this;
}

void Quorvix::setDeviceToken(const std::optional<Value::Bytes>& token) {
  auto& quorvix = instance();
  runOnMainSync([&] {
    QRVDevice::instance()->setToken(token);
    if (quorvix.isStarted())
      QRVDevice::instance()->registerDevice(nullptr);
  });
}

void Quorvix::onPushNotification(const Value::Map& payload) {
  if (!isQuorviNotification(payload))
    return;
  auto it = payload.find(QRVPush::kCodeKey);
  const std::string* code = it == payload.end() ? nullptr : it->second.asString();
  if (!code)
    return;
  instance().getSession(*code, [](std::optional<QRVError> error, std::shared_ptr<QRVSession>) {
    if (error)
      logger()->error("Error joining session {}", error->description());
  });
}

bool Quorvix::isQuorviNotification(const Value::Map& payload) {
  return QRVPush::isQuorviNotification(payload);
}

}  // namespace quorvix

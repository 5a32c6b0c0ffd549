#include "core/QRVSessionResource.h"

#include <cmath>
#include <mutex>

#include "core/QRVDevice.h"
#include "core/QRVDeviceInfo.h"
#include "redaction/QRVSelectorParser.h"
#include "utils/ISO8601.h"
#include "utils/Invokers.h"
#include "utils/UUID.h"

namespace quorvix {
namespace {

QRVConsentState consentState(const Value* v, bool acceptsFlag) {
  if (!v)
    return QRVConsentState::off;
  if (acceptsFlag && v->asBool())
    return *v->asBool() ? QRVConsentState::requested : QRVConsentState::off;
  const std::string* s = v->asString();
  if (!s)
    return QRVConsentState::off;
  if (*s == "requested")
    return QRVConsentState::requested;
  if (*s == "rejected")
    return QRVConsentState::rejected;
  if (*s == "on")
    return QRVConsentState::on;
  return QRVConsentState::off;
}

// A text's truth value as the platform's string-to-bool reads it: after optional spaces, a sign
// and zeros, "Y", "y", "T", "t" or a digit 1-9.
bool textTruth(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n'))
    ++i;
  if (i < s.size() && (s[i] == '+' || s[i] == '-'))
    ++i;
  while (i < s.size() && s[i] == '0')
    ++i;
  if (i == s.size())
    return false;
  char c = s[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

bool truthValue(const Value* v) {
  if (!v)
    return false;
  if (const std::string* s = v->asString())
    return textTruth(*s);
  if (v->isBool() || v->isNumber())
    return v->toDouble().value_or(0) != 0;
  return false;
}

// A session id or code as one path segment: whatever it holds cannot reach another resource.
std::string pathSegment(std::string_view s) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : s) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0x0F];
    }
  }
  return out;
}

}  // namespace

const char* consentStateName(QRVConsentState state) {
  switch (state) {
    case QRVConsentState::requested:
      return "requested";
    case QRVConsentState::rejected:
      return "rejected";
    case QRVConsentState::on:
      return "on";
    case QRVConsentState::off:
      break;
  }
  return "off";
}

struct QRVSessionResource::WeakSelf {
  std::mutex mutex;
  std::weak_ptr<QRVSessionResource> session;

  std::shared_ptr<QRVSessionResource> lock() {
    std::lock_guard guard(mutex);
    return session.lock();
  }
};

QRVSessionResource::QRVSessionResource(std::shared_ptr<Executor> executor)
    : executor_(executor ? std::move(executor) : mainQueue()),
      weakSelf_(std::make_shared<WeakSelf>()),
      metrics_(std::make_unique<QRVSessionMetrics>(
          [weakSelf = weakSelf_] {
            auto me = weakSelf->lock();
            if (!me)
              return;
            auto observers = me->observers_;
            for (const auto& observer : observers)
              observer->sessionMetricsDidUpdate(me);
          },
          executor_)) {}

QRVSessionResource::QRVSessionResource(Value::Map resource, std::shared_ptr<Executor> executor)
    : QRVSessionResource(std::move(executor)) {
  setResource(std::move(resource));
  setSessionToken(makeUUIDString());
}

std::shared_ptr<QRVSessionResource> QRVSessionResource::self() {
  return std::static_pointer_cast<QRVSessionResource>(shared_from_this());
}

std::optional<QRVURL> QRVSessionResource::url(const std::optional<std::string>& idOrCode) {
  if (!idOrCode)
    return endpoint("api/1/sessions");
  return endpoint("api/1/sessions/" + pathSegment(*idOrCode));
}

std::optional<QRVURL> QRVSessionResource::url() const {
  auto id = sessionId();
  return url(id ? id : code());
}

void QRVSessionResource::setSessionToken(const std::string& token) {
  setHeaders({{kSessionTokenHeader, token}});
}

std::optional<std::string> QRVSessionResource::sessionToken() const {
  return instanceHeader(kSessionTokenHeader);
}

std::optional<QRVError> QRVSessionResource::updateResource(const std::optional<Value>& value) {
  const Value::Map* map = value ? value->asMap() : nullptr;
  if (!map)
    return QRVError("Expecting session to be a dictionary", 0);
  auto type = map->find("type");
  if (type == map->end() || !type->second.asString() || *type->second.asString() != "Session")
    return QRVError("Expected a Session resource", 0);
  if (!map->contains("id"))
    return QRVError("Expected session to have an ID", 0);
  if (!map->contains("state"))
    return QRVError("Expected session to have a state field", 0);

  const std::shared_ptr<QRVSession> previous =
      std::make_shared<QRVSessionResource>(resource(), executor_);
  setResource(*map);
  const std::shared_ptr<QRVSession> me = self();
  // A copy: observers may register or remove observers while being told.
  const auto observers = observers_;
  for (const auto& observer : observers) {
    observer->sessionDidUpdateFromPrevious(me, previous);
    observer->sessionDidUpdate(me);
  }
  if (!previous->isEnded() && isEnded())
    for (const auto& observer : observers)
      observer->sessionDidEnd(me);
  return std::nullopt;
}

void QRVSessionResource::send(Value::Map body, Callback callback) {
  QRVRESTResource::update(
      std::move(body), [callback = std::move(callback)](std::optional<QRVError> error,
                                                        std::shared_ptr<QRVRESTResource> resource) {
        InvokeForSession(callback, std::move(error),
                         std::static_pointer_cast<QRVSessionResource>(resource));
      });
}

void QRVSessionResource::fetch(Callback callback) {
  QRVRESTResource::fetch(
      [callback = std::move(callback)](std::optional<QRVError> error,
                                       std::shared_ptr<QRVRESTResource> resource) {
        InvokeForSession(callback, std::move(error),
                         std::static_pointer_cast<QRVSessionResource>(resource));
      });
}

void QRVSessionResource::create(Callback callback) {
  QRVRESTResource::create(
      resource(), [callback = std::move(callback)](std::optional<QRVError> error,
                                                   std::shared_ptr<QRVRESTResource> resource) {
        if (error)
          return InvokeForSession(callback, std::move(error), nullptr);
        InvokeForSession(callback, std::nullopt,
                         std::static_pointer_cast<QRVSessionResource>(resource));
      });
}

void QRVSessionResource::update(Value::Map body, Callback callback) {
  Value::Array names;
  if (capabilities_)
    for (auto& name : capabilities_->toArray())
      names.emplace_back(std::move(name));
  body["capabilities"] = std::move(names);
  send(std::move(body), std::move(callback));
}

void QRVSessionResource::cleanup() {
  observers_.clear();
  QRVRESTResource::cleanup();
}

void QRVSessionResource::registerSessionObserver(std::shared_ptr<QRVSessionObserver> observer) {
  if (!observer)
    return;
  observers_.insert(std::move(observer));
  if (auto me = weak_from_this().lock()) {
    std::lock_guard guard(weakSelf_->mutex);
    weakSelf_->session = std::static_pointer_cast<QRVSessionResource>(me);
  }
}

void QRVSessionResource::removeSessionObserver(
    const std::shared_ptr<QRVSessionObserver>& observer) {
  observers_.erase(observer);
}

void QRVSessionResource::activate(Callback callback) {
  update(Value::Map{{"state", "active"},
                    {"device", QRVDeviceInfo::info()},
                    {"custom_data", QRVDevice::instance()->customData()}},
         std::move(callback));
}

void QRVSessionResource::end(Callback callback) {
  update(Value::Map{{"state", "ended"}}, std::move(callback));
}

void QRVSessionResource::setFullDevice(QRVConsentState state, Callback callback) {
  if (state == fullDevice())
    return InvokeForSession(callback, std::nullopt, self());
  toggleCapabilitiesForFullDeviceState(state);
  update(Value::Map{{"full_device", consentStateName(state)}}, std::move(callback));
}

void QRVSessionResource::toggleCapabilitiesForFullDeviceState(QRVConsentState /*state*/) {
  // Everything an agent needs to work on the shared screen, whatever the answer; they stay on
  // when sharing ends.
  if (capabilities_)
    capabilities_->toggleMultiple(
        {"laser", "drawing", "disappearing_ink", "arrows", "rectangles", "pointer", "keypress"},
        true);
}

void QRVSessionResource::setRemoteControl(QRVConsentState state, Callback callback) {
  if (state == remoteControl())
    return InvokeForSession(callback, std::nullopt, self());
  update(Value::Map{{"remote_control", consentStateName(state)}}, std::move(callback));
}

void QRVSessionResource::setCustomData(Value::Map customData, Callback callback) {
  if (isEnded())
    return InvokeForSession(callback, QRVError("Session ended", 400), self());
  update(Value::Map{{"custom_data", std::move(customData)}}, std::move(callback));
}

void QRVSessionResource::setCapabilities(const std::vector<std::string>& capabilities,
                                         Callback callback) {
  setCapabilities(capabilities);
  update(Value::Map{}, std::move(callback));
}

void QRVSessionResource::setCapabilities(const std::vector<std::string>& capabilities) {
  capabilities_ = QRVCapabilities(capabilities);
}

std::optional<std::string> QRVSessionResource::sessionId() const {
  return stringField("id");
}

std::optional<std::string> QRVSessionResource::code() const {
  return stringField("code");
}

std::optional<std::string> QRVSessionResource::state() const {
  return stringField("state");
}

std::optional<QRVAgent> QRVSessionResource::agent() const {
  return QRVAgent::from(field("agent"));
}

bool QRVSessionResource::hasAgent() const {
  return field("agent") != nullptr;
}

bool QRVSessionResource::requireConsent() const {
  return truthValue(field("require_consent"));
}

QRVConsentState QRVSessionResource::fullDevice() const {
  return consentState(field("full_device"), true);
}

QRVConsentState QRVSessionResource::remoteControl() const {
  return consentState(field("remote_control"), false);
}

Value::Map QRVSessionResource::customData() const {
  Value::Map out;
  const Value* data = field("custom_data");
  if (const Value::Map* map = data ? data->asMap() : nullptr)
    for (const auto& [key, value] : *map)
      out.emplace(key, renderText(value));
  return out;
}

std::vector<std::string> QRVSessionResource::capabilities() const {
  std::vector<std::string> names;
  if (capabilities_)
    names = capabilities_->toArray();
  const Value* allowed = field("capabilities");
  if (!allowed)
    return names;
  // Present but not a list: the service allows nothing it could name.
  const Value::Array* list = allowed->asArray();
  std::erase_if(names, [&](const std::string& name) {
    return !list || std::find(list->begin(), list->end(), Value(name)) == list->end();
  });
  return names;
}

QRVSelectorSet QRVSessionResource::selectors(std::string_view key) const {
  QRVSelectorSet out;
  const Value* field = this->field(key);
  const Value::Array* list = field ? field->asArray() : nullptr;
  if (!list)
    return out;
  for (const Value& item : *list) {
    std::optional<QRVSelector> selector;
    if (const std::string* text = item.asString())
      selector = QRVSelectorParser::parse(*text);
    else if (item.isArray())
      selector = QRVSelector::from(item);
    if (selector)
      out.insert(std::move(*selector));
  }
  return out;
}

QRVSelectorSet QRVSessionResource::redactedSelectors() const {
  return selectors("redaction_selectors");
}

QRVSelectorSet QRVSessionResource::unredactedSelectors() const {
  return selectors("unredaction_selectors");
}

QRVWebviewSelectors QRVSessionResource::webviewSelectorFromMap(const Value::Map& map) {
  QRVWebviewSelectors out;
  for (const auto& [domain, value] : map) {
    const Value::Array* list = value.asArray();
    if (!list)
      continue;
    auto& texts = out[domain];
    for (const Value& item : *list)
      if (const std::string* text = item.asString())
        texts.push_back(*text);
  }
  return out;
}

std::vector<QRVWebviewSelectors> QRVSessionResource::webviewSelectors(std::string_view key) const {
  std::vector<QRVWebviewSelectors> out;
  const Value* field = this->field(key);
  const Value::Array* list = field ? field->asArray() : nullptr;
  if (!list)
    return out;
  for (const Value& item : *list)
    if (const Value::Map* map = item.asMap())
      out.push_back(webviewSelectorFromMap(*map));
  return out;
}

std::vector<QRVWebviewSelectors> QRVSessionResource::webviewRedactedSelectors() const {
  return webviewSelectors("webview_redaction_selectors");
}

std::vector<QRVWebviewSelectors> QRVSessionResource::webviewUnredactedSelectors() const {
  return webviewSelectors("webview_unredaction_selectors");
}

double QRVSessionResource::scale() const {
  const Value* v = field("scale");
  std::optional<double> number = v ? v->toDouble() : std::nullopt;
  if (!number || std::isnan(*number))
    return kDefaultScale;
  const float scale = static_cast<float>(*number);
  return scale >= 1.0f ? 1.0 : static_cast<double>(scale);
}

QRVEndedReason QRVSessionResource::endedReason() const {
  static const std::pair<const char*, QRVEndedReason> kReasons[] = {
      {"device_ended", QRVEndedReason::deviceEnded},
      {"agent_ended", QRVEndedReason::agentEnded},
      {"pending_timeout", QRVEndedReason::pendingTimeout},
      {"authorizing_timeout", QRVEndedReason::authorizingTimeout},
      {"active_timeout", QRVEndedReason::activeTimeout},
      {"limit_enforcement", QRVEndedReason::limitEnforcement},
  };
  auto reason = stringField("ended_reason");
  if (reason)
    for (const auto& [name, value] : kReasons)
      if (*reason == name)
        return value;
  return QRVEndedReason::none;
}

std::optional<WallTime> QRVSessionResource::date(std::string_view key) const {
  auto value = stringField(key);
  return value ? parseISO8601FractionalDate(*value) : std::nullopt;
}

std::optional<WallTime> QRVSessionResource::created() const {
  return date("created");
}

std::optional<WallTime> QRVSessionResource::expires() const {
  return date("expires");
}

std::optional<WallTime> QRVSessionResource::activated() const {
  return date("activated");
}

std::optional<WallTime> QRVSessionResource::updated() const {
  return date("updated");
}

std::optional<WallTime> QRVSessionResource::ended() const {
  return date("ended");
}

}  // namespace quorvix

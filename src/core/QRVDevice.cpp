#include "core/QRVDevice.h"

#include <algorithm>
#include <cassert>
#include <mutex>

#include "core/QRVDeviceInfo.h"
#include "storage/QRVKeychain.h"
#include "utils/Invokers.h"
#include "utils/Logging.h"
#include "utils/UUID.h"

namespace quorvix {
namespace {

auto logger() {
  static auto l = QRV_LOGGER_FOR("QRVDevice");
  return l;
}

}  // namespace

std::shared_ptr<QRVDevice> QRVDevice::instance() {
  static const auto device = std::make_shared<QRVDevice>();
  return device;
}

QRVDevice::QRVDevice(Environment environment)
    : executor_(environment.executor ? environment.executor : mainQueue()),
      socketEnvironment_(std::move(environment.socket)) {}

QRVDevice::~QRVDevice() {
  nextRegistration_.cancel();
  if (notificationSocket_)
    notificationSocket_->disconnect();
}

std::shared_ptr<QRVDevice> QRVDevice::self() {
  return std::static_pointer_cast<QRVDevice>(shared_from_this());
}

std::string QRVDevice::id() {
  static const std::string id = loadId();
  return id;
}

std::string QRVDevice::loadId() {
  const std::string key = QRVBundle::main().identifier + "." + QRVKeychain::kDeviceKey;
  const auto group = QRVKeychain::privateGroup();
  if (auto stored = QRVKeychain::getValue(key, group); stored && !stored->empty())
    return *stored;
  std::string id = makeUUIDString();
  QRVKeychain::setValue(id, key, group);
  return id;
}

std::optional<QRVURL> QRVDevice::url() const {
  return endpoint("api/1/devices/" + id());
}

std::string QRVDevice::stringWithDeviceToken(const std::optional<Value::Bytes>& token) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  if (!token)
    return out;
  out.reserve(token->size() * 2);
  for (std::uint8_t b : *token) {
    out += kHex[b >> 4];
    out += kHex[b & 0x0F];
  }
  return out;
}

void QRVDevice::setCustomData(const Value::Map& customData) {
  for (const auto& [key, value] : customData)
    customData_[key] = value;
}

std::optional<std::string> QRVDevice::notificationUrl() const {
  return stringField("notification_url");
}

std::optional<std::string> QRVDevice::notificationToken() const {
  return stringField("notification_token");
}

std::uint64_t QRVDevice::registrationInterval() const {
  const Value* v = field("next_registration");
  if (!v || !v->isNumber())
    return 0;
  return v->toUInt64().value_or(0);
}

Value::Map QRVDevice::registrationBody() const {
  return Value::Map{
      {"push_token", stringWithDeviceToken(token_)},
      {"push_provider", "APNS"},
      {"device", QRVDeviceInfo::info()},
      {"custom_data", customData_},
  };
}

void QRVDevice::registerDevice(Callback callback) {
  registerThen([callback = std::move(callback)](std::optional<QRVError> error,
                                                std::shared_ptr<QRVDevice> device) {
    InvokeForDevice(callback, std::move(error), std::move(device));
  });
}

void QRVDevice::registerThen(Callback then) {
  assertConfined();
  update(registrationBody(),
         [then = std::move(then), generation = loopGeneration_](
             std::optional<QRVError> error, std::shared_ptr<QRVRESTResource> resource) mutable {
           auto device = std::static_pointer_cast<QRVDevice>(resource);
           device->onExecutor(
               [device, error = std::move(error), then = std::move(then), generation]() mutable {
                 if (error)
                   logger()->error("Quorvix registration error: {}", error->description());
                 // After a reset or deregistration the socket is not this answer's to reopen.
                 if (generation == device->loopGeneration_)
                   device->updateNotificationSocket();
                 then(std::move(error), device);
               });
         });
}

void QRVDevice::onExecutor(Task task) {
  // Already there when the device lives on the main queue, where REST answers arrive.
  if (executor_ == mainQueue())
    task();
  else
    executor_->post(std::move(task));
}

void QRVDevice::assertConfined() const {
  assert(executor_->isCurrent() && "QRVDevice used off its executor");
}

double QRVDevice::failureDelay(std::int64_t attempt) {
  const double delay = 15.0 * static_cast<double>(attempt);
  return delay <= 5 ? 5 : std::min(delay, kDefaultRegistrationInterval);
}

void QRVDevice::runRegistrationLoop() {
  reset();
  loop(0, loopGeneration_);
}

void QRVDevice::loop(std::int64_t attempt, std::uint64_t generation) {
  assertConfined();
  if (nextRegistration_.isActive() || generation != loopGeneration_)
    return;
  registerThen(
      [attempt, generation](std::optional<QRVError> error, std::shared_ptr<QRVDevice> device) {
        // A reset since this registration was sent started another loop, or ended this one.
        if (generation != device->loopGeneration_ || device->nextRegistration_.isActive()) {
          logger()->debug("A registration answer of a replaced loop was set aside");
          return;
        }
        double delay = error ? failureDelay(attempt) : double(device->registrationInterval());
        if (delay == 0)
          delay = kDefaultRegistrationInterval;
        // Beyond what the clock can count in nanoseconds; a service asking for more gets decades.
        delay = std::min(delay, kMaxRegistrationInterval);
        const std::int64_t next = error ? attempt + 1 : 0;
        std::weak_ptr<QRVDevice> weak = device;
        device->nextRegistration_ =
            device->executor_->postAfter(seconds(delay), [weak, next, generation] {
              if (auto device = weak.lock()) {
                device->nextRegistration_ = TaskHandle();
                device->loop(next, generation);
              }
            });
      });
}

void QRVDevice::reset() {
  cleanup();
  stopLoopAndSocket();
}

void QRVDevice::stopLoopAndSocket() {
  ++loopGeneration_;
  nextRegistration_.cancel();
  nextRegistration_ = TaskHandle();
  if (auto socket = std::exchange(notificationSocket_, nullptr))
    socket->disconnect();
}

void QRVDevice::deregister(Callback callback) {
  assertConfined();
  customData_.clear();
  stopLoopAndSocket();
  deleteResource([callback = std::move(callback)](std::optional<QRVError> error,
                                                  std::shared_ptr<QRVRESTResource> resource) {
    InvokeForDevice(callback, std::move(error), std::static_pointer_cast<QRVDevice>(resource));
  });
  cleanup();
}

void QRVDevice::updateNotificationSocket() {
  assertConfined();
  if (notificationToken() && notificationUrl())
    openNotificationSocket();
  else
    closeNotificationSocket();
}

void QRVDevice::openNotificationSocket() {
  if (notificationSocket_)
    return;
  std::weak_ptr<QRVDevice> weak = self();
  // Built at every connection, from whatever address and token the resource then holds.
  auto request = [weak]() -> QRVSocketRequest {
    auto device = weak.lock();
    auto base = baseNSURL();
    if (device && base) {
      if (auto request = QRVRequest::socketRequest(device->notificationUrl(),
                                                   device->notificationToken().value_or(""),
                                                   device->headers(), *base))
        return *request;
    }
    logger()->error("Quorvix: the notification address cannot be resolved");
    return QRVSocketRequest{};  // fails to connect, and the socket tries again later
  };
  auto environment = socketEnvironment_;
  if (!environment.executor)
    environment.executor = executor_;
  auto socket = CBORSocket::create(QRVRequest::urlSession(), request, environment);
  socket->setMaxReconnectDelay(kMaxNotificationReconnectDelay);
  std::weak_ptr<CBORSocket> weakSocket = socket;
  socket->onConnect([weakSocket] {
    if (auto socket = weakSocket.lock())
      socket->send("filter", Value::Map{{"events", Value::Array{"probe", "notification"}}});
  });
  socket->onMessage("notification", [weak](const Value::Map& data) {
    if (auto device = weak.lock(); device && device->onNotification_)
      device->onNotification_(data);
  });
  socket->onMessage("probe", [weakSocket](const Value::Map& data) {
    if (auto socket = weakSocket.lock())
      socket->send("alive", data);
  });
  socket->onDisconnect([weak, weakSocket](const std::optional<QRVError>& error) {
    if (!error)
      return;
    logger()->error("Quorvix disconnected due to error {}", error->description());
    auto device = weak.lock();
    // Refused for a reason that retrying will not cure; a later registration may reopen it.
    if (device && error->code() >= 400 && error->code() < 500 &&
        device->notificationSocket_ == weakSocket.lock())
      device->closeNotificationSocket();
  });
  notificationSocket_ = std::move(socket);
}

void QRVDevice::closeNotificationSocket() {
  if (!notificationSocket_)
    return;
  logger()->error("Quorvix: Closing socket");
  std::exchange(notificationSocket_, nullptr)->disconnect();
}

}  // namespace quorvix

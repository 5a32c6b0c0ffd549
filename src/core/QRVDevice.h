// This installation of the host application as the service knows it: its stable id, custom
// data and push token, a registration kept fresh on the schedule the service asks for, and the
// notification socket on which the service asks the device to join a session or to show that
// it is alive. Confined to its executor (the main queue unless given another): REST answers,
// which arrive on the main queue, are taken up there; the host's completions run on the main
// queue.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/QRVRESTResource.h"
#include "quorvix/Executor.h"
#include "quorvix/Value.h"
#include "web-socket/CBORSocket.h"

namespace quorvix {

class QRVDevice : public QRVRESTResource {
 public:
  using Callback =
      std::function<void(std::optional<QRVError> error, std::shared_ptr<QRVDevice> device)>;
  using NotificationCallback = std::function<void(const Value::Map& data)>;

  static constexpr double kDefaultRegistrationInterval = 3600;
  static constexpr double kMaxNotificationReconnectDelay = 60;
  static constexpr double kMaxRegistrationInterval = 1e9;

  // What the device runs on; left empty, the main queue and the notification socket's defaults.
  struct Environment {
    std::shared_ptr<Executor> executor;
    CBORSocket::Environment socket;
  };

  // The one device of the process, made on first use.
  static std::shared_ptr<QRVDevice> instance();
  explicit QRVDevice(Environment environment = {});
  ~QRVDevice() override;

  // The device id: read from the keychain's private group, or made (a new upper-case UUID) and
  // stored there. Computed once per process.
  static std::string id();
  // The same, without the process-wide cache.
  static std::string loadId();
  std::optional<QRVURL> url() const override;

  const std::optional<Value::Bytes>& token() const { return token_; }
  void setToken(std::optional<Value::Bytes> token) { token_ = std::move(token); }
  // Lower-case hexadecimal, two digits per byte; "" for no token.
  static std::string stringWithDeviceToken(const std::optional<Value::Bytes>& token);

  Value::Map customData() const { return customData_; }
  // Merges: the keys given are set, the others kept.
  void setCustomData(const Value::Map& customData);

  // The service's fields.
  std::optional<std::string> notificationUrl() const;
  std::optional<std::string> notificationToken() const;
  // Seconds; 0 when the service names none.
  std::uint64_t registrationInterval() const;

  // The body of a registration PUT.
  Value::Map registrationBody() const;
  // PUTs the registration; the answer replaces the resource and the notification socket
  // follows it. Does not touch the loop's schedule.
  void registerDevice(Callback callback);
  // Empties the custom data, closes the socket, stops the loop, sends DELETE and clears the
  // resource at once.
  void deregister(Callback callback);
  // Resets, then registers now and again at the service's interval (or after failures at a
  // growing delay). There is only ever one loop.
  void runRegistrationLoop();
  // The delay before the next registration after attempt `attempt` failed.
  static double failureDelay(std::int64_t attempt);
  // Clears the resource, stops the loop and closes the socket.
  void reset();
  bool isRegistrationScheduled() const { return nextRegistration_.isActive(); }

  void openNotificationSocket();
  void closeNotificationSocket();
  void updateNotificationSocket();
  const std::shared_ptr<CBORSocket>& notificationSocket() const { return notificationSocket_; }

  const NotificationCallback& onNotification() const { return onNotification_; }
  void setOnNotification(NotificationCallback callback) { onNotification_ = std::move(callback); }

 private:
  // Registers, then runs `then` on the device's executor.
  void registerThen(Callback then);
  void onExecutor(Task task);
  // Debug builds stop when the device is touched off its executor.
  void assertConfined() const;
  void loop(std::int64_t attempt, std::uint64_t generation);
  void stopLoopAndSocket();
  std::shared_ptr<QRVDevice> self();

  const std::shared_ptr<Executor> executor_;
  const CBORSocket::Environment socketEnvironment_;
  Value::Map customData_;
  std::shared_ptr<CBORSocket> notificationSocket_;
  TaskHandle nextRegistration_;
  // Bumped by reset and deregister: answers to registrations sent before schedule nothing and
  // leave the notification socket alone.
  std::uint64_t loopGeneration_ = 0;
  std::optional<Value::Bytes> token_;
  NotificationCallback onNotification_;
};

}  // namespace quorvix

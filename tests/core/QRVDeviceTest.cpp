// The device against a loopback HTTP server (registration, loop, deregistration) and a loopback
// WebSocket server (the notification socket), on the virtual clock.
#include "core/QRVDevice.h"

#include <regex>

#include <gtest/gtest.h>

#include "../support/FakeKeychainStore.h"
#include "../support/HttpTestServer.h"
#include "../support/LogCapture.h"
#include "../support/ManualExecutor.h"
#include "../support/ScopedURLSession.h"
#include "../support/TestUtil.h"
#include "../support/WsTestServer.h"
#include "cbor/CBORDecoder.h"
#include "core/QRVDeviceInfo.h"
#include "quorvix/CBOR.h"
#include "storage/QRVKeychain.h"

namespace quorvix {
namespace {

using test::HttpTestServer;
using test::RecordedRequest;
using test::TestResponse;
using test::WsServerOptions;
using test::WsTestServer;
using Recorder = test::CallRecorder<std::optional<QRVError>, std::shared_ptr<QRVDevice>>;

constexpr const char* kLicense = "LICENSE-SECRET-1234";
constexpr const char* kNotificationToken = "NOTIFY-TOKEN-5678";

class QRVDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QRVBundle bundle = QRVBundle::main();
    bundle.identifier = "app.example";
    bundle.settings["QRVWebSocketMethod"] = Value(2);
    QRVBundle::setMain(bundle);
    store->items.push_back({"app.example.io.quorvi.device", "app.example.io.quorvi.device",
                            "TEAM.app.example", "DEVICE-1"});
    QRVKeychain::setStore(store);
    QRVRESTResource::setBaseUrl(http.url("/"));
    QRVRESTResource::setStaticHeaders({{"X-QuorviLicense", kLicense}});
  }
  void TearDown() override {
    device->reset();
    QRVKeychain::setStore(nullptr);
    QRVBundle::resetMain();
    EXPECT_FALSE(log.mentions(kLicense));
    EXPECT_FALSE(log.mentions(kNotificationToken));
  }

  // Answers registrations with `answer` (a JSON body, or an HTTP status for a failure).
  void answer(std::string body, int status = 200) {
    http.setHandler([body, status](const RecordedRequest&) { return TestResponse{status, body}; });
  }
  std::string withSocket(const WsTestServer& ws) const {
    return R"({"id":"DEVICE-1","notification_url":")" + ws.url("/notify/") +
           R"(","notification_token":")" + kNotificationToken + "\"}";
  }
  Recorder registerOnce() {
    Recorder rec;
    device->registerDevice(rec.callback());
    EXPECT_TRUE(main->runUntil([&] { return rec.called(); }));
    return rec;
  }
  // Waits for the loop's answer to be scheduled; gives the delay until the next registration.
  double nextLoopDelay() {
    EXPECT_TRUE(main->runUntil([&] { return device->isRegistrationScheduled(); }));
    return std::chrono::duration<double>(main->nextDelay().value_or(Duration::zero())).count();
  }
  // The events the WebSocket server received, decoded.
  static std::vector<Value> events(const WsTestServer& ws) {
    std::vector<Value> out;
    for (const auto& message : ws.received())
      out.push_back(*convertIncoming(*CBORDecoder(message.data).decodeItem().value()));
    return out;
  }
  static std::vector<std::uint8_t> event(const std::string& name, Value::Map data) {
    return CBOR::encodeMap(Value::Map{{"event", name}, {"data", std::move(data)}}).value();
  }

  test::ScopedManualMainQueue main;
  test::LogCapture log;
  HttpTestServer http;
  std::shared_ptr<test::FakeKeychainStore> store = std::make_shared<test::FakeKeychainStore>();
  std::shared_ptr<QRVDevice> device = std::make_shared<QRVDevice>();
};

TEST_F(QRVDeviceTest, RegistrationPutsTheDeviceWithItsTokenInfoAndCustomData) {
  answer(R"({"id":"ignored","next_registration":120})");
  device->setToken(Value::Bytes{0x0a, 0xff});
  device->setCustomData({{"plan", "gold"}, {"seats", 3}});
  device->setCustomData({{"plan", "platinum"}});
  EXPECT_EQ(device->customData(), (Value::Map{{"plan", "platinum"}, {"seats", 3}}));

  Recorder rec = registerOnce();
  EXPECT_FALSE(rec.arg<0>());
  EXPECT_EQ(rec.arg<1>(), device);
  EXPECT_EQ(device->registrationInterval(), 120u);
  EXPECT_EQ(*device->field("id"), Value("ignored")) << "the resource holds the answer";
  EXPECT_EQ(QRVDevice::id(), "DEVICE-1") << "the device id comes from the keychain";
  EXPECT_FALSE(device->isRegistrationScheduled()) << "a one-off registration schedules nothing";

  auto requests = http.requests();
  ASSERT_EQ(requests.size(), 1u);
  const RecordedRequest& put = requests[0];
  EXPECT_EQ(put.method, "PUT");
  EXPECT_EQ(put.target, "/api/1/devices/DEVICE-1");
  EXPECT_EQ(put.header("content-type"), "application/json; charset=utf-8");
  EXPECT_EQ(put.header("x-quorviapiversion"), "1.21.0");
  EXPECT_EQ(put.header("x-quorvilicense"), kLicense);
  Value expected(Value::Map{{"push_token", "0aff"},
                            {"push_provider", "APNS"},
                            {"device", QRVDeviceInfo::info()},
                            {"custom_data", Value::Map{{"plan", "platinum"}, {"seats", 3}}}});
  EXPECT_EQ(Value::fromJson(put.body), expected) << put.body;

  device->setToken(std::nullopt);
  EXPECT_EQ(device->registrationBody()["push_token"], Value(""));
}

TEST_F(QRVDeviceTest, FailuresWaitLongerEachTimeAndSuccessFollowsTheServicesInterval) {
  answer(R"({"message":"down"})", 500);
  device->runRegistrationLoop();
  for (double expected : {5, 15, 30, 45, 60, 75, 90}) {
    EXPECT_EQ(nextLoopDelay(), expected);
    main->advanceSeconds(expected);
  }
  EXPECT_EQ(nextLoopDelay(), 105);
  EXPECT_EQ(QRVDevice::failureDelay(239), 3585);
  EXPECT_EQ(QRVDevice::failureDelay(240), 3600);
  EXPECT_EQ(QRVDevice::failureDelay(100000), 3600);
  EXPECT_TRUE(log.contains(LogLevel::error, "Quorvix registration error: Quorvix 500: down"));

  // Success starts the count again; "next_registration" 0 or absent means an hour.
  for (auto [body, delay] : std::vector<std::pair<std::string, double>>{
           {R"({"id":"D","next_registration":42})", 42},
           {R"({"id":"D","next_registration":0})", 3600},
           {R"({"id":"D"})", 3600},
           {R"({"id":"D","next_registration":1e300})", 1e9}}) {
    answer(body);
    main->advance(*main->nextDelay());
    EXPECT_EQ(nextLoopDelay(), delay) << body;
  }
  answer("{}", 503);
  main->advance(*main->nextDelay());
  EXPECT_EQ(nextLoopDelay(), 5) << "attempt 0 again after a success";
  EXPECT_EQ(main->pendingCount(), 1u);
}

TEST_F(QRVDeviceTest, ARegistrationThatIsNeverAnsweredIsRetriedAsAFailure) {
  http.setHandler([](const RecordedRequest&) { return TestResponse{.neverAnswer = true}; });
  test::ScopedURLSession session(
      QRVURLSession::makeEphemeral({.stallTimeout = std::chrono::milliseconds(300)}));
  device->runRegistrationLoop();
  EXPECT_EQ(nextLoopDelay(), 5);
  EXPECT_TRUE(log.mentions("Quorvix registration error: QRVURLSession"));

  answer(R"({"id":"D","next_registration":100})");
  main->advanceSeconds(5);
  EXPECT_TRUE(main->runUntil([&] { return http.requests().size() == 2; }));
  EXPECT_EQ(nextLoopDelay(), 100) << "the loop goes on";
}

TEST_F(QRVDeviceTest, ADeviceOnItsOwnExecutorTakesUpAnswersThere) {
  auto queue = std::make_shared<test::ManualExecutor>();
  auto own = std::make_shared<QRVDevice>(QRVDevice::Environment{.executor = queue});
  answer(R"({"id":"D","next_registration":100})");
  own->runRegistrationLoop();

  // The answer comes on the main queue, which hands it over and touches nothing of the device.
  ASSERT_TRUE(main->runUntil([&] { return queue->pendingCount() > 0; }));
  EXPECT_FALSE(own->isRegistrationScheduled());
  queue->runUntilIdle();
  EXPECT_TRUE(own->isRegistrationScheduled());
  EXPECT_EQ(queue->nextDelay(), seconds(100));

  // A one-off registration's completion still runs on the main queue.
  Recorder rec;
  own->registerDevice(rec.callback());
  ASSERT_TRUE(main->runUntil([&] { return queue->pendingCount() > 1; }));
  EXPECT_FALSE(rec.called());
  queue->runUntilIdle();
  EXPECT_TRUE(main->runUntil([&] { return rec.called(); }));
  own->reset();
}

TEST_F(QRVDeviceTest, RunningTheLoopTwiceLeavesOneLoop) {
  answer(R"({"id":"D","next_registration":100})");
  device->runRegistrationLoop();
  device->runRegistrationLoop();
  ASSERT_TRUE(main->runUntil([&] { return http.requests().size() == 2; }));
  EXPECT_EQ(nextLoopDelay(), 100);
  ASSERT_TRUE(main->runUntil([&] {
    return log.contains(LogLevel::debug, "A registration answer of a replaced loop was set aside");
  }));
  EXPECT_EQ(main->pendingCount(), 1u) << "the first loop's answer scheduled nothing";

  for (int round = 1; round <= 3; ++round) {
    main->advanceSeconds(100);
    ASSERT_TRUE(main->runUntil([&] { return http.requests().size() == 2u + round; }));
    EXPECT_EQ(nextLoopDelay(), 100);
    EXPECT_EQ(main->pendingCount(), 1u);
  }
  EXPECT_EQ(http.requests().size(), 5u);
}

TEST_F(QRVDeviceTest, DeregistrationEmptiesCustomDataStopsTheLoopAndDeletes) {
  answer(R"({"id":"D","next_registration":100})");
  device->setCustomData({{"plan", "gold"}});
  device->runRegistrationLoop();
  nextLoopDelay();

  http.setHandler([](const RecordedRequest&) { return TestResponse{204, ""}; });
  Recorder rec;
  device->deregister(rec.callback());
  EXPECT_TRUE(device->customData().empty());
  EXPECT_TRUE(device->resource().empty()) << "cleared as soon as the DELETE is sent";
  EXPECT_FALSE(device->isRegistrationScheduled());
  ASSERT_TRUE(main->runUntil([&] { return rec.called(); }));
  EXPECT_FALSE(rec.arg<0>());

  main->advanceSeconds(3600);
  // Nothing left that could send.
  EXPECT_FALSE(device->isRegistrationScheduled());
  EXPECT_EQ(main->pendingCount(), 0u);
  auto requests = http.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].method, "DELETE");
  EXPECT_EQ(requests[1].target, "/api/1/devices/DEVICE-1");
  // Nothing the loop or its requests started still holds the device (the recorder did).
  rec = Recorder();
  std::weak_ptr<QRVDevice> weak = device;
  device = std::make_shared<QRVDevice>();
  EXPECT_TRUE(weak.expired());
}

TEST_F(QRVDeviceTest, NotificationSocketFiltersAnswersProbesAndPassesNotificationsOn) {
  WsTestServer ws(WsServerOptions{.mode = WsServerOptions::Mode::record});
  std::vector<Value::Map> notifications;
  device->setOnNotification([&](const Value::Map& data) { notifications.push_back(data); });
  answer(withSocket(ws));
  registerOnce();
  ASSERT_TRUE(device->notificationSocket());
  ASSERT_TRUE(main->runUntil([&] { return ws.received().size() == 1; }));

  auto headers = ws.requestHeaders().at(0);
  EXPECT_EQ(headers["authorization"], std::string("Bearer ") + kNotificationToken);
  EXPECT_EQ(headers["x-quorvilicense"], kLicense);
  EXPECT_EQ(
      events(ws)[0],
      Value(Value::Map{{"id", 1},
                       {"event", "filter"},
                       {"data", Value::Map{{"events", Value::Array{"probe", "notification"}}}}}));

  ws.sendToAll(event("probe", {{"x", 1}}));
  ASSERT_TRUE(main->runUntil([&] { return ws.received().size() == 2; }));
  EXPECT_EQ(events(ws)[1],
            Value(Value::Map{{"id", 2}, {"event", "alive"}, {"data", Value::Map{{"x", 1}}}}));

  ws.sendToAll(event("notification", {{"quorvix-code", "123456"}}));
  ASSERT_TRUE(main->runUntil([&] { return !notifications.empty(); }));
  EXPECT_EQ(notifications[0], (Value::Map{{"quorvix-code", "123456"}}));

  // An answer that arrives after deregistration does not reopen the socket.
  Recorder late;
  device->registerDevice(late.callback());
  device->deregister(nullptr);
  ASSERT_TRUE(main->runUntil([&] { return late.called(); }));
  EXPECT_FALSE(device->notificationSocket());

  // A registration that no longer names the socket closes it.
  registerOnce();
  ASSERT_TRUE(device->notificationSocket());
  answer(R"({"id":"D"})");
  registerOnce();
  EXPECT_FALSE(device->notificationSocket());
  EXPECT_TRUE(log.contains(LogLevel::error, "Quorvix: Closing socket"));
}

TEST_F(QRVDeviceTest, ARefusedNotificationSocketStaysClosedUntilTheNextRegistration) {
  WsTestServer ws(WsServerOptions{.refuseWithStatus = 403});
  answer(withSocket(ws));
  registerOnce();
  ASSERT_TRUE(main->runUntil([&] { return !device->notificationSocket(); }));
  EXPECT_TRUE(log.contains(LogLevel::error, "Quorvix disconnected due to error CBORSocket 403: "));
  EXPECT_TRUE(log.contains(LogLevel::error, "Quorvix: Closing socket"));
  main->advanceSeconds(120);
  EXPECT_EQ(main->pendingCount(), 0u) << "no retry scheduled";
  EXPECT_EQ(ws.requestHeaders().size(), 1u) << "no retry";

  registerOnce();
  EXPECT_TRUE(device->notificationSocket());
  EXPECT_TRUE(main->runUntil([&] { return ws.requestHeaders().size() == 2; }));
}

TEST(QRVDeviceIdTest, MadeOnceAsAnUpperCaseUUIDInThePrivateGroup) {
  QRVBundle bundle = QRVBundle::main();
  bundle.identifier = "app.example";
  QRVBundle::setMain(bundle);
  auto store = std::make_shared<test::FakeKeychainStore>();
  QRVKeychain::setStore(store);

  const std::string id = QRVDevice::loadId();
  EXPECT_TRUE(std::regex_match(
      id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << id;
  ASSERT_EQ(store->items.size(), 1u);
  EXPECT_EQ(store->items[0].account, "app.example.io.quorvi.device");
  EXPECT_EQ(store->items[0].accessGroup, "TEAM.app.example");
  EXPECT_EQ(QRVDevice::loadId(), id) << "read back, not made again";

  QRVKeychain::setStore(nullptr);
  QRVBundle::resetMain();
}

}  // namespace
}  // namespace quorvix

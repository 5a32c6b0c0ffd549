// The facade against a loopback service: what start and stop do, the configuration locked once
// started, and the session operations' short cuts and refusals.
#include "quorvix/Quorvix.h"

#include <mutex>

#include <gtest/gtest.h>

#include "core/QRVDevice.h"
#include "session-ui/SessionUIFakes.h"
#include "session/QRVSessionContext.h"
#include "storage/QRVKeychain.h"
#include "support/FakeKeychainStore.h"
#include "support/HttpTestServer.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"
#include "support/TestUtil.h"

namespace quorvix {
namespace {

using test::HttpTestServer;
using test::RecordedRequest;
using test::TestResponse;
using Recorder = test::CallRecorder<std::optional<QRVError>, std::shared_ptr<QRVSession>>;

// A context with the platform's parts left out: enough for the facade's own rules.
class BareContext : public QRVSessionContext {
 public:
  static std::shared_ptr<BareContext> make(std::shared_ptr<QRVSessionResource> session,
                                           std::weak_ptr<QRVSessionContextDelegate> host) {
    std::shared_ptr<BareContext> context(new BareContext(session, quorvix::mainQueue()));
    QRVStreamProtocol::Environment stream;
    stream.makeEncoder = [](QRVStreamProtocol::EncoderKind) { return nullptr; };
    context->attach(std::move(host), std::move(stream), {});
    return context;
  }

 private:
  using QRVSessionContext::QRVSessionContext;
};

class QuorvixTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QRVKeychain::setStore(store);
    setSessionContextFactory([](auto session, auto host) {
      return BareContext::make(std::move(session), std::move(host));
    });
    http.setHandler([this](const RecordedRequest& r) {
      if (r.method == "DELETE")
        return TestResponse{204, ""};
      if (r.target.find("/api/1/devices/") == 0)
        return TestResponse{200, R"({"type":"Device","id":"D","next_registration":3600})"};
      std::lock_guard lock(answerMutex);
      if (r.method == "POST")
        return TestResponse{201, sessionAnswer};
      return TestResponse{200, sessionAnswer};
    });
    quorvix.setApi(http.url("/"));
    quorvix.setLicense("test-license");
  }
  void TearDown() override {
    // Stopping ends an active session: wait for that answer too, so that no request is left
    // in flight when the test's main queue goes.
    auto current = quorvix.currentSession();
    const bool active = current && current->isActive();
    answer(R"({"type":"Session","id":"S1","state":"ended"})");
    quorvix.stop([](std::optional<QRVError>) {});
    main->runUntil([&] { return deleted() && (!active || current->isEnded()); },
                   std::chrono::seconds(5));
    setSessionContextFactory(nullptr);
    QRVKeychain::setStore(nullptr);
  }
  void answer(std::string body) {
    std::lock_guard lock(answerMutex);
    sessionAnswer = std::move(body);
  }
  bool deleted() const {
    for (const auto& r : http.requests())
      if (r.method == "DELETE")
        return true;
    return false;
  }
  std::size_t requestsTo(const std::string& prefix) const {
    std::size_t n = 0;
    for (const auto& r : http.requests())
      n += r.target.rfind(prefix, 0) == 0;
    return n;
  }
  Recorder create() {
    Recorder rec;
    quorvix.createSession(rec.once());
    EXPECT_TRUE(main->runUntil([&] { return rec.called(); }));
    return rec;
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<test::FakeKeychainStore> store = std::make_shared<test::FakeKeychainStore>();
  HttpTestServer http;
  std::mutex answerMutex;
  std::string sessionAnswer = R"({"type":"Session","id":"S1","code":"123456","state":"pending"})";
  Quorvix& quorvix = Quorvix::instance();
};

TEST_F(QuorvixTest, StartNeedsALicenseAndLocksTheConfiguration) {
  test::LogCapture logs;
  quorvix.setLicense("");
  quorvix.start();
  EXPECT_FALSE(quorvix.isStarted());
  EXPECT_TRUE(
      logs.contains(LogLevel::error, "Quorvix: You must set a license before calling start()"));

  quorvix.setLicense("test-license");
  quorvix.start();
  ASSERT_TRUE(quorvix.isStarted());
  ASSERT_TRUE(main->runUntil([&] { return requestsTo("/api/1/devices/") > 0; }));
  const auto registration = http.requests().front();
  EXPECT_EQ(registration.header("x-quorvilicense"), "test-license");
  EXPECT_EQ(registration.header("x-quorvisdkversion"), Quorvix::kVersion);

  logs.clear();
  const std::string api = quorvix.api();
  quorvix.setApi(api);
  EXPECT_TRUE(logs.lines().empty()) << "the same address: not even a message";
  quorvix.setApi("http://elsewhere.invalid/");
  quorvix.setLicense("other");
  quorvix.setCapabilities({"pointer"});
  EXPECT_EQ(quorvix.api(), api);
  EXPECT_EQ(quorvix.license(), "test-license");
  EXPECT_TRUE(logs.contains(LogLevel::error, "Error: Cannot change API once Quorvi is started"));
  EXPECT_TRUE(
      logs.contains(LogLevel::error, "Error: Cannot set capabilities after Quorvi is started"));
}

TEST_F(QuorvixTest, ConfigurationIsFilteredAndValidated) {
  test::LogCapture logs;
  quorvix.setCapabilities({"laser", "teleport", "pointer"});
  EXPECT_EQ(quorvix.capabilities(), (std::vector<std::string>{"laser", "pointer"}));
  EXPECT_TRUE(
      logs.contains(LogLevel::debug, "Warning: Capability 'teleport' not supported. Ignoring..."));
  quorvix.setRedactedViews({"#pw", "bad > x"});
  EXPECT_EQ(quorvix.redactedViews().size(), 2u) << "kept as given";
  EXPECT_TRUE(logs.contains(LogLevel::error, "Failed to parse redaction selector bad > x"));
  quorvix.setWebviewRedactedViews({"#card"}, "shop.example");
  EXPECT_EQ(quorvix.webviewRedactedViews("shop.example"), std::vector<std::string>{"#card"});
  EXPECT_TRUE(quorvix.webviewRedactedViews().empty());
}

TEST_F(QuorvixTest, SessionOperationsRefuseWhenNotStartedOrWithoutAnId) {
  Recorder notStarted = create();
  ASSERT_TRUE(notStarted.arg<0>());
  EXPECT_EQ(notStarted.arg<0>()->message(), "Quorvi not started");
  EXPECT_EQ(notStarted.arg<0>()->code(), 400);

  quorvix.start();
  Recorder empty;
  quorvix.getSession("", empty.once());
  ASSERT_TRUE(main->runUntil([&] { return empty.called(); }));
  EXPECT_EQ(empty.arg<0>()->message(), "Invalid id or code (nil)");
}

TEST_F(QuorvixTest, CreatingAndJoiningTheCurrentSession) {
  quorvix.start();
  Recorder created = create();
  ASSERT_FALSE(created.arg<0>());
  EXPECT_EQ(quorvix.currentSession(), created.arg<1>());
  EXPECT_EQ(requestsTo("/api/1/sessions"), 1u);

  Recorder byCode;
  quorvix.getSession("123456", byCode.once());
  ASSERT_TRUE(main->runUntil([&] { return byCode.called(); }));
  EXPECT_EQ(byCode.arg<1>(), created.arg<1>()) << "the current session, by its code";
  EXPECT_EQ(requestsTo("/api/1/sessions"), 1u) << "and no request";

  // A pending session is replaced by a new one; an active one refuses it.
  Recorder replaced = create();
  EXPECT_FALSE(replaced.arg<0>());
  EXPECT_NE(replaced.arg<1>(), created.arg<1>());
  answer(R"({"type":"Session","id":"S2","code":"654321","state":"active"})");
  Recorder fetched;
  quorvix.getSession("S2", fetched.once());
  ASSERT_TRUE(main->runUntil([&] { return fetched.called(); }));
  ASSERT_TRUE(quorvix.currentSession() && quorvix.currentSession()->isActive());
  Recorder busy = create();
  ASSERT_TRUE(busy.arg<0>());
  EXPECT_EQ(busy.arg<0>()->message(), "Already in a session");
}

TEST_F(QuorvixTest, CustomDataAlreadyHeldSendsNothing) {
  quorvix.start();
  ASSERT_TRUE(main->runUntil([&] { return requestsTo("/api/1/devices/") == 1; }));
  quorvix.setCustomData({{"plan", "gold"}, {"seats", 3}});
  ASSERT_TRUE(main->runUntil([&] { return requestsTo("/api/1/devices/") == 2; }));
  test::LogCapture logs;
  quorvix.setCustomData({{"plan", "gold"}});
  quorvix.setCustomData({});
  EXPECT_EQ(logs.messages(LogLevel::debug),
            (std::vector<std::string>{"Supressing customData update as cache matches",
                                      "Supressing customData update as cache matches"}));
  EXPECT_EQ(quorvix.customData().size(), 2u);
}

TEST_F(QuorvixTest, StopWithoutRegistrationNeverCallsItsCompletion) {
  quorvix.setRegistration(false);
  quorvix.start();
  bool called = false;
  quorvix.stop([&](std::optional<QRVError>) { called = true; });
  main->runUntilIdle();
  EXPECT_EQ(main->pendingCount(), 0u);
  EXPECT_FALSE(called);
  EXPECT_FALSE(quorvix.isStarted());
  quorvix.setRegistration(true);
}

}  // namespace
}  // namespace quorvix

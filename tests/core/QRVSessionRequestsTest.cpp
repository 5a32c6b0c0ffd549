// The session's requests against a loopback HTTP server: what each change sends, and how the
// answers come back.
#include <gtest/gtest.h>

#include "../support/HttpTestServer.h"
#include "../support/ManualExecutor.h"
#include "../support/TestUtil.h"
#include "core/QRVDevice.h"
#include "core/QRVDeviceInfo.h"
#include "core/QRVSessionResource.h"

namespace quorvix {
namespace {

using test::HttpTestServer;
using test::RecordedRequest;
using test::TestResponse;
using Recorder = test::CallRecorder<std::optional<QRVError>, std::shared_ptr<QRVSession>>;

class QRVSessionRequestsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QRVRESTResource::setBaseUrl(http.url("/"));
    // The service answers every request with the session in its new state.
    http.setHandler([this](const RecordedRequest&) { return TestResponse{200, answer}; });
    session->setCapabilities({"pointer", "keypress"});
  }

  Recorder run(const std::function<void(QRVSession::Callback)>& start) {
    Recorder rec;
    start(rec.once());
    EXPECT_TRUE(main->runUntil([&] { return rec.called(); }));
    EXPECT_EQ(rec.calls(), 1);
    return rec;
  }
  Value lastBody() const { return *Value::fromJson(http.requests().back().body); }

  test::ScopedManualMainQueue main;
  HttpTestServer http;
  std::string answer = R"({"type":"Session","id":"S1","state":"active"})";
  std::shared_ptr<QRVSessionResource> session = std::make_shared<QRVSessionResource>(
      Value::Map{{"type", "Session"}, {"id", "S1"}, {"state", "pending"}, {"full_device", "off"}});
};

TEST_F(QRVSessionRequestsTest, EveryChangeIsAPutOfItsOwnBodyWithTheSessionsCapabilities) {
  QRVDevice::instance()->setCustomData({{"plan", "gold"}});
  const Value capabilities(Value::Array{"keypress", "pointer"});

  Recorder activated = run([&](auto cb) { session->activate(cb); });
  EXPECT_FALSE(activated.arg<0>());
  EXPECT_EQ(activated.arg<1>(), session);
  EXPECT_TRUE(session->isActive()) << "the answer replaced the resource";
  EXPECT_EQ(lastBody(), Value(Value::Map{{"state", "active"},
                                         {"device", QRVDeviceInfo::info()},
                                         {"custom_data", Value::Map{{"plan", "gold"}}},
                                         {"capabilities", capabilities}}));

  run([&](auto cb) { session->setRemoteControl(QRVConsentState::rejected, cb); });
  EXPECT_EQ(lastBody(),
            Value(Value::Map{{"remote_control", "rejected"}, {"capabilities", capabilities}}));

  run([&](auto cb) { session->setCustomData({{"ticket", 7}}, cb); });
  EXPECT_EQ(lastBody(), Value(Value::Map{{"custom_data", Value::Map{{"ticket", 7}}},
                                         {"capabilities", capabilities}}));

  // A body naming "capabilities" gets the session's own list instead.
  run([&](auto cb) { session->update({{"capabilities", Value::Array{"laser"}}, {"x", 1}}, cb); });
  EXPECT_EQ(lastBody(), Value(Value::Map{{"x", 1}, {"capabilities", capabilities}}));

  run([&](auto cb) { session->setCapabilities({"laser"}, cb); });
  EXPECT_EQ(lastBody(), Value(Value::Map{{"capabilities", Value::Array{"laser"}}}));

  // Full-device consent switches the agent's tools on first, but only those already offered.
  session->setCapabilities({"laser", "drawing", "pointer", "selectors"});
  session->capabilitySet()->toggleMultiple({"laser", "drawing", "pointer", "selectors"}, false);
  run([&](auto cb) { session->setFullDevice(QRVConsentState::rejected, cb); });
  EXPECT_EQ(lastBody(),
            Value(Value::Map{{"full_device", "rejected"},
                             {"capabilities", Value::Array{"drawing", "laser", "pointer"}}}));

  run([&](auto cb) { session->end(cb); });
  EXPECT_EQ(lastBody(),
            Value(Value::Map{{"state", "ended"},
                             {"capabilities", Value::Array{"drawing", "laser", "pointer"}}}));

  // A session without a capability set sends an empty list.
  auto bare = std::make_shared<QRVSessionResource>(Value::Map{{"id", "S2"}});
  run([&](auto cb) { bare->end(cb); });
  EXPECT_EQ(lastBody(), Value(Value::Map{{"state", "ended"}, {"capabilities", Value::Array{}}}));

  for (const auto& r : http.requests()) {
    EXPECT_EQ(r.method, "PUT");
    EXPECT_TRUE(r.header("x-quorvidevicetoken")) << "every request carries the session token";
  }
  EXPECT_EQ(http.requests()[0].target, "/api/1/sessions/S1");
  EXPECT_EQ(http.requests()[0].header("x-quorvidevicetoken"), session->sessionToken());
}

TEST_F(QRVSessionRequestsTest, CreateFetchAndAnswersThatAreNotSessions) {
  auto fresh = std::make_shared<QRVSessionResource>(Value::Map{{"device", Value::Map{{"a", 1}}}});
  answer = R"({"type":"Session","id":"S9","code":"123456","state":"pending"})";
  Recorder created = run([&](auto cb) { fresh->create(cb); });
  EXPECT_FALSE(created.arg<0>());
  EXPECT_EQ(created.arg<1>(), fresh);
  EXPECT_EQ(http.requests().back().method, "POST");
  EXPECT_EQ(http.requests().back().target, "/api/1/sessions");
  EXPECT_EQ(lastBody(), Value(Value::Map{{"device", Value::Map{{"a", 1}}}}));
  EXPECT_EQ(fresh->code(), "123456");

  auto byCode = std::make_shared<QRVSessionResource>(Value::Map{{"code", "123456"}});
  Recorder fetched = run([&](auto cb) { byCode->fetch(cb); });
  EXPECT_EQ(http.requests().back().method, "GET");
  EXPECT_EQ(http.requests().back().target, "/api/1/sessions/123456");
  EXPECT_EQ(byCode->sessionId(), "S9");

  // Wrong shapes come back through validation with code 0 (text that is no JSON object or
  // array fails in the parser before); the session keeps what it had.
  struct Case {
    int status;
    std::string body;
    QRVError error;
  };
  for (const auto& c :
       std::vector<Case>{{200, "[1,2]", QRVError("Expecting session to be a dictionary", 0)},
                         {204, "", QRVError("Expecting session to be a dictionary", 0)},
                         {200, R"({"type":"Session","id":"S9"})",
                          QRVError("Expected session to have a state field", 0)}}) {
    http.setHandler([c](const RecordedRequest&) { return TestResponse{c.status, c.body}; });
    Recorder rec = run([&](auto cb) { byCode->fetch(cb); });
    EXPECT_EQ(rec.arg<0>(), c.error) << c.body;
    EXPECT_EQ(byCode->state(), "pending");
  }
  answer = "42";
  http.setHandler([this](const RecordedRequest&) { return TestResponse{200, answer}; });
  EXPECT_TRUE(run([&](auto cb) { byCode->fetch(cb); }).arg<0>());
  EXPECT_EQ(byCode->state(), "pending");
  answer = R"({"type":"Session","id":"S9","state":"active"})";
  http.setHandler([](const RecordedRequest&) {
    return TestResponse{404, R"({"message":"gone"})"};
  });
  Recorder failed = run([&](auto cb) { fresh->create(cb); });
  EXPECT_EQ(failed.arg<0>(), QRVError("gone", 404));
  EXPECT_EQ(failed.arg<1>(), nullptr) << "a failed create gives no session";
}

TEST_F(QRVSessionRequestsTest, HugeCustomDataIsReadWithoutTrouble) {
  std::string body = R"({"type":"Session","id":"S1","state":"active","custom_data":{)";
  for (int i = 0; i < 20000; ++i)
    body += (i ? "," : "") + ("\"k" + std::to_string(i) + "\":" + std::to_string(i));
  body += "}}";
  answer = body;
  run([&](auto cb) { session->fetch(cb); });
  auto data = session->customData();
  EXPECT_EQ(data.size(), 20000u);
  EXPECT_EQ(data["k19999"], Value("19999"));
}

}  // namespace
}  // namespace quorvix

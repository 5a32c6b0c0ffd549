// The session's reading of the service's answers, its validation and its observers.
#include "core/QRVSessionResource.h"

#include <cmath>

#include <gtest/gtest.h>

#include "../support/LogCapture.h"
#include "../support/ManualExecutor.h"
#include "../support/TestUtil.h"
#include "redaction/QRVSelectorParser.h"

namespace quorvix {
namespace {

using Recorder = test::CallRecorder<std::optional<QRVError>, std::shared_ptr<QRVSession>>;

Value::Map sessionMap(Value::Map extra = {}) {
  Value::Map m{{"type", "Session"}, {"id", "S1"}, {"state", "pending"}};
  for (auto& [k, v] : extra)
    m[k] = v;
  return m;
}

std::shared_ptr<QRVSessionResource> sessionWith(Value::Map extra) {
  return std::make_shared<QRVSessionResource>(sessionMap(std::move(extra)));
}

// Writes what it is told into a log shared by all observers of a test.
class Observer : public QRVSessionObserver {
 public:
  Observer(std::string name, std::vector<std::string>& log) : name_(std::move(name)), log_(log) {}
  void sessionDidEnd(const std::shared_ptr<QRVSession>&) override {
    log_.push_back(name_ + " end");
  }
  void sessionDidUpdate(const std::shared_ptr<QRVSession>& s) override {
    log_.push_back(name_ + " update " + s->state().value_or("-"));
    if (onUpdate)
      onUpdate();
  }
  void sessionDidUpdateFromPrevious(const std::shared_ptr<QRVSession>&,
                                    const std::shared_ptr<QRVSession>& previous) override {
    log_.push_back(name_ + " from " + previous->state().value_or("-"));
  }
  std::function<void()> onUpdate;

 private:
  std::string name_;
  std::vector<std::string>& log_;
};

std::vector<std::string> only(const std::vector<std::string>& log, const std::string& name) {
  std::vector<std::string> out;
  for (const auto& line : log)
    if (line.starts_with(name + " "))
      out.push_back(line);
  return out;
}

class QRVSessionTest : public ::testing::Test {
 protected:
  test::ScopedManualMainQueue main;
  std::vector<std::string> log;
};

TEST_F(QRVSessionTest, ConsentStatesEndedReasonsAndScale) {
  using C = QRVConsentState;
  const std::vector<std::pair<Value, C>> fullDevice = {
      {"off", C::off},  {"requested", C::requested}, {"rejected", C::rejected}, {"on", C::on},
      {"ON", C::off},   {true, C::requested},        {false, C::off},           {1, C::off},
      {Value(), C::off}};
  for (const auto& [wire, state] : fullDevice) {
    EXPECT_EQ(sessionWith({{"full_device", wire}})->fullDevice(), state) << *wire.toJson();
  }
  EXPECT_EQ(sessionWith({{"remote_control", true}})->remoteControl(), C::off)
      << "only full_device reads the old flag";
  EXPECT_TRUE(sessionWith({{"remote_control", "on"}})->allowRemoteControl());
  EXPECT_FALSE(sessionWith({{"remote_control", "requested"}})->allowRemoteControl());
  EXPECT_EQ(sessionWith({})->fullDevice(), C::off);

  const std::vector<std::pair<const char*, QRVEndedReason>> reasons = {
      {"device_ended", QRVEndedReason::deviceEnded},
      {"agent_ended", QRVEndedReason::agentEnded},
      {"pending_timeout", QRVEndedReason::pendingTimeout},
      {"authorizing_timeout", QRVEndedReason::authorizingTimeout},
      {"active_timeout", QRVEndedReason::activeTimeout},
      {"limit_enforcement", QRVEndedReason::limitEnforcement},
      {"meteor", QRVEndedReason::none}};
  for (const auto& [wire, reason] : reasons)
    EXPECT_EQ(sessionWith({{"ended_reason", wire}})->endedReason(), reason) << wire;
  EXPECT_EQ(sessionWith({})->endedReason(), QRVEndedReason::none);

  EXPECT_EQ(sessionWith({{"scale", 2}})->scale(), 1.0);
  EXPECT_EQ(sessionWith({{"scale", 1.0}})->scale(), 1.0);
  EXPECT_EQ(sessionWith({})->scale(), 0.5);
  EXPECT_EQ(sessionWith({{"scale", "0.3"}})->scale(), 0.5);
  EXPECT_EQ(sessionWith({{"scale", 0.1}})->scale(), static_cast<double>(0.1f));
  EXPECT_NE(sessionWith({{"scale", 0.1}})->scale(), 0.1) << "taken in single precision";
  EXPECT_EQ(sessionWith({{"scale", -0.25}})->scale(), -0.25) << "no lower bound";
  EXPECT_EQ(sessionWith({{"scale", std::nan("")}})->scale(), 0.5);
}

TEST_F(QRVSessionTest, AgentCustomDataAndCapabilities) {
  EXPECT_EQ(sessionWith({{"agent", Value::Map{{"id", "A1"}, {"name", "Ann"}, {"email", "a@x"}}}})
                ->agent(),
            (QRVAgent{"A1", "Ann", "a@x"}));
  auto noName = sessionWith({{"agent", Value::Map{{"id", "A1"}}}});
  EXPECT_TRUE(noName->hasAgent());
  EXPECT_EQ(noName->agent(), std::nullopt);
  auto nullAgent = sessionWith({{"agent", Value()}});
  EXPECT_TRUE(nullAgent->hasAgent());
  EXPECT_EQ(nullAgent->agent(), std::nullopt);
  EXPECT_FALSE(sessionWith({})->hasAgent());

  EXPECT_EQ(sessionWith({{"custom_data", Value::Map{{"age", 42},
                                                    {"ratio", 0.25},
                                                    {"vip", true},
                                                    {"name", "Zoë"},
                                                    {"tags", Value::Array{"a", 1}},
                                                    {"none", Value()}}}})
                ->customData(),
            (Value::Map{{"age", "42"},
                        {"ratio", "0.25"},
                        {"vip", "1"},
                        {"name", "Zoë"},
                        {"tags", "[\"a\",1]"},
                        {"none", "<null>"}}));
  EXPECT_TRUE(sessionWith({{"custom_data", Value::Array{1, 2}}})->customData().empty());
  EXPECT_TRUE(sessionWith({})->customData().empty());

  for (auto [wire, expected] : std::vector<std::pair<Value, bool>>{{true, true},
                                                                   {false, false},
                                                                   {1, true},
                                                                   {0, false},
                                                                   {"yes", true},
                                                                   {"true", true},
                                                                   {"0", false},
                                                                   {" 007", true},
                                                                   {"no", false},
                                                                   {Value::Map{}, false}})
    EXPECT_EQ(sessionWith({{"require_consent", wire}})->requireConsent(), expected)
        << *wire.toJson();

  auto session = sessionWith({});
  EXPECT_TRUE(session->capabilities().empty());
  session->setCapabilities({"pointer", "keypress", "laser"});
  EXPECT_EQ(session->capabilities(), (std::vector<std::string>{"keypress", "laser", "pointer"}));
  // The service's list narrows the set and never widens it.
  session = sessionWith({{"capabilities", Value::Array{"laser", "drawing", 7}}});
  session->setCapabilities({"pointer", "laser"});
  EXPECT_EQ(session->capabilities(), std::vector<std::string>{"laser"});
  session = sessionWith({{"capabilities", "laser"}});
  session->setCapabilities({"laser"});
  EXPECT_TRUE(session->capabilities().empty());
}

TEST_F(QRVSessionTest, DatesSelectorsAndPassThroughFields) {
  using namespace std::chrono;
  auto s = sessionWith({{"created", "2024-05-01T10:20:30.123Z"},
                        {"expires", "2024-05-01T12:20:30.5+02:00"},
                        {"activated", "2024-05-01T10:20:30Z"},
                        {"updated", "2024-02-30T10:20:30.1Z"},
                        {"ended", 1714558830}});
  EXPECT_EQ(s->created(), WallTime(sys_days(2024y / 5 / 1) + 10h + 20min + 30s + 123ms));
  EXPECT_EQ(s->expires(), WallTime(sys_days(2024y / 5 / 1) + 10h + 20min + 30s + 500ms));
  EXPECT_EQ(s->activated(), std::nullopt) << "fractional seconds are required";
  EXPECT_EQ(s->updated(), std::nullopt) << "no such day";
  EXPECT_EQ(s->ended(), std::nullopt);

  s = sessionWith({{"redaction_selectors",
                    Value::Array{"#password", "", 42, Value::Array{Value::Map{{"tag", "input"}}}}},
                   {"unredaction_selectors", "not a list"},
                   {"webview_redaction_selectors",
                    Value::Array{Value::Map{{"example.com", Value::Array{"#card", 1, ".cvv"}},
                                            {"bad.com", "#not-a-list"}},
                                 "not a map"}},
                   {"video_codecs", Value::Array{"video/avc"}}});
  EXPECT_EQ(s->redactedSelectors().size(), 2u);
  EXPECT_TRUE(s->redactedSelectors().contains(*QRVSelectorParser::parse("#password")));
  EXPECT_TRUE(s->unredactedSelectors().empty());
  ASSERT_EQ(s->webviewRedactedSelectors().size(), 1u);
  EXPECT_EQ(s->webviewRedactedSelectors()[0],
            (QRVWebviewSelectors{{"example.com", {"#card", ".cvv"}}}));
  EXPECT_TRUE(s->webviewUnredactedSelectors().empty());
  EXPECT_EQ(*s->videoCodecs(), Value(Value::Array{"video/avc"}));
}

TEST_F(QRVSessionTest, RefusedAnswersLeaveTheSessionAsItWasAndObserversUntold) {
  auto session = sessionWith({{"code", "123"}});
  session->registerSessionObserver(std::make_shared<Observer>("o", log));
  const Value::Map before = session->resource();
  const std::vector<std::pair<std::optional<Value>, std::string>> refused = {
      {std::nullopt, "Expecting session to be a dictionary"},
      {Value(Value::Array{sessionMap()}), "Expecting session to be a dictionary"},
      {Value("Session"), "Expecting session to be a dictionary"},
      {Value(42), "Expecting session to be a dictionary"},
      {Value(Value::Map{{"id", "S1"}, {"state", "active"}}), "Expected a Session resource"},
      {Value(Value::Map{{"type", "Device"}, {"id", "S1"}, {"state", "active"}}),
       "Expected a Session resource"},
      {Value(Value::Map{{"type", "Session"}, {"state", "active"}}),
       "Expected session to have an ID"},
      {Value(Value::Map{{"type", "Session"}, {"id", "S1"}}),
       "Expected session to have a state field"},
  };
  for (const auto& [answer, message] : refused) {
    auto error = session->updateResource(answer);
    ASSERT_TRUE(error) << message;
    EXPECT_EQ(*error, QRVError(message, 0));
    EXPECT_EQ(session->resource(), before);
  }
  EXPECT_TRUE(log.empty());
}

TEST_F(QRVSessionTest, ObserversHearEachUpdateThenTheEndOnce) {
  auto session = sessionWith({});
  auto a = std::make_shared<Observer>("a", log);
  auto b = std::make_shared<Observer>("b", log);
  session->registerSessionObserver(a);
  session->registerSessionObserver(b);
  session->registerSessionObserver(b);

  EXPECT_FALSE(session->updateResource(Value(sessionMap({{"state", "active"}}))));
  EXPECT_FALSE(session->updateResource(Value(sessionMap({{"state", "active"}}))));
  EXPECT_FALSE(session->updateResource(Value(sessionMap({{"state", "ended"}}))));
  EXPECT_FALSE(session->updateResource(Value(sessionMap({{"state", "ended"}}))));
  const std::vector<std::string> expected = {
      "a from pending", "a update active", "a from active", "a update active", "a from active",
      "a update ended", "a end",           "a from ended",  "a update ended"};
  EXPECT_EQ(only(log, "a"), expected);
  EXPECT_EQ(only(log, "b").size(), expected.size()) << "registered twice, told once";

  session->cleanup();
  EXPECT_TRUE(session->resource().empty());
  log.clear();
  session->updateResource(Value(sessionMap()));
  EXPECT_TRUE(log.empty()) << "cleanup removes the observers";
}

TEST_F(QRVSessionTest, ObserversMayChangeTheSetWhileBeingTold) {
  auto session = sessionWith({});
  auto late = std::make_shared<Observer>("late", log);
  auto first = std::make_shared<Observer>("first", log);
  auto leaver = std::make_shared<Observer>("leaver", log);
  first->onUpdate = [&] { session->registerSessionObserver(late); };
  leaver->onUpdate = [&] { session->removeSessionObserver(leaver); };
  session->registerSessionObserver(first);
  session->registerSessionObserver(leaver);

  session->updateResource(Value(sessionMap({{"state", "ended"}})));
  EXPECT_TRUE(only(log, "late").empty()) << "told from the set as it was";
  EXPECT_EQ(only(log, "leaver"),
            (std::vector<std::string>{"leaver from pending", "leaver update ended", "leaver end"}));
  log.clear();
  session->updateResource(Value(sessionMap({{"state", "ended"}})));
  EXPECT_EQ(only(log, "late").size(), 2u);
  EXPECT_TRUE(only(log, "leaver").empty());
}

TEST_F(QRVSessionTest, ShortCutsCompleteAtOnceWithoutSending) {
  auto session = sessionWith({{"remote_control", "on"}, {"full_device", true}});
  Recorder rec;
  session->setRemoteControl(QRVConsentState::on, rec.callback());
  ASSERT_EQ(rec.calls(), 1);
  EXPECT_FALSE(rec.arg<0>());
  EXPECT_EQ(rec.arg<1>(), session);
  session->setFullDevice(QRVConsentState::requested, rec.callback());
  EXPECT_EQ(rec.calls(), 2);

  session = sessionWith({{"state", "ended"}});
  session->setCustomData({{"a", 1}}, rec.callback());
  EXPECT_EQ(rec.calls(), 3);
  EXPECT_EQ(rec.arg<0>(), QRVError("Session ended", 400));
  EXPECT_EQ(main->pendingCount(), 0u) << "nothing was sent";
}

TEST_F(QRVSessionTest, TokensUrlsAndMetricsReports) {
  const std::string saved = QRVRESTResource::baseUrl();
  QRVRESTResource::setBaseUrl("https://api.example.com/");
  auto session = sessionWith({});
  auto token = session->sessionToken();
  ASSERT_TRUE(token);
  EXPECT_EQ(token->size(), 36u);
  EXPECT_TRUE(std::none_of(token->begin(), token->end(), [](char c) { return std::islower(c); }));
  EXPECT_NE(sessionWith({})->sessionToken(), token) << "a fresh token per session";
  EXPECT_EQ(std::make_shared<QRVSessionResource>()->sessionToken(), std::nullopt);
  session->setSessionToken("RESTORED");
  EXPECT_EQ(session->headers()["X-QuorviDeviceToken"], "RESTORED");

  EXPECT_EQ(session->url()->toString(), "https://api.example.com/api/1/sessions/S1");
  EXPECT_EQ(
      std::make_shared<QRVSessionResource>(Value::Map{{"code", "12 34/.."}})->url()->toString(),
      "https://api.example.com/api/1/sessions/12%2034%2F..");
  EXPECT_EQ(std::make_shared<QRVSessionResource>()->url()->toString(),
            "https://api.example.com/api/1/sessions");
  QRVRESTResource::setBaseUrl(saved);

  int reports = 0;
  struct Metrics : Observer {
    using Observer::Observer;
    int* reports = nullptr;
    void sessionMetricsDidUpdate(const std::shared_ptr<QRVSession>&) override { ++*reports; }
  };
  auto metrics = std::make_shared<Metrics>("m", log);
  metrics->reports = &reports;
  session->registerSessionObserver(metrics);
  session->metrics().onProbeResponded();
  EXPECT_EQ(reports, 1);
}

}  // namespace
}  // namespace quorvix

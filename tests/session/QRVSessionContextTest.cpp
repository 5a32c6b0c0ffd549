// The context's wiring: which agent input reaches the injector, what a session update starts,
// and the order of the teardown.
#include "session/QRVSessionContext.h"

#include <random>

#include <gtest/gtest.h>

#include "session-ui/SessionUIFakes.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"
#include "support/ScopedURLSession.h"

namespace quorvix {
namespace {

class RecordingControl : public QRVRemoteControl {
 public:
  explicit RecordingControl(test::CallLog& log) : log_(log) {}
  void setScreen(std::optional<QRVScreenRect>) override { log_.add("screen"); }
  void injectMouse(const QRVMouseEvent&) override { log_.add("inject mouse"); }
  void injectTouch(const QRVTouchEvent&) override { log_.add("inject touch"); }
  void injectKeyPress(const QRVKeyPress&) override { log_.add("inject key"); }
  void releaseAll() override { log_.add("release all"); }

 private:
  test::CallLog& log_;
};

class PromptingPrompt : public test::FakePrompt {
 public:
  using FakePrompt::FakePrompt;
  bool isPrompting() const override { return prompting; }
  bool prompting = false;
};

class RecordingRedaction : public QRVRedaction {
 public:
  explicit RecordingRedaction(test::CallLog& log) : log_(log) {}
  void setRedactedSelectors(const QRVSelectorSet& s) override { redacted = s; }
  void setUnredactedSelectors(const QRVSelectorSet& s) override { unredacted = s; }
  bool hasRedactedViews() const override { return !redacted.empty(); }
  void show() override { log_.add("redaction show"); }
  void hide() override { log_.add("redaction hide"); }
  QRVSelectorSet redacted, unredacted;

 private:
  test::CallLog& log_;
};

class HostLists : public QRVSessionContextDelegate {
 public:
  std::vector<std::string> redactedViews() const override { return {"#secret", "bad > x"}; }
  std::vector<std::string> unredactedViews() const override { return {}; }
};

class Vetoing : public QuorvixDelegate {
 public:
  void quorviSessionDidUpdate(const std::shared_ptr<QRVSession>&) override {}
  void quorviSessionDidEnd(const std::shared_ptr<QRVSession>&) override {}
  bool quorviShouldAllowKeyEvent(const QRVKeyPress&, const std::shared_ptr<QRVSession>&) override {
    return false;
  }
};

// Answers each veto as told.
class Deciding : public QuorvixDelegate {
 public:
  void quorviSessionDidUpdate(const std::shared_ptr<QRVSession>&) override {}
  void quorviSessionDidEnd(const std::shared_ptr<QRVSession>&) override {}
  bool quorviShouldAllowKeyEvent(const QRVKeyPress&, const std::shared_ptr<QRVSession>&) override {
    return allowKeys;
  }
  bool quorviShouldAllowMouseEvent(const QRVMouseEvent&,
                                   const std::shared_ptr<QRVSession>&) override {
    return allowMouse;
  }
  bool quorviShouldAllowTouchEvent(const QRVTouchEvent&,
                                   const std::shared_ptr<QRVSession>&) override {
    return allowTouch;
  }
  bool allowKeys = true, allowMouse = true, allowTouch = true;
};

// The base context with fakes where the platform context puts its parts.
class TestContext : public QRVSessionContext {
 public:
  static std::shared_ptr<TestContext> make(std::shared_ptr<QRVSessionResource> session,
                                           std::shared_ptr<Executor> main,
                                           test::CallLog& log,
                                           std::shared_ptr<PromptingPrompt> prompt,
                                           std::weak_ptr<QRVSessionContextDelegate> host) {
    std::shared_ptr<TestContext> context(new TestContext(session, main));
    QRVStreamProtocol::Environment stream;
    stream.makeEncoder = [](QRVStreamProtocol::EncoderKind) { return nullptr; };
    context->attach(std::move(host), std::move(stream), {});
    context->setUI(QRVSessionUI::create(session, std::make_shared<test::FakeAnnotations>(log),
                                        std::move(prompt),
                                        std::make_shared<test::FakeIndicator>(log), main));
    context->setControl(std::make_shared<RecordingControl>(log));
    return context;
  }

 private:
  using QRVSessionContext::QRVSessionContext;
};

class QRVSessionContextTest : public ::testing::Test {
 protected:
  QRVSessionContextTest() {
    QRVRESTResource::setBaseUrl("http://127.0.0.1:9/");
    session->setCapabilities({"pointer", "keypress", "drawing", "laser"});
    context = TestContext::make(session, main.get(), log, prompt, host);
  }
  ~QRVSessionContextTest() override { context->destroy(); }

  void serverSays(Value::Map fields) {
    Value::Map m{{"type", "Session"}, {"id", "S1"}, {"state", "active"}};
    for (auto& [k, v] : fields)
      m[k] = v;
    ASSERT_FALSE(session->updateResource(Value(m)));
    log.calls.clear();
  }
  void agentSends(const Value::Map& message) {
    QRVAgentEvent event;
    if (auto mouse = QRVMouseEvent::from(Value(message)))
      event = *mouse;
    else if (auto key = QRVKeyPress::from(Value(message)))
      event = *key;
    else if (auto touch = QRVTouchEvent::from(Value(message)))
      event = *touch;
    context->onAgentEvent(session, event);
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<test::RecordingURLSession> http = std::make_shared<test::RecordingURLSession>();
  test::ScopedURLSession scopedHttp{http};
  test::CallLog log;
  std::shared_ptr<QRVSessionResource> session = std::make_shared<QRVSessionResource>();
  std::shared_ptr<PromptingPrompt> prompt = std::make_shared<PromptingPrompt>(log);
  std::shared_ptr<HostLists> host = std::make_shared<HostLists>();
  std::shared_ptr<TestContext> context;
};

const Value::Map kClick{{"type", "Mouse"},
                        {"id", "m"},
                        {"state", "mousedown"},
                        {"button", 0},
                        {"x", 0.5},
                        {"y", 0.5},
                        {"timestamp", "2024-05-01T10:00:00.000Z"}};
const Value::Map kKey{{"type", "KeyPress"}, {"id", "k"},
                      {"state", "keydown"}, {"key", "a"},
                      {"code", "KeyA"},     {"shift", false},
                      {"alt", false},       {"ctrl", false},
                      {"meta", false},      {"timestamp", "2024-05-01T10:00:00.000Z"}};

TEST_F(QRVSessionContextTest, InputNeedsRemoteControlThenTheCapabilityThenTheHost) {
  test::LogCapture logs;
  serverSays({{"remote_control", "requested"}});
  agentSends(kClick);
  EXPECT_FALSE(log.has("inject mouse"));
  EXPECT_FALSE(logs.mentions("not allowed")) << "refused silently while not on";

  serverSays({{"remote_control", "on"}, {"capabilities", Value::Array{"keypress"}}});
  agentSends(kClick);
  EXPECT_FALSE(log.has("inject mouse"));
  EXPECT_TRUE(logs.contains(LogLevel::debug, "Capability 'pointer' not allowed."));

  serverSays({{"remote_control", "on"}});
  agentSends(kClick);
  EXPECT_TRUE(log.has("inject mouse")) << "a host that does not veto";

  context->setDelegate(std::make_shared<Vetoing>());
  log.calls.clear();
  agentSends(kKey);
  EXPECT_FALSE(log.has("inject key"));
}

TEST_F(QRVSessionContextTest, NothingIsInjectedWhileTheUserIsBeingAsked) {
  serverSays({{"remote_control", "on"}});
  prompt->prompting = true;
  agentSends(kClick);
  agentSends(kKey);
  EXPECT_FALSE(log.has("inject mouse"));
  EXPECT_FALSE(log.has("inject key"));
  prompt->prompting = false;
  agentSends(kKey);
  EXPECT_TRUE(log.has("inject key")) << "dropped, not queued: only the new one arrives";
  EXPECT_EQ(std::count(log.calls.begin(), log.calls.end(), "inject key"), 1);
}

TEST_F(QRVSessionContextTest, AnActiveUpdateStartsTheLoopAndShowsRedactionUnlessFullDeviceIsOff) {
  auto redaction = std::make_shared<RecordingRedaction>(log);
  context->setRedaction(redaction);
  EXPECT_EQ(redaction->redacted.size(), 1u) << "the host's list parsed, bad selectors dropped";

  serverSays({{"state", "pending"}});
  EXPECT_FALSE(context->frames()->isRunning());
  Value::Map update{{"type", "Session"},
                    {"id", "S1"},
                    {"state", "active"},
                    {"full_device", "requested"},
                    {"redaction_selectors", Value::Array{"#agent"}}};
  ASSERT_FALSE(session->updateResource(Value(update)));
  EXPECT_TRUE(log.has("redaction show"));
  EXPECT_TRUE(context->frames()->isRunning());
  EXPECT_EQ(redaction->redacted.size(), 2u) << "merged with the agent's";
}

TEST_F(QRVSessionContextTest, TeardownIsOrderedAndIdempotentAndDropsLaterFrames) {
  auto redaction = std::make_shared<RecordingRedaction>(log);
  context->setRedaction(redaction);
  serverSays({});
  context->destroy();
  EXPECT_TRUE(log.has("redaction hide"));
  EXPECT_TRUE(log.has("inactive")) << "the UI was destroyed";
  EXPECT_FALSE(context->stream());
  EXPECT_FALSE(context->frames());
  EXPECT_FALSE(context->session());
  log.calls.clear();
  context->destroy();
  EXPECT_TRUE(log.calls.empty());

  bool called = false;
  auto image = QRVImage::create(2, 2, std::vector<std::uint8_t>(16));
  context->handleFrame(std::make_shared<QRVFrame>(image), [&] { called = true; });
  EXPECT_FALSE(called);
  main->runUntilIdle();
  EXPECT_FALSE(called);
}

// Fail closed: when the agent's connection drops or the session stops being active, whatever
// the agent held is let go and the ink leaves the screen at once.
TEST_F(QRVSessionContextTest, InputAndInkStopWithTheConnectionOrTheActiveState) {
  serverSays({{"remote_control", "on"}});
  context->onStreamDisconnected(session);
  EXPECT_TRUE(log.has("release all"));
  EXPECT_TRUE(log.has("clear annotations"));

  log.calls.clear();
  ASSERT_FALSE(session->updateResource(Value(Value::Map{
      {"type", "Session"}, {"id", "S1"}, {"state", "authorizing"}, {"remote_control", "on"}})));
  EXPECT_TRUE(log.has("release all"));
  serverSays({{"remote_control", "on"}});
  agentSends(kClick);
  EXPECT_TRUE(log.has("inject mouse")) << "input resumes with the next allowed event";
}

// The input gate is a security boundary: over thousands of random events, session states,
// capabilities, host answers and open questions, an event reaches the injector exactly when
// remote control is on, the session offers its capability, the host allows it and no question
// is open.
TEST_F(QRVSessionContextTest, TheInputGateOpensExactlyWhenEveryConditionHolds) {
  std::mt19937 random(20261124);
  auto coin = [&] { return random() % 2 == 0; };
  auto host = std::make_shared<Deciding>();
  context->setDelegate(host);
  const char* states[] = {"off", "requested", "rejected", "on"};
  const Value::Map kTouch{
      {"type", "Touch"}, {"id", "t"}, {"state", "touchstart"},
      {"x", 0.5},        {"y", 0.5},  {"timestamp", "2024-05-01T10:00:00.000Z"}};
  const Value::Map kLaser{{"type", "Laser"}, {"id", "l"}, {"state", "touchmove"}};
  int injected = 0, refused = 0;
  for (int i = 0; i < 3000; ++i) {
    // Half the time on, so that the open gate is tried as often as the closed one's reasons.
    const char* remoteControl = coin() ? "on" : states[random() % 3];
    Value::Array capabilities;
    for (const char* name : {"pointer", "keypress", "laser"})
      if (coin())
        capabilities.emplace_back(name);
    const bool pointer = std::count(capabilities.begin(), capabilities.end(), Value("pointer"));
    const bool keypress = std::count(capabilities.begin(), capabilities.end(), Value("keypress"));
    serverSays({{"remote_control", remoteControl}, {"capabilities", capabilities}});
    host->allowKeys = coin();
    host->allowMouse = coin();
    host->allowTouch = coin();
    prompt->prompting = random() % 4 == 0;

    const int kind = static_cast<int>(random() % 4);
    const Value::Map& message = kind == 0 ? kClick : kind == 1 ? kKey : kind == 2 ? kTouch : kLaser;
    agentSends(message);
    const bool open = std::string(remoteControl) == "on" && !prompt->prompting &&
                      (kind == 0   ? pointer && host->allowMouse
                       : kind == 1 ? keypress && host->allowKeys
                       : kind == 2 ? pointer && host->allowTouch
                                   : false);
    const bool went = log.has("inject mouse") || log.has("inject key") || log.has("inject touch");
    ASSERT_EQ(went, open) << "event " << i << " kind " << kind << " remote control "
                          << remoteControl << " prompting " << prompt->prompting;
    (went ? injected : refused)++;
  }
  // Both outcomes are exercised often, not just the common one.
  EXPECT_GT(injected, 200);
  EXPECT_GT(refused, 1000);
  std::printf("input gate: %d injected, %d refused\n", injected, refused);
}

}  // namespace
}  // namespace quorvix

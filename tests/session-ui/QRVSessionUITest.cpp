// When the session UI asks, shows and hides, and which annotations it lets through.
#include "session-ui/QRVSessionUI.h"

#include <gtest/gtest.h>

#include "core/QRVRequest.h"
#include "session-ui/SessionUIFakes.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"
#include "support/ScopedURLSession.h"

namespace quorvix {
namespace {

class HandlingDelegate : public QuorvixDelegate {
 public:
  explicit HandlingDelegate(test::CallLog& log) : log_(log) {}
  void quorviSessionDidUpdate(const std::shared_ptr<QRVSession>&) override {}
  void quorviSessionDidEnd(const std::shared_ptr<QRVSession>&) override {}
  bool quorviHandleSessionRequest(const std::shared_ptr<QRVSession>&) override {
    log_.add("delegate session");
    return true;
  }
  bool quorviHandleFullDeviceRequest(const std::shared_ptr<QRVSession>&) override {
    log_.add("delegate full device");
    return true;
  }
  bool quorviHandleRemoteControlRequest(const std::shared_ptr<QRVSession>&) override {
    log_.add("delegate remote control");
    return true;
  }
  bool quorviShowSessionControls(const std::shared_ptr<QRVSession>&) override {
    log_.add("delegate show");
    return true;
  }
  bool quorviHideSessionControls(const std::shared_ptr<QRVSession>&) override {
    log_.add("delegate hide");
    return true;
  }

 private:
  test::CallLog& log_;
};

class QRVSessionUITest : public ::testing::Test {
 protected:
  QRVSessionUITest() {
    QRVRESTResource::setBaseUrl("http://127.0.0.1:9/");
    session->setCapabilities({"pointer", "keypress", "drawing", "laser"});
    ui = QRVSessionUI::create(session, std::make_shared<test::FakeAnnotations>(log),
                              std::make_shared<test::FakePrompt>(log),
                              std::make_shared<test::FakeIndicator>(log), main.get());
  }

  // The session holds its observers: let go of them as the session context does.
  ~QRVSessionUITest() override {
    ui->destroy();
    session->cleanup();
  }

  // The service's next answer for the session.
  void serverSays(Value::Map fields) {
    Value::Map m{{"type", "Session"}, {"id", "S1"}, {"state", "pending"}};
    for (auto& [k, v] : fields)
      m[k] = v;
    log.calls.clear();
    ASSERT_FALSE(session->updateResource(Value(m)));
  }
  std::vector<std::string> sent() {
    main->runUntilIdle();
    return http->bodies();
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<test::RecordingURLSession> http = std::make_shared<test::RecordingURLSession>();
  test::ScopedURLSession scopedHttp{http};
  test::CallLog log;
  std::shared_ptr<QRVSessionResource> session = std::make_shared<QRVSessionResource>();
  std::shared_ptr<QRVSessionUI> ui;
};

const Value kAgent = Value::Map{{"id", "A1"}, {"name", "Ada"}};

TEST_F(QRVSessionUITest, AsksForConsentOnlyWhenTheSessionRequiresIt) {
  serverSays({{"agent", kAgent}, {"require_consent", false}});
  EXPECT_FALSE(log.has("prompt session"));
  ASSERT_EQ(sent().size(), 1u);
  EXPECT_NE(sent()[0].find("\"state\":\"active\""), std::string::npos) << sent()[0];

  serverSays({{"agent", kAgent}, {"require_consent", true}});
  EXPECT_TRUE(log.has("prompt session"));
  ASSERT_EQ(sent().size(), 2u);
  EXPECT_NE(sent()[1].find("\"state\":\"authorizing\""), std::string::npos) << sent()[1];

  auto delegate = std::make_shared<HandlingDelegate>(log);
  ui->setDelegate(delegate);
  serverSays({{"agent", kAgent}, {"require_consent", true}});
  EXPECT_TRUE(log.has("delegate session"));
  EXPECT_FALSE(log.has("prompt session"));
}

TEST_F(QRVSessionUITest, TheBuiltInBorderIsHiddenEvenWhenTheDelegateHandlesHiding) {
  serverSays({{"state", "active"}});
  EXPECT_EQ(log.calls, (std::vector<std::string>{"indicator show", "active"}));

  auto delegate = std::make_shared<HandlingDelegate>(log);
  ui->setDelegate(delegate);
  serverSays({{"state", "active"}});
  EXPECT_EQ(log.calls, (std::vector<std::string>{"delegate show", "active"}));
  serverSays({{"state", "authorizing"}});
  EXPECT_EQ(log.calls, (std::vector<std::string>{"delegate hide", "indicator hide", "inactive"}));
}

TEST_F(QRVSessionUITest, RemoteControlIsAskedOnChangesOnly) {
  serverSays({{"state", "active"}, {"remote_control", "requested"}});
  EXPECT_TRUE(log.has("prompt remote control"));
  serverSays({{"state", "active"}, {"remote_control", "requested"}});
  EXPECT_FALSE(log.has("prompt remote control")) << "unchanged: not asked again";
  serverSays({{"state", "active"}, {"remote_control", "off"}});
  EXPECT_TRUE(log.has("cancel remote control"));
  serverSays({{"state", "ended"}, {"remote_control", "requested"}});
  EXPECT_FALSE(log.has("prompt remote control")) << "an ended session asks nothing";
}

TEST_F(QRVSessionUITest, FullDeviceIsAskedOnlyWhileActiveAndItsEndResendsCapabilities) {
  serverSays({{"state", "authorizing"}, {"full_device", "requested"}});
  EXPECT_FALSE(log.has("prompt full device"));
  EXPECT_TRUE(log.has("cancel full device")) << "a request while not active is cancelled";

  serverSays({{"state", "active"}, {"full_device", "off"}});
  serverSays({{"state", "active"}, {"full_device", "requested"}});
  EXPECT_TRUE(log.has("prompt full device"));
  EXPECT_FALSE(log.has("cancel full device"));

  session->capabilitySet()->toggle("arrows", false);
  session->capabilitySet()->toggle("laser", false);
  const std::size_t before = sent().size();
  serverSays({{"state", "active"}, {"full_device", "off"}});
  EXPECT_TRUE(log.has("cancel full device"));
  auto bodies = sent();
  ASSERT_EQ(bodies.size(), before + 1);
  EXPECT_EQ(bodies.back().rfind("PUT ", 0), 0u);
  EXPECT_NE(bodies.back().find("\"laser\""), std::string::npos) << bodies.back();
}

TEST_F(QRVSessionUITest, AnnotationsNeedTheirCapability) {
  test::LogCapture logs;
  session->setCapabilities({"pointer", "drawing", "arrows", "laser"});
  serverSays({{"state", "active"}, {"capabilities", Value::Array{"drawing", "pointer"}}});
  log.calls.clear();
  const Value laser = Value::Map{{"type", "Laser"}, {"id", "1"}, {"state", "touchmove"}};
  const Value drawing = Value::Map{{"type", "Drawing"}, {"id", "1"}};
  ui->onAgentEvent(*QRVLaser::from(laser));
  ui->onAgentEvent(*QRVDrawing::from(drawing));
  ui->onAgentEvent(std::monostate{});
  EXPECT_EQ(log.calls, std::vector<std::string>{"drawing"});
  EXPECT_TRUE(logs.contains(LogLevel::debug, "Capability 'laser' not allowed."));

  serverSays({{"state", "active"}, {"capabilities", Value::Array{"arrows"}}});
  log.calls.clear();
  ui->onAgentEvent(*QRVDrawing::from(drawing));
  EXPECT_EQ(log.calls, std::vector<std::string>{"drawing"}) << "any drawing tool allows drawings";
}

TEST_F(QRVSessionUITest, TheEndClosesEverythingOnce) {
  serverSays({{"state", "active"}});
  serverSays({{"state", "ended"}});
  EXPECT_EQ(log.calls,
            (std::vector<std::string>{"indicator hide", "inactive", "indicator hide",
                                      "indicator hide", "cancel session", "cancel full device",
                                      "cancel remote control", "inactive"}));
  log.calls.clear();
  ui->destroy();
  EXPECT_TRUE(log.calls.empty());
  EXPECT_FALSE(ui->isPrompting());
}

}  // namespace
}  // namespace quorvix

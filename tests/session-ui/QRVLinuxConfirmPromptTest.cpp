// The built-in prompt's questions and what each answer does to the session.
#include "session-ui/QRVLinuxConfirmPrompt.h"

#include <gtest/gtest.h>

#include "core/QRVRequest.h"
#include "core/QRVSessionResource.h"
#include "session-ui/SessionUIFakes.h"
#include "support/ManualExecutor.h"
#include "support/ScopedURLSession.h"

namespace quorvix {
namespace {

// Dialogs as records; the test answers them.
class FakePresenter : public QRVDialogPresenter {
 public:
  struct Shown {
    QRVDialogContent content;
    std::function<void(int)> answer;
    bool open = true;
  };
  class Dialog : public QRVDialog {
   public:
    explicit Dialog(std::shared_ptr<Shown> shown) : shown_(std::move(shown)) {}
    ~Dialog() override { shown_->open = false; }

   private:
    std::shared_ptr<Shown> shown_;
  };

  std::unique_ptr<QRVDialog> present(const QRVDialogContent& content,
                                     std::function<void(int)> onAnswer) override {
    shown.push_back(std::make_shared<Shown>(Shown{content, std::move(onAnswer)}));
    return std::make_unique<Dialog>(shown.back());
  }
  std::vector<std::shared_ptr<Shown>> shown;
};

class QRVLinuxConfirmPromptTest : public ::testing::Test {
 protected:
  QRVLinuxConfirmPromptTest() {
    QRVRESTResource::setBaseUrl("http://127.0.0.1:9/");
    QRVPromptPermissions permissions;
    permissions.canRecordScreen = [this] {
      ++screenChecks;
      return screenPermitted;
    };
    permissions.canControl = [this] { return controlPermitted; };
    permissions.openSettings = [this](QRVPromptPermissions::Settings s) { opened.push_back(s); };
    prompt = QRVLinuxConfirmPrompt::create(presenter, permissions, main.get());
  }
  void serverSays(Value::Map fields) {
    Value::Map m{{"type", "Session"}, {"id", "S1"}, {"state", "active"}};
    for (auto& [k, v] : fields)
      m[k] = v;
    ASSERT_FALSE(session->updateResource(Value(m)));
  }
  std::string lastSent() {
    main->runUntilIdle();
    auto bodies = http->bodies();
    return bodies.empty() ? "" : bodies.back();
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<test::RecordingURLSession> http = std::make_shared<test::RecordingURLSession>();
  test::ScopedURLSession scopedHttp{http};
  std::shared_ptr<FakePresenter> presenter = std::make_shared<FakePresenter>();
  std::shared_ptr<QRVSessionResource> session = std::make_shared<QRVSessionResource>();
  std::shared_ptr<QRVLinuxConfirmPrompt> prompt;
  bool screenPermitted = true;
  bool controlPermitted = true;
  int screenChecks = 0;
  std::vector<QRVPromptPermissions::Settings> opened;
};

TEST_F(QRVLinuxConfirmPromptTest, SessionRequestAllowActivatesAndAnythingElseEnds) {
  serverSays({{"state", "authorizing"}});
  prompt->handleSessionRequest(session);
  ASSERT_EQ(presenter->shown.size(), 1u);
  const auto& content = presenter->shown[0]->content;
  EXPECT_EQ(content.title, "Support Request");
  EXPECT_EQ(content.firstButton, "Allow");
  EXPECT_EQ(content.secondButton, "Deny");
  EXPECT_TRUE(prompt->isPrompting());
  presenter->shown[0]->answer(0);
  EXPECT_FALSE(prompt->isPrompting());
  EXPECT_NE(lastSent().find("\"state\":\"active\""), std::string::npos) << lastSent();

  prompt->handleSessionRequest(session);
  presenter->shown[1]->answer(1);
  EXPECT_NE(lastSent().find("\"state\":\"ended\""), std::string::npos) << lastSent();
}

TEST_F(QRVLinuxConfirmPromptTest, ConsentAnswersSetTheState) {
  serverSays({{"full_device", "requested"}, {"remote_control", "requested"}});
  prompt->handleFullDeviceRequest(session);
  EXPECT_EQ(presenter->shown[0]->content.title, "Full device screenshare");
  presenter->shown[0]->answer(0);
  EXPECT_NE(lastSent().find("\"full_device\":\"on\""), std::string::npos) << lastSent();

  prompt->handleRemoteControlRequest(session);
  EXPECT_EQ(presenter->shown[1]->content.message,
            "A support agent would like to remotely control your device. Do you wish to allow "
            "this?");
  presenter->shown[1]->answer(1);
  EXPECT_NE(lastSent().find("\"remote_control\":\"rejected\""), std::string::npos) << lastSent();
}

TEST_F(QRVLinuxConfirmPromptTest, AMissingPermissionOpensSettingsAndPollsUntilGranted) {
  screenPermitted = false;
  serverSays({{"full_device", "requested"}});
  prompt->handleFullDeviceRequest(session);
  EXPECT_EQ(presenter->shown[0]->content.firstButton, "Open System Preferences");
  presenter->shown[0]->answer(0);
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_EQ(opened[0], QRVPromptPermissions::Settings::screenCapture);
  EXPECT_EQ(lastSent(), "") << "the state stays requested";

  const int checks = screenChecks;
  main->advanceSeconds(3);
  EXPECT_EQ(screenChecks, checks + 3);
  screenPermitted = true;
  main->advanceSeconds(1);
  EXPECT_NE(lastSent().find("\"full_device\":\"on\""), std::string::npos) << lastSent();
  EXPECT_EQ(main->pendingCount(), 0u) << "the poll ends once granted";
}

TEST_F(QRVLinuxConfirmPromptTest, ThePollStopsWithTheStateTheSessionOrThePrompt) {
  controlPermitted = false;
  serverSays({{"remote_control", "requested"}});
  prompt->handleRemoteControlRequest(session);
  EXPECT_NE(presenter->shown[0]->content.message.find("Accessibility permission"),
            std::string::npos);
  presenter->shown[0]->answer(0);
  main->advanceSeconds(1);
  EXPECT_EQ(main->pendingCount(), 1u);
  serverSays({{"remote_control", "off"}});
  main->advanceSeconds(1);
  EXPECT_EQ(main->pendingCount(), 0u) << "withdrawn by the agent";

  serverSays({{"remote_control", "requested"}});
  prompt->handleRemoteControlRequest(session);
  presenter->shown[1]->answer(0);
  EXPECT_EQ(main->pendingCount(), 1u);
  prompt.reset();
  main->advanceSeconds(1);
  EXPECT_EQ(main->pendingCount(), 0u) << "the prompt is gone";
}

TEST_F(QRVLinuxConfirmPromptTest, CancelClosesTheQuestionAndItsAnswerNeverArrives) {
  serverSays({{"full_device", "requested"}});
  prompt->handleFullDeviceRequest(session);
  prompt->handleRemoteControlRequest(session);
  prompt->cancelFullDeviceRequest();
  EXPECT_FALSE(presenter->shown[0]->open);
  EXPECT_TRUE(presenter->shown[1]->open);
  EXPECT_TRUE(prompt->isPrompting());
  prompt->cancelRemoteControlRequest();
  EXPECT_FALSE(prompt->isPrompting());
}

}  // namespace
}  // namespace quorvix

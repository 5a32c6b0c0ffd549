// The desktop context's own rules: which source captures, the start and stop notifications
// around a switch, following the main screen, and a display capture that fails.
#include "session/linux/QRVSessionContextLinux.h"

#include <gtest/gtest.h>

#include "session-ui/SessionUIFakes.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"
#include "support/ScopedURLSession.h"

namespace quorvix {
namespace {

class FakeSource : public QRVFrameSource, public QRVFrameSourceScreenObserver {
 public:
  FakeSource(std::string name, test::CallLog& log) : name_(std::move(name)), log_(log) {}
  void capturingWillStart() override { log_.add(name_ + " start"); }
  void capturingWillStop() override { log_.add(name_ + " stop"); }
  bool isNewFrameAvailable() override { return false; }
  std::shared_ptr<QRVFrame> newFrame(double) override { return nullptr; }
  std::shared_ptr<QRVFrame> lastFrame() override { return nullptr; }
  void setScreen(std::shared_ptr<const QRVScreen> screen) override {
    log_.add(name_ + " screen " + describe(screen));
  }

 private:
  std::string name_;
  test::CallLog& log_;
};

class FakeScreens : public QRVScreenWatcher {
 public:
  std::shared_ptr<const QRVScreen> mainScreen() const override {
    ++reads;
    return screen;
  }
  int subscribe(Callback callback) override {
    callbacks.push_back(std::move(callback));
    return static_cast<int>(callbacks.size());
  }
  void unsubscribe(int id) override { callbacks.at(static_cast<std::size_t>(id - 1)) = nullptr; }
  std::shared_ptr<const QRVScreen> screen =
      std::make_shared<QRVScreen>("one", QRVScreenRect{0, 0, 1920, 1080}, 60);
  std::vector<Callback> callbacks;
  mutable int reads = 0;
};

class RecordingControl : public QRVRemoteControl {
 public:
  explicit RecordingControl(test::CallLog& log) : log_(log) {}
  void setScreen(std::optional<QRVScreenRect> s) override {
    log_.add("control screen " + (s ? std::to_string(s->width) : std::string("none")));
  }
  void injectMouse(const QRVMouseEvent&) override {}
  void injectTouch(const QRVTouchEvent&) override {}
  void injectKeyPress(const QRVKeyPress&) override {}
  void releaseAll() override {}

 private:
  test::CallLog& log_;
};

class QRVSessionContextLinuxTest : public ::testing::Test {
 protected:
  QRVSessionContextLinuxTest() {
    QRVRESTResource::setBaseUrl("http://127.0.0.1:9/");
    session->setCapabilities({"pointer", "keypress"});
    QRVSessionContextLinux::Parts parts;
    parts.systemCaptureSource = {display, display};
    parts.setCaptureDelegate = [this](std::weak_ptr<QRVX11DisplayFrameSourceDelegate> d) {
      captureDelegate = std::move(d);
    };
    parts.windowSource = {window, window};
    parts.screens = screens;
    parts.annotations = std::make_shared<test::FakeAnnotations>(log);
    parts.prompt = std::make_shared<test::FakePrompt>(log);
    parts.indicator = std::make_shared<test::FakeIndicator>(log);
    parts.control = std::make_shared<RecordingControl>(log);
    parts.stream.makeEncoder = [](QRVStreamProtocol::EncoderKind) { return nullptr; };
    context = QRVSessionContextLinux::create(session, {}, std::move(parts), main.get());
  }
  ~QRVSessionContextLinuxTest() override { context->destroy(); }

  void serverSays(Value::Map fields) {
    Value::Map m{{"type", "Session"}, {"id", "S1"}, {"state", "active"}};
    for (auto& [k, v] : fields)
      m[k] = v;
    log.calls.clear();
    ASSERT_FALSE(session->updateResource(Value(m)));
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<test::RecordingURLSession> http = std::make_shared<test::RecordingURLSession>();
  test::ScopedURLSession scopedHttp{http};
  test::CallLog log;
  std::shared_ptr<QRVSessionResource> session = std::make_shared<QRVSessionResource>();
  std::shared_ptr<FakeSource> display = std::make_shared<FakeSource>("display", log);
  std::shared_ptr<FakeSource> window = std::make_shared<FakeSource>("window", log);
  std::shared_ptr<FakeScreens> screens = std::make_shared<FakeScreens>();
  std::weak_ptr<QRVX11DisplayFrameSourceDelegate> captureDelegate;
  std::shared_ptr<QRVSessionContextLinux> context;
};

TEST_F(QRVSessionContextLinuxTest, OnlyFullDeviceOnCapturesTheDisplay) {
  EXPECT_EQ(context->frames()->source(), window);
  EXPECT_TRUE(log.calls.empty()) << "the first source is set without notifications";
  serverSays({{"full_device", "requested"}});
  EXPECT_EQ(context->frames()->source(), window);
  EXPECT_TRUE(context->frames()->isRunning());
  serverSays({{"full_device", "on"}});
  EXPECT_EQ(context->frames()->source(), display);
  EXPECT_TRUE(log.has("window stop"));
  EXPECT_TRUE(log.has("display start"));
  serverSays({{"full_device", "on"}});
  EXPECT_FALSE(log.has("display start")) << "the same source: no notifications";
  serverSays({{"state", "ended"}, {"full_device", "off"}});
  EXPECT_FALSE(log.has("window start")) << "an ended session leaves the source alone";
}

TEST_F(QRVSessionContextLinuxTest, FollowsTheMainScreenWithOneComparisonWhenNothingChanged) {
  main->advance(QRVSessionContextLinux::kScreenPollInterval);
  EXPECT_TRUE(log.has("control screen 1920"));
  EXPECT_TRUE(log.has("display screen " + describe(screens->screen)));
  EXPECT_TRUE(log.has("window screen " + describe(screens->screen)));
  log.calls.clear();
  const int reads = screens->reads;
  main->advance(QRVSessionContextLinux::kScreenPollInterval * 10);
  EXPECT_TRUE(log.calls.empty());
  EXPECT_EQ(screens->reads, reads + 10) << "one read and one comparison per tick";

  screens->screen = std::make_shared<QRVScreen>("two", QRVScreenRect{1920, 0, 1280, 1024}, 75);
  main->advance(QRVSessionContextLinux::kScreenPollInterval);
  EXPECT_TRUE(log.has("control screen 1280")) << "within 0.1 s";

  // A notification re-targets at once, even to an equal screen.
  log.calls.clear();
  ASSERT_FALSE(screens->callbacks.empty());
  screens->callbacks[0](screens->screen);
  EXPECT_TRUE(log.has("control screen 1280"));
}

TEST_F(QRVSessionContextLinuxTest, AFailedDisplayCaptureRejectsFullDeviceAndFallsBack) {
  test::LogCapture logs;
  serverSays({{"full_device", "on"}});
  ASSERT_EQ(context->frames()->source(), display);
  auto delegate = captureDelegate.lock();
  ASSERT_TRUE(delegate);
  delegate->screenCaptureDidFailWithError(QRVError("ScreenCapture", 403, "no"));
  EXPECT_TRUE(logs.contains(LogLevel::debug, "screen capture failed"));
  EXPECT_EQ(context->frames()->source(), window);
  main->runUntilIdle();
  ASSERT_FALSE(http->bodies().empty());
  EXPECT_NE(http->bodies().back().find("\"full_device\":\"rejected\""), std::string::npos);
}

TEST_F(QRVSessionContextLinuxTest, DestroyStopsFollowingTheScreen) {
  context->destroy();
  log.calls.clear();
  screens->screen = std::make_shared<QRVScreen>("two", QRVScreenRect{0, 0, 800, 600}, 60);
  main->advance(QRVSessionContextLinux::kScreenPollInterval * 3);
  EXPECT_EQ(main->pendingCount(), 0u);
  EXPECT_TRUE(log.calls.empty());
}

}  // namespace
}  // namespace quorvix

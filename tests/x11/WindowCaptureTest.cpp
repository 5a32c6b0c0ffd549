// The window source against real X servers, with and without a window manager: the host's own
// windows read back pixel for pixel wherever other windows cover them, windows claimed by process
// id or registered, scaling, a closed window, a resized screen, a compositor that paints late and a
// killed server.
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "frameloop/linux/QRVX11WindowFrameSource.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/X11TestDisplay.h"
#include "x11/CaptureChecks.h"
#include "x11/X11TestClient.h"

namespace quorvix::test {
namespace {

constexpr std::uint32_t kForeign = 0xff00ff;

int countColour(const QRVFrame& frame, std::uint32_t colour) {
  int n = 0;
  for (int y = 0; y < frame.height(); ++y)
    for (int x = 0; x < frame.width(); ++x)
      n += pixelAt(frame, x, y) == colour;
  return n;
}

// A window of another process; stopped by its PID when it goes.
struct ForeignWindow {
  ForeignWindow(const std::string& display,
                int x,
                int y,
                int w,
                int h,
                std::uint32_t colour,
                pid_t claimedPid = 0)
      : process(args(display, x, y, w, h, colour, claimedPid)) {
    if (auto line = process.readLine(); line && line->rfind("ready ", 0) == 0)
      id = std::uint32_t(std::stoul(line->substr(6)));
  }
  static std::vector<std::string> args(const std::string& display,
                                       int x,
                                       int y,
                                       int w,
                                       int h,
                                       std::uint32_t colour,
                                       pid_t claimedPid) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "%06x", colour);
    std::vector<std::string> argv{
        QRV_FOREIGN_WINDOW, display, std::to_string(x), std::to_string(y), std::to_string(w),
        std::to_string(h),  hex};
    if (claimedPid != 0)
      argv.push_back(std::to_string(claimedPid));
    return argv;
  }
  ChildProcess process;
  std::uint32_t id = 0;
};

// Asks for frames until one satisfies `done`; bounded by real time, since captures run on the
// source's own thread.
std::shared_ptr<QRVFrame> frameWhere(QRVFrameSource& source,
                                     const std::function<bool(const QRVFrame&)>& done,
                                     double scale = 1.0) {
  for (int i = 0; i < 1000; ++i) {
    if (auto frame = source.newFrame(scale); frame && done(*frame))
      return frame;
    usleep(5'000);
  }
  return nullptr;
}

class WindowCaptureTest : public testing::Test {
 protected:
  void SetUp() override {
    QRV_REQUIRE_TEST_DISPLAY();
    client_ = std::make_unique<X11TestClient>(testDisplayName());
    ASSERT_TRUE(client_->ok());
    client_->movePointer(1900, 1060);
    source_ = std::make_unique<QRVX11WindowFrameSource>(testDisplayName());
    source_->capturingWillStart();
  }
  void TearDown() override {
    source_.reset();
    for (auto w : windows_)
      client_->destroy(w);
  }

  xcb_window_t window(int x, int y, int w, int h, const X11TestClient::Pattern& p, bool managed) {
    windows_.push_back(client_->createWindow(x, y, w, h, p, managed));
    return windows_.back();
  }

  LogCapture logs_;
  std::unique_ptr<X11TestClient> client_;
  std::unique_ptr<QRVX11WindowFrameSource> source_;
  std::vector<xcb_window_t> windows_;
};

TEST_F(WindowCaptureTest, OwnWindowsAreExactAndAnotherClientsWindowOverThemNeverShows) {
  window(300, 200, 256, 128, testPattern, false);
  const xcb_window_t managed = window(
      800, 300, 200, 100, [](int, int) { return 0x3366cc; }, true);
  ASSERT_TRUE(client_->waitViewable(managed));
  const auto position = client_->rootPosition(managed);
  const int mx = position.first;
  const int my = position.second;
  ForeignWindow foreign(testDisplayName(), 350, 250, 300, 200, kForeign);
  ASSERT_NE(foreign.id, 0u);
  ForeignWindow overManaged(testDisplayName(), mx + 50, my + 20, 60, 40, kForeign);
  ASSERT_NE(overManaged.id, 0u);

  auto frame = frameWhere(*source_, [&](const QRVFrame& f) {
    return pixelAt(f, 300, 200) == 0xff0000 && pixelAt(f, mx + 100, my + 50) == 0x3366cc;
  });
  ASSERT_NE(frame, nullptr);
  ASSERT_EQ(frame->width(), 1920);
  EXPECT_EQ(patternMismatches(*frame, 300, 200), 0)
      << "the covered part reads as the window's own picture";
  int wrong = 0;
  for (int y = 0; y < 100; ++y)
    for (int x = 0; x < 200; ++x)
      wrong += pixelAt(*frame, mx + x, my + y) != 0x3366cc;
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(countColour(*frame, kForeign), 0);
}

TEST_F(WindowCaptureTest, WindowsClaimingTheHostsProcessOrRegisteredAreCaptured) {
  ForeignWindow claimed(testDisplayName(), 100, 600, 80, 80, 0x11aa22, getpid());
  ForeignWindow registered(testDisplayName(), 300, 600, 80, 80, 0x2211aa);
  ForeignWindow stranger(testDisplayName(), 500, 600, 80, 80, 0xaa2211);
  ASSERT_NE(registered.id, 0u);
  source_->registerWindow(registered.id);
  auto frame = frameWhere(*source_, [](const QRVFrame& f) {
    return pixelAt(f, 140, 640) == 0x11aa22 && pixelAt(f, 340, 640) == 0x2211aa;
  });
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(countColour(*frame, 0xaa2211), 0);

  source_->unregisterWindow(registered.id);
  EXPECT_NE(
      frameWhere(*source_, [](const QRVFrame& f) { return pixelAt(f, 340, 640) != 0x2211aa; }),
      nullptr);
}

TEST_F(WindowCaptureTest, HalfScaleIsExactInSolidAreasAndCloseInGradients) {
  window(300, 200, 256, 128, testPattern, false);
  auto half = frameWhere(
      *source_, [](const QRVFrame& f) { return pixelAt(f, 160, 110) == 0xff0000; }, 0.5);
  ASSERT_NE(half, nullptr);
  ASSERT_EQ(half->width(), 960);
  EXPECT_EQ(halfPatternMismatches(*half, 150, 100), 0);
}

// The capturer on the test's thread: what the source's thread does every 100 ms.
TEST_F(WindowCaptureTest, UnchangedWindowsGiveTheSameImageAndDrawingANewOne) {
  const xcb_window_t w = window(
      600, 600, 64, 64, [](int, int) { return 0x808080; }, false);
  auto capturer =
      WindowCapturer::createX11(testDisplayName(), std::make_shared<QRVWindowRegistry>());
  ASSERT_NE(capturer, nullptr);
  // The first notifications cover the whole screen; wait for one image handed out twice.
  std::shared_ptr<const QRVImage> previous = capturer->capture(nullptr, 1.0);
  std::shared_ptr<const QRVImage> held;
  for (int i = 0; i < 30 && !held; ++i) {
    auto image = capturer->capture(nullptr, 1.0);
    if (image && image == previous)
      held = image;
    previous = image;
  }
  ASSERT_NE(held, nullptr) << "idle windows never gave the same image twice";
  EXPECT_EQ(capturer->capture(nullptr, 1.0), held);

  client_->fill(w, 0x10e020, 8, 8, 16, 16);
  auto drawn = capturer->capture(nullptr, 1.0);
  ASSERT_NE(drawn, nullptr);
  EXPECT_NE(drawn, held);
  QRVFrame frame(drawn);
  EXPECT_EQ(pixelAt(frame, 610, 610), 0x10e020u);

  client_->movePointer(1800, 1000);
  EXPECT_NE(capturer->capture(nullptr, 1.0), drawn) << "a moved pointer is a new picture";

  // The cursor and a white click ring over the window while the left button is down.
  client_->movePointer(632, 632);
  client_->button(1, true);
  auto pressed = capturer->capture(nullptr, 1.0);
  client_->button(1, false);
  ASSERT_NE(pressed, nullptr);
  QRVFrame withRing(pressed);
  int white = 0;
  for (int y = 600; y < 664; ++y)
    for (int x = 600; x < 664; ++x)
      white += near(pixelAt(withRing, x, y), 0xffffff, 40);
  EXPECT_GT(white, 30);
}

TEST_F(WindowCaptureTest, ClosedWindowLeavesTheFramesAndTheLog) {
  const xcb_window_t w = client_->createWindow(400, 400, 50, 50, [](int, int) { return 0xc03030; });
  ASSERT_NE(
      frameWhere(*source_, [](const QRVFrame& f) { return pixelAt(f, 420, 420) == 0xc03030; }),
      nullptr);
  client_->destroy(w);
  EXPECT_NE(
      frameWhere(*source_, [](const QRVFrame& f) { return pixelAt(f, 420, 420) != 0xc03030; }),
      nullptr);
  // "closed" when the notification came first, "vanished" when the capture met it first.
  char id[32];
  std::snprintf(id, sizeof id, "window %#x ", w);
  EXPECT_TRUE(logs_.mentions(id));
}

TEST_F(WindowCaptureTest, MainScreenShrinkingIsFollowed) {
  window(
      100, 100, 40, 40, [](int, int) { return 0x123456; }, false);
  ASSERT_NE(frameWhere(*source_, [](const QRVFrame& f) { return f.width() == 1920; }), nullptr);
  struct Restore {
    ~Restore() { runOnTestDisplay(kFullSize); }
  } restore;
  ASSERT_TRUE(shrinkTestDisplay());
  auto small = frameWhere(*source_, [](const QRVFrame& f) { return f.width() == 1600; });
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(small->height(), 900);
  EXPECT_EQ(pixelAt(*small, 120, 120), 0x123456u);
  ASSERT_EQ(runOnTestDisplay(kFullSize), 0);
  EXPECT_NE(frameWhere(*source_, [](const QRVFrame& f) { return f.width() == 1920; }), nullptr);
}

// A compositing manager paints the screen when it gets round to it; here one that never does, on
// a server of the test's own. Drawing by the host's windows and on the published background shows
// at the next capture all the same, and the compositor painting the root is no change.
TEST(WindowCaptureCompositorTest, DrawingShowsBeforeTheCompositorPaintsAndItsPaintingIsNoChange) {
  ChildProcess server(
      {"Xvfb", "-displayfd", "1", "-screen", "0", "320x240x24", "-nolisten", "tcp", "-noreset"});
  auto number = server.readLine();
  ASSERT_TRUE(number.has_value()) << "Xvfb did not start";
  const std::string display = ":" + *number;
  X11TestClient compositor(display);
  ASSERT_TRUE(compositor.redirectManually());
  X11TestClient client(display);
  const xcb_window_t w = client.createWindow(100, 100, 64, 64, [](int, int) { return 0x808080; });
  auto capturer = WindowCapturer::createX11(display, std::make_shared<QRVWindowRegistry>());
  ASSERT_NE(capturer, nullptr);
  // The cursor's first picture is news too: wait for an image handed out twice.
  std::shared_ptr<const QRVImage> previous = capturer->capture(nullptr, 1.0);
  std::shared_ptr<const QRVImage> held;
  for (int i = 0; i < 10 && !held; ++i) {
    auto image = capturer->capture(nullptr, 1.0);
    if (image && image == previous)
      held = image;
    previous = image;
  }
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(pixelAt(QRVFrame(held), 110, 110), 0x808080u);
  compositor.fill(compositor.root(), 0x00ff00, 0, 0, 320, 240);
  EXPECT_EQ(capturer->capture(nullptr, 1.0), held) << "the compositor's painting is new";

  client.fill(w, 0x10e020, 8, 8, 16, 16);
  const auto drawn = capturer->capture(nullptr, 1.0);
  ASSERT_NE(drawn, nullptr);
  EXPECT_EQ(pixelAt(QRVFrame(drawn), 110, 110), 0x10e020u);

  const xcb_pixmap_t background = client.publishBackground(0x203040);
  const auto published = capturer->capture(nullptr, 1.0);
  ASSERT_NE(published, nullptr);
  EXPECT_EQ(pixelAt(QRVFrame(published), 10, 10), 0x203040u);
  client.fill(background, 0x405060, 0, 0, 32, 32);
  const auto redrawn = capturer->capture(nullptr, 1.0);
  ASSERT_NE(redrawn, nullptr);
  EXPECT_EQ(pixelAt(QRVFrame(redrawn), 10, 10), 0x405060u);
}

TEST(WindowCaptureServerLossTest, KilledServerEndsInALogLine) {
  ChildProcess server(
      {"Xvfb", "-displayfd", "1", "-screen", "0", "320x240x24", "-nolisten", "tcp", "-noreset"});
  auto number = server.readLine();
  ASSERT_TRUE(number.has_value()) << "Xvfb did not start";
  const std::string display = ":" + *number;
  LogCapture logs;
  X11TestClient client(display);
  client.createWindow(10, 10, 50, 50, [](int, int) { return 0x00c0c0; });
  QRVX11WindowFrameSource source(display);
  source.capturingWillStart();
  ASSERT_NE(frameWhere(source, [](const QRVFrame& f) { return pixelAt(f, 20, 20) == 0x00c0c0; }),
            nullptr);
  server.stop();
  bool logged = false;
  for (int i = 0; i < 1000 && !logged; ++i) {
    source.newFrame(1.0);
    logged =
        logs.contains(LogLevel::error,
                      "display connection lost; window capture resumes when the display is back");
    usleep(5'000);
  }
  EXPECT_TRUE(logged);
}

}  // namespace
}  // namespace quorvix::test

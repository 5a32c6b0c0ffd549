// The whole-display source against real X servers: known pictures read back pixel for pixel, the
// cursor and click ring, the reuse of an unchanged picture, and a window, a screen size and a
// whole server going away under a running capture.
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <xcb/xfixes.h>

#include "frameloop/DisplayGrabber.h"
#include "frameloop/QRVScreenWatcher.h"
#include "frameloop/linux/QRVX11DisplayFrameSource.h"
#include "frameloop/linux/XcbShm.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"
#include "support/X11TestDisplay.h"
#include "x11/CaptureChecks.h"
#include "x11/X11TestClient.h"

namespace quorvix::test {
namespace {

constexpr int kMaxTicks = 30;  // bound on every wait for a capture to show something

class DisplayCaptureTest : public testing::Test {
 protected:
  void SetUp() override {
    QRV_REQUIRE_TEST_DISPLAY();
    client_ = std::make_unique<X11TestClient>(testDisplayName());
    ASSERT_TRUE(client_->ok());
    client_->movePointer(1900, 1060);
    source_ = std::make_unique<QRVX11DisplayFrameSource>(queue_, testDisplayName());
  }

  std::shared_ptr<QRVFrame> next(double scale = 1.0) {
    queue_->advance(QRVX11DisplayFrameSource::kMinCaptureInterval);
    return source_->newFrame(scale);
  }

  // Frames until one satisfies `done`; nullptr when none did within the bound.
  std::shared_ptr<QRVFrame> nextUntil(const std::function<bool(const QRVFrame&)>& done,
                                      double scale = 1.0) {
    for (int i = 0; i < kMaxTicks; ++i)
      if (auto frame = next(scale); frame && done(*frame))
        return frame;
    return nullptr;
  }

  LogCapture logs_;
  std::shared_ptr<ManualExecutor> queue_ = std::make_shared<ManualExecutor>();
  std::unique_ptr<X11TestClient> client_;
  std::unique_ptr<QRVX11DisplayFrameSource> source_;
};

TEST_F(DisplayCaptureTest, ReadsAKnownPictureExactlyAtFullAndHalfScale) {
  const xcb_window_t window = client_->createWindow(200, 150, 256, 128, testPattern);
  source_->capturingWillStart();
  auto frame = nextUntil([](const QRVFrame& f) { return pixelAt(f, 200, 150) == 0xff0000; });
  ASSERT_NE(frame, nullptr);
  ASSERT_EQ(frame->width(), 1920);
  ASSERT_EQ(frame->height(), 1080);
  EXPECT_EQ(patternMismatches(*frame, 200, 150), 0);

  // A new input at half scale.
  source_->capturingWillStop();
  source_->capturingWillStart();
  auto half = nextUntil([](const QRVFrame& f) { return pixelAt(f, 110, 85) == 0xff0000; }, 0.5);
  ASSERT_NE(half, nullptr);
  ASSERT_EQ(half->width(), 960);
  ASSERT_EQ(half->height(), 540);
  EXPECT_EQ(halfPatternMismatches(*half, 100, 75), 0);
  client_->destroy(window);
}

TEST_F(DisplayCaptureTest, ReadsTheSameThroughEveryKindOfSharedMemoryAndWithout) {
  const xcb_window_t window = client_->createWindow(200, 150, 256, 128, testPattern);
  struct Reset {
    ~Reset() { x11::ShmSegment::setKindsForTesting(x11::ShmSegment::Kinds::all); }
  } reset;
  using Kinds = x11::ShmSegment::Kinds;
  for (Kinds kinds : {Kinds::fdOnly, Kinds::none}) {
    x11::ShmSegment::setKindsForTesting(kinds);
    logs_.clear();
    source_ = std::make_unique<QRVX11DisplayFrameSource>(queue_, testDisplayName());
    source_->capturingWillStart();
    auto frame = nextUntil([](const QRVFrame& f) { return pixelAt(f, 200, 150) == 0xff0000; });
    ASSERT_NE(frame, nullptr) << int(kinds);
    EXPECT_EQ(patternMismatches(*frame, 200, 150), 0) << int(kinds);
    const bool fellBackToGetImage = logs_.contains(
        LogLevel::warn, "no shared memory with the X server; reading the screen with GetImage");
    EXPECT_EQ(fellBackToGetImage, kinds == Kinds::none);
    EXPECT_TRUE(logs_.mentions("asking the server for a segment") || kinds == Kinds::none);
  }
  client_->destroy(window);
}

// Reads are handed on in the memory the server wrote them into, which goes back for later reads
// once let go: while held, a read keeps its pixels through later reads, more of them than there
// are segments, the grabber's end, and its holders letting go on other threads.
TEST_F(DisplayCaptureTest, ReadsHandedOnKeepTheirPixelsWhileHeld) {
  const xcb_window_t window = client_->createWindow(10, 10, 32, 32, [](int, int) { return 0; });
  auto grabber = DisplayGrabber::createX11(testDisplayName());
  ASSERT_NE(grabber, nullptr);
  const QRVScreenRect screen{0, 0, 1920, 1080};
  auto pixel = [](const GrabbedPixels& read) {
    const std::uint8_t* p = read.data + (std::size_t(20) * 1920 + 20) * 4;
    return std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];
  };
  std::vector<std::pair<std::uint32_t, GrabbedPixels>> held;
  std::vector<std::thread> releasers;
  for (std::uint32_t i = 0; i < 12; ++i) {
    const std::uint32_t colour = 0x102030 + i * 0x0a0a0a;
    client_->fill(window, colour, 0, 0, 32, 32);
    client_->sync();
    GrabbedPixels read = grabber->read(screen);
    ASSERT_FALSE(read.empty());
    ASSERT_EQ(pixel(read), colour) << i;
    if (i % 3 == 2) {
      // Let go on another thread while the reads go on.
      releasers.emplace_back([r = std::move(read)]() mutable { r = {}; });
      continue;
    }
    held.emplace_back(colour, std::move(read));
    for (const auto& [expected, earlier] : held)
      ASSERT_EQ(pixel(earlier), expected) << "after read " << i;
  }
  for (auto& t : releasers)
    t.join();
  grabber.reset();
  for (const auto& [expected, earlier] : held)
    EXPECT_EQ(pixel(earlier), expected) << "after the grabber went";
  client_->destroy(window);
}

TEST_F(DisplayCaptureTest, CursorIsBlendedAtTheHotSpotAndTheClickRingFollowsTheButtons) {
  constexpr std::uint32_t kBackground = 0x336699;
  const xcb_window_t window =
      client_->createWindow(400, 300, 200, 200, [](int, int) { return kBackground; });
  client_->movePointer(500, 400);
  xcb_connection_t* c = client_->get();
  std::unique_ptr<xcb_xfixes_query_version_reply_t, decltype(&free)> version(
      xcb_xfixes_query_version_reply(c, xcb_xfixes_query_version(c, 5, 0), nullptr), &free);
  std::unique_ptr<xcb_xfixes_get_cursor_image_reply_t, decltype(&free)> cursor(
      xcb_xfixes_get_cursor_image_reply(c, xcb_xfixes_get_cursor_image(c), nullptr), &free);
  ASSERT_NE(cursor, nullptr);

  source_->capturingWillStart();
  auto frame = nextUntil([](const QRVFrame& f) { return pixelAt(f, 590, 490) == kBackground; });
  ASSERT_NE(frame, nullptr);
  const std::uint32_t* argb = xcb_xfixes_get_cursor_image_cursor_image(cursor.get());
  int wrong = 0;
  int drawn = 0;
  for (int j = 0; j < cursor->height; ++j)
    for (int i = 0; i < cursor->width; ++i) {
      const std::uint32_t src = argb[j * cursor->width + i];
      const std::uint32_t alpha = src >> 24;
      std::uint32_t expected = 0;
      for (int shift = 0; shift < 24; shift += 8) {
        const std::uint32_t d = (kBackground >> shift) & 0xff;
        expected |= std::min(255u, (d * (255 - alpha) + 127) / 255 + ((src >> shift) & 0xff))
                    << shift;
      }
      drawn += alpha != 0;
      wrong += !near(pixelAt(*frame, 500 - cursor->xhot + i, 400 - cursor->yhot + j), expected, 1);
    }
  EXPECT_GT(drawn, 0);
  EXPECT_EQ(wrong, 0);

  // The ring: 1.5 × the cursor's larger side across, around the pointer.
  const int radius = int(0.75 * std::max(cursor->width, cursor->height));
  auto ringPixels = [&](const QRVFrame& f, std::uint32_t colour) {
    int n = 0;
    for (int y = 400 - radius - 4; y <= 400 + radius + 4; ++y)
      for (int x = 500 - radius - 4; x <= 500 + radius + 4; ++x)
        n += near(pixelAt(f, x, y), colour, 40);
    return n;
  };
  EXPECT_EQ(ringPixels(*frame, 0x00ff00), 0);
  client_->button(1, true);
  auto left = nextUntil([&](const QRVFrame& f) { return ringPixels(f, 0xffffff) > 30; });
  client_->button(1, false);
  ASSERT_NE(left, nullptr);
  EXPECT_EQ(ringPixels(*left, 0x00ff00), 0);
  client_->button(3, true);
  auto right = nextUntil([&](const QRVFrame& f) { return ringPixels(f, 0x00ff00) > 30; });
  client_->button(3, false);
  EXPECT_NE(right, nullptr);
  EXPECT_NE(nextUntil([&](const QRVFrame& f) { return ringPixels(f, 0x00ff00) == 0; }), nullptr);
  client_->destroy(window);
}

TEST_F(DisplayCaptureTest, UnchangedScreenGivesTheSameImageAndDrawingANewOne) {
  const xcb_window_t window =
      client_->createWindow(100, 100, 64, 64, [](int, int) { return 0x808080; });
  source_->capturingWillStart();
  // The first notifications cover the whole screen; wait for two frames over one image.
  std::shared_ptr<QRVFrame> previous = next();
  std::shared_ptr<QRVFrame> held;
  for (int i = 0; i < kMaxTicks && !held; ++i) {
    auto frame = next();
    if (frame && previous && frame->image() == previous->image())
      held = frame;
    previous = frame;
  }
  ASSERT_NE(held, nullptr) << "an idle screen never gave the same image twice";
  EXPECT_TRUE(next()->sameAs(*held));

  client_->fill(window, 0x10e020, 8, 8, 16, 16);
  auto drawn = next();
  ASSERT_NE(drawn, nullptr);
  EXPECT_NE(drawn->image(), held->image());
  EXPECT_EQ(pixelAt(*drawn, 110, 110), 0x10e020u);
  EXPECT_EQ(pixelAt(*held, 110, 110), 0x808080u);

  client_->movePointer(1800, 1000);
  auto moved = next();
  EXPECT_NE(moved->image(), drawn->image()) << "a moved pointer is a new picture";
  EXPECT_FALSE(source_->isPolling());
  client_->destroy(window);
}

// At half size a change is read and scaled in its parts into a picture made earlier; what comes
// out must be what a whole read gives.
TEST_F(DisplayCaptureTest, HalfSizeChangesReadInPartsEqualAWholeRead) {
  const xcb_window_t window = client_->createWindow(201, 151, 256, 128, testPattern);
  client_->movePointer(330, 200);
  source_->capturingWillStart();
  std::shared_ptr<QRVFrame> frame = nextUntil([](const QRVFrame&) { return true; }, 0.5);
  ASSERT_NE(frame, nullptr);
  // Odd places and sizes, under the cursor, over the window's edge; a few frames held meanwhile.
  const int fills[][4] = {{3, 5, 7, 3}, {125, 45, 9, 9}, {250, 0, 6, 128}, {0, 120, 256, 8}};
  std::vector<std::shared_ptr<QRVFrame>> held{frame};
  for (const auto& f : fills) {
    client_->fill(window, 0x203040u + std::uint32_t(f[0]) * 0x10101, f[0], f[1], f[2], f[3]);
    // Nothing else changes on this screen: a new picture is the fill's.
    frame = nextUntil([&](const QRVFrame& fr) { return fr.image() != held.back()->image(); }, 0.5);
    ASSERT_NE(frame, nullptr) << "fill at " << f[0] << "," << f[1];
    held.push_back(frame);
  }
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "got capture output"));
  // A second source reads the same screen whole.
  auto wholeQueue = std::make_shared<ManualExecutor>();
  QRVX11DisplayFrameSource whole(wholeQueue, testDisplayName());
  whole.capturingWillStart();
  wholeQueue->advance(QRVX11DisplayFrameSource::kMinCaptureInterval);
  auto reference = whole.newFrame(0.5);
  ASSERT_NE(reference, nullptr);
  frame = next(0.5);
  ASSERT_NE(frame, nullptr);
  int wrong = 0;
  for (int y = 0; y < 540; ++y)
    for (int x = 0; x < 960; ++x)
      wrong += pixelAt(*frame, x, y) != pixelAt(*reference, x, y);
  EXPECT_EQ(wrong, 0);
  client_->destroy(window);
}

TEST_F(DisplayCaptureTest, WindowClosedMidCaptureLeavesWhatWasBelow) {
  const xcb_window_t window =
      client_->createWindow(300, 300, 50, 50, [](int, int) { return 0xc03030; });
  source_->capturingWillStart();
  ASSERT_NE(nextUntil([](const QRVFrame& f) { return pixelAt(f, 320, 320) == 0xc03030; }), nullptr);
  logs_.clear();
  client_->destroy(window);
  EXPECT_NE(nextUntil([](const QRVFrame& f) { return pixelAt(f, 320, 320) != 0xc03030; }), nullptr);
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "got capture output"));
}

TEST_F(DisplayCaptureTest, ShrunkScreenIsFollowedThroughTheWatcher) {
  auto watcher = QRVScreenWatcher::createX11(queue_, testDisplayName());
  auto main = watcher->mainScreen();
  ASSERT_NE(main, nullptr);
  EXPECT_EQ(main->frame(), (QRVScreenRect{0, 0, 1920, 1080}));
  EXPECT_EQ(main->refreshRate(), 60.0) << "Xvfb's modes have no timings";
  std::shared_ptr<const QRVScreen> announced;
  watcher->subscribe([&](std::shared_ptr<const QRVScreen> s) { announced = std::move(s); });

  source_->setScreen(main);
  source_->capturingWillStart();
  ASSERT_NE(next(), nullptr);

  struct Restore {
    ~Restore() { runOnTestDisplay(kFullSize); }
  } restore;
  ASSERT_TRUE(shrinkTestDisplay());
  ASSERT_TRUE(queue_->runUntil([&] {
    return announced && announced->frame() == QRVScreenRect{0, 0, 1600, 900};
  }));
  // The old target no longer fits the root: a read of it fails without harm.
  next();
  source_->setScreen(announced);
  EXPECT_TRUE(logs_.mentions("screen changed to"));
  auto small = nextUntil([](const QRVFrame& f) { return f.width() == 1600; });
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(small->height(), 900);

  ASSERT_EQ(runOnTestDisplay(kFullSize), 0);
  // While xrandr resizes, the CRTC is briefly off and the watcher may announce no screen.
  ASSERT_TRUE(queue_->runUntil([&] { return announced && announced->frame().width == 1920; }));
  source_->setScreen(announced);
  EXPECT_NE(nextUntil([](const QRVFrame& f) { return f.width() == 1920; }), nullptr);
}

TEST_F(DisplayCaptureTest, PermissionProbeReadsTheRoot) {
  EXPECT_TRUE(QRVX11DisplayFrameSource::canRecordScreen(testDisplayName()));
  EXPECT_FALSE(QRVX11DisplayFrameSource::canRecordScreen(":65000"));
  EXPECT_EQ(QRVScreen::mainScreenDisplayCornerRadiusOrZero(), 0.0);
}

// A server of its own, since this one is killed.
TEST(DisplayCaptureServerLossTest, KilledServerEndsInALogLineAndNoFrames) {
  ChildProcess server(
      {"Xvfb", "-displayfd", "1", "-screen", "0", "320x240x24", "-nolisten", "tcp", "-noreset"});
  ASSERT_TRUE(server.started());
  auto number = server.readLine();
  ASSERT_TRUE(number.has_value()) << "Xvfb did not start";
  const std::string display = ":" + *number;

  LogCapture logs;
  auto queue = std::make_shared<ManualExecutor>();
  auto watcher = QRVScreenWatcher::createX11(queue, display);
  ASSERT_NE(watcher->mainScreen(), nullptr);
  QRVX11DisplayFrameSource source(queue, display);
  source.capturingWillStart();
  queue->advance(QRVX11DisplayFrameSource::kMinCaptureInterval);
  auto frame = source.newFrame(1.0);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->width(), 320);

  server.stop();
  std::shared_ptr<QRVFrame> after = frame;
  for (int i = 0; i < kMaxTicks && after; ++i) {
    queue->advance(QRVX11DisplayFrameSource::kMinCaptureInterval);
    after = source.newFrame(1.0);
  }
  EXPECT_EQ(after, nullptr);
  EXPECT_TRUE(logs.contains(LogLevel::error,
                            "display connection lost; capture resumes when the display is back"));
  EXPECT_TRUE(queue->runUntil([&] { return watcher->mainScreen() == nullptr; }));
  EXPECT_TRUE(logs.mentions("screen watcher: X connection lost"));
}

}  // namespace
}  // namespace quorvix::test

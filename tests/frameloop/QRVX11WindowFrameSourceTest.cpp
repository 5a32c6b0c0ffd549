// The window source's scheduling over a fake capturer, with the main queue and the capture
// thread both manual.
#include "frameloop/linux/QRVX11WindowFrameSource.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/ManualExecutor.h"

namespace quorvix {
namespace {

using std::chrono::milliseconds;
using test::LogCapture;
using test::ManualExecutor;

struct FakeWindows {
  int captures = 0;
  int made = 0;
  int backgroundResets = 0;
  int contextReleases = 0;
  bool lost = false;
  bool reachable = true;
  std::vector<double> scales;
  std::shared_ptr<const QRVScreen> lastScreen;
  // Runs inside a capture, as another thread would meanwhile.
  std::function<void()> during;
};

class FakeCapturer final : public WindowCapturer {
 public:
  explicit FakeCapturer(std::shared_ptr<FakeWindows> w) : w_(std::move(w)) {}
  std::shared_ptr<const QRVImage> capture(const std::shared_ptr<const QRVScreen>& screen,
                                          double scale) override {
    ++w_->captures;
    w_->scales.push_back(scale);
    w_->lastScreen = screen;
    if (w_->during)
      std::exchange(w_->during, nullptr)();
    if (w_->lost)
      return nullptr;
    const int side = int(8 * scale);
    return QRVImage::create(
        side, side,
        std::vector<std::uint8_t>(std::size_t(side) * side * 4, std::uint8_t(w_->captures)));
  }
  void resetBackground() override { ++w_->backgroundResets; }
  void releaseContext() override { ++w_->contextReleases; }
  bool lost() const override { return w_->lost; }

 private:
  std::shared_ptr<FakeWindows> w_;
};

class WindowFrameSourceTest : public testing::Test {
 protected:
  WindowFrameSourceTest() {
    auto windows = windows_;
    source_ = std::make_unique<QRVX11WindowFrameSource>(
        capture_, [windows]() -> std::unique_ptr<WindowCapturer> {
          ++windows->made;
          if (!windows->reachable)
            return nullptr;
          windows->lost = false;
          return std::make_unique<FakeCapturer>(windows);
        });
  }

  LogCapture logs_;
  std::shared_ptr<ManualExecutor> capture_ = std::make_shared<ManualExecutor>();
  std::shared_ptr<FakeWindows> windows_ = std::make_shared<FakeWindows>();
  std::unique_ptr<QRVX11WindowFrameSource> source_;
};

TEST_F(WindowFrameSourceTest, FirstScaleIsAdoptedThenCapturingLoopsEvery100Milliseconds) {
  source_->capturingWillStart();
  EXPECT_EQ(capture_->pendingCount(), 0u) << "starting does not capture";
  EXPECT_EQ(source_->newFrame(1.0), nullptr) << "a new scale only sets the scale";
  EXPECT_EQ(capture_->pendingCount(), 0u);
  EXPECT_EQ(source_->newFrame(1.0), nullptr);
  ASSERT_EQ(capture_->nextDelay(), QRVX11WindowFrameSource::kCaptureDelay);
  EXPECT_EQ(source_->newFrame(1.0), nullptr);
  EXPECT_EQ(capture_->pendingCount(), 1u) << "one capture pending at a time";

  capture_->advance(milliseconds(99));
  EXPECT_EQ(windows_->captures, 0);
  capture_->advance(milliseconds(1));
  EXPECT_EQ(windows_->captures, 1);
  auto first = source_->newFrame(1.0);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->width(), 8);
  // Wrapped again on every call until a newer capture replaces it.
  EXPECT_EQ(source_->newFrame(1.0)->image(), first->image());
  capture_->advance(milliseconds(100));
  EXPECT_EQ(windows_->captures, 2);
  EXPECT_NE(source_->newFrame(1.0)->image(), first->image());
  capture_->advance(milliseconds(1000));
  EXPECT_EQ(windows_->captures, 12) << "continuous while capturing";
}

TEST_F(WindowFrameSourceTest, ScaleChangeDropsThePictureAndTheNextCaptureUsesTheNewScale) {
  source_->capturingWillStart();
  source_->newFrame(1.0);
  source_->newFrame(1.0);
  capture_->advance(milliseconds(100));
  ASSERT_NE(source_->newFrame(1.0), nullptr);
  EXPECT_EQ(source_->newFrame(0.5), nullptr);
  EXPECT_EQ(source_->newFrame(0.5), nullptr) << "nothing held at the new scale yet";
  capture_->advance(milliseconds(100));
  auto frame = source_->newFrame(0.5);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->width(), 4);
  EXPECT_EQ(windows_->scales.back(), 0.5);
  // Within single-precision epsilon is the same scale.
  EXPECT_NE(source_->newFrame(0.5 + 1e-8), nullptr);
}

TEST_F(WindowFrameSourceTest, CaptureFinishingAfterAScaleChangeIsThrownAway) {
  source_->capturingWillStart();
  source_->newFrame(1.0);
  source_->newFrame(1.0);
  windows_->during = [this] { source_->newFrame(2.0); };
  capture_->advance(milliseconds(100));
  EXPECT_EQ(windows_->captures, 1);
  EXPECT_EQ(source_->newFrame(2.0), nullptr);
  capture_->advance(milliseconds(100));
  ASSERT_NE(source_->newFrame(2.0), nullptr);
  EXPECT_EQ(source_->newFrame(2.0)->width(), 16);
}

TEST_F(WindowFrameSourceTest, StopCancelsThePendingCaptureAndReleasesPictureAndContext) {
  source_->capturingWillStart();
  source_->newFrame(1.0);
  source_->newFrame(1.0);
  capture_->advance(milliseconds(100));
  ASSERT_NE(source_->newFrame(1.0), nullptr);
  source_->capturingWillStop();
  EXPECT_EQ(windows_->contextReleases, 1);
  EXPECT_EQ(capture_->pendingCount(), 0u);
  capture_->advance(milliseconds(500));
  EXPECT_EQ(windows_->captures, 1);
  EXPECT_EQ(source_->newFrame(1.0), nullptr);
  EXPECT_EQ(capture_->pendingCount(), 0u) << "no loop while stopped";
}

TEST_F(WindowFrameSourceTest, SetScreenLogsOnceResetsTheBackgroundAndReachesTheCapture) {
  auto screen = std::make_shared<QRVScreen>("left", QRVScreenRect{0, 0, 800, 600}, 60);
  source_->setScreen(screen);
  source_->setScreen(std::make_shared<QRVScreen>("left", QRVScreenRect{0, 0, 800, 600}, 60));
  EXPECT_EQ(logs_.messages(LogLevel::debug),
            std::vector<std::string>{"screen changed to left 800x600+0+0 @60.00 Hz from (none)"});
  source_->capturingWillStart();
  source_->newFrame(1.0);
  source_->newFrame(1.0);
  capture_->advance(milliseconds(100));
  EXPECT_EQ(windows_->lastScreen, screen);
  EXPECT_EQ(windows_->backgroundResets, 1);
  capture_->advance(milliseconds(100));
  EXPECT_EQ(windows_->backgroundResets, 1);
}

TEST_F(WindowFrameSourceTest, LostDisplayIsLoggedAndReconnectedAtMostOnceASecond) {
  source_->capturingWillStart();
  source_->newFrame(1.0);
  source_->newFrame(1.0);
  capture_->advance(milliseconds(100));
  auto held = source_->newFrame(1.0);
  ASSERT_NE(held, nullptr);
  windows_->lost = true;
  windows_->reachable = false;
  capture_->advance(milliseconds(100));
  EXPECT_TRUE(logs_.contains(
      LogLevel::error, "display connection lost; window capture resumes when the display is back"));
  capture_->advance(milliseconds(1500));
  EXPECT_EQ(windows_->made, 2);
  EXPECT_EQ(source_->newFrame(1.0)->image(), held->image()) << "the last picture stays";
  windows_->reachable = true;
  capture_->advance(milliseconds(1000));
  EXPECT_EQ(windows_->made, 3);
  EXPECT_NE(source_->newFrame(1.0)->image(), held->image());
}

TEST_F(WindowFrameSourceTest, FreedSourceLeavesAPendingCaptureHarmless) {
  source_->capturingWillStart();
  source_->newFrame(1.0);
  source_->newFrame(1.0);
  source_.reset();
  capture_->advance(milliseconds(200));
  EXPECT_EQ(windows_->captures, 0);
}

}  // namespace
}  // namespace quorvix

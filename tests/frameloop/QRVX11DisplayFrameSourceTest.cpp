// The display source's logic over a fake display, on a manual main queue.
#include "frameloop/linux/QRVX11DisplayFrameSource.h"

#include <algorithm>
#include <deque>

#include <gtest/gtest.h>
#include <libyuv/scale_argb.h>

#include "support/LogCapture.h"
#include "support/ManualExecutor.h"

namespace quorvix {
namespace {

using test::LogCapture;
using test::ManualExecutor;

// What the fake display shows; shared with the grabbers made over it.
struct FakeDisplay {
  std::shared_ptr<const QRVScreen> screen =
      std::make_shared<QRVScreen>("fake", QRVScreenRect{0, 0, 8, 4}, 0.0);
  std::vector<std::uint8_t> pixels = std::vector<std::uint8_t>(8 * 4 * 4, 0x11);
  bool damaged = true;
  bool lost = false;
  QRVPointerState pointer{-100, -100, 0, 1};
  int reads = 0;
  int partReads = 0;
  // What takeDamage() says changed, when it can tell.
  std::optional<std::vector<QRVScreenRect>> damage;
  int grabbersMade = 0;
  bool reachable = true;
  bool notifies = true;

  // Changes a pixel of the root; with or without telling.
  void paint(std::uint8_t value, bool notify) {
    pixels[0] = value;
    damaged = damaged || notify;
  }
};

class FakeGrabber final : public DisplayGrabber {
 public:
  explicit FakeGrabber(std::shared_ptr<FakeDisplay> d) : d_(std::move(d)) {}
  std::shared_ptr<const QRVScreen> mainScreen() override { return d_->lost ? nullptr : d_->screen; }
  bool takeDamage(const QRVScreenRect&) override { return std::exchange(d_->damaged, false); }
  GrabbedPixels read(const QRVScreenRect& rect) override {
    ++d_->reads;
    const auto& f = d_->screen->frame();
    if (d_->lost || !(rect == f))
      return {};
    auto copy = std::make_shared<std::vector<std::uint8_t>>(d_->pixels);
    return {copy->data(), copy};
  }
  std::optional<std::vector<QRVScreenRect>> lastDamage() const override { return d_->damage; }
  std::span<const std::uint8_t> readPart(const QRVScreenRect& part) override {
    ++d_->partReads;
    const int width = d_->screen->frame().width;
    part_.clear();
    for (int y = part.y; y < part.y + part.height; ++y) {
      const auto row = d_->pixels.begin() + (std::ptrdiff_t(y) * width + part.x) * 4;
      part_.insert(part_.end(), row, row + std::ptrdiff_t(part.width) * 4);
    }
    return part_;
  }
  QRVPointerState pointer() override { return d_->pointer; }
  std::shared_ptr<const QRVCursorImage> cursor() override {
    return std::make_shared<QRVCursorImage>(
        QRVCursorImage{1, 1, 0, 0, std::vector<std::uint32_t>{0xffabcdef}});
  }
  bool lost() const override { return d_->lost; }
  bool notifiesChanges() const override { return d_->notifies; }

 private:
  std::shared_ptr<FakeDisplay> d_;
  std::vector<std::uint8_t> part_;
};

class RecordingDelegate final : public QRVX11DisplayFrameSourceDelegate {
 public:
  void screenCaptureDidStart() override { events.push_back("started"); }
  void screenCaptureDidFailWithError(const QRVError& error) override {
    events.push_back("failed " + error.domain() + " " + std::to_string(error.code()));
  }
  std::vector<std::string> events;
};

class DisplayFrameSourceTest : public testing::Test {
 protected:
  DisplayFrameSourceTest() { makeSource(true); }

  void makeSource(bool permitted) {
    source_.reset();
    auto display = display_;
    source_ = std::make_unique<QRVX11DisplayFrameSource>(
        queue_, QRVX11DisplayFrameSource::Platform{[permitted] { return permitted; },
                                                   [display]() -> std::unique_ptr<DisplayGrabber> {
                                                     ++display->grabbersMade;
                                                     if (!display->reachable)
                                                       return nullptr;
                                                     display->lost = false;
                                                     return std::make_unique<FakeGrabber>(display);
                                                   }});
    source_->setDelegate(delegate_);
  }

  // A frame request one capture interval after the last.
  std::shared_ptr<QRVFrame> next(double scale = 1.0) {
    queue_->advance(QRVX11DisplayFrameSource::kMinCaptureInterval);
    return source_->newFrame(scale);
  }

  LogCapture logs_;
  std::shared_ptr<ManualExecutor> queue_ = std::make_shared<ManualExecutor>();
  std::shared_ptr<FakeDisplay> display_ = std::make_shared<FakeDisplay>();
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::unique_ptr<QRVX11DisplayFrameSource> source_;
};

TEST_F(DisplayFrameSourceTest, RefusedPermissionFailsToTheDelegateAndNeverProducesFrames) {
  makeSource(false);
  source_->capturingWillStart();
  EXPECT_EQ(delegate_->events, std::vector<std::string>{"failed ScreenCapture 403"});
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "no screen capture permission"));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(next(), nullptr);
  EXPECT_EQ(logs_.messages(LogLevel::debug).back(), "no frames yet");
  EXPECT_EQ(display_->grabbersMade, 0);
  EXPECT_EQ(display_->reads, 0);
}

TEST_F(DisplayFrameSourceTest, StartsInOrderAndMakesItsInputOnTheFirstFrameRequest) {
  source_->capturingWillStart();
  EXPECT_EQ(delegate_->events, std::vector<std::string>{"started"});
  auto frame = next(0.5);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->width(), 4);
  EXPECT_EQ(frame->height(), 2);
  const std::vector<std::string> expected{"starting system capture", "will start capturing screen",
                                          "creating screen input 0.500000 fake 8x4+0+0 @60.00 Hz",
                                          "final scale factor 0.500000", "got capture output"};
  EXPECT_EQ(logs_.messages(LogLevel::debug), expected);
  // The scale counts only when the input is made.
  EXPECT_EQ(next(1.0)->width(), 4);
}

TEST_F(DisplayFrameSourceTest, UnchangedScreenHandsOutTheSameImageAndChangesMakeNewOnes) {
  source_->capturingWillStart();
  auto first = next();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(next()->image(), first->image());
  EXPECT_TRUE(next()->sameAs(*first));
  EXPECT_EQ(display_->reads, 1);

  display_->paint(0x22, true);
  auto painted = next();
  EXPECT_NE(painted->image(), first->image());
  EXPECT_EQ(painted->image()->bytes()[0], 0x22);
  EXPECT_EQ(display_->reads, 2);

  // A moved pointer is drawn over the last read without reading again.
  display_->pointer = {3, 1, 0, 1};
  auto moved = next();
  EXPECT_NE(moved->image(), painted->image());
  EXPECT_EQ(display_->reads, 2);
  const std::uint8_t* cursorPixel = moved->image()->bytes().data() + (1 * 8 + 3) * 4;
  EXPECT_EQ(cursorPixel[0], 0xef);
  EXPECT_EQ(cursorPixel[2], 0xab);
  EXPECT_EQ(painted->image()->bytes()[(1 * 8 + 3) * 4], 0x11) << "the held picture is untouched";
}

TEST_F(DisplayFrameSourceTest, ReadsAtMostTenTimesASecond) {
  source_->capturingWillStart();
  next();
  for (int i = 0; i < 5; ++i) {
    display_->paint(std::uint8_t(i), true);
    queue_->advance(std::chrono::milliseconds(20));
    source_->newFrame(1.0);
  }
  EXPECT_EQ(display_->reads, 2);
  // A tick a little early still counts as the next one.
  display_->paint(0x77, true);
  queue_->advance(std::chrono::milliseconds(95));
  source_->newFrame(1.0);
  EXPECT_EQ(display_->reads, 3);
}

TEST_F(DisplayFrameSourceTest,
       ChangeWithoutNotificationIsFoundWithinASecondThenEveryCaptureCompares) {
  source_->capturingWillStart();
  auto held = next();
  display_->paint(0x33, false);
  std::shared_ptr<QRVFrame> frame;
  int ticks = 0;
  for (; ticks < 20; ++ticks) {
    frame = next();
    if (frame->image() != held->image())
      break;
  }
  EXPECT_LE(ticks, 10);
  EXPECT_EQ(frame->image()->bytes()[0], 0x33);
  EXPECT_TRUE(source_->isPolling());
  EXPECT_TRUE(logs_.mentions("without a change notification"));

  // Polling: every tick reads, and an unchanged read still hands out the same image.
  const int reads = display_->reads;
  EXPECT_EQ(next()->image(), frame->image());
  EXPECT_EQ(display_->reads, reads + 1);
  display_->paint(0x44, false);
  EXPECT_EQ(next()->image()->bytes()[0], 0x44);
}

// Reads are drawn on in place, so a comparison must see past the cursor in the held picture.
TEST_F(DisplayFrameSourceTest, ComparisonsLookPastTheDrawnCursorAndAMovedOneLeavesNoTrace) {
  display_->notifies = false;
  display_->pointer = {3, 1, 0, 1};
  source_->capturingWillStart();
  auto first = next();
  const std::size_t underCursor = (1 * 8 + 3) * 4;
  ASSERT_EQ(first->image()->bytes()[underCursor], 0xef);
  EXPECT_EQ(next()->image(), first->image()) << "the cursor drawn in is no change of the screen";

  display_->pixels[underCursor] = 0x99;  // hidden by the cursor, but the screen changed
  auto changed = next();
  EXPECT_NE(changed->image(), first->image());
  EXPECT_EQ(first->image()->bytes()[underCursor], 0xef) << "a picture handed out never changes";

  display_->pointer = {5, 2, 0, 1};
  const int reads = display_->reads;
  auto moved = next();
  EXPECT_EQ(display_->reads, reads + 1);
  EXPECT_EQ(moved->image()->bytes()[underCursor], 0x99) << "where the cursor was: the screen";
  EXPECT_EQ(moved->image()->bytes()[(2 * 8 + 5) * 4], 0xef);
  EXPECT_EQ(next()->image(), moved->image());
}

// At half size only what changed is read and scaled; the picture must equal a whole read's.
TEST_F(DisplayFrameSourceTest, SmallChangesAtHalfSizeReadOnlyTheirPartsAndMatchAWholeRead) {
  display_->screen = std::make_shared<QRVScreen>("fake", QRVScreenRect{0, 0, 64, 32}, 0.0);
  display_->pixels.resize(64 * 32 * 4);
  std::uint32_t seed = 7;
  auto random = [&seed] { return std::uint8_t((seed = seed * 1103515245 + 12345) >> 16); };
  for (auto& b : display_->pixels)
    b = random();
  display_->pointer = {21, 9, 0, 1};
  source_->capturingWillStart();
  next(0.5);
  auto wholeRead = [&] {
    std::vector<std::uint8_t> out(32 * 16 * 4);
    libyuv::ARGBScale(display_->pixels.data(), 64 * 4, 64, 32, out.data(), 32 * 4, 32, 16,
                      libyuv::kFilterBilinear);
    drawCursor(out.data(), 32, 16, display_->screen->frame(),
               QRVCursorImage{1, 1, 0, 0, std::vector<std::uint32_t>{0xffabcdef}},
               display_->pointer);
    return out;
  };
  // Odd edges, parts under the cursor, at the picture's edge, overlapping; the pointer moving
  // now and then. Pictures are held for a few frames as an encoder would, so the pool's pictures
  // come back out of order and are brought up to date over several changes.
  std::deque<std::shared_ptr<QRVFrame>> heldByConsumers;
  for (int step = 0; step < 40; ++step) {
    std::vector<QRVScreenRect> change;
    for (int n = 0; n <= step % 3; ++n) {
      const int x = random() % 64;
      const int y = random() % 32;
      change.push_back(
          {x, y, std::min(64 - x, 1 + random() % 9), std::min(32 - y, 1 + random() % 7)});
    }
    for (const auto& r : change)
      for (int y = r.y; y < r.y + r.height; ++y)
        for (int x = r.x; x < r.x + r.width; ++x)
          for (int c = 0; c < 4; ++c)
            display_->pixels[(std::size_t(y) * 64 + x) * 4 + c] = random();
    display_->damaged = true;
    display_->damage = change;
    if (step % 7 == 3)
      display_->pointer = {random() % 64, random() % 32, 0, 1};
    const int reads = display_->reads;
    auto frame = next(0.5);
    EXPECT_EQ(display_->reads, reads) << "no whole read at step " << step;
    ASSERT_TRUE(std::ranges::equal(frame->image()->bytes(), wholeRead())) << "step " << step;
    heldByConsumers.push_back(frame);
    if (heldByConsumers.size() > std::size_t(1 + step % 4))
      heldByConsumers.pop_front();
    if (step % 5 == 4) {
      // The pointer alone moves: drawn over the held picture.
      display_->pointer = {random() % 64, random() % 32, 0, 1};
      auto moved = next(0.5);
      ASSERT_TRUE(std::ranges::equal(moved->image()->bytes(), wholeRead())) << "step " << step;
    }
  }
  EXPECT_GT(display_->partReads, 40);

  // A change too big for parts, or of unknown extent, reads the whole.
  display_->damaged = true;
  display_->damage = std::vector<QRVScreenRect>{{0, 0, 64, 12}};
  int reads = display_->reads;
  next(0.5);
  EXPECT_EQ(display_->reads, reads + 1);
  display_->damaged = true;
  display_->damage.reset();
  reads = display_->reads;
  next(0.5);
  EXPECT_EQ(display_->reads, reads + 1);
}

// Whole reads at full size, parts and whole reads at half size, and a pointer moving alone: a new
// picture says where it differs from the one before, and it equals that one everywhere else; about
// once a second one says nothing, so that encoders look at all of it.
TEST_F(DisplayFrameSourceTest, EachPictureSaysWhereItDiffersFromTheOneBefore) {
  std::uint32_t seed = 3;
  auto random = [&seed] { return int((seed = seed * 1103515245 + 12345) >> 16 & 0x7fff); };
  for (const double scale : {1.0, 0.5, 0.75}) {
    SCOPED_TRACE(scale);
    display_->screen = std::make_shared<QRVScreen>("fake", QRVScreenRect{0, 0, 64, 32}, 0.0);
    display_->pixels.assign(64 * 32 * 4, 0);
    for (auto& b : display_->pixels)
      b = std::uint8_t(random());
    display_->damaged = true;
    display_->damage.reset();
    makeSource(true);
    source_->capturingWillStart();
    auto previous = next(scale)->image();
    int described = 0;
    int undescribed = 0;
    for (int step = 0; step < 40; ++step) {
      SCOPED_TRACE(step);
      std::vector<QRVScreenRect> change;
      // Now and then a change too large for parts at half size.
      const int count = step % 3;
      for (int n = 0; n < count; ++n) {
        const int x = random() % 64, y = random() % 32;
        const bool large = step % 8 == 7;
        change.push_back({x, y, std::min(64 - x, large ? 64 : 1 + random() % 9),
                          std::min(32 - y, large ? 32 : 1 + random() % 7)});
      }
      for (const auto& r : change)
        for (int y = r.y; y < r.y + r.height; ++y)
          for (int x = r.x; x < r.x + r.width; ++x)
            display_->pixels[(std::size_t(y) * 64 + x) * 4] = std::uint8_t(random());
      display_->damaged = !change.empty();
      display_->damage = change;
      if (step % 4 == 1)
        display_->pointer = {random() % 64, random() % 32, 0, 1};
      auto frame = next(scale);
      auto image = frame->image();
      if (image == previous)
        continue;
      const QRVPictureChanges* changes = frame->changes();
      if (!changes) {
        ++undescribed;
        previous = image;
        continue;
      }
      ASSERT_TRUE(changes->isBasedOn(previous));
      for (int y = 0; y < image->height(); ++y)
        for (int x = 0; x < image->width(); ++x) {
          const bool inside = std::ranges::any_of(changes->rects, [&](const QRVPixelRect& r) {
            return x >= r.x && y >= r.y && x < r.x + r.width && y < r.y + r.height;
          });
          const std::size_t at = (std::size_t(y) * image->width() + x) * 4;
          if (!inside) {
            ASSERT_TRUE(std::equal(image->bytes().begin() + at, image->bytes().begin() + at + 4,
                                   previous->bytes().begin() + at))
                << "at " << x << "," << y;
          }
        }
      ++described;
      previous = image;
    }
    EXPECT_GT(described, 25);
    EXPECT_GE(undescribed, 3);  // 4 s of pictures
    EXPECT_LE(undescribed, 5);

    // A change the notifications cannot place says nothing.
    display_->pixels[0] ^= 0xff;
    display_->damaged = true;
    display_->damage.reset();
    auto frame = next(scale);
    EXPECT_NE(frame->image(), previous);
    EXPECT_EQ(frame->changes(), nullptr);
  }
}

TEST_F(DisplayFrameSourceTest, WithoutChangeNotificationsEveryCaptureComparesFromTheStart) {
  display_->notifies = false;
  source_->capturingWillStart();
  EXPECT_TRUE(source_->isPolling());
  auto first = next();
  display_->damaged = false;
  EXPECT_EQ(next()->image(), first->image());
  EXPECT_EQ(display_->reads, 2);
  display_->paint(0x66, false);
  EXPECT_EQ(next()->image()->bytes()[0], 0x66);
}

TEST_F(DisplayFrameSourceTest, SetScreenRetargetsAndTheSameScreenChangesNothing) {
  source_->capturingWillStart();
  next();
  logs_.clear();
  source_->setScreen(std::make_shared<QRVScreen>("fake", QRVScreenRect{0, 0, 8, 4}, 60.0));
  EXPECT_TRUE(logs_.messages(LogLevel::debug).empty());

  display_->screen = std::make_shared<QRVScreen>("small", QRVScreenRect{0, 0, 4, 2}, 0.0);
  display_->pixels.assign(4 * 2 * 4, 0x55);
  source_->setScreen(display_->screen);
  EXPECT_TRUE(logs_.mentions("screen changed to small 4x2+0+0 @60.00 Hz from fake 8x4+0+0"));
  auto frame = next();
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->width(), 4);
  EXPECT_EQ(frame->image()->bytes()[0], 0x55);
}

TEST_F(DisplayFrameSourceTest, FailedReadIsLoggedAndTheNextChangeIsRead) {
  source_->capturingWillStart();
  next();
  // The display shrank under a target that no longer fits.
  display_->screen = std::make_shared<QRVScreen>("fake", QRVScreenRect{0, 0, 4, 4}, 0.0);
  display_->damaged = true;
  auto stale = next();
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "capture output was NULL"));
  ASSERT_NE(stale, nullptr) << "the held picture stays until a new one is read";
}

TEST_F(DisplayFrameSourceTest, LostConnectionIsLoggedAndMadeAgainAfterASecond) {
  source_->capturingWillStart();
  ASSERT_NE(next(), nullptr);
  display_->lost = true;
  display_->reachable = false;
  EXPECT_EQ(next(), nullptr);
  EXPECT_EQ(logs_.messages(LogLevel::error),
            std::vector<std::string>{
                "display connection lost; capture resumes when the display is back"});
  for (int i = 0; i < 15; ++i)
    EXPECT_EQ(next(), nullptr);
  EXPECT_EQ(display_->grabbersMade, 2) << "one attempt a second";

  display_->reachable = true;
  std::shared_ptr<QRVFrame> frame;
  for (int i = 0; i < 11 && !frame; ++i)
    frame = next();
  ASSERT_NE(frame, nullptr);
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "display connection made again"));
}

TEST_F(DisplayFrameSourceTest, StopReleasesEverythingAndFreeingStops) {
  source_->capturingWillStart();
  ASSERT_NE(next(), nullptr);
  source_->capturingWillStop();
  EXPECT_EQ(next(), nullptr);
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "capturing will stop"));
  logs_.clear();
  source_.reset();
  EXPECT_EQ(logs_.messages(LogLevel::debug), std::vector<std::string>{"capturing will stop"});
}

}  // namespace
}  // namespace quorvix

#include "frameloop/CaptureChangeDetector.h"

#include <gtest/gtest.h>

namespace quorvix {
namespace {

using Action = CaptureChangeDetector::Action;
using std::chrono::milliseconds;

constexpr QRVPointerState kStill{10, 20, 0, 7};

class CaptureChangeDetectorTest : public testing::Test {
 protected:
  // One decision 100 ms after the previous one.
  Action tick(bool damaged = false, QRVPointerState pointer = kStill, bool havePicture = true) {
    now_ += milliseconds(100);
    return detector_.decide(now_, damaged, pointer, havePicture);
  }

  CaptureChangeDetector detector_;
  SteadyTime now_{};
};

TEST_F(CaptureChangeDetectorTest, ReadsOnlyWhenDamagedOrWithoutAPicture) {
  EXPECT_EQ(tick(false, kStill, false), Action::capture);
  EXPECT_EQ(tick(), Action::reuse);
  EXPECT_EQ(tick(true), Action::capture);
  EXPECT_EQ(tick(), Action::reuse);
  detector_.reset();
  EXPECT_EQ(tick(), Action::recomposite) << "a reset forgets the pointer";
  EXPECT_EQ(tick(false, kStill, false), Action::capture);
}

TEST_F(CaptureChangeDetectorTest, PointerChangesRedrawWithoutReading) {
  tick(false, kStill, false);
  QRVPointerState moved = kStill;
  moved.x += 1;
  EXPECT_EQ(tick(false, moved), Action::recomposite);
  EXPECT_TRUE(detector_.pointerChanged());
  EXPECT_EQ(tick(false, moved), Action::reuse);
  EXPECT_FALSE(detector_.pointerChanged());

  QRVPointerState otherCursor = moved;
  otherCursor.cursorSerial += 1;
  EXPECT_EQ(tick(false, otherCursor), Action::recomposite);
  QRVPointerState pressed = otherCursor;
  pressed.buttons = QRVPointerState::kLeftButton;
  EXPECT_EQ(tick(false, pressed), Action::recomposite);
  EXPECT_EQ(tick(true, pressed), Action::capture) << "damage wins over a redraw";
}

TEST_F(CaptureChangeDetectorTest, ComparesAboutOnceASecondAndPollsOnceDamageMissedAChange) {
  tick(false, kStill, false);
  int reuses = 0;
  Action action = Action::reuse;
  for (int i = 0; i < 20 && action == Action::reuse; ++i, ++reuses)
    action = tick();
  EXPECT_EQ(action, Action::compare);
  EXPECT_EQ(reuses, 10) << "one second after the last full read";
  EXPECT_FALSE(detector_.compared(false));
  EXPECT_FALSE(detector_.isPolling());

  // A damaged read is a full read too: the next check is a second after it.
  for (int i = 0; i < 5; ++i)
    tick();
  EXPECT_EQ(tick(true), Action::capture);
  for (int i = 0; i < 9; ++i)
    EXPECT_EQ(tick(), Action::reuse) << i;
  EXPECT_EQ(tick(), Action::compare);
  EXPECT_TRUE(detector_.compared(true));
  EXPECT_TRUE(detector_.isPolling());

  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(tick(), Action::compare);
    EXPECT_FALSE(detector_.compared(true)) << "the switch is reported once";
  }
  EXPECT_EQ(tick(false, kStill, false), Action::capture);
}

TEST_F(CaptureChangeDetectorTest, OnlyAVerifyingCompareSwitchesToPolling) {
  EXPECT_FALSE(detector_.compared(true)) << "no compare was asked for";
  tick(false, kStill, false);
  EXPECT_FALSE(detector_.compared(true));
  EXPECT_FALSE(detector_.isPolling());
}

}  // namespace
}  // namespace quorvix

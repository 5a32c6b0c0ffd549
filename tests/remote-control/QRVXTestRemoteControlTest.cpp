// The remote control's logic on a backend that records what it is told to play.
#include <gtest/gtest.h>

#include <map>

#include <fmt/format.h>

#include "../support/LogCapture.h"
#include "../support/ManualExecutor.h"
#include "core/QRVSessionResource.h"
#include "remote-control/QRVXTestRemoteControl.h"

namespace quorvix {
namespace {

// Records events, and fails the test when it is let go with a button or key still down.
class FakeInjector final : public InputInjector {
 public:
  ~FakeInjector() override {
    for (const auto& [what, down] : held)
      EXPECT_FALSE(down) << what << " left held";
  }
  bool isAvailable() override { return available; }
  void post(const InjectedMouseEvent& e) override {
    mouse.push_back(e);
    switch (e.type) {
      case MouseEventType::leftDown:
        held["left"] = true;
        break;
      case MouseEventType::leftUp:
        held["left"] = false;
        break;
      case MouseEventType::rightDown:
        held["right"] = true;
        break;
      case MouseEventType::rightUp:
        held["right"] = false;
        break;
      case MouseEventType::otherDown:
        held["middle"] = true;
        break;
      case MouseEventType::otherUp:
        held["middle"] = false;
        break;
      default:
        break;
    }
  }
  void post(const InjectedKeyEvent& e) override {
    keys.push_back(e);
    held[e.code] = e.down;
  }
  QRVPoint pointerLocation() override { return pointer; }

  bool available = true;
  QRVPoint pointer{7, 8};
  std::vector<InjectedMouseEvent> mouse;
  std::vector<InjectedKeyEvent> keys;
  std::map<std::string, bool> held;
};

class RemoteControlTest : public ::testing::Test {
 protected:
  std::unique_ptr<QRVXTestRemoteControl> make(const char* fullDevice = "on") {
    session = std::make_shared<QRVSessionResource>(
        Value::Map{{"state", "active"}, {"full_device", fullDevice}}, main.get());
    return std::make_unique<QRVXTestRemoteControl>(session, injector, [] {
      return QRVScreenRect{0, 0, 1000, 500};
    });
  }

  // A mouse event `ms` milliseconds into the minute.
  static QRVMouseEvent mouse(const char* state, int button, double x, double y, int ms) {
    return *QRVMouseEvent::from(Value(Value::Map{
        {"type", "Mouse"},
        {"id", "m"},
        {"state", state},
        {"button", button},
        {"x", x},
        {"y", y},
        {"timestamp", fmt::format("2024-05-01T10:20:{:02}.{:03}Z", ms / 1000, ms % 1000)}}));
  }
  static QRVKeyPress key(const char* state, const char* code, const char* key) {
    return *QRVKeyPress::from(
        Value(Value::Map{{"type", "KeyPress"}, {"state", state}, {"code", code}, {"key", key}}));
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<QRVSessionResource> session;
  std::shared_ptr<FakeInjector> injector = std::make_shared<FakeInjector>();
};

TEST_F(RemoteControlTest, MapsFractionsOntoTheTargetScreen) {
  auto control = make();
  EXPECT_EQ(control->cursorPositionFor({0.5, 0.5}), (QRVPoint{500, 250}));
  control->setScreen(QRVScreenRect{1440, 0, 1440, 900});
  EXPECT_EQ(control->cursorPositionFor({0.5, 0.5}), (QRVPoint{2160, 450}));
  EXPECT_EQ(control->cursorPositionFor({1.5, -0.1}), (QRVPoint{3600, -90}));  // not clamped
}

TEST_F(RemoteControlTest, PlaysTheEventTableForEachButton) {
  auto control = make();
  const QRVPoint at{0.5, 0.5};
  struct Step {
    const char* state;
    int button;
    MouseEventType type;
    MouseButton named;
  };
  const Step steps[] = {
      {"mousemove", 2, MouseEventType::moved, MouseButton::right},
      {"mousedown", 2, MouseEventType::rightDown, MouseButton::right},
      {"mousemove", 2, MouseEventType::rightDragged, MouseButton::right},
      {"mouseup", 2, MouseEventType::rightUp, MouseButton::left},  // as it has always been
      {"mousedown", 1, MouseEventType::otherDown, MouseButton::center},
      {"mousemove", 1, MouseEventType::otherDragged, MouseButton::center},
      {"mouseup", 1, MouseEventType::otherUp, MouseButton::center},
      {"mousemove", 1, MouseEventType::moved, MouseButton::center},
      {"mousedown", 0, MouseEventType::leftDown, MouseButton::left},
      {"mousemove", 0, MouseEventType::leftDragged, MouseButton::left},
      {"mouseup", 0, MouseEventType::leftUp, MouseButton::left},
      {"mousemove", 0, MouseEventType::moved, MouseButton::left},
  };
  int ms = 0;
  for (const auto& s : steps)
    control->injectMouse(mouse(s.state, s.button, at.x, at.y, ms += 1000));
  ASSERT_EQ(injector->mouse.size(), std::size(steps));
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(injector->mouse[i].type, steps[i].type);
    EXPECT_EQ(injector->mouse[i].button, steps[i].named);
    EXPECT_EQ(injector->mouse[i].location, (QRVPoint{500, 250}));
  }
  // Another button number is nobody's.
  test::LogCapture log;
  control->injectMouse(mouse("mousedown", 3, 0, 0, 0));
  EXPECT_EQ(injector->mouse.size(), std::size(steps));
  EXPECT_TRUE(log.mentions("Cannot process mouse event"));
}

TEST_F(RemoteControlTest, CountsClicksOnOneSpotWithinHalfASecond) {
  auto control = make();
  auto click = [&](int ms) {
    control->injectMouse(mouse("mousedown", 0, 0.2, 0.2, ms));
    control->injectMouse(mouse("mouseup", 0, 0.2, 0.2, ms + 50));
  };
  auto states = [&] {
    std::vector<int> out;
    for (const auto& e : injector->mouse)
      out.push_back(e.clickState.value_or(1));
    return out;
  };
  click(0);
  click(300);
  click(450);  // within half a second of the first
  EXPECT_EQ(states(), (std::vector<int>{1, 1, 2, 2, 3, 3}));

  // A move elsewhere clears the history: the next click is a single one again. A move onto the
  // same spot does not.
  injector->mouse.clear();
  control->injectMouse(mouse("mousemove", 0, 0.2, 0.2, 600));
  click(700);
  control->injectMouse(mouse("mousemove", 0, 0.3, 0.2, 800));
  click(900);
  EXPECT_EQ(states(), (std::vector<int>{1, 3, 3, 1, 1, 1}));
}

TEST_F(RemoteControlTest, PlaysTouchesAsTheLeftButtonOnlyWhileTheAgentControls) {
  auto denied = make("requested");
  auto touch = [](const char* state, int ms) {
    return *QRVTouchEvent::from(
        Value(Value::Map{{"type", "Touch"},
                         {"id", "t"},
                         {"state", state},
                         {"x", 0.1},
                         {"y", 0.1},
                         {"timestamp", fmt::format("2024-05-01T10:20:00.{:03}Z", ms)}}));
  };
  denied->injectTouch(touch("touchstart", 0));
  EXPECT_TRUE(injector->mouse.empty());

  auto control = make();
  control->injectTouch(touch("touchstart", 0));
  control->injectTouch(touch("touchmove", 10));
  control->injectTouch(touch("touchend", 20));
  ASSERT_EQ(injector->mouse.size(), 3u);
  EXPECT_EQ(injector->mouse[0].type, MouseEventType::leftDown);
  EXPECT_FALSE(injector->mouse[0].clickState);
  EXPECT_EQ(injector->mouse[1].type, MouseEventType::leftDragged);
  EXPECT_EQ(injector->mouse[2].type, MouseEventType::leftUp);
  EXPECT_EQ(injector->mouse[2].clickState, 2);  // a touch's end is always at least a second click
}

TEST_F(RemoteControlTest, TypesCharactersWithTheHeldModifiers) {
  auto control = make();
  control->injectKeyPress(key("keydown", "ShiftLeft", "Shift"));
  control->injectKeyPress(key("keydown", "KeyA", "A"));
  ASSERT_EQ(injector->keys.size(), 2u);
  // Shift is no modifier here: its own event carries the flags like any key's.
  EXPECT_EQ(injector->keys[0].flags, kFlagShift);
  EXPECT_EQ(injector->keys[1].flags, kFlagShift);
  EXPECT_EQ(injector->keys[1].character, "A");
  EXPECT_EQ(injector->keys[1].keyCode, 0);
  control->injectKeyPress(key("keyup", "KeyA", "A"));
  control->injectKeyPress(key("keyup", "ShiftLeft", "Shift"));

  control->injectKeyPress(key("keydown", "MetaLeft", "Meta"));
  EXPECT_FALSE(injector->keys.back().flags) << "a modifier's own event keeps the default flags";
  control->injectKeyPress(key("keydown", "KeyA", "a"));
  EXPECT_EQ(injector->keys.back().flags, kFlagCommand);
  EXPECT_FALSE(injector->keys.back().character) << "a chord is a key, not text";
  control->injectKeyPress(key("keyup", "KeyA", "a"));
  control->injectKeyPress(key("keyup", "MetaLeft", "Meta"));

  // A release of a key never pressed is still played and changes nothing held.
  control->injectKeyPress(key("keyup", "KeyB", "b"));
  EXPECT_FALSE(injector->keys.back().down);
  EXPECT_TRUE(control->keysPressed().empty());
  // Unknown codes and states are dropped.
  const auto played = injector->keys.size();
  control->injectKeyPress(key("keydown", "KeyÄ", "ä"));
  control->injectKeyPress(key("keypress", "KeyA", "a"));
  EXPECT_EQ(injector->keys.size(), played);
}

TEST_F(RemoteControlTest, ReleasesWhatTheAgentHeldWhenTheSessionEnds) {
  auto control = make();
  control->injectMouse(mouse("mousedown", 0, 0.5, 0.5, 0));
  control->injectMouse(mouse("mousedown", 2, 0.5, 0.5, 10));
  control->injectKeyPress(key("keydown", "KeyQ", "q"));
  control.reset();  // the fake fails the test if anything stays down
  ASSERT_GE(injector->mouse.size(), 4u);
  EXPECT_EQ(injector->mouse[2].type, MouseEventType::leftUp);
  EXPECT_EQ(injector->mouse[2].location, (QRVPoint{7, 8}));
  EXPECT_EQ(injector->mouse[3].type, MouseEventType::rightUp);
  EXPECT_EQ(injector->keys.back().code, "KeyQ");
  EXPECT_FALSE(injector->keys.back().down);
}

TEST_F(RemoteControlTest, PlaysNothingWhereInputCannotBePlayed) {
  injector->available = false;
  auto control = make();
  control->injectMouse(mouse("mousedown", 0, 0.5, 0.5, 0));
  EXPECT_TRUE(injector->mouse.empty());
}

}  // namespace
}  // namespace quorvix

// The remote control played on a private X server through XTEST, observed by a client window
// that decodes what it receives as a toolkit would.
#include <gtest/gtest.h>

#include <xcb/xcb.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <xkbcommon/xkbcommon-keysyms.h>

#include "../support/ChildProcess.h"
#include "../support/LogCapture.h"
#include "../support/ManualExecutor.h"
#include "../support/X11InputRecorder.h"
#include "../support/X11TestDisplay.h"
#include "core/QRVSessionResource.h"
#include "remote-control/QRVXTestRemoteControl.h"
#include "remote-control/linux/XTestInjector.h"

namespace quorvix {
namespace {

using test::X11InputRecorder;
using Kind = X11InputRecorder::Kind;

// Switches the keyboard layout for a test and back to "us" after it.
class ScopedLayout {
 public:
  explicit ScopedLayout(const std::string& layout) {
    ok_ = test::runOnTestDisplay("setxkbmap " + layout) == 0;
  }
  ~ScopedLayout() { test::runOnTestDisplay("setxkbmap us"); }
  bool ok() const { return ok_; }

 private:
  bool ok_ = false;
};

struct Stroke {
  const char* code;
  const char* key;
  bool shift = false;
};

class XTestInjectorTest : public ::testing::Test {
 protected:
  void SetUp() override { QRV_REQUIRE_TEST_DISPLAY(); }

  // The client window, and the state the session must leave behind, taken once the test has
  // set the server up.
  void startClient() {
    recorder = std::make_unique<X11InputRecorder>(test::testDisplayName());
    ASSERT_TRUE(recorder->ok());
    before = test::snapshotInput(recorder->connection());
  }

  void startSession(XTestInjector::Options options = {}) {
    injector = std::make_shared<XTestInjector>(test::testDisplayName(), main.get(), options);
    ASSERT_TRUE(injector->isAvailable());
    session = std::make_shared<QRVSessionResource>(
        Value::Map{{"state", "active"}, {"full_device", "on"}}, main.get());
    control = std::make_unique<QRVXTestRemoteControl>(session, injector, [] {
      return QRVScreenRect{0, 0, 1920, 1080};
    });
  }

  void endSession() {
    control.reset();
    injector.reset();
  }

  test::X11InputSnapshot now() const { return test::snapshotInput(recorder->connection()); }

  void mouse(const char* state, int button, double x, double y) {
    ms_ += 1000;
    control->injectMouse(*QRVMouseEvent::from(
        Value(Value::Map{{"type", "Mouse"},
                         {"id", "m"},
                         {"state", state},
                         {"button", button},
                         {"x", x},
                         {"y", y},
                         {"timestamp", fmt::format("2024-05-01T10:{:02}:{:02}.000Z",
                                                   ms_ / 60000 % 60, ms_ / 1000 % 60)}})));
  }
  void key(const char* state, const char* code, const std::string& value) {
    control->injectKeyPress(*QRVKeyPress::from(
        Value(Value::Map{{"type", "KeyPress"}, {"state", state}, {"code", code}, {"key", value}})));
  }
  void type(const std::vector<Stroke>& strokes) {
    for (const auto& s : strokes) {
      if (s.shift)
        key("keydown", "ShiftLeft", "Shift");
      key("keydown", s.code, s.key);
      key("keyup", s.code, s.key);
      if (s.shift)
        key("keyup", "ShiftLeft", "Shift");
    }
  }

  // The index of the first recorded event after `from` that matches.
  template <typename Pred>
  std::ptrdiff_t find(Pred pred, std::ptrdiff_t from = 0) const {
    const auto& e = recorder->events();
    const auto it = std::find_if(e.begin() + from, e.end(), pred);
    return it == e.end() ? -1 : it - e.begin();
  }
  bool waitFor(Kind kind, int detail) {
    return recorder->waitUntil([&] {
      return find([&](const auto& e) { return e.kind == kind && e.detail == detail; }) >= 0;
    });
  }

  test::ScopedManualMainQueue main;
  std::unique_ptr<X11InputRecorder> recorder;
  test::X11InputSnapshot before;
  std::shared_ptr<XTestInjector> injector;
  std::shared_ptr<QRVSessionResource> session;
  std::unique_ptr<QRVXTestRemoteControl> control;
  int ms_ = 0;
};

// "aA1é ß€Ж" with the keys an agent on a US keyboard would name, and "yz" that a German layout
// keeps on other keys.
const std::vector<Stroke> kText = {
    {"KeyA", "a"},  {"KeyA", "A", true}, {"Digit1", "1"},    {"KeyE", "é"}, {"Space", " "},
    {"Minus", "ß"}, {"KeyE", "€"},       {"Semicolon", "Ж"}, {"KeyY", "y"}, {"KeyZ", "z"},
};

TEST_F(XTestInjectorTest, ClicksLandOnThePixelOfTheirFractionWithTheirButton) {
  startClient();
  startSession();
  mouse("mousedown", 0, 0.25, 0.5);
  mouse("mouseup", 0, 0.25, 0.5);
  mouse("mousedown", 2, 0.75, 0.25);
  mouse("mouseup", 2, 0.75, 0.25);
  mouse("mousedown", 1, 0.5, 0.125);
  mouse("mouseup", 1, 0.5, 0.125);
  ASSERT_TRUE(waitFor(Kind::buttonRelease, 2));

  std::vector<std::tuple<Kind, int, int, int>> buttons;
  for (const auto& e : recorder->events())
    if (e.kind == Kind::buttonPress || e.kind == Kind::buttonRelease)
      buttons.emplace_back(e.kind, e.detail, e.x, e.y);
  const std::vector<std::tuple<Kind, int, int, int>> expected = {
      {Kind::buttonPress, 1, 480, 540},  {Kind::buttonRelease, 1, 480, 540},
      {Kind::buttonPress, 3, 1440, 270}, {Kind::buttonRelease, 3, 1440, 270},
      {Kind::buttonPress, 2, 960, 135},  {Kind::buttonRelease, 2, 960, 135},
  };
  EXPECT_EQ(buttons, expected);
  EXPECT_EQ(injector->pointerLocation(), (QRVPoint{960, 135}));
}

TEST_F(XTestInjectorTest, ALeftHandedPointerMappingDoesNotSwapTheAgentsButtons) {
  startClient();
  xcb_connection_t* c = recorder->connection();
  // Only the first three buttons change; the map's length must be the server's.
  std::unique_ptr<xcb_get_pointer_mapping_reply_t, decltype(&free)> original(
      xcb_get_pointer_mapping_reply(c, xcb_get_pointer_mapping(c), nullptr), &free);
  ASSERT_TRUE(original);
  std::vector<std::uint8_t> map(xcb_get_pointer_mapping_map(original.get()),
                                xcb_get_pointer_mapping_map(original.get()) +
                                    xcb_get_pointer_mapping_map_length(original.get()));
  ASSERT_GE(map.size(), 3u);
  std::vector<std::uint8_t> swapped = map;
  std::swap(swapped[0], swapped[2]);
  auto setAll = [&](const std::vector<std::uint8_t>& m) {
    std::unique_ptr<xcb_set_pointer_mapping_reply_t, decltype(&free)> reply(
        xcb_set_pointer_mapping_reply(
            c, xcb_set_pointer_mapping(c, std::uint8_t(m.size()), m.data()), nullptr),
        &free);
    return reply && reply->status == XCB_MAPPING_STATUS_SUCCESS;
  };
  ASSERT_TRUE(setAll(swapped));
  struct Restore {
    std::function<void()> f;
    ~Restore() { f(); }
  } restore{[&] { setAll(map); }};

  startSession();
  mouse("mousedown", 0, 0.5, 0.5);
  mouse("mouseup", 0, 0.5, 0.5);
  mouse("mousedown", 2, 0.5, 0.5);
  mouse("mouseup", 2, 0.5, 0.5);
  ASSERT_TRUE(waitFor(Kind::buttonRelease, 3));
  std::vector<int> presses;
  for (const auto& e : recorder->events())
    if (e.kind == Kind::buttonPress)
      presses.push_back(e.detail);
  EXPECT_EQ(presses, (std::vector<int>{1, 3}));
}

TEST_F(XTestInjectorTest, ADragArrivesAsPressMotionRelease) {
  startClient();
  startSession();
  mouse("mousemove", 0, 0.1, 0.1);
  mouse("mousedown", 0, 0.1, 0.1);
  mouse("mousemove", 0, 0.2, 0.2);
  mouse("mousemove", 0, 0.3, 0.3);
  mouse("mouseup", 0, 0.3, 0.3);
  ASSERT_TRUE(waitFor(Kind::buttonRelease, 1));

  const auto press = find([](const auto& e) { return e.kind == Kind::buttonPress; });
  ASSERT_GE(press, 0);
  const auto& events = recorder->events();
  EXPECT_EQ(events[std::size_t(press)].x, 192);
  EXPECT_EQ(events[std::size_t(press)].y, 108);
  std::vector<std::pair<int, int>> dragged;
  std::size_t i = std::size_t(press) + 1;
  for (; i < events.size() && events[i].kind == Kind::motion; ++i) {
    EXPECT_TRUE(events[i].state & XCB_BUTTON_MASK_1);
    dragged.emplace_back(events[i].x, events[i].y);
  }
  EXPECT_EQ(dragged, (std::vector<std::pair<int, int>>{{384, 216}, {576, 324}}));
  ASSERT_LT(i, events.size());
  EXPECT_EQ(events[i].kind, Kind::buttonRelease);
  EXPECT_EQ(events[i].x, 576);
  EXPECT_EQ(events[i].y, 324);

  endSession();
  EXPECT_EQ(now(), before);
}

struct Layout {
  const char* name;
  // The characters of kText it lacks, each typed on a spare keycode.
  std::size_t lacking;
};

class XTestTypingTest : public XTestInjectorTest, public ::testing::WithParamInterface<Layout> {};

TEST_P(XTestTypingTest, TypesTheAgentsTextWhateverTheLayout) {
  ScopedLayout layout(GetParam().name);
  ASSERT_TRUE(layout.ok());
  startClient();
  startSession();
  type(kText);
  EXPECT_EQ(recorder->waitForText("aA1é ß€Жyz"), "aA1é ß€Жyz");
  // Characters the layout has are typed on its keys (on "de", "€" with AltGr); those it lacks
  // still hold their spare keycodes...
  const auto during = now().keysyms;
  ASSERT_EQ(during.size(), before.keysyms.size());
  const auto width = std::size_t(before.keysymsPerKeycode);
  std::size_t remapped = 0;
  for (std::size_t i = 0; i < during.size(); i += width)
    remapped +=
        !std::equal(during.begin() + std::ptrdiff_t(i), during.begin() + std::ptrdiff_t(i + width),
                    before.keysyms.begin() + std::ptrdiff_t(i));
  EXPECT_EQ(remapped, GetParam().lacking);
  // ...until they have idled long enough.
  main->advanceSeconds(1);
  // Requests on two connections: the clearing reaches the server at its own pace.
  EXPECT_TRUE(recorder->waitUntil([&] { return now() == before; }));

  type({{"KeyE", "é"}});
  EXPECT_EQ(recorder->waitForText("aA1é ß€Жyzé"), "aA1é ß€Жyzé");
  endSession();
  EXPECT_EQ(now(), before);
}

// "us" lacks é, ß, € and Ж; "de" only é and Ж.
INSTANTIATE_TEST_SUITE_P(Layouts,
                         XTestTypingTest,
                         ::testing::Values(Layout{"us", 4}, Layout{"de", 2}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(XTestInjectorTest, ModifierChordsAndHeldShift) {
  startClient();
  startSession();
  // Control+C is a shortcut, not text.
  key("keydown", "ControlLeft", "Control");
  key("keydown", "KeyC", "c");
  key("keyup", "KeyC", "c");
  key("keyup", "ControlLeft", "Control");
  // Shift held by the agent: the character it produced, whatever the level.
  key("keydown", "ShiftLeft", "Shift");
  key("keydown", "KeyA", "A");
  key("keyup", "KeyA", "A");
  // An agent whose layout has "1" under Shift: the held Shift is let go for it.
  key("keydown", "Digit1", "1");
  key("keyup", "Digit1", "1");
  key("keyup", "ShiftLeft", "Shift");
  key("keydown", "Period", ".");
  key("keyup", "Period", ".");
  EXPECT_EQ(recorder->waitForText("A1."), "A1.");

  const auto chord = find([](const auto& e) {
    return e.kind == Kind::keyPress && e.keysym == XKB_KEY_c && (e.state & XCB_MOD_MASK_CONTROL);
  });
  EXPECT_GE(chord, 0);
  endSession();
  EXPECT_EQ(now(), before);
}

TEST_F(XTestInjectorTest, CapsLockOnTheServerDoesNotChangeTheAgentsCharacters) {
  startClient();
  startSession();
  key("keydown", "CapsLock", "CapsLock");
  key("keyup", "CapsLock", "CapsLock");
  ASSERT_TRUE(recorder->waitUntil([&] { return now().lockedMods & XCB_MOD_MASK_LOCK; }));
  // What the agent's browser made of its keys under Caps Lock, and what it typed after.
  type({{"KeyA", "A"}, {"KeyB", "b"}, {"KeyE", "é"}, {"Digit1", "1"}});
  EXPECT_EQ(recorder->waitForText("Abé1"), "Abé1");
  key("keydown", "CapsLock", "CapsLock");
  key("keyup", "CapsLock", "CapsLock");
  endSession();
  EXPECT_EQ(now(), before);
}

TEST_F(XTestInjectorTest, AHeldKeyDoesNotRepeatAndRepeatsComeBackAfterwards) {
  startClient();
  startSession();
  const int left = *injector->keycodeFor("ArrowLeft");
  auto repeats = [&](int kc) {
    const auto s = now();
    return bool(s.autoRepeats[std::size_t(kc / 8)] & (1 << (kc % 8)));
  };
  ASSERT_TRUE(repeats(left));
  key("keydown", "ArrowLeft", "ArrowLeft");
  ASSERT_TRUE(waitFor(Kind::keyPress, left));
  EXPECT_FALSE(repeats(left));
  // The agent's own repeats arrive as keydowns: each becomes a press of its own.
  key("keydown", "ArrowLeft", "ArrowLeft");
  key("keyup", "ArrowLeft", "ArrowLeft");
  ASSERT_TRUE(recorder->waitUntil([&] {
    return std::count_if(recorder->events().begin(), recorder->events().end(), [&](auto& e) {
             return e.kind == Kind::keyRelease && e.detail == left;
           }) == 2;
  }));
  std::vector<Kind> kinds;
  for (const auto& e : recorder->events())
    if (e.detail == left)
      kinds.push_back(e.kind);
  EXPECT_EQ(kinds, (std::vector<Kind>{Kind::keyPress, Kind::keyRelease, Kind::keyPress,
                                      Kind::keyRelease}));
  EXPECT_TRUE(recorder->waitUntil([&] { return repeats(left); }));

  // Still held when the session ends: released, and its repeat restored.
  key("keydown", "Backspace", "Backspace");
  mouse("mousedown", 0, 0.5, 0.5);
  const int backspace = *injector->keycodeFor("Backspace");
  ASSERT_TRUE(waitFor(Kind::keyPress, backspace));
  EXPECT_FALSE(repeats(backspace));
  endSession();
  EXPECT_EQ(now(), before);
}

TEST_F(XTestInjectorTest, CharactersWaitForASpareKeycodeToAgeAndKeepTheirOrder) {
  startClient();
  XTestInjector::Options options;
  options.maxSpareKeycodes = 2;
  startSession(options);
  type({{"KeyE", "é"}, {"Minus", "ß"}, {"Semicolon", "Ж"}, {"KeyX", "x"}});
  EXPECT_EQ(recorder->waitForText("éß"), "éß");
  EXPECT_EQ(injector->pendingCount(), 4u);  // Ж's keydown and keyup, x's keydown and keyup
  main->advance(options.spareReuseAfter);
  EXPECT_EQ(recorder->waitForText("éßЖx"), "éßЖx");
  EXPECT_EQ(injector->pendingCount(), 0u);
  endSession();
  EXPECT_EQ(now(), before);
}

TEST_F(XTestInjectorTest, EveryWebCodeFindsTheSameKeyByEvdevCodeAndByXkbName) {
  startClient();
  startSession();
  XTestInjector::Options byName;
  byName.keysByName = true;
  XTestInjector named(test::testDisplayName(), main.get(), byName);
  ASSERT_TRUE(injector->usesEvdevKeycodes());
  ASSERT_FALSE(named.usesEvdevKeycodes());
  for (const auto& [code, _] : QRVKeyCodeMap::shared().jsKeys()) {
    SCOPED_TRACE(std::string(code));
    const auto evdev = injector->keycodeFor(std::string(code));
    const auto name = named.keycodeFor(std::string(code));
    if (code == "Fn") {
      EXPECT_FALSE(evdev);
      EXPECT_FALSE(name);
    } else {
      EXPECT_TRUE(evdev);
      EXPECT_EQ(evdev, name);
    }
  }
}

TEST(XTestInjectorWithoutServer, ReportsUnavailableAndDropsInput) {
  test::ScopedManualMainQueue main;
  test::LogCapture log;
  XTestInjector injector(":65000", main.get());
  EXPECT_FALSE(injector.isAvailable());
  injector.post(InjectedMouseEvent{MouseEventType::leftDown, MouseButton::left, {1, 1}});
  injector.post(InjectedKeyEvent{"KeyA", 0, true, std::nullopt, std::string("a")});
  EXPECT_EQ(injector.pendingCount(), 0u);
  EXPECT_EQ(injector.pointerLocation(), (QRVPoint{0, 0}));
  EXPECT_TRUE(log.mentions("Cannot connect to the X display"));
}

// On a server of the test's own, since it goes away in the middle of the session.
TEST(XTestInjectorLostServer, LogsTheLossDropsInputAndConnectsAgainLater) {
  test::ScopedManualMainQueue main;
  test::LogCapture log;
  const std::vector<std::string> args = {"-screen", "0",        "640x480x24", "-nolisten",
                                         "tcp",     "-noreset", "-displayfd", "1"};
  auto start = [&](std::vector<std::string> argv) {
    argv.insert(argv.end(), args.begin(), args.end());
    return std::make_unique<test::ChildProcess>(argv);
  };
  auto server = start({"Xvfb"});
  const auto number = server->readLine();
  ASSERT_TRUE(number);
  const std::string display = ":" + *number;
  XTestInjector injector(display, main.get());
  ASSERT_TRUE(injector.isAvailable());
  injector.post(InjectedKeyEvent{"ShiftLeft", 56, true, std::nullopt, std::nullopt});

  server.reset();
  injector.post(InjectedMouseEvent{MouseEventType::moved, MouseButton::left, {5, 5}});
  injector.post(InjectedKeyEvent{"KeyA", 0, true, 0u, std::string("a")});
  EXPECT_FALSE(injector.isAvailable());
  EXPECT_TRUE(log.mentions("Lost the X connection"));

  // A server again on the same display: taken up once the retry interval has passed.
  server = start({"Xvfb", display});
  if (!server->readLine())
    GTEST_SKIP() << display << " was taken by another server in the meantime";
  EXPECT_FALSE(injector.isAvailable());
  main->advanceSeconds(1);
  ASSERT_TRUE(injector.isAvailable());
  injector.post(InjectedMouseEvent{MouseEventType::moved, MouseButton::left, {10, 20}});
  EXPECT_EQ(injector.pointerLocation(), (QRVPoint{10, 20}));
}

}  // namespace
}  // namespace quorvix

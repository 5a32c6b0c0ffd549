// The agent's input records as the stream hands them on, and the key table the injector reads.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

#include "quorvix/QRVKeyPress.h"
#include "quorvix/QRVMouseEvent.h"
#include "quorvix/QRVTouchEvent.h"
#include "remote-control/QRVKeyCodeMap.h"

namespace quorvix {
namespace {

Value mouse(Value::Map fields) {
  Value::Map m{{"type", "Mouse"},
               {"id", "p1"},
               {"state", "mousedown"},
               {"timestamp", "2024-05-01T10:20:30.250+0200"},
               {"button", 0}};
  for (auto& [k, v] : fields)
    m[k] = v;
  return Value(std::move(m));
}

Value without(Value v, const std::string& key) {
  v.asMap()->erase(key);
  return v;
}

TEST(QRVMouseEventTest, DecodesWhatTheAgentSendsAndRejectsTheRest) {
  // No position: (0, 0).
  auto plain = QRVMouseEvent::from(mouse({}));
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->position(), (QRVPoint{0, 0}));
  EXPECT_TRUE(plain->isDown());
  EXPECT_TRUE(plain->isButtonLeft());
  ASSERT_TRUE(plain->timestamp());
  // 08:20:30.250 UTC
  EXPECT_EQ(
      std::chrono::duration_cast<std::chrono::milliseconds>(plain->timestamp()->time_since_epoch())
          .count(),
      1714551630250);

  // Positions are read in single precision.
  auto placed = QRVMouseEvent::from(mouse({{"x", 0.1}, {"y", 0.75}, {"button", 2}}));
  ASSERT_TRUE(placed);
  EXPECT_EQ(placed->position().x, static_cast<double>(0.1f));
  EXPECT_TRUE(placed->isButtonRight());
  // One coordinate alone is no position.
  EXPECT_EQ(QRVMouseEvent::from(mouse({{"x", 0.5}}))->position(), (QRVPoint{0, 0}));
  // A button in text still has its integer value.
  EXPECT_TRUE(QRVMouseEvent::from(mouse({{"button", "1"}}))->isButtonCenter());

  // Rejected: missing fields, another type literal, a NaN position.
  EXPECT_FALSE(QRVMouseEvent::from(without(mouse({}), "button")));
  EXPECT_FALSE(QRVMouseEvent::from(without(mouse({}), "id")));
  EXPECT_FALSE(QRVMouseEvent::from(without(mouse({}), "state")));
  EXPECT_FALSE(QRVMouseEvent::from(without(mouse({}), "timestamp")));
  EXPECT_FALSE(QRVMouseEvent::from(mouse({{"type", "mouse"}})));
  EXPECT_FALSE(
      QRVMouseEvent::from(mouse({{"x", std::numeric_limits<double>::quiet_NaN()}, {"y", 0.5}})));
  EXPECT_FALSE(QRVMouseEvent::from(Value("Mouse")));

  // A time stamp in another form keeps the event without a time.
  auto untimed = QRVMouseEvent::from(mouse({{"timestamp", "2024-05-01 10:20:30"}}));
  ASSERT_TRUE(untimed);
  EXPECT_FALSE(untimed->timestamp());
}

TEST(QRVMouseEventTest, MeasuresTimeAndPositionAgainstOthers) {
  auto first = QRVMouseEvent::from(mouse({}));
  auto second = QRVMouseEvent::from(
      mouse({{"timestamp", "2024-05-01T08:20:31.000Z"}, {"x", 0.5}, {"y", 0.5}}));
  EXPECT_DOUBLE_EQ(second->duration(first), 0.75);
  EXPECT_EQ(second->duration(std::nullopt), std::numeric_limits<double>::max());
  EXPECT_EQ(second->positionInFrame({0.25, 0.5}), (QRVPoint{0.25, 0}));
}

TEST(QRVTouchEventTest, DecodesAndMeasuresDistances) {
  auto touch = [](double x, double y) {
    return QRVTouchEvent::from(Value(Value::Map{{"type", "Touch"},
                                                {"id", 7},
                                                {"state", "touchmove"},
                                                {"timestamp", "2024-05-01T08:20:30.000-05:30"},
                                                {"x", x},
                                                {"y", y}}));
  };
  auto a = touch(0.1, 0.2);
  auto b = touch(0.4, 0.6);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->id(), "7");
  EXPECT_TRUE(a->isMove());
  EXPECT_NEAR(b->distance(*a), 0.5, 1e-6);
  EXPECT_NEAR(b->delta(*a).x, 0.3, 1e-6);
  EXPECT_FALSE(QRVTouchEvent::from(Value(Value::Map{{"type", "Touch"}, {"id", "t"}})));
}

TEST(QRVKeyPressTest, NeedsKeyCodeAndStateAndCountsUTF16Units) {
  auto press = [](Value::Map m) {
    m["type"] = "KeyPress";
    return QRVKeyPress::from(Value(std::move(m)));
  };
  auto a = press({{"key", "a"}, {"code", "KeyA"}, {"state", "keydown"}});
  ASSERT_TRUE(a);
  EXPECT_TRUE(a->isDown());
  EXPECT_TRUE(a->isSingleCharacter());
  EXPECT_FALSE(press({{"key", "a"}, {"state", "keydown"}}));
  EXPECT_FALSE(press({{"key", "a"}, {"code", "KeyA"}}));

  auto single = [&](const char* key) {
    return press({{"key", key}, {"code", "KeyA"}, {"state", "keyup"}})->isSingleCharacter();
  };
  EXPECT_TRUE(single("\xc3\xa4"));           // ä
  EXPECT_TRUE(single("\xe2\x82\xac"));       // €
  EXPECT_FALSE(single("\xf0\x9f\x98\x80"));  // an emoji: two UTF-16 units
  EXPECT_FALSE(single("Enter"));
  EXPECT_FALSE(single(""));
}

TEST(QRVKeyCodeMapTest, HoldsTheTableAndItsModifierQueries) {
  const auto& map = QRVKeyCodeMap::shared();
  EXPECT_EQ(map.jsKeys().size(), 127u);
  std::set<int> codes;
  for (const auto& [name, code] : map.jsKeys())
    codes.insert(code);
  EXPECT_EQ(codes.size(), 120u);
  for (int unused : {52, 66, 68, 70, 77, 108, 112})
    EXPECT_EQ(codes.count(unused), 0u) << unused;
  EXPECT_EQ(map.keyCodeFor("Insert"), 114);
  EXPECT_EQ(map.keyCodeFor("Help"), 114);
  EXPECT_EQ(map.keyCodeFor("IntlYen"), 93);
  EXPECT_EQ(map.keyCodeFor("NumpadEnter"), 76);
  EXPECT_FALSE(map.keyCodeFor("KeyÄ"));

  EXPECT_FALSE(QRVKeyCodeMap::isModifierKey("ShiftLeft"));
  EXPECT_TRUE(QRVKeyCodeMap::isShiftKey("ShiftLeft"));
  EXPECT_TRUE(QRVKeyCodeMap::isModifierKey("MetaLeft"));
  EXPECT_TRUE(QRVKeyCodeMap::isModifierKey("OSRight"));
  EXPECT_TRUE(QRVKeyCodeMap::isModifierKey("ControlRight"));
  EXPECT_TRUE(QRVKeyCodeMap::isModifierKey("AltLeft"));
  EXPECT_FALSE(QRVKeyCodeMap::isModifierKey("KeyA"));
}

}  // namespace
}  // namespace quorvix

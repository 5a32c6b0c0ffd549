// The agent's drawings and laser: parsing, where they land, and when they go.
#include <cmath>

#include <gtest/gtest.h>

#include "annotations/QRVLinuxAnnotations.h"
#include "session-ui/SessionUIFakes.h"
#include "support/ManualExecutor.h"

namespace quorvix {
namespace {

Value drawingMessage(Value::Map fields) {
  Value::Map m{{"type", "Drawing"}, {"id", "d1"}, {"image", Value::Bytes{1, 2, 3}}};
  for (auto& [k, v] : fields)
    m[k] = v;
  return m;
}

TEST(AnnotationRecordsTest, DrawingParsing) {
  EXPECT_FALSE(QRVDrawing::from(Value::Map{{"type", "Drawing"}})) << "no id";
  EXPECT_FALSE(QRVDrawing::from(Value::Map{{"type", "Laser"}, {"id", "1"}}));
  EXPECT_FALSE(QRVDrawing::from(Value("Drawing")));

  auto whole = QRVDrawing::from(drawingMessage({{"x", 0.1}, {"y", 0.2}, {"width", 0.3}}));
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->bounds(), (QRVRect{0, 0, 1, 1})) << "incomplete bounds cover the screen";
  EXPECT_FALSE(whole->disappearsIn());
  EXPECT_EQ(whole->agent(), "");

  auto placed = QRVDrawing::from(drawingMessage({{"x", 0.1},
                                                 {"y", 0.2},
                                                 {"width", 0.3},
                                                 {"height", 0.4},
                                                 {"agent", 7},
                                                 {"disappears_in", "500"},
                                                 {"fade_duration", 250}}));
  ASSERT_TRUE(placed);
  EXPECT_EQ(placed->bounds().x, static_cast<double>(0.1f)) << "single precision";
  EXPECT_EQ(placed->agent(), "") << "a non-text agent is left out";
  EXPECT_FALSE(placed->disappearsIn()) << "a non-number delay is left out";
  EXPECT_EQ(placed->fadeDuration(), 250.0);

  EXPECT_FALSE(
      QRVDrawing::from(drawingMessage({{"x", NAN}, {"y", 0.0}, {"width", 1.0}, {"height", 1.0}})));
  EXPECT_EQ(QRVDrawing::from(drawingMessage({{"id", 42}}))->idKey(), "42");
}

TEST(AnnotationRecordsTest, LaserParsingAndColours) {
  EXPECT_FALSE(QRVLaser::from(Value::Map{{"type", "Laser"}, {"id", "1"}})) << "no state";
  EXPECT_FALSE(QRVLaser::from(
      Value::Map{{"type", "Laser"}, {"id", "1"}, {"state", "touchmove"}, {"x", NAN}, {"y", 0}}));
  auto laser = QRVLaser::from(
      Value::Map{{"type", "Laser"}, {"id", "1"}, {"state", "touchend"}, {"x", 0.5}, {"colour", 5}});
  ASSERT_TRUE(laser);
  EXPECT_TRUE(laser->isEnd());
  EXPECT_EQ(laser->position(), (QRVPoint{0, 0})) << "a lone x gives the origin";
  EXPECT_EQ(laser->color(), "");

  const QRVColor green{0, 1, 0};
  const QRVColor red{1, 0, 0};
  EXPECT_EQ(colorFromHexString("00ff00"), green);
  EXPECT_EQ(colorFromHexString("#00FF00"), green);
  EXPECT_EQ(colorFromHexString("##00ff00"), green);
  EXPECT_EQ(colorFromHexString("0x00ff00"), green);
  EXPECT_EQ(colorFromHexString("00ff00zz"), green) << "scanning stops at the first non-digit";
  EXPECT_EQ(colorFromHexString("zz"), red);
  EXPECT_EQ(colorFromHexString(""), red);
  EXPECT_EQ(colorFromHexString("ffffffffffff"), (QRVColor{1, 1, 1})) << "saturates";
}

class AnnotationsTest : public ::testing::Test {
 protected:
  void show(Value::Map fields) {
    auto drawing = QRVDrawing::from(drawingMessage(std::move(fields)));
    ASSERT_TRUE(drawing);
    annotations.updateDrawnAnnotation(*drawing);
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<test::RecordingCanvas> canvas = std::make_shared<test::RecordingCanvas>();
  QRVLinuxAnnotations annotations{canvas, main.get()};
};

TEST_F(AnnotationsTest, DrawingsLandAtTheirFractionsAndReplaceInPlace) {
  annotations.setActive(true);
  EXPECT_TRUE(canvas->visible);
  show({{"x", 0.25}, {"y", 0.5}, {"width", 0.5}, {"height", 0.25}});
  ASSERT_EQ(canvas->views.size(), 1u);
  EXPECT_EQ(canvas->views.begin()->second.rect, (QRVRect{480, 540, 960, 270}));

  show({});
  ASSERT_EQ(canvas->views.size(), 1u) << "same agent and id: the same view";
  EXPECT_EQ(canvas->views.begin()->second.rect, (QRVRect{0, 0, 1920, 1080}));
  EXPECT_EQ(canvas->views.begin()->second.pictures, 2);

  show({{"id", ""}});
  show({{"id", "default"}});
  EXPECT_EQ(canvas->views.size(), 2u) << "an empty id is filed as \"default\"";
}

TEST_F(AnnotationsTest, AnEmptyPictureClearsItsAgentOnly) {
  show({{"agent", "a"}, {"id", "1"}});
  show({{"agent", "a"}, {"id", "2"}});
  show({{"agent", "b"}, {"id", "1"}});
  show({{"agent", "a"}, {"id", "other"}, {"image", Value()}});
  EXPECT_EQ(canvas->views.size(), 1u);
  EXPECT_EQ(annotations.drawingManager().count(), 1u);
  annotations.setActive(false);
  EXPECT_TRUE(canvas->views.empty());
  EXPECT_FALSE(canvas->visible);
}

TEST_F(AnnotationsTest, FadesOnScheduleAndOldTimersRemoveWhateverHoldsTheKey) {
  show({{"disappears_in", 1000}, {"fade_duration", 500}});
  main->advance(std::chrono::milliseconds(999));
  EXPECT_FALSE(canvas->views.begin()->second.fading);
  main->advance(std::chrono::milliseconds(1));
  EXPECT_EQ(canvas->views.begin()->second.fading, Duration(std::chrono::milliseconds(500)));
  main->advance(std::chrono::milliseconds(500));
  EXPECT_TRUE(canvas->views.empty());

  show({{"disappears_in", 1000}});
  main->advance(std::chrono::milliseconds(500));
  show({});  // the same key, meant to stay
  main->advance(std::chrono::milliseconds(500));
  EXPECT_TRUE(canvas->views.empty()) << "the first timer is never cancelled";

  show({});
  EXPECT_EQ(main->pendingCount(), 0u) << "no delay: no timer";
}

TEST_F(AnnotationsTest, LaserFollowsAndHidesWithoutMoving) {
  auto laser = [](const char* state, double x, double y, const char* colour) {
    return *QRVLaser::from(Value::Map{
        {"type", "Laser"}, {"id", "1"}, {"state", state}, {"x", x}, {"y", y}, {"colour", colour}});
  };
  EXPECT_FALSE(canvas->laser) << "hidden until the first position";
  annotations.updateLaserAnnotation(laser("touchstart", 0.5, 0.25, "#00ff00"));
  EXPECT_EQ(canvas->laser, (QRVPoint{960, 270}));
  EXPECT_EQ(canvas->laserColor, (QRVColor{0, 1, 0}));
  annotations.updateLaserAnnotation(laser("touchend", 0.9, 0.9, "00ff00"));
  EXPECT_FALSE(canvas->laser);
  annotations.updateLaserAnnotation(laser("touchmove", 0.1, 0.1, "nonsense"));
  EXPECT_EQ(canvas->laserColor, (QRVColor{1, 0, 0}));
}

}  // namespace
}  // namespace quorvix

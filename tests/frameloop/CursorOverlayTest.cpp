#include "frameloop/CursorOverlay.h"

#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

namespace quorvix {
namespace {

constexpr std::uint32_t kBackground = 0xff204060;  // B 0x60, G 0x40, R 0x20

struct Picture {
  int width;
  int height;
  std::vector<std::uint8_t> bytes;

  Picture(int w, int h) : width(w), height(h), bytes(std::size_t(w) * h * 4) {
    for (std::size_t i = 0; i < bytes.size(); i += 4) {
      bytes[i] = 0x60;
      bytes[i + 1] = 0x40;
      bytes[i + 2] = 0x20;
    }
  }
  std::uint32_t at(int x, int y) const {
    const std::uint8_t* p = &bytes[(std::size_t(y) * width + x) * 4];
    return 0xff000000u | p[2] << 16 | p[1] << 8 | p[0];
  }
};

// A 4 × 4 cursor: row 0 opaque red, row 1 half-transparent blue (premultiplied), rows 2-3 clear.
QRVCursorImage testCursor(int hotX, int hotY) {
  QRVCursorImage c{4, 4, hotX, hotY, std::vector<std::uint32_t>(16, 0)};
  for (int x = 0; x < 4; ++x) {
    c.argb[x] = 0xffff0000;
    c.argb[4 + x] = 0x80000080;
  }
  return c;
}

bool near(std::uint32_t a, std::uint32_t b, int tolerance) {
  for (int shift = 0; shift < 24; shift += 8)
    if (std::abs(int((a >> shift) & 0xff) - int((b >> shift) & 0xff)) > tolerance)
      return false;
  return true;
}

TEST(CursorOverlayTest, BlendsPremultipliedPixelsWithTheHotSpotOnThePointer) {
  Picture p(40, 30);
  const QRVScreenRect screen{100, 50, 40, 30};  // a screen away from the root's origin
  drawCursor(p.bytes.data(), p.width, p.height, screen, testCursor(1, 1), {110, 60, 0, 1});
  // Hot spot (1, 1) on local point (10, 10): the cursor's top left at (9, 9).
  for (int x = 9; x < 13; ++x) {
    EXPECT_EQ(p.at(x, 9), 0xffff0000u) << x;
    // dst × (255 − 128) / 255 + src: B 0x60 → 0x30 + 0x80, G 0x40 → 0x20, R 0x20 → 0x10.
    EXPECT_TRUE(near(p.at(x, 10), 0xff1020b0u, 1)) << std::hex << p.at(x, 10);
    EXPECT_EQ(p.at(x, 11), kBackground) << "clear pixels leave the picture";
  }
  EXPECT_EQ(p.at(8, 9), kBackground);
  EXPECT_EQ(p.at(13, 9), kBackground);
}

TEST(CursorOverlayTest, PointerOutsideTheScreenDrawsNothingAndEdgesClip) {
  const QRVScreenRect screen{0, 0, 40, 30};
  const QRVPointerState pressed{40, 10, QRVPointerState::kLeftButton, 1};
  Picture p(40, 30);
  const Picture untouched = p;
  drawCursor(p.bytes.data(), p.width, p.height, screen, testCursor(0, 0), pressed);
  EXPECT_EQ(p.bytes, untouched.bytes);
  drawCursor(p.bytes.data(), p.width, p.height, screen, testCursor(0, 0), {-1, 10, 0, 1});
  EXPECT_EQ(p.bytes, untouched.bytes);

  // On the last column and row: what fits is drawn, the rest is cut off.
  drawCursor(p.bytes.data(), p.width, p.height, screen, testCursor(0, 0), {39, 29, 0, 1});
  EXPECT_EQ(p.at(39, 29), 0xffff0000u);
  EXPECT_EQ(p.at(38, 29), kBackground);
}

TEST(CursorOverlayTest, PictureAtHalfScaleGetsAHalfSizeCursorAtTheHalvedPoint) {
  Picture p(20, 15);
  QRVCursorImage big{8, 8, 2, 2, std::vector<std::uint32_t>(64, 0xff00ff00)};
  CursorPlacement place;
  ASSERT_TRUE(placeCursor({0, 0, 40, 30}, p.width, big, {10, 10, 0, 1}, place));
  EXPECT_DOUBLE_EQ(place.ratio, 0.5);
  EXPECT_DOUBLE_EQ(place.x, 4);
  EXPECT_DOUBLE_EQ(place.y, 4);
  drawCursor(p.bytes.data(), p.width, p.height, {0, 0, 40, 30}, big, {10, 10, 0, 1});
  EXPECT_EQ(p.at(5, 5), 0xff00ff00u);
  EXPECT_EQ(p.at(7, 7), 0xff00ff00u);
  EXPECT_EQ(p.at(9, 9), kBackground);
  EXPECT_EQ(p.at(3, 3), kBackground);
}

// Counts pixels of about that colour (the ring is antialiased).
int count(const Picture& p, std::uint32_t colour) {
  int n = 0;
  for (int y = 0; y < p.height; ++y)
    for (int x = 0; x < p.width; ++x)
      n += near(p.at(x, y), colour, 40);
  return n;
}

TEST(CursorOverlayTest, ClickRingIsWhiteForTheLeftButtonGreenForTheRightAndAbsentOtherwise) {
  const QRVScreenRect screen{0, 0, 100, 100};
  const QRVCursorImage clear{20, 20, 0, 0, std::vector<std::uint32_t>(400, 0)};
  struct Case {
    unsigned buttons;
    int white;
    int green;
  };
  for (const Case& c : {Case{0, 0, 0}, Case{QRVPointerState::kLeftButton, 1, 0},
                        Case{QRVPointerState::kRightButton, 0, 1},
                        Case{QRVPointerState::kLeftButton | QRVPointerState::kRightButton, 1, 0}}) {
    Picture p(100, 100);
    drawCursor(p.bytes.data(), p.width, p.height, screen, clear, {50, 50, c.buttons, 1});
    EXPECT_EQ(count(p, 0xffffffff) > 50, bool(c.white)) << c.buttons;
    EXPECT_EQ(count(p, 0xff00ff00) > 50, bool(c.green)) << c.buttons;
    if (c.buttons == 0)
      continue;
    // Diameter 1.5 × 20 = 30 around the pointer: black on the circle, colour just outside and
    // inside it, the centre and the far corners untouched.
    const std::uint32_t colour = c.white ? 0xffffffffu : 0xff00ff00u;
    EXPECT_TRUE(near(p.at(50 + 15, 50), 0xff000000u, 8));
    EXPECT_TRUE(near(p.at(50 + 17, 50), colour, 8));
    EXPECT_TRUE(near(p.at(50 - 18, 50), colour, 8));
    EXPECT_TRUE(near(p.at(50, 50 + 15), 0xff000000u, 8));
    EXPECT_EQ(p.at(50, 50), kBackground);
    EXPECT_EQ(p.at(2, 2), kBackground);
  }
}

}  // namespace
}  // namespace quorvix

namespace quorvix {
namespace {

// The capture keeps only what lies inside cursorBounds() to take the cursor out again: a pixel
// drawn outside them would stay in every later picture.
TEST(CursorOverlayTest, EverythingDrawnLiesInsideTheBounds) {
  const QRVScreenRect screen{100, 50, 200, 120};
  QRVCursorImage big{24, 32, 3, 2, std::vector<std::uint32_t>(24 * 32, 0xffffffff)};
  const QRVCursorImage* cursors[] = {&big, QRVCursorImage::builtinArrow().get()};
  struct Case {
    int x, y;
  };
  const Case points[] = {{100, 50}, {299, 169}, {200, 110}, {101, 168}, {298, 51}, {150, 60}};
  int checked = 0;
  for (const QRVCursorImage* cursor : cursors)
    for (const int width : {200, 100, 67})
      for (const unsigned buttons :
           {0u, QRVPointerState::kLeftButton, QRVPointerState::kRightButton})
        for (const Case& c : points) {
          const int height = width * 120 / 200;
          Picture picture(width, height);
          const QRVPointerState pointer{c.x, c.y, buttons, 1};
          drawCursor(picture.bytes.data(), width, height, screen, *cursor, pointer);
          const QRVScreenRect bounds = cursorBounds(width, height, screen, *cursor, pointer);
          for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
              if (picture.at(x, y) != kBackground) {
                ASSERT_TRUE(bounds.contains(x, y))
                    << "pixel " << x << "," << y << " of a " << width << " wide picture, pointer "
                    << c.x << "," << c.y << " buttons " << buttons;
                ++checked;
              }
        }
  EXPECT_GT(checked, 1000);
  EXPECT_TRUE(cursorBounds(200, 120, screen, big, {99, 50, 0, 1}).isEmpty());
}

TEST(CursorOverlayTest, ServerCursorsAreBoundedAndTheirHotSpotClamped) {
  const std::vector<std::uint32_t> pixels(16, 0xff000000);
  auto ok = QRVCursorImage::fromServer(4, 4, 9, 2, pixels.data(), pixels.size());
  ASSERT_NE(ok, nullptr);
  EXPECT_EQ(ok->hotX, 4);
  EXPECT_EQ(ok->hotY, 2);
  EXPECT_EQ(QRVCursorImage::fromServer(4, 4, 0, 0, pixels.data(), 15), nullptr);
  EXPECT_EQ(QRVCursorImage::fromServer(0, 4, 0, 0, pixels.data(), 0), nullptr);
  const std::vector<std::uint32_t> huge(std::size_t(513) * 1, 0);
  EXPECT_EQ(QRVCursorImage::fromServer(513, 1, 0, 0, huge.data(), huge.size()), nullptr);
  EXPECT_EQ(QRVCursorImage::fromServer(4, 4, 0, 0, nullptr, 16), nullptr);
}

}  // namespace
}  // namespace quorvix

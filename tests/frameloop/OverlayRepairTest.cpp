// Rebuilding what overlays cover: the root background repeated from where it shows, exact for a
// solid colour and for the server's default 4-pixel weave, around windows, at corners where holes
// meet and deep inside large holes; edge replication when nothing shows nearby; windows beneath
// copied and blended.
#include "frameloop/OverlayRepair.h"

#include <vector>

#include <gtest/gtest.h>

namespace quorvix {
namespace {

// The server's default root weave: one pixel in four of each row lit, shifting row by row, tiled
// from the root's origin.
std::uint32_t weave(int x, int y) {
  static constexpr std::uint8_t kRows[4] = {0x88, 0x22, 0x44, 0x11};
  return (kRows[((y % 4) + 4) % 4] >> (((x % 8) + 8) % 8)) & 1 ? 0xffffff : 0x000000;
}

struct Picture {
  QRVScreenRect rect;
  std::vector<std::uint8_t> bytes;

  explicit Picture(QRVScreenRect r) : rect(r), bytes(std::size_t(r.width) * r.height * 4) {}
  void set(int x, int y, std::uint32_t rgb) {
    std::uint8_t* p = &bytes[(std::size_t(y - rect.y) * rect.width + (x - rect.x)) * 4];
    p[0] = rgb & 0xff;
    p[1] = (rgb >> 8) & 0xff;
    p[2] = (rgb >> 16) & 0xff;
    p[3] = 0xff;
  }
  std::uint32_t at(int x, int y) const {
    const std::uint8_t* p = &bytes[(std::size_t(y - rect.y) * rect.width + (x - rect.x)) * 4];
    return std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];
  }
  void fill(const QRVScreenRect& r, std::uint32_t rgb) {
    for (int y = r.y; y < r.y + r.height; ++y)
      for (int x = r.x; x < r.x + r.width; ++x)
        set(x, y, rgb);
  }
  PixelView view() { return {bytes.data(), rect}; }
  ConstPixelView constView() const { return {bytes.data(), rect}; }
};

// Pixels of `r` that differ from the background pattern.
int wrongBackground(const Picture& p, const QRVScreenRect& r, std::uint32_t (*pattern)(int, int)) {
  int wrong = 0;
  for (int y = r.y; y < r.y + r.height; ++y)
    for (int x = r.x; x < r.x + r.width; ++x)
      wrong += p.at(x, y) != pattern(x, y);
  return wrong;
}

TEST(OverlayRepairTest, TheWeaveComesBackExactlyUnderABorderAroundAWindowAndDeepInAHole) {
  // A screen not at the root's origin, so that the tile's phase is the root's, not the picture's.
  const QRVScreenRect screen{8, 16, 120, 96};
  Picture p(screen);
  for (int y = screen.y; y < screen.y + screen.height; ++y)
    for (int x = screen.x; x < screen.x + screen.width; ++x)
      p.set(x, y, weave(x, y));
  const QRVScreenRect window{40, 30, 30, 20};
  p.fill(window, 0x336699);
  const std::vector<QRVScreenRect> holes = {
      {8, 16, 120, 5},    // top strip
      {8, 16, 5, 96},     // left strip, meeting it in the corner
      {123, 16, 5, 96},   // right strip
      {70, 40, 9, 9},     // a dot beside the window
      {60, 60, 60, 44}};  // a large drawing, its middle far from any edge
  std::vector<QRVScreenRect> hidden = holes;
  hidden.push_back(window);
  for (const auto& h : holes)
    p.fill(h, 0xff0000);

  for (const auto& h : holes)
    replicateBackground(p.view(), h, p.constView(), hidden);
  for (const auto& h : holes)
    EXPECT_EQ(wrongBackground(p, h, weave), 0) << h.x << "," << h.y;
  EXPECT_EQ(p.at(45, 35), 0x336699u) << "the window is left alone";
}

TEST(OverlayRepairTest, ABackgroundCopiedIntoAPartOfTheScreenComesFromTheWholeRead) {
  // The damaged part alone is rebuilt, from a reference read of the whole screen.
  const QRVScreenRect screen{0, 0, 64, 64};
  Picture whole(screen);
  for (int y = 0; y < 64; ++y)
    for (int x = 0; x < 64; ++x)
      whole.set(x, y, weave(x, y));
  const QRVScreenRect hole{20, 20, 12, 12};
  const std::vector<QRVScreenRect> hidden{hole};
  Picture part({16, 16, 20, 20});
  part.fill(part.rect, 0xff0000);
  replicateBackground(part.view(), hole, whole.constView(), hidden);
  EXPECT_EQ(wrongBackground(part, hole, weave), 0);
  EXPECT_EQ(part.at(17, 17), 0xff0000u) << "nothing outside the hole is touched";
}

TEST(OverlayRepairTest, WithTheRootHiddenAllRoundTheEdgeIsReplicated) {
  const QRVScreenRect screen{0, 0, 40, 40};
  Picture p(screen);
  p.fill(screen, 0x00aa00);
  const QRVScreenRect hole{10, 10, 20, 20};
  // One window covers all but a one-pixel ring round the hole: no source on the tile grid.
  p.fill({9, 9, 22, 1}, 0x123456);
  p.fill({9, 30, 22, 1}, 0x123456);
  p.fill({9, 10, 1, 20}, 0x123456);
  p.fill({30, 10, 1, 20}, 0x123456);
  p.fill(hole, 0xff0000);
  const std::vector<QRVScreenRect> hidden{
      hole, {0, 0, 40, 9}, {0, 31, 40, 9}, {0, 0, 9, 40}, {31, 0, 9, 40}};
  replicateBackground(p.view(), hole, p.constView(), hidden);
  EXPECT_EQ(wrongBackground(p, hole, [](int, int) { return 0x123456u; }), 0);

  // A hole reaching the edge of the read replicates from the side that exists.
  Picture edge(screen);
  edge.fill(screen, 0x445566);
  edge.fill({0, 0, 5, 40}, 0xff0000);
  const std::vector<QRVScreenRect> everything{screen};
  replicateBackground(edge.view(), {0, 0, 5, 40}, edge.constView(), everything);
  EXPECT_EQ(wrongBackground(edge, {0, 0, 5, 40}, [](int, int) { return 0x445566u; }), 0);
}

TEST(OverlayRepairTest, WindowsBeneathAreClippedAndTranslucentOnesBlended) {
  Picture p({0, 0, 8, 8});
  p.fill(p.rect, 0x204060);
  // 4 × 4 pixels placed half off the picture.
  std::vector<std::uint8_t> opaque(4 * 4 * 4, 0);
  for (std::size_t i = 0; i < opaque.size(); i += 4)
    opaque[i + 2] = 0xff;
  drawPixels(p.view(), {6, 6, 4, 4}, opaque.data(), false);
  EXPECT_EQ(p.at(6, 6), 0xff0000u);
  EXPECT_EQ(p.at(7, 7), 0xff0000u);
  EXPECT_EQ(p.at(5, 5), 0x204060u);

  // Half-transparent premultiplied blue over the background: 0x80 + dst × 127 / 255.
  std::vector<std::uint8_t> translucent(4 * 4 * 4, 0);
  for (std::size_t i = 0; i < translucent.size(); i += 4) {
    translucent[i] = 0x80;
    translucent[i + 3] = 0x80;
  }
  drawPixels(p.view(), {0, 0, 4, 4}, translucent.data(), true);
  EXPECT_EQ(p.at(0, 0), std::uint32_t((0x20 * 127 + 127) / 255) << 16 |
                            std::uint32_t((0x40 * 127 + 127) / 255) << 8 |
                            std::uint32_t(0x80 + (0x60 * 127 + 127) / 255));
}

}  // namespace
}  // namespace quorvix

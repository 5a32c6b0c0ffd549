#include "frameloop/OverlayRepair.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>
#include <vector>

namespace quorvix {
namespace {

constexpr std::size_t kPixel = 4;

int floorDiv(int a, int b) {
  return a >= 0 ? a / b : -((-a + b - 1) / b);
}

std::uint8_t* at(PixelView v, int x, int y) {
  return v.data + (std::size_t(y - v.rect.y) * v.rect.width + (x - v.rect.x)) * kPixel;
}

const std::uint8_t* at(ConstPixelView v, int x, int y) {
  return v.data + (std::size_t(y - v.rect.y) * v.rect.width + (x - v.rect.x)) * kPixel;
}

bool intersects(const QRVScreenRect& a, const QRVScreenRect& b) {
  return !intersection(a, b).isEmpty();
}

int ceilDiv(int a, int b) {
  return -floorDiv(-a, b);
}

// Offsets in tiles round a block, nearest first.
const std::vector<std::pair<int, int>>& nearOffsets() {
  static const std::vector<std::pair<int, int>> order = [] {
    constexpr int kNear = 2;
    std::vector<std::pair<int, int>> offsets;
    for (int j = -kNear; j <= kNear; ++j)
      for (int i = -kNear; i <= kNear; ++i)
        if (i != 0 || j != 0)
          offsets.emplace_back(i, j);
    std::stable_sort(offsets.begin(), offsets.end(), [](const auto& a, const auto& b) {
      return a.first * a.first + a.second * a.second < b.first * b.first + b.second * b.second;
    });
    return offsets;
  }();
  return order;
}

bool showsRoot(const QRVScreenRect& r,
               const ConstPixelView& reference,
               std::span<const QRVScreenRect> hidden) {
  if (!containsRect(reference.rect, r))
    return false;
  return std::none_of(hidden.begin(), hidden.end(),
                      [&](const QRVScreenRect& h) { return intersects(h, r); });
}

// The nearest pixel of `reference` just outside `hole` in a straight line from (x, y).
void replicateEdge(PixelView dst,
                   const QRVScreenRect& part,
                   const QRVScreenRect& hole,
                   const ConstPixelView& reference) {
  constexpr std::uint8_t kBlack[kPixel] = {0, 0, 0, 0xff};
  for (int y = part.y; y < part.y + part.height; ++y)
    for (int x = part.x; x < part.x + part.width; ++x) {
      const std::array<std::pair<int, int>, 4> candidates = {
          {{hole.x - 1, y}, {hole.x + hole.width, y}, {x, hole.y - 1}, {x, hole.y + hole.height}}};
      const std::uint8_t* best = kBlack;
      int bestDistance = 0;
      for (auto [cx, cy] : candidates) {
        if (!reference.rect.contains(cx, cy))
          continue;
        const int distance = std::abs(cx - x) + std::abs(cy - y);
        if (best == kBlack || distance < bestDistance) {
          best = at(reference, cx, cy);
          bestDistance = distance;
        }
      }
      std::memcpy(at(dst, x, y), best, kPixel);
    }
}

}  // namespace

QRVScreenRect intersection(const QRVScreenRect& a, const QRVScreenRect& b) {
  const int x0 = std::max(a.x, b.x);
  const int y0 = std::max(a.y, b.y);
  const int x1 = std::min(a.x + a.width, b.x + b.width);
  const int y1 = std::min(a.y + a.height, b.y + b.height);
  if (x1 <= x0 || y1 <= y0)
    return {};
  return {x0, y0, x1 - x0, y1 - y0};
}

bool containsRect(const QRVScreenRect& outer, const QRVScreenRect& inner) {
  return inner.x >= outer.x && inner.y >= outer.y &&
         inner.x + inner.width <= outer.x + outer.width &&
         inner.y + inner.height <= outer.y + outer.height;
}

void drawPixels(PixelView dst,
                const QRVScreenRect& where,
                const std::uint8_t* src,
                bool premultipliedAlpha) {
  const QRVScreenRect part = intersection(dst.rect, where);
  if (part.isEmpty())
    return;
  for (int y = part.y; y < part.y + part.height; ++y) {
    const std::uint8_t* from =
        src + (std::size_t(y - where.y) * where.width + (part.x - where.x)) * kPixel;
    std::uint8_t* to = at(dst, part.x, y);
    if (!premultipliedAlpha) {
      std::memcpy(to, from, std::size_t(part.width) * kPixel);
      continue;
    }
    for (int i = 0; i < part.width; ++i, from += kPixel, to += kPixel) {
      const unsigned keep = 255u - from[3];
      for (int k = 0; k < 3; ++k)
        to[k] = std::uint8_t(std::min(255u, from[k] + (to[k] * keep + 127) / 255));
    }
  }
}

void replicateBackground(PixelView dst,
                         const QRVScreenRect& hole,
                         ConstPixelView reference,
                         std::span<const QRVScreenRect> allHidden,
                         std::span<const QRVScreenRect> covered) {
  const QRVScreenRect area = intersection(hole, dst.rect);
  if (area.isEmpty())
    return;
  // Only what lies within reach of a source matters.
  const int reach = (kBackgroundSearchTiles + 3) * kBackgroundTile;
  const QRVScreenRect near{area.x - area.width - reach, area.y - area.height - reach,
                           3 * area.width + 2 * reach, 3 * area.height + 2 * reach};
  std::vector<QRVScreenRect> nearHidden;
  for (const auto& h : allHidden)
    if (!intersection(h, near).isEmpty())
      nearHidden.push_back(h);
  const std::span<const QRVScreenRect> hidden = nearHidden;
  // Copies `part` from `i`, `j` tiles away when the root shows there.
  auto tryOffset = [&](const QRVScreenRect& part, int i, int j) {
    const QRVScreenRect source{part.x + i * kBackgroundTile, part.y + j * kBackgroundTile,
                               part.width, part.height};
    if (!intersection(source, area).isEmpty() || !showsRoot(source, reference, hidden))
      return false;
    for (int y = 0; y < part.height; ++y)
      std::memmove(at(dst, part.x, part.y + y), at(reference, source.x, source.y + y),
                   std::size_t(part.width) * kPixel);
    return true;
  };
  const int firstColumn = floorDiv(area.x, kBackgroundTile);
  const int lastColumn = floorDiv(area.x + area.width - 1, kBackgroundTile);
  const int firstRow = floorDiv(area.y, kBackgroundTile);
  const int lastRow = floorDiv(area.y + area.height - 1, kBackgroundTile);

  // Most often the hole's width or height away, the root shows whole: one copy.
  const int columns = lastColumn - firstColumn + 1;
  const int rows = lastRow - firstRow + 1;
  for (int k = 0; k <= kBackgroundSearchTiles; ++k)
    if (tryOffset(area, 0, rows + k) || tryOffset(area, 0, -rows - k) ||
        tryOffset(area, columns + k, 0) || tryOffset(area, -columns - k, 0))
      return;

  for (int row = firstRow; row <= lastRow; ++row)
    for (int column = firstColumn; column <= lastColumn; ++column) {
      const QRVScreenRect part = intersection(
          area,
          {column * kBackgroundTile, row * kBackgroundTile, kBackgroundTile, kBackgroundTile});
      if (std::any_of(covered.begin(), covered.end(),
                      [&part](const QRVScreenRect& c) { return containsRect(c, part); }))
        continue;
      bool filled = false;
      for (auto [i, j] : nearOffsets())
        if ((filled = tryOffset(part, i, j)))
          break;
      // Deep inside a large hole: straight out past each of its edges, then further.
      const int left = floorDiv(area.x - part.x - part.width, kBackgroundTile);
      const int right = ceilDiv(area.x + area.width - part.x, kBackgroundTile);
      const int up = floorDiv(area.y - part.y - part.height, kBackgroundTile);
      const int down = ceilDiv(area.y + area.height - part.y, kBackgroundTile);
      for (int k = 0; k <= kBackgroundSearchTiles && !filled; ++k)
        for (int shift : {0, -1, 1, -2, 2}) {
          if ((filled = tryOffset(part, left - k, shift) || tryOffset(part, right + k, shift) ||
                        tryOffset(part, shift, up - k) || tryOffset(part, shift, down + k)))
            break;
        }
      if (!filled)
        replicateEdge(dst, part, hole, reference);
    }
}

}  // namespace quorvix

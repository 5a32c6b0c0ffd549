#include "encoders/JPEGTileEncoder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace quorvix {
namespace {

constexpr int kMcuSide = 16;  // 4:2:0
constexpr std::uint8_t kMarker = 0xFF;
constexpr std::uint8_t kStartOfImage = 0xD8;
constexpr std::uint8_t kEndOfImage = 0xD9;
constexpr std::uint8_t kStartOfScan = 0xDA;
constexpr std::uint8_t kRestart0 = 0xD0;
constexpr int kRestartCycle = 8;

// MCUs per tile: a divisor of the MCU row near 8 (128 pixels), small enough that a change costs
// little beyond itself and large enough that markers and padding stay under 1% of the picture.
// Rows with no divisor from 4 up to 16 are one tile wide.
int restartIntervalFor(int mcusPerRow) {
  int best = 0;
  for (int d = 1; d <= std::min(mcusPerRow, 16); ++d)
    if (mcusPerRow % d == 0 && (best == 0 || std::abs(d - 8) <= std::abs(best - 8)))
      best = d;
  return best < 4 ? mcusPerRow : best;
}

int bigEndian16(std::span<const std::uint8_t> bytes, std::size_t at) {
  return bytes[at] << 8 | bytes[at + 1];
}

}  // namespace

std::span<const std::uint8_t> JPEGCompressor::compress(const QRVImage& image) {
  std::vector<const std::uint8_t*> rows(std::size_t(image.height()));
  for (std::size_t y = 0; y < rows.size(); ++y)
    rows[y] = image.bytes().data() + y * std::size_t(image.stride());
  return compress(image.width(), rows, 0);
}

JPEGTileEncoder::Layout JPEGTileEncoder::Layout::of(int width, int height) {
  Layout layout;
  if (width <= 0 || height <= 0)
    return layout;
  const int mcusPerRow = (width + kMcuSide - 1) / kMcuSide;
  layout.width = width;
  layout.height = height;
  layout.restartInterval = restartIntervalFor(mcusPerRow);
  layout.columns = mcusPerRow / layout.restartInterval;
  layout.rows = (height + kMcuSide - 1) / kMcuSide;
  layout.tileWidth = layout.restartInterval * kMcuSide;
  layout.lastColumnWidth = width - (layout.columns - 1) * layout.tileWidth;
  layout.lastRowHeight = height - (layout.rows - 1) * kMcuSide;
  return layout;
}

std::optional<JPEGScan> splitJPEGScan(std::span<const std::uint8_t> jpeg) {
  if (jpeg.size() < 4 || jpeg[0] != kMarker || jpeg[1] != kStartOfImage)
    return std::nullopt;
  std::size_t at = 2;
  // Marker segments up to the start of scan, each with a length that counts itself.
  for (;;) {
    if (at + 4 > jpeg.size() || jpeg[at] != kMarker)
      return std::nullopt;
    const std::uint8_t marker = jpeg[at + 1];
    const int length = bigEndian16(jpeg, at + 2);
    if (length < 2 || (marker >= kRestart0 && marker <= kEndOfImage))
      return std::nullopt;
    at += 2 + std::size_t(length);
    if (at > jpeg.size())
      return std::nullopt;
    if (marker == kStartOfScan)
      break;
  }
  JPEGScan scan;
  scan.header = jpeg.first(at);
  std::size_t start = at;
  while (at + 1 < jpeg.size()) {
    if (jpeg[at] != kMarker) {
      ++at;
      continue;
    }
    const std::uint8_t next = jpeg[at + 1];
    if (next == 0) {  // a stuffed 0xFF data byte
      at += 2;
      continue;
    }
    scan.intervals.push_back(jpeg.subspan(start, at - start));
    if (next == kEndOfImage)
      return at + 2 == jpeg.size() ? std::optional(std::move(scan)) : std::nullopt;
    if (next != kRestart0 + (scan.intervals.size() - 1) % kRestartCycle)
      return std::nullopt;
    at += 2;
    start = at;
  }
  return std::nullopt;
}

JPEGTileEncoder::JPEGTileEncoder(JPEGCompressor& compressor, int maxCollageTiles)
    : compressor_(compressor), maxCollageTiles_(std::max(1, maxCollageTiles)) {}

void JPEGTileEncoder::clear() {
  previous_.reset();
  header_.clear();
  tiles_.clear();
}

std::span<const std::uint8_t> JPEGTileEncoder::encode(std::shared_ptr<const QRVImage> image,
                                                      const QRVPictureChanges* changes) {
  if (!image) {
    clear();
    return {};
  }
  const Layout layout = Layout::of(image->width(), image->height());
  if (!previous_ || previous_->width() != layout.width || previous_->height() != layout.height) {
    layout_ = layout;
    auto bytes = encodeWhole(*image);
    previous_ = tiles_.empty() ? nullptr : std::move(image);
    return bytes;
  }

  lastCompressedTiles_ = 0;
  // The tiles that may differ: those the changes name, else all.
  const bool known = changes && changes->isBasedOn(previous_);
  candidates_.assign(std::size_t(layout.tileCount()), !known);
  if (known)
    for (const QRVPixelRect& r : changes->rects) {
      const int x0 = std::max(0, r.x), y0 = std::max(0, r.y);
      const int x1 = std::min(layout.width, r.x + r.width);
      const int y1 = std::min(layout.height, r.y + r.height);
      for (int row = y0 / kMcuSide; y1 > y0 && row <= (y1 - 1) / kMcuSide; ++row)
        for (int c = x0 / layout.tileWidth; x1 > x0 && c <= (x1 - 1) / layout.tileWidth; ++c)
          candidates_[std::size_t(row * layout.columns + c)] = true;
    }

  // Which of them differ from the previous picture, a band of MCU rows at a time. A tile is
  // settled once it differs, or from the start when it is no candidate.
  changed_.clear();
  std::vector<bool> settled(std::size_t(layout.columns));
  const std::size_t stride = std::size_t(image->stride());
  for (int r = 0; r < layout.rows; ++r) {
    for (int c = 0; c < layout.columns; ++c)
      settled[std::size_t(c)] = !candidates_[std::size_t(r * layout.columns + c)];
    if (std::ranges::all_of(settled, [](bool d) { return d; }))
      continue;
    const int top = r * kMcuSide;
    const int bottom = std::min(top + kMcuSide, layout.height);
    for (int y = top; y < bottom; ++y) {
      const std::uint8_t* now = image->bytes().data() + std::size_t(y) * stride;
      const std::uint8_t* before = previous_->bytes().data() + std::size_t(y) * stride;
      for (int c = 0; c < layout.columns; ++c) {
        if (settled[std::size_t(c)])
          continue;
        const std::size_t offset = std::size_t(c) * std::size_t(layout.tileWidth) * 4;
        const int width = c + 1 == layout.columns ? layout.lastColumnWidth : layout.tileWidth;
        if (std::memcmp(now + offset, before + offset, std::size_t(width) * 4) != 0)
          settled[std::size_t(c)] = true;
      }
    }
    for (int c = 0; c < layout.columns; ++c)
      if (settled[std::size_t(c)] && candidates_[std::size_t(r * layout.columns + c)])
        changed_.push_back(r * layout.columns + c);
  }

  // Past three quarters, one whole compression costs less than several pictures of parts.
  if (std::size_t(changed_.size()) * 4 > std::size_t(layout.tileCount()) * 3 ||
      !encodeChanged(*image, changed_)) {
    auto bytes = encodeWhole(*image);
    previous_ = tiles_.empty() ? nullptr : std::move(image);
    return bytes;
  }
  previous_ = std::move(image);
  return assemble();
}

std::span<const std::uint8_t> JPEGTileEncoder::encodeWhole(const QRVImage& image) {
  rows_.resize(std::size_t(image.height()));
  for (std::size_t y = 0; y < rows_.size(); ++y)
    rows_[y] = image.bytes().data() + y * std::size_t(image.stride());
  lastCompressedTiles_ = layout_.tileCount();
  const auto bytes = compressor_.compress(image.width(), rows_, layout_.restartInterval);
  auto scan = splitJPEGScan(bytes);
  if (!scan || scan->intervals.size() != std::size_t(layout_.tileCount())) {
    // Still a picture to send, but nothing to build the next one from.
    clear();
    return bytes;
  }
  header_.assign(scan->header.begin(), scan->header.end());
  tiles_.resize(scan->intervals.size());
  for (std::size_t i = 0; i < tiles_.size(); ++i)
    tiles_[i].assign(scan->intervals[i].begin(), scan->intervals[i].end());
  return bytes;
}

bool JPEGTileEncoder::encodeChanged(const QRVImage& image, std::span<const int> changed) {
  const Layout& l = layout_;
  const bool partialRight = l.lastColumnWidth < l.tileWidth;
  const bool partialBottom = l.lastRowHeight < kMcuSide;
  const std::uint8_t* pixels = image.bytes().data();
  const std::size_t stride = std::size_t(image.stride());
  auto origin = [&](int tile, int row) {
    const int r = tile / l.columns;
    const int c = tile % l.columns;
    return pixels + std::size_t(r * kMcuSide + row) * stride +
           std::size_t(c) * std::size_t(l.tileWidth) * 4;
  };

  // Whole tiles stacked one above the other, then the right edge's the same way at its width.
  std::vector<int> stack;
  for (const bool right : {false, true}) {
    stack.clear();
    for (int tile : changed) {
      const bool inRight = partialRight && tile % l.columns == l.columns - 1;
      const bool inBottom = partialBottom && tile / l.columns == l.rows - 1;
      if (!inBottom && inRight == right)
        stack.push_back(tile);
    }
    for (std::size_t first = 0; first < stack.size(); first += std::size_t(maxCollageTiles_)) {
      const auto part = std::span(stack).subspan(
          first, std::min(stack.size() - first, std::size_t(maxCollageTiles_)));
      rows_.clear();
      for (int tile : part)
        for (int y = 0; y < kMcuSide; ++y)
          rows_.push_back(origin(tile, y));
      if (!compressCollage(right ? l.lastColumnWidth : l.tileWidth, rows_, part))
        return false;
    }
  }

  // A partial bottom row: its changed tiles lie in one run of that row, cut as the picture cuts it.
  if (partialBottom) {
    const int firstOfRow = (l.rows - 1) * l.columns;
    const auto inRow = std::ranges::find_if(changed, [&](int t) { return t >= firstOfRow; });
    if (inRow != changed.end()) {
      const int first = *inRow;
      const int last = changed.back();
      stack.clear();
      for (int t = first; t <= last; ++t)
        stack.push_back(t);
      const int width = (last == firstOfRow + l.columns - 1 ? l.lastColumnWidth : l.tileWidth) +
                        (last - first) * l.tileWidth;
      rows_.clear();
      for (int y = 0; y < l.lastRowHeight; ++y)
        rows_.push_back(origin(first, y));
      if (!compressCollage(width, rows_, stack))
        return false;
    }
  }
  return true;
}

bool JPEGTileEncoder::compressCollage(int width,
                                      std::span<const std::uint8_t* const> rows,
                                      std::span<const int> tiles) {
  auto scan = splitJPEGScan(compressor_.compress(width, rows, layout_.restartInterval));
  if (!scan || scan->intervals.size() != tiles.size())
    return false;
  lastCompressedTiles_ += int(tiles.size());
  for (std::size_t i = 0; i < tiles.size(); ++i)
    tiles_[std::size_t(tiles[i])].assign(scan->intervals[i].begin(), scan->intervals[i].end());
  return true;
}

std::span<const std::uint8_t> JPEGTileEncoder::assemble() {
  std::size_t size = header_.size() + 2;
  for (const auto& tile : tiles_)
    size += tile.size() + 2;
  output_.resize(size);
  std::uint8_t* out = output_.data();
  out = std::copy(header_.begin(), header_.end(), out);
  for (std::size_t i = 0; i < tiles_.size(); ++i) {
    out = std::copy(tiles_[i].begin(), tiles_[i].end(), out);
    *out++ = kMarker;
    *out++ = i + 1 == tiles_.size() ? kEndOfImage : std::uint8_t(kRestart0 + i % kRestartCycle);
  }
  return {output_.data(), std::size_t(out - output_.data())};
}

}  // namespace quorvix

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include <turbojpeg.h>

#include "encoders/EncoderTestSupport.h"
#include "encoders/JPEGTileEncoder.h"
#include "encoders/linux/LibjpegCompressor.h"

namespace quorvix {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The whole picture compressed at once with the tiles' restart interval: what every spliced
// picture must equal byte for byte.
Bytes wholePicture(const QRVImage& image) {
  LibjpegCompressor compressor;
  std::vector<const std::uint8_t*> rows;
  for (int y = 0; y < image.height(); ++y)
    rows.push_back(image.bytes().data() + std::size_t(y) * std::size_t(image.stride()));
  const auto layout = JPEGTileEncoder::Layout::of(image.width(), image.height());
  auto bytes = compressor.compress(image.width(), rows, layout.restartInterval);
  return {bytes.begin(), bytes.end()};
}

// A copy of `image` with a rectangle painted: random noise or a flat colour.
std::shared_ptr<const QRVImage>
paint(const QRVImage& image, int x, int y, int w, int h, std::mt19937& random, bool noise) {
  std::vector<std::uint8_t> bytes(image.bytes().begin(), image.bytes().end());
  const std::uint8_t flat = std::uint8_t(random());
  for (int row = y; row < std::min(y + h, image.height()); ++row)
    for (int col = x; col < std::min(x + w, image.width()); ++col)
      for (int c = 0; c < 3; ++c)
        bytes[(std::size_t(row) * image.width() + col) * 4 + c] =
            noise ? std::uint8_t(random()) : std::uint8_t(flat + c * 40);
  return QRVImage::create(image.width(), image.height(), std::move(bytes));
}

TEST(JPEGTileEncoderTest, TilesDivideTheMcuRowNearEightMcus) {
  auto l = JPEGTileEncoder::Layout::of(1920, 1080);
  EXPECT_EQ(l.restartInterval, 8);
  EXPECT_EQ(l.columns, 15);
  EXPECT_EQ(l.rows, 68);
  EXPECT_EQ(l.lastColumnWidth, 128);
  EXPECT_EQ(l.lastRowHeight, 8);
  l = JPEGTileEncoder::Layout::of(333, 97);  // 21 MCUs: tiles of 7, the last one partial
  EXPECT_EQ(l.restartInterval, 7);
  EXPECT_EQ(l.columns, 3);
  EXPECT_EQ(l.lastColumnWidth, 333 - 2 * 112);
  EXPECT_EQ(l.lastRowHeight, 1);
  // 86 MCUs has no divisor from 4 to 16: one tile per MCU row.
  l = JPEGTileEncoder::Layout::of(1366, 768);
  EXPECT_EQ(l.restartInterval, 86);
  EXPECT_EQ(l.columns, 1);
  EXPECT_EQ(JPEGTileEncoder::Layout::of(0, 10).tileCount(), 0);
}

// Random changes of every kind (noise, flat, single pixels, edges and corners, nothing at all) on
// pictures whose right and bottom edges cut MCUs in every way, with collages split after two
// tiles: every picture equals the whole compression, and small changes compress few tiles.
TEST(JPEGTileEncoderTest, SplicedPicturesEqualWholeCompressionByteForByte) {
  std::mt19937 random(11);
  const std::pair<int, int> sizes[] = {{640, 360}, {333, 97}, {15, 15}, {200, 16}, {48, 33}};
  for (auto [w, h] : sizes) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    LibjpegCompressor compressor;
    JPEGTileEncoder encoder(compressor, 2);
    const auto layout = JPEGTileEncoder::Layout::of(w, h);
    auto image = test::desktopPicture(w, h, 0);
    auto first = encoder.encode(image);
    EXPECT_EQ(Bytes(first.begin(), first.end()), wholePicture(*image));
    EXPECT_EQ(encoder.lastCompressedTiles(), layout.tileCount());
    for (int step = 0; step < 24; ++step) {
      SCOPED_TRACE(step);
      int x = int(random() % unsigned(w)), y = int(random() % unsigned(h));
      int rw = 1 + int(random() % 40), rh = 1 + int(random() % 40);
      if (step % 6 == 1)
        x = w - 1, y = h - 1, rw = rh = 1;  // the corner pixel
      if (step % 6 == 2)
        x = 0, rw = w, rh = 2;  // a whole stripe across the tiles
      if (step % 6 == 3)
        rw = rh = 0;  // nothing changed
      image = paint(*image, x, y, rw, rh, random, step % 2 == 0);
      auto bytes = encoder.encode(image);
      ASSERT_EQ(Bytes(bytes.begin(), bytes.end()), wholePicture(*image));
      if (rw * rh == 1 && layout.tileCount() > 1) {
        EXPECT_EQ(encoder.lastCompressedTiles(), 1);
      }
      if (rw * rh == 0) {
        EXPECT_EQ(encoder.lastCompressedTiles(), 0);
      }
    }
  }
}

// A size change, a failed compression and clear() each start over from a whole picture.
TEST(JPEGTileEncoderTest, StartsOverAfterSizeChangesFailuresAndClear) {
  LibjpegCompressor compressor;
  JPEGTileEncoder encoder(compressor);
  auto small = test::desktopPicture(320, 200, 0);
  auto large = test::desktopPicture(400, 240, 1);
  encoder.encode(small);
  auto bytes = encoder.encode(large);
  EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), wholePicture(*large));
  EXPECT_EQ(encoder.lastCompressedTiles(), JPEGTileEncoder::Layout::of(400, 240).tileCount());

  EXPECT_TRUE(encoder.encode(nullptr).empty());
  encoder.encode(large);
  EXPECT_EQ(encoder.lastCompressedTiles(), JPEGTileEncoder::Layout::of(400, 240).tileCount());
  encoder.clear();
  bytes = encoder.encode(test::desktopPicture(400, 240, 2));
  EXPECT_EQ(encoder.lastCompressedTiles(), JPEGTileEncoder::Layout::of(400, 240).tileCount());
  auto decoded = test::decodeJPEG(bytes);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->width, 400);
}

// TurboJPEG, told through its environment to restart every N MCUs, writes the same bytes; and its
// decompressor takes a spliced picture back to within the quality floor of the source.
TEST(JPEGTileEncoderTest, AnIndependentCoderAgreesAndDecodesSplicedPictures) {
  const int w = 1280, h = 720;
  auto image = test::desktopPicture(w, h, 0);
  const auto layout = JPEGTileEncoder::Layout::of(w, h);
  setenv("TJ_RESTART", (std::to_string(layout.restartInterval) + "B").c_str(), 1);
  tjhandle handle = tjInitCompress();
  unsigned char* out = nullptr;
  unsigned long size = 0;
  ASSERT_EQ(tjCompress2(handle, image->bytes().data(), w, image->stride(), h, TJPF_BGRX, &out,
                        &size, TJSAMP_420, 60, TJFLAG_ACCURATEDCT),
            0);
  unsetenv("TJ_RESTART");
  const Bytes turbo(out, out + size);
  tjFree(out);
  tjDestroy(handle);
  EXPECT_EQ(turbo, wholePicture(*image));

  LibjpegCompressor compressor;
  JPEGTileEncoder encoder(compressor);
  encoder.encode(image);
  std::mt19937 random(3);
  auto changed = paint(*image, 600, 300, 90, 50, random, false);
  auto bytes = encoder.encode(changed);
  EXPECT_LT(encoder.lastCompressedTiles(), layout.tileCount() / 10);
  auto decoded = test::decodeJPEG(bytes);
  ASSERT_TRUE(decoded);
  std::vector<std::uint8_t> a, b;
  for (std::size_t i = 0; i < decoded->bgrx.size(); ++i)
    if (i % 4 != 3) {
      a.push_back(decoded->bgrx[i]);
      b.push_back(changed->bytes()[i]);
    }
  EXPECT_GT(test::psnr(a, b), 25.0);
}

// Changes from the previous picture name the only tiles worth comparing; changes from another
// picture are no help, and every tile is compared.
TEST(JPEGTileEncoderTest, ChangesFromThePreviousPictureLimitTheComparison) {
  LibjpegCompressor compressor;
  JPEGTileEncoder encoder(compressor);
  std::mt19937 random(9);
  auto a = test::desktopPicture(640, 360, 0);
  auto b = paint(*paint(*a, 10, 10, 4, 4, random, true), 600, 300, 4, 4, random, true);
  encoder.encode(a);
  const QRVPictureChanges fromA{a, {{8, 9, 3, 3}}};
  encoder.encode(b, &fromA);
  EXPECT_EQ(encoder.lastCompressedTiles(), 1);

  auto c = paint(*paint(*b, 100, 200, 2, 2, random, true), 300, 100, 2, 2, random, true);
  const QRVPictureChanges alsoFromA{a, {{100, 200, 2, 2}}};
  encoder.encode(c, &alsoFromA);
  EXPECT_EQ(encoder.lastCompressedTiles(), 2);
}

TEST(JPEGTileEncoderTest, ScanSplitRefusesWhatIsNotABaselineScanWithOrderedRestarts) {
  LibjpegCompressor compressor;
  auto image = test::desktopPicture(64, 16, 0);  // one row of tiles: 4 MCUs, one tile of 4
  std::vector<const std::uint8_t*> rows;
  for (int y = 0; y < 16; ++y)
    rows.push_back(image->bytes().data() + std::size_t(y) * 256);
  auto span = compressor.compress(64, rows, 1);
  const Bytes good(span.begin(), span.end());
  auto scan = splitJPEGScan(good);
  ASSERT_TRUE(scan);
  EXPECT_EQ(scan->intervals.size(), 4u);

  auto mutated = [&](auto change) {
    Bytes bytes = good;
    change(bytes);
    return splitJPEGScan(bytes).has_value();
  };
  const std::size_t data = scan->header.size();
  EXPECT_FALSE(mutated([](Bytes& b) { b.pop_back(); }));    // no end of image
  EXPECT_FALSE(mutated([](Bytes& b) { b.push_back(0); }));  // bytes after it
  EXPECT_FALSE(mutated([](Bytes& b) { b.resize(b.size() / 3); }));
  EXPECT_FALSE(mutated([](Bytes& b) { b[0] = 0; }));
  EXPECT_FALSE(mutated([&](Bytes& b) {
    b[data - 1 - 10] = 0xFF;
    b[4] = 0xFF;
  }));
  // Restart markers out of order.
  EXPECT_FALSE(mutated([&](Bytes& b) {
    for (std::size_t i = data; i + 1 < b.size(); ++i)
      if (b[i] == 0xFF && b[i + 1] == 0xD1) {
        b[i + 1] = 0xD2;
        break;
      }
  }));
  for (std::size_t cut = 0; cut < good.size(); cut += 7)
    splitJPEGScan(std::span(good).first(cut));  // never reads past the end (ASan)
}

}  // namespace
}  // namespace quorvix

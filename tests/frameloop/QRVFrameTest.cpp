#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <latch>
#include <thread>

#include "frameloop/QRVFrame.h"

namespace quorvix {
namespace {

struct BGR {
  std::uint8_t b, g, r;
};

std::shared_ptr<const QRVImage> makeImage(int w, int h, const std::function<BGR(int, int)>& at) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(std::size_t(w) * h * 4);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      BGR p = at(x, y);
      bytes.insert(bytes.end(), {p.b, p.g, p.r, 0xff});
    }
  }
  return QRVImage::create(w, h, std::move(bytes));
}

std::shared_ptr<const QRVImage> solid(int w, int h, BGR colour) {
  return makeImage(w, h, [colour](int, int) { return colour; });
}

BGR pixel(const QRVImage& image, int x, int y) {
  const std::uint8_t* p = image.bytes().data() + std::size_t(y) * image.stride() + x * 4;
  return {p[0], p[1], p[2]};
}

void expectNear(BGR expected, BGR actual, int tolerance, int x, int y) {
  EXPECT_NEAR(expected.b, actual.b, tolerance) << "blue at " << x << "," << y;
  EXPECT_NEAR(expected.g, actual.g, tolerance) << "green at " << x << "," << y;
  EXPECT_NEAR(expected.r, actual.r, tolerance) << "red at " << x << "," << y;
}

// Colours away from the ends of the range, in 2×2 blocks so that chroma subsampling loses nothing.
const std::array<BGR, 6> kPalette = {{
    {40, 80, 200},
    {200, 60, 50},
    {60, 190, 70},
    {128, 128, 128},
    {30, 30, 30},
    {220, 220, 220},
}};

BGR blocks(int x, int y) {
  return kPalette[((x / 2) + 3 * (y / 2)) % kPalette.size()];
}

TEST(QRVFrameTest, RefusesPicturesWhoseBytesDoNotMatchTheirSize) {
  EXPECT_EQ(QRVImage::create(2, 2, std::vector<std::uint8_t>(15)), nullptr);
  EXPECT_EQ(QRVImage::create(0, 2, {}), nullptr);
  EXPECT_EQ(QRVImage::create(-1, -1, std::vector<std::uint8_t>(4)), nullptr);
  // 3×3 needs 9 luma bytes and two 2×2 chroma planes.
  EXPECT_NE(QRVPixelBuffer::create(3, 3, std::vector<std::uint8_t>(17)), nullptr);
  EXPECT_EQ(QRVPixelBuffer::create(3, 3, std::vector<std::uint8_t>(16)), nullptr);
  QRVFrame empty{std::shared_ptr<const QRVImage>()};
  EXPECT_EQ(empty.width(), 0);
  EXPECT_EQ(empty.pixelBuffer(), nullptr);
}

TEST(QRVFrameTest, SameAsComparesIdentityThenSizeThenBytes) {
  auto image = makeImage(8, 6, blocks);
  QRVFrame a(image);
  QRVFrame sharesTheImage(image);
  QRVFrame equalBytes(makeImage(8, 6, blocks));
  EXPECT_TRUE(a.sameAs(sharesTheImage));
  EXPECT_TRUE(a.sameAs(equalBytes));

  auto changed = makeImage(8, 6, [](int x, int y) {
    return x == 7 && y == 5 ? BGR{1, 2, 3} : blocks(x, y);
  });
  EXPECT_FALSE(a.sameAs(QRVFrame(changed)));
  EXPECT_FALSE(a.sameAs(QRVFrame(makeImage(6, 8, blocks))));

  // Frames over pixel buffers compare the buffers, converting an image-only side.
  QRVFrame fromBuffer(a.pixelBuffer());
  QRVFrame sameBuffer(a.pixelBuffer());
  EXPECT_TRUE(fromBuffer.sameAs(sameBuffer));
  EXPECT_TRUE(fromBuffer.sameAs(equalBytes));
  EXPECT_FALSE(fromBuffer.sameAs(QRVFrame(solid(8, 6, {0, 0, 0}))));

  // Nothing to compare is never equal.
  QRVFrame empty{std::shared_ptr<const QRVImage>()};
  EXPECT_FALSE(empty.sameAs(QRVFrame{std::shared_ptr<const QRVImage>()}));
}

TEST(QRVFrameTest, ConvertsToTheOtherFormOnceWhenTwoThreadsAskAtOnce) {
  QRVFrame fromImage(makeImage(640, 480, blocks));
  auto imageOnly = fromImage.image();
  std::shared_ptr<const QRVPixelBuffer> buffers[2];
  {
    std::latch ready(2);
    auto ask = [&](int i) {
      ready.arrive_and_wait();
      buffers[i] = fromImage.pixelBuffer();
    };
    std::thread first(ask, 0);
    std::thread second(ask, 1);
    first.join();
    second.join();
  }
  ASSERT_NE(buffers[0], nullptr);
  EXPECT_EQ(buffers[0], buffers[1]);
  EXPECT_EQ(fromImage.image(), imageOnly);

  QRVFrame fromBuffer(buffers[0]);
  std::shared_ptr<const QRVImage> images[2];
  {
    std::latch ready(2);
    auto ask = [&](int i) {
      ready.arrive_and_wait();
      images[i] = fromBuffer.image();
    };
    std::thread first(ask, 0);
    std::thread second(ask, 1);
    first.join();
    second.join();
  }
  ASSERT_NE(images[0], nullptr);
  EXPECT_EQ(images[0], images[1]);
  EXPECT_EQ(fromBuffer.pixelBuffer(), buffers[0]);
}

TEST(QRVFrameTest, ImageSurvivesTheRoundTripThroughI420) {
  constexpr int kWidth = 24;
  constexpr int kHeight = 14;
  QRVFrame original(makeImage(kWidth, kHeight, blocks));
  auto buffer = original.pixelBuffer();
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(buffer->width(), kWidth);
  EXPECT_EQ(buffer->bytes().size(), std::size_t(kWidth * kHeight + 2 * 12 * 7));
  // Grey has no chroma: U and V sit at the middle of their range.
  auto grey = QRVFrame(solid(4, 4, {128, 128, 128})).pixelBuffer();
  EXPECT_NEAR(grey->dataU()[0], 128, 1);
  EXPECT_NEAR(grey->dataV()[3], 128, 1);

  auto back = QRVFrame(buffer).image();
  ASSERT_NE(back, nullptr);
  ASSERT_EQ(back->width(), kWidth);
  ASSERT_EQ(back->height(), kHeight);
  EXPECT_EQ(back->stride(), kWidth * 4);
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x)
      expectNear(blocks(x, y), pixel(*back, x, y), 4, x, y);
}

TEST(QRVFrameTest, ScaleByHalfKeepsTheQuadrants) {
  auto quadrants = [](int x, int y) { return kPalette[(x < 32 ? 0 : 1) + (y < 24 ? 0 : 2)]; };
  QRVFrame frame(makeImage(64, 48, quadrants));
  auto half = frame.scale(0.5);
  ASSERT_EQ(half->width(), 32);
  ASSERT_EQ(half->height(), 24);
  auto image = half->image();
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->stride(), 32 * 4);
  for (int y : {0, 10, 13, 23})
    for (int x : {0, 14, 17, 31})
      expectNear(quadrants(x * 2, y * 2), pixel(*image, x, y), 2, x, y);

  // A frame over a pixel buffer scales its image form.
  EXPECT_EQ(QRVFrame(frame.pixelBuffer()).scale(0.25)->width(), 16);
  // Sizes truncate; nothing left to draw gives an empty frame.
  auto odd = QRVFrame(solid(5, 3, {1, 2, 3})).scale(0.5);
  EXPECT_EQ(odd->width(), 2);
  EXPECT_EQ(odd->height(), 1);
  EXPECT_EQ(frame.scale(0.01)->image(), nullptr);
  EXPECT_EQ(frame.scale(std::nan(""))->width(), 0);
  EXPECT_EQ(frame.scale(1e300)->width(), 0);
}

}  // namespace
}  // namespace quorvix

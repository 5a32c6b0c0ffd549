#include <gtest/gtest.h>

#include <random>

#include "encoders/EncoderTestSupport.h"
#include "encoders/I420Canvas.h"

namespace quorvix {
namespace {

struct Changed {
  std::shared_ptr<const QRVImage> image;
  std::vector<QRVPixelRect> rects;
};

// `image` with up to three rectangles of noise, and where they lie.
Changed change(const std::shared_ptr<const QRVImage>& image, std::mt19937& random) {
  const int w = image->width(), h = image->height();
  std::vector<std::uint8_t> bytes(image->bytes().begin(), image->bytes().end());
  Changed out;
  for (int n = int(random() % 4); n > 0; --n) {
    QRVPixelRect r{int(random() % unsigned(w)), int(random() % unsigned(h)), 1 + int(random() % 37),
                   1 + int(random() % 23)};
    r.width = std::min(r.width, w - r.x);
    r.height = std::min(r.height, h - r.y);
    for (int y = r.y; y < r.y + r.height; ++y)
      for (int x = r.x; x < r.x + r.width; ++x)
        for (int c = 0; c < 4; ++c)
          bytes[(std::size_t(y) * w + x) * 4 + c] = std::uint8_t(random());
    out.rects.push_back(r);
  }
  out.image = QRVImage::create(w, h, std::move(bytes));
  return out;
}

bool sameBytes(const QRVPixelBuffer& a, const QRVPixelBuffer& b) {
  return std::ranges::equal(a.bytes(), b.bytes());
}

// Odd and even sides, rectangles on odd rows and columns and at the edges: every picture equals
// the frame's own whole conversion, while converting only what changed. Pictures handed out earlier
// keep their bytes, whether the canvas wrote elsewhere while they were held or not.
TEST(I420CanvasTest, ConvertsOnlyWhatChangedAndAlwaysEqualsAWholeConversion) {
  std::mt19937 random(5);
  for (auto [w, h] : {std::pair{64, 48}, {37, 21}, {1, 1}, {130, 7}}) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    I420Canvas canvas;
    auto image = test::desktopPicture(w, h, 0);
    auto first = canvas.update(QRVFrame(image));
    ASSERT_TRUE(first);
    EXPECT_EQ(canvas.lastConvertedPixels(), std::size_t(w) * h);
    std::vector<std::pair<std::shared_ptr<const QRVPixelBuffer>, std::vector<std::uint8_t>>> held;
    held.emplace_back(first,
                      std::vector<std::uint8_t>(first->bytes().begin(), first->bytes().end()));
    int partial = 0;
    for (int step = 0; step < 30; ++step) {
      auto next = change(image, random);
      auto changes = std::make_shared<QRVPictureChanges>();
      changes->base = image;
      changes->rects = next.rects;
      QRVFrame frame(next.image, changes);
      auto picture = canvas.update(frame);
      ASSERT_TRUE(picture);
      ASSERT_TRUE(sameBytes(*picture, *QRVFrame(next.image).pixelBuffer())) << "step " << step;
      if (canvas.lastConvertedPixels() < std::size_t(w) * h)
        ++partial;
      // Some pictures are held on, as a hardware encoder might; the rest are let go at once.
      if (step % 4 == 0)
        held.emplace_back(
            picture, std::vector<std::uint8_t>(picture->bytes().begin(), picture->bytes().end()));
      image = next.image;
    }
    for (const auto& [picture, bytes] : held)
      EXPECT_TRUE(std::ranges::equal(picture->bytes(), bytes));
    if (w * h > 1) {
      EXPECT_GT(partial, 10);
    }
  }
}

// Changes based on another picture than the one converted, or none at all, convert the whole;
// the same picture again converts nothing.
TEST(I420CanvasTest, ConvertsWholeUnlessTheChangesStartFromItsPicture) {
  I420Canvas canvas;
  auto a = test::desktopPicture(32, 16, 0);
  auto b = test::desktopPicture(32, 16, 1);
  auto c = test::desktopPicture(32, 16, 2);
  canvas.update(QRVFrame(a));
  auto fromB = std::make_shared<QRVPictureChanges>(QRVPictureChanges{b, {{0, 0, 2, 2}}});
  auto picture = canvas.update(QRVFrame(c, fromB));
  EXPECT_EQ(canvas.lastConvertedPixels(), 32u * 16);
  EXPECT_TRUE(sameBytes(*picture, *QRVFrame(c).pixelBuffer()));
  canvas.update(QRVFrame(c));
  EXPECT_EQ(canvas.lastConvertedPixels(), 0u);
  canvas.update(QRVFrame(b));
  EXPECT_EQ(canvas.lastConvertedPixels(), 32u * 16);
  // A frame made as I420 is passed through.
  auto i420 = QRVFrame(a).pixelBuffer();
  EXPECT_EQ(canvas.update(QRVFrame(i420)), i420);
  EXPECT_EQ(canvas.update(QRVFrame(std::shared_ptr<const QRVImage>())), nullptr);
}

}  // namespace
}  // namespace quorvix

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include <turbojpeg.h>

#include "encoders/EncoderTestSupport.h"
#include "encoders/QRVJPEGStream.h"
#include "encoders/linux/LibjpegCompressor.h"

namespace quorvix {
namespace {

using Bytes = QRVStreamEncoder::Bytes;

struct Answer {
  int calls = 0;
  std::optional<Bytes> bytes;
};

Answer encode(QRVJPEGStream& stream, std::shared_ptr<QRVFrame> frame) {
  Answer answer;
  stream.encode(std::move(frame), [&answer](std::optional<Bytes> bytes) {
    ++answer.calls;
    answer.bytes = std::move(bytes);
  });
  return answer;
}

// PSNR over the colour channels only.
double colourPsnr(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
  std::vector<std::uint8_t> x, y;
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
    if (i % 4 != 3) {
      x.push_back(a[i]);
      y.push_back(b[i]);
    }
  return test::psnr(x, y);
}

class CountingCompressor final : public JPEGCompressor {
 public:
  explicit CountingCompressor(int& calls) : calls_(calls) {}
  std::span<const std::uint8_t> compress(int, std::span<const std::uint8_t* const>, int) override {
    ++calls_;
    return {};
  }

 private:
  int& calls_;
};

// Measured on this picture, whose glyph strokes are single pixels: 27.2 dB at quality 60.
constexpr double kPsnrFloor = 25.0;

TEST(JPEGStreamTest, EncodesDecodablePicturesOnceUntilThePictureChanges) {
  QRVJPEGStream stream;
  EXPECT_EQ(stream.mimeType(), "image/jpeg");
  EXPECT_EQ(stream.maximumFramesInFlight(), 6);
  auto frame = test::desktopFrame(320, 200, 0);
  Answer first = encode(stream, frame);
  ASSERT_EQ(first.calls, 1);
  ASSERT_TRUE(first.bytes);
  auto decoded = test::decodeJPEG(*first.bytes);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->width, 320);
  EXPECT_EQ(decoded->height, 200);
  EXPECT_EQ(decoded->subsampling, TJSAMP_420);
  EXPECT_GT(colourPsnr(decoded->bgrx, frame->image()->bytes()), kPsnrFloor);

  // The same frame, a frame over the same image and a copy of its bytes all give nothing.
  EXPECT_FALSE(encode(stream, frame).bytes);
  EXPECT_FALSE(encode(stream, std::make_shared<QRVFrame>(frame->image())).bytes);
  auto copy = std::make_shared<QRVFrame>(
      QRVImage::create(320, 200, {frame->image()->bytes().begin(), frame->image()->bytes().end()}));
  Answer repeat = encode(stream, copy);
  EXPECT_EQ(repeat.calls, 1);
  EXPECT_FALSE(repeat.bytes);

  stream.reset();
  EXPECT_EQ(encode(stream, frame).bytes, first.bytes);
  EXPECT_TRUE(encode(stream, test::desktopFrame(320, 200, 1)).bytes);
  stream.destroy();
  EXPECT_EQ(encode(stream, frame).bytes, first.bytes);
}

TEST(JPEGStreamTest, UnchangedPicturesNeverReachTheCompressorAndFailuresStillAnswer) {
  int calls = 0;
  QRVJPEGStream stream(std::make_unique<CountingCompressor>(calls));
  auto frame = test::desktopFrame(32, 32, 0);
  Answer failed = encode(stream, frame);
  ASSERT_TRUE(failed.bytes);
  EXPECT_TRUE(failed.bytes->empty());
  EXPECT_FALSE(encode(stream, frame).bytes);
  EXPECT_EQ(calls, 1);
}

// Pictures that grow, shrink, have odd sides or do not compress at all: each must fit the reused
// buffer (AddressSanitizer builds check every byte written).
TEST(JPEGStreamTest, ReusedBufferGrowsBeforeLargerPictures) {
  LibjpegCompressor compressor;
  std::mt19937 random(7);
  auto noise = [&](int w, int h) {
    std::vector<std::uint8_t> bytes(std::size_t(w) * h * 4);
    for (auto& b : bytes)
      b = std::uint8_t(random());
    return QRVImage::create(w, h, std::move(bytes));
  };
  const std::pair<int, int> sizes[] = {{16, 16}, {1921, 1081}, {63, 17}, {800, 600}, {8, 2000}};
  std::size_t largest = 0;
  for (auto [w, h] : sizes) {
    auto image = noise(w, h);
    auto bytes = compressor.compress(*image);
    EXPECT_GE(compressor.capacity(), LibjpegCompressor::bufferBound(w, h));
    largest = std::max(largest, compressor.capacity());
    EXPECT_EQ(compressor.capacity(), largest) << "the buffer is kept, never shrunk";
    auto decoded = test::decodeJPEG(bytes);
    ASSERT_TRUE(decoded) << w << "x" << h;
    EXPECT_EQ(decoded->width, w);
    EXPECT_EQ(decoded->height, h);
  }
  // Wider than the format allows: refused before any buffer is sized for it.
  EXPECT_TRUE(compressor.compress(*noise(65501, 1)).empty());
  EXPECT_EQ(compressor.capacity(), largest);
}

// TurboJPEG with the same settings, for comparison.
Bytes turboJPEG(const QRVImage& image) {
  tjhandle handle = tjInitCompress();
  unsigned char* out = nullptr;
  unsigned long size = 0;
  tjCompress2(handle, image.bytes().data(), image.width(), image.stride(), image.height(),
              TJPF_BGRX, &out, &size, TJSAMP_420, 60, TJFLAG_ACCURATEDCT);
  Bytes bytes(out, out + size);
  tjFree(out);
  tjDestroy(handle);
  return bytes;
}

TEST(JPEGStreamTest, TurboJPEGEnvironmentVariablesDoNotChangeTheBytes) {
  auto image = test::desktopPicture(640, 360, 3);
  LibjpegCompressor compressor;
  auto clean = compressor.compress(*image);
  const Bytes expected(clean.begin(), clean.end());
  // Same settings as TurboJPEG's quality 60, 4:2:0, accurate transform.
  EXPECT_EQ(expected, turboJPEG(*image));

  const char* names[] = {"TJ_OPTIMIZE", "TJ_ARITHMETIC", "TJ_RESTART", "TJ_PROGRESSIVE"};
  for (const char* name : names)
    setenv(name, "1", 1);
  auto withEnvironment = compressor.compress(*image);
  const Bytes changed(withEnvironment.begin(), withEnvironment.end());
  const Bytes turboChanged = turboJPEG(*image);
  for (const char* name : names)
    unsetenv(name);
  EXPECT_EQ(changed, expected);
  // The variables do reach TurboJPEG itself, so the comparison above means something.
  EXPECT_NE(turboChanged, expected);
}

}  // namespace
}  // namespace quorvix

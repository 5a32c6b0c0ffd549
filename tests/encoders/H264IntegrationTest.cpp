// The H.264 stream on this machine's real encoder (libx264 when no hardware encoder opens), on its
// own worker thread, checked by libavcodec's H.264 decoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <ostream>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "encoders/EncoderTestSupport.h"
#include "encoders/H264Sample.h"
#include "encoders/QRVH264Stream.h"
#include "encoders/linux/LibavH264Factory.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"

namespace quorvix {
namespace {

using Bytes = QRVStreamEncoder::Bytes;

// Collects the answers that arrive on the worker thread, in order.
class Answers {
 public:
  QRVStreamEncoder::Callback callback() {
    return [this](std::optional<Bytes> bytes) {
      std::lock_guard lock(mutex_);
      answers_.push_back(std::move(bytes));
      changed_.notify_all();
    };
  }
  std::vector<std::optional<Bytes>> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(30), [&] { return answers_.size() >= count; });
    return answers_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::optional<Bytes>> answers_;
};

struct Case {
  int width;
  int height;
  double scale;      // set after the first frame
  double psnrFloor;  // luma, dB: a little under what libx264 measured at 512 kbit/s
};

void PrintTo(const Case& c, std::ostream* os) {
  *os << c.width << "x" << c.height << " at scale " << c.scale;
}

class H264IntegrationTest : public ::testing::TestWithParam<Case> {};

TEST_P(H264IntegrationTest, DecodesWithKeyFramesWhereTheyWereAskedFor) {
  const Case c = GetParam();
  test::LogCapture logs;
  auto main = std::make_shared<test::ManualExecutor>();
  QRVH264Stream stream({nullptr, nullptr, main});
  Answers answers;
  constexpr int kFrames = 12;
  constexpr int kResetBefore = 7;
  std::vector<std::shared_ptr<QRVFrame>> frames;
  for (int i = 0; i < kFrames; ++i) {
    if (i == 1 && c.scale != 1.0)
      stream.setScale(c.scale);
    if (i == kResetBefore)
      stream.reset();
    frames.push_back(test::desktopFrame(c.width, c.height, i));
    frames.back()->setTiming({QRVTime::milliseconds(100), QRVTime::milliseconds(100 * i), {}});
    stream.encode(frames.back(), answers.callback());
  }
  const auto got = answers.waitFor(kFrames);
  ASSERT_EQ(got.size(), std::size_t(kFrames));
  std::vector<Bytes> units;
  std::vector<bool> idr;
  for (const auto& answer : got) {
    ASSERT_TRUE(answer && !answer->empty());
    const auto types = test::nalTypes(*answer);
    const bool hasIdr = std::find(types.begin(), types.end(), 5) != types.end();
    idr.push_back(hasIdr);
    if (hasIdr) {
      // Sequence and picture parameter sets first; High profile; constraint_set3_flag.
      ASSERT_GE(types.size(), 3u);
      EXPECT_EQ(types[0], 7);
      EXPECT_EQ(types[1], 8);
      EXPECT_EQ((*answer)[5], 100);
      EXPECT_TRUE((*answer)[6] & 0x10);
    } else {
      EXPECT_TRUE(std::find(types.begin(), types.end(), 7) == types.end());
    }
    units.push_back(*answer);
  }
  std::vector<bool> expectedIdr(kFrames, false);
  expectedIdr[0] = true;
  expectedIdr[kResetBefore] = true;
  if (c.scale != 1.0)
    expectedIdr[1] = true;  // the new scale remade the session
  EXPECT_EQ(idr, expectedIdr);

  const auto video = test::decodeH264(units);
  EXPECT_EQ(video.errors, 0);
  double lowest = 99;
  ASSERT_EQ(video.pictures.size(), std::size_t(kFrames));
  for (int i = 0; i < kFrames; ++i) {
    const auto& picture = video.pictures[i];
    const double scale = i == 0 ? 1.0 : c.scale;
    EXPECT_EQ(picture.width, int(c.width * scale) & ~1) << "frame " << i;
    EXPECT_EQ(picture.height, int(c.height * scale) & ~1) << "frame " << i;
    EXPECT_EQ(picture.keyFrame, expectedIdr[i]) << "frame " << i;
    EXPECT_EQ(picture.colorspace, AVCOL_SPC_SMPTE170M);
    EXPECT_EQ(picture.colorRange, AVCOL_RANGE_MPEG);
    const double quality =
        test::psnr(picture.y, test::referenceLuma(*frames[i], picture.width, picture.height));
    EXPECT_GT(quality, c.psnrFloor) << "frame " << i;
    lowest = std::min(lowest, quality);
  }
  std::printf("%dx%d at scale %.2f: lowest luma PSNR %.2f dB\n", c.width, c.height, c.scale,
              lowest);
  stream.destroy();
  const auto available = LibavH264Factory::availableEncoders();
  bool logged = false;
  for (const auto& name : available)
    logged = logged || logs.contains(LogLevel::debug, "H264 encoder: " + name);
  EXPECT_TRUE(logged);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes,
    H264IntegrationTest,
    // Measured lowest: 39.3, 40.2, 32.8, 30.9 dB (the last at its first, full-size frame).
    ::testing::Values(Case{640, 360, 1.0, 37},
                      Case{640, 360, 0.5, 37},
                      Case{801, 601, 1.0, 31},
                      Case{1280, 720, 0.75, 29}),
    [](const auto& info) {
      const Case& c = info.param;
      return std::to_string(c.width) + "x" + std::to_string(c.height) + "_scale" +
             std::to_string(int(c.scale * 100));
    });

TEST(H264IntegrationLargeTest, SoftwareEncodingOf4KComesOutAt1080p) {
  auto main = std::make_shared<test::ManualExecutor>();
  QRVH264Stream stream({nullptr, nullptr, main});
  Answers answers;
  auto frame = test::desktopFrame(3840, 2160, 0);
  stream.encode(frame, answers.callback());
  stream.encode(test::desktopFrame(3840, 2160, 1), answers.callback());
  const auto got = answers.waitFor(2);
  ASSERT_EQ(got.size(), 2u);
  ASSERT_TRUE(got[0] && got[1]);
  const auto video = test::decodeH264({*got[0], *got[1]});
  ASSERT_EQ(video.pictures.size(), 2u);
  // Without hardware, at most 1920 × 1080; with it, the full size.
  const bool hardware = stream.scale() == 1.0;
  EXPECT_EQ(video.pictures[0].width, hardware ? 3840 : 1920);
  EXPECT_EQ(video.pictures[0].height, hardware ? 2160 : 1080);
  EXPECT_TRUE(video.pictures[0].keyFrame);
  EXPECT_GT(test::psnr(video.pictures[0].y, test::referenceLuma(*frame, video.pictures[0].width,
                                                                video.pictures[0].height)),
            24.5);  // measured 26.6 dB: 1080p of single-pixel strokes at 512 kbit/s
}

// What libx264 writes at a quality: the stream's 0.5 must stay cheap to decode (CAVLC) and still
// be High profile for real (the 8x8 transform), not Baseline under a High label; above 0.5 the
// presets are slower and use CABAC, which also shows the parameter set reader tells them apart.
TEST(LibavH264FactoryTest, QualityPicksTheX264Tools) {
  LibavH264Factory factory;
  const auto& candidates = factory.candidates();
  const auto x264 = std::find_if(candidates.begin(), candidates.end(),
                                 [](const auto& c) { return c.name == "libx264"; });
  ASSERT_NE(x264, candidates.end());
  struct Expected {
    double quality;
    bool cabac;
  };
  for (const Expected e : {Expected{0.5, false}, Expected{0.51, true}, Expected{1.0, true}}) {
    SCOPED_TRACE(e.quality);
    const std::vector<H264PropertySetting> properties = {
        {H264Property::profileLevel, std::string("high/auto")},
        {H264Property::quality, e.quality},
        {H264Property::allowFrameReordering, false},
        {H264Property::averageBitRate, 524288.0},
        {H264Property::realTime, true},
        {H264Property::maxFrameDelayCount, std::int64_t(0)},
    };
    std::vector<Bytes> units;
    auto result = factory.open(std::size_t(x264 - candidates.begin()), 640, 360, properties,
                               [&](std::uint64_t, int status, H264Sample sample) {
                                 EXPECT_EQ(status, 0);
                                 units.push_back(toH264NALUAnnexB(sample));
                               });
    ASSERT_TRUE(result.session);
    EXPECT_EQ(result.propertyStatus, std::vector<int>(properties.size(), 0));
    auto frame = test::desktopFrame(640, 360, 0);
    const auto picture = frame->pixelBuffer();
    bool dropped = true;
    ASSERT_EQ(result.session->encode(picture, {}, true, 1, dropped), H264EncodeStatus::ok);
    EXPECT_FALSE(dropped);
    result.session->completeFrames(QRVTime{});
    // The encoder read the picture's own planes and let go of them: the frame and this test hold
    // the only references.
    EXPECT_EQ(picture.use_count(), 2);
    ASSERT_EQ(units.size(), 1u);
    ASSERT_GT(units[0].size(), 5u);
    EXPECT_EQ(units[0][5], 100);  // profile_idc: High
    const auto tools = test::pictureParameterTools(units[0]);
    ASSERT_TRUE(tools);
    EXPECT_EQ(tools->cabac, e.cabac);
    EXPECT_TRUE(tools->transform8x8);
    const auto video = test::decodeH264(units);
    EXPECT_EQ(video.errors, 0);
    ASSERT_EQ(video.pictures.size(), 1u);
    EXPECT_GT(test::psnr(video.pictures[0].y, test::referenceLuma(*frame, 640, 360)), 30.0);
  }
}

}  // namespace
}  // namespace quorvix

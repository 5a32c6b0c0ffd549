#include <gtest/gtest.h>

#include "encoders/EncoderTestSupport.h"
#include "encoders/FakeH264Backend.h"
#include "encoders/QRVH264Stream.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"

namespace quorvix {
namespace {

using test::FakeH264Backend;
using test::LogCapture;
using test::ManualExecutor;
using Bytes = QRVStreamEncoder::Bytes;

struct Answer {
  int calls = 0;
  std::optional<Bytes> bytes;
};

std::shared_ptr<QRVFrame> solidFrame(int w, int h, std::uint8_t value) {
  return std::make_shared<QRVFrame>(
      QRVImage::create(w, h, std::vector<std::uint8_t>(std::size_t(w) * h * 4, value)));
}

// A new frame over a copy of the picture: equal by bytes, not by identity.
std::shared_ptr<QRVFrame> copyOf(const QRVFrame& frame) {
  auto image = frame.image();
  return std::make_shared<QRVFrame>(QRVImage::create(
      image->width(), image->height(), {image->bytes().begin(), image->bytes().end()}));
}

bool startsWith(const Bytes& bytes, std::initializer_list<std::uint8_t> prefix) {
  return bytes.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), bytes.begin());
}

class H264StreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    stream_ = std::make_unique<QRVH264Stream>(QRVH264Stream::Environment{backend_, worker_, main_});
  }
  // Queued work keeps a stream's core alive until it has run.
  void TearDown() override {
    stream_.reset();
    worker_->runUntilIdle();
  }

  // Hands the frame over without letting the worker run.
  std::shared_ptr<Answer> post(std::shared_ptr<QRVFrame> frame) {
    auto answer = std::make_shared<Answer>();
    stream_->encode(std::move(frame), [answer](std::optional<Bytes> bytes) {
      ++answer->calls;
      answer->bytes = std::move(bytes);
    });
    return answer;
  }
  std::shared_ptr<Answer> submit(std::shared_ptr<QRVFrame> frame) {
    auto answer = post(std::move(frame));
    worker_->runUntilIdle();
    return answer;
  }
  bool lastSubmissionForced() const {
    return backend_->sessions.back()->submissions.back().forceKeyFrame;
  }
  std::size_t submissionCount() const {
    std::size_t n = 0;
    for (const auto& s : backend_->sessions)
      n += s->submissions.size();
    return n;
  }

  LogCapture logs_;
  std::shared_ptr<ManualExecutor> main_ = std::make_shared<ManualExecutor>();
  std::shared_ptr<ManualExecutor> worker_ = std::make_shared<ManualExecutor>();
  std::shared_ptr<FakeH264Backend> backend_ = std::make_shared<FakeH264Backend>();
  std::unique_ptr<QRVH264Stream> stream_;
};

TEST_F(H264StreamTest, FirstFrameOpensAFullScaleSessionUnforcedAndWritesParameterSetsFirst) {
  EXPECT_EQ(stream_->mimeType(), "video/avc");
  EXPECT_EQ(stream_->maximumFramesInFlight(), 60);
  EXPECT_FALSE(stream_->isRunning());
  auto first = submit(test::desktopFrame(64, 48, 0));
  ASSERT_EQ(backend_->sessions.size(), 1u);
  EXPECT_EQ(backend_->sessions[0]->width, 64);
  EXPECT_EQ(backend_->sessions[0]->height, 48);
  EXPECT_FALSE(lastSubmissionForced());
  EXPECT_TRUE(stream_->isRunning());
  ASSERT_EQ(first->calls, 1);
  // SPS with constraint_set3_flag set at output byte 6, PPS, then the picture.
  const Bytes expected = {0, 0,    0,    1,    0x67, 0x64, 0x10, 0x1f, 0xac, 0xd9, 0,    0,   0,
                          1, 0x68, 0xeb, 0xe3, 0xcb, 0,    0,    0,    1,    0x65, 0x88, 0x01};
  EXPECT_EQ(first->bytes, expected);

  auto second = submit(test::desktopFrame(64, 48, 1));
  ASSERT_TRUE(second->bytes);
  EXPECT_TRUE(startsWith(*second->bytes, {0, 0, 0, 1, 0x41}));
  EXPECT_FALSE(lastSubmissionForced());
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "H264 encoder: fake_sw"));
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "Encoding at 64x48 @ 1 = 64x48"));
}

TEST_F(H264StreamTest, ResetAndRequestsForceTheNextFrameUntilAKeyFrameComesOut) {
  auto frame = test::desktopFrame(64, 48, 0);
  submit(frame);
  stream_->reset();
  // The last picture is forgotten, so the same frame is encoded again, as a key frame.
  auto again = submit(frame);
  ASSERT_TRUE(again->bytes);
  EXPECT_TRUE(lastSubmissionForced());
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "resetting H264 encoder"));
  submit(test::desktopFrame(64, 48, 1));
  EXPECT_FALSE(lastSubmissionForced());

  stream_->setForceKeyframe(true);
  submit(test::desktopFrame(64, 48, 2));
  EXPECT_TRUE(lastSubmissionForced());
  submit(test::desktopFrame(64, 48, 3));
  EXPECT_FALSE(lastSubmissionForced());
}

TEST_F(H264StreamTest, FiveRepeatsAreEncodedAndTheSixthGetsNothingAtOnce) {
  auto frame = test::desktopFrame(64, 48, 0);
  submit(frame);
  for (int repeat = 1; repeat <= 5; ++repeat) {
    auto answer = submit(copyOf(*frame));
    EXPECT_TRUE(answer->bytes) << "repeat " << repeat;
  }
  EXPECT_EQ(submissionCount(), 6u);
  auto sixth = submit(copyOf(*frame));
  EXPECT_EQ(sixth->calls, 1);
  EXPECT_FALSE(sixth->bytes);
  EXPECT_EQ(submissionCount(), 6u);

  // A change starts the count over.
  auto changed = test::desktopFrame(64, 48, 1);
  EXPECT_TRUE(submit(changed)->bytes);
  EXPECT_TRUE(submit(copyOf(*changed))->bytes);
  EXPECT_EQ(submissionCount(), 8u);
}

TEST_F(H264StreamTest, ScaleAndSizeChangesRemakeTheSessionWithAKeyFrame) {
  submit(test::desktopFrame(64, 48, 0));
  stream_->setScale(0.5);
  worker_->runUntilIdle();
  ASSERT_EQ(backend_->sessions.size(), 2u);
  EXPECT_FALSE(backend_->sessions[0]->alive);
  EXPECT_EQ(backend_->sessions[1]->width, 32);
  EXPECT_EQ(backend_->sessions[1]->height, 24);
  EXPECT_EQ(stream_->scale(), 0.5);
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "destroying H264 encoder"));
  submit(test::desktopFrame(64, 48, 1));
  EXPECT_TRUE(lastSubmissionForced());

  // The same scale again changes nothing.
  stream_->setScale(0.5);
  worker_->runUntilIdle();
  EXPECT_EQ(backend_->sessions.size(), 2u);

  // A new size drops the earlier scale.
  submit(test::desktopFrame(80, 60, 2));
  ASSERT_EQ(backend_->sessions.size(), 3u);
  EXPECT_EQ(backend_->sessions[2]->width, 80);
  EXPECT_EQ(stream_->scale(), 1.0);
  EXPECT_TRUE(lastSubmissionForced());
}

TEST_F(H264StreamTest, SoftwareEncoderIsCappedAt1080pAndHardwareIsNot) {
  submit(solidFrame(3840, 2160, 90));
  auto live = backend_->live();
  ASSERT_TRUE(live);
  EXPECT_EQ(live->width, 1920);
  EXPECT_EQ(live->height, 1080);
  EXPECT_EQ(stream_->scale(), 0.5);
  // Made at full size, remade by the new scale, then once more.
  EXPECT_EQ(backend_->sessions.size(), 3u);
  EXPECT_EQ(live->submissions.size(), 1u);
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "The encoder is not hardware accelerated"));

  auto hardware = std::make_shared<FakeH264Backend>();
  hardware->hardware = true;
  QRVH264Stream accelerated({hardware, worker_, main_});
  accelerated.encode(solidFrame(3840, 2160, 90), [](std::optional<Bytes>) {});
  worker_->runUntilIdle();
  ASSERT_EQ(hardware->sessions.size(), 1u);
  EXPECT_EQ(hardware->sessions[0]->width, 3840);
  EXPECT_EQ(accelerated.scale(), 1.0);
}

TEST(CalculateNewScaleTest, FitsWithin1920By1080AndNeverEnlarges) {
  EXPECT_EQ(CalculateNewScale(0, 1080), 0.0);
  EXPECT_EQ(CalculateNewScale(1920, 0), 0.0);
  EXPECT_EQ(CalculateNewScale(1280, 720), 1.0);
  EXPECT_EQ(CalculateNewScale(1920, 1080), 1.0);
  EXPECT_EQ(CalculateNewScale(3840, 2160), 0.5);
  EXPECT_EQ(CalculateNewScale(2560, 1080), 0.75);
  EXPECT_EQ(CalculateNewScale(1920, 2160), 0.5);
}

TEST_F(H264StreamTest, RefusedPropertyIsLoggedAndTheSessionStillEncodes) {
  backend_->refused[H264Property::quality] = -22;
  auto answer = submit(test::desktopFrame(64, 48, 0));
  EXPECT_TRUE(answer->bytes);
  EXPECT_TRUE(logs_.contains(LogLevel::error, "Failed to set Quality, error code -22"));
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "setting encoder property ProfileLevel"));
}

TEST_F(H264StreamTest, SessionThatCannotBeMadeAnswersNothingAndTheNextTryIsUnforced) {
  backend_->createFailure = -12902;
  auto answer = submit(test::desktopFrame(64, 48, 0));
  EXPECT_EQ(answer->calls, 1);
  EXPECT_FALSE(answer->bytes);
  EXPECT_FALSE(stream_->isRunning());
  EXPECT_TRUE(
      logs_.contains(LogLevel::error, "H264: Unable to create an H264 encoding session: -12902"));
  backend_->createFailure = 0;
  EXPECT_TRUE(submit(test::desktopFrame(64, 48, 1))->bytes);
  EXPECT_FALSE(lastSubmissionForced());
}

TEST_F(H264StreamTest, DroppedAndFailedFramesAnswerNothingAtOnce) {
  submit(test::desktopFrame(64, 48, 0));
  backend_->drops = {true};
  auto dropped = submit(test::desktopFrame(64, 48, 1));
  EXPECT_EQ(dropped->calls, 1);
  EXPECT_FALSE(dropped->bytes);
  backend_->statuses = {H264EncodeStatus::failed};
  auto failed = submit(test::desktopFrame(64, 48, 2));
  EXPECT_EQ(failed->calls, 1);
  EXPECT_FALSE(failed->bytes);
  EXPECT_EQ(backend_->sessions.size(), 1u);
  // Frames answered inside encode() leave no slow-encoder check behind.
  EXPECT_EQ(main_->pendingCount(), 0u);

  backend_->outputStatus = -1;
  auto badOutput = submit(test::desktopFrame(64, 48, 3));
  EXPECT_EQ(badOutput->calls, 1);
  EXPECT_FALSE(badOutput->bytes);
  EXPECT_TRUE(logs_.contains(LogLevel::error, "H264: Failed to encode frame: -1"));
}

TEST_F(H264StreamTest, InvalidSessionIsRemadeAndTheNextFrameIsForced) {
  submit(test::desktopFrame(64, 48, 0));
  backend_->statuses = {H264EncodeStatus::invalidSession};
  auto lost = submit(test::desktopFrame(64, 48, 1));
  EXPECT_EQ(lost->calls, 1);
  EXPECT_FALSE(lost->bytes);
  EXPECT_TRUE(logs_.contains(LogLevel::error, "encoder session became invalid"));
  ASSERT_EQ(backend_->sessions.size(), 2u);
  EXPECT_TRUE(backend_->sessions[1]->alive);
  auto next = submit(test::desktopFrame(64, 48, 2));
  EXPECT_TRUE(next->bytes);
  EXPECT_TRUE(lastSubmissionForced());
}

TEST_F(H264StreamTest, SlowEncoderIsPushedAfter300MillisecondsUpToTheFramesTime) {
  backend_->holdOutput = true;
  auto first = test::desktopFrame(64, 48, 0);
  first->setTiming({QRVTime::milliseconds(100), QRVTime::milliseconds(1000), {}});
  auto second = test::desktopFrame(64, 48, 1);
  second->setTiming({QRVTime::milliseconds(100), QRVTime::milliseconds(1100), {}});
  auto a = submit(first);
  main_->advanceSeconds(0.1);
  auto b = submit(second);
  EXPECT_EQ(a->calls + b->calls, 0);

  EXPECT_EQ(main_->advanceSeconds(0.2), 1u);
  EXPECT_TRUE(logs_.contains(LogLevel::debug, "encoder is slow, forcing output"));
  worker_->runUntilIdle();
  EXPECT_TRUE(a->bytes);
  EXPECT_EQ(b->calls, 0);  // presented later than the frame that was waited for

  EXPECT_EQ(main_->advanceSeconds(0.1), 1u);
  worker_->runUntilIdle();
  EXPECT_TRUE(b->bytes);

  // Output in time: the check runs and finds nothing to do.
  logs_.clear();
  auto c = submit(test::desktopFrame(64, 48, 2));
  backend_->holdOutput = false;
  auto d = submit(test::desktopFrame(64, 48, 3));
  EXPECT_TRUE(c->bytes);
  EXPECT_TRUE(d->bytes);
  EXPECT_EQ(main_->advanceSeconds(0.3), 1u);
  EXPECT_FALSE(logs_.mentions("encoder is slow"));
}

TEST_F(H264StreamTest, DestroyCompletesFramesInTheSessionAndAnswersLaterOnesWithNothing) {
  backend_->holdOutput = true;
  auto inside = submit(test::desktopFrame(64, 48, 0));
  auto queued = post(test::desktopFrame(64, 48, 1));
  stream_->destroy();
  auto after = post(test::desktopFrame(64, 48, 2));
  EXPECT_EQ(after->calls, 1);  // answered before the worker ran
  EXPECT_FALSE(after->bytes);
  worker_->runUntilIdle();
  EXPECT_TRUE(inside->bytes);
  EXPECT_EQ(queued->calls, 1);
  EXPECT_FALSE(queued->bytes);
  EXPECT_FALSE(stream_->isRunning());
  EXPECT_FALSE(backend_->live());
  EXPECT_EQ(submissionCount(), 1u);
  stream_->destroy();
  EXPECT_EQ(worker_->pendingCount(), 0u);
  // The slow-encoder check outlives nothing.
  EXPECT_EQ(main_->advanceSeconds(0.3), 1u);
  EXPECT_FALSE(logs_.mentions("encoder is slow"));
}

TEST_F(H264StreamTest, EncoderChoiceIsLoggedOncePerStream) {
  submit(test::desktopFrame(64, 48, 0));
  submit(test::desktopFrame(80, 60, 0));
  submit(test::desktopFrame(64, 48, 0));
  EXPECT_EQ(backend_->sessions.size(), 3u);
  int choices = 0;
  for (const auto& m : logs_.messages(LogLevel::debug))
    choices += m.starts_with("H264 encoder: ");
  EXPECT_EQ(choices, 1);
}

}  // namespace
}  // namespace quorvix

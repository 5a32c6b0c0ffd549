#include <gtest/gtest.h>

#include "encoders/H264EncoderChooser.h"

namespace quorvix {
namespace {

// How each fake encoder behaves.
struct Behaviour {
  bool opens = true;
  bool firstPictureFails = false;
  bool holdsOutputUntilFinished = false;
};

class FakeSession final : public H264EncoderSession {
 public:
  FakeSession(std::string name, bool hardware, Behaviour behaviour, OutputHandler output)
      : name_(std::move(name)), hardware_(hardware), behaviour_(behaviour), output_(output) {}
  std::string name() const override { return name_; }
  bool isHardwareAccelerated() const override { return hardware_; }
  H264EncodeStatus encode(const std::shared_ptr<const QRVPixelBuffer>&,
                          const QRVSampleTiming&,
                          bool,
                          std::uint64_t frameId,
                          bool& dropped) override {
    dropped = false;
    if (behaviour_.firstPictureFails)
      return H264EncodeStatus::invalidSession;
    if (behaviour_.holdsOutputUntilFinished)
      held_.push_back(frameId);
    else
      output_(frameId, 0, {});
    return H264EncodeStatus::ok;
  }
  void completeFrames(QRVTime upTo) override {
    if (upTo.isValid())
      return;
    for (auto id : held_)
      output_(id, 0, {});
    held_.clear();
  }

 private:
  std::string name_;
  bool hardware_;
  Behaviour behaviour_;
  OutputHandler output_;
  std::vector<std::uint64_t> held_;
};

class FakeFactory final : public H264EncoderFactory {
 public:
  FakeFactory(std::vector<Candidate> candidates, std::vector<Behaviour> behaviours)
      : candidates_(std::move(candidates)), behaviours_(std::move(behaviours)) {
    opens.resize(candidates_.size());
  }
  const std::vector<Candidate>& candidates() const override { return candidates_; }
  H264SessionResult open(std::size_t index,
                         int,
                         int,
                         const std::vector<H264PropertySetting>& properties,
                         H264EncoderSession::OutputHandler output) override {
    ++opens[index];
    H264SessionResult result;
    if (!behaviours_[index].opens) {
      result.status = -38;
      return result;
    }
    result.propertyStatus.assign(properties.size(), 0);
    result.session = std::make_unique<FakeSession>(
        candidates_[index].name, candidates_[index].hardware, behaviours_[index], output);
    return result;
  }
  std::vector<int> opens;

 private:
  std::vector<Candidate> candidates_;
  std::vector<Behaviour> behaviours_;
};

const std::vector<H264PropertySetting> kHardwareFirst = {
    {H264Property::enableHardwareAcceleration, true}};

TEST(H264EncoderChooserTest, HardwareThatFailsToOpenOrAtItsFirstPictureFallsThroughOnce) {
  auto factory = std::make_unique<FakeFactory>(
      std::vector<H264EncoderFactory::Candidate>{{"gpu_a", true}, {"gpu_b", true}, {"cpu", false}},
      std::vector<Behaviour>{{.opens = false}, {.firstPictureFails = true}, {}});
  auto& fake = *factory;
  ChoosingH264Backend backend(std::move(factory));
  auto first = backend.createSession(64, 48, kHardwareFirst, [](std::uint64_t, int, H264Sample) {});
  ASSERT_TRUE(first.session);
  EXPECT_EQ(first.session->name(), "cpu");
  EXPECT_FALSE(first.session->isHardwareAccelerated());
  // Failed hardware is not tried again; the software encoder is opened every time.
  auto second =
      backend.createSession(32, 24, kHardwareFirst, [](std::uint64_t, int, H264Sample) {});
  ASSERT_TRUE(second.session);
  EXPECT_EQ(fake.opens, (std::vector<int>{1, 1, 2}));
}

TEST(H264EncoderChooserTest, HardwareThatHoldsItsFirstPictureIsKeptAndOpenedAfresh) {
  auto factory = std::make_unique<FakeFactory>(
      std::vector<H264EncoderFactory::Candidate>{{"gpu", true}, {"cpu", false}},
      std::vector<Behaviour>{{.holdsOutputUntilFinished = true}, {}});
  auto& fake = *factory;
  ChoosingH264Backend backend(std::move(factory));
  auto result =
      backend.createSession(64, 48, kHardwareFirst, [](std::uint64_t, int, H264Sample) {});
  ASSERT_TRUE(result.session);
  EXPECT_EQ(result.session->name(), "gpu");
  EXPECT_TRUE(result.session->isHardwareAccelerated());
  EXPECT_EQ(fake.opens, (std::vector<int>{2, 0}));  // the probe, then the session handed out

  auto softwareOnly =
      backend.createSession(64, 48, {{H264Property::enableHardwareAcceleration, false}},
                            [](std::uint64_t, int, H264Sample) {});
  ASSERT_TRUE(softwareOnly.session);
  EXPECT_EQ(softwareOnly.session->name(), "cpu");
}

TEST(H264EncoderChooserTest, NothingOpensGivesTheLastFailure) {
  ChoosingH264Backend backend(std::make_unique<FakeFactory>(
      std::vector<H264EncoderFactory::Candidate>{{"gpu", true}, {"cpu", false}},
      std::vector<Behaviour>{{.opens = false}, {.opens = false}}));
  auto result =
      backend.createSession(64, 48, kHardwareFirst, [](std::uint64_t, int, H264Sample) {});
  EXPECT_FALSE(result.session);
  EXPECT_EQ(result.status, -38);
}

}  // namespace
}  // namespace quorvix

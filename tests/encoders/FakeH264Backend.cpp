#include "encoders/FakeH264Backend.h"

#include <utility>

namespace quorvix::test {
namespace {

class FakeSession final : public H264EncoderSession {
 public:
  FakeSession(FakeH264Backend& backend,
              std::shared_ptr<FakeSessionRecord> record,
              OutputHandler output)
      : backend_(backend), record_(std::move(record)), output_(std::move(output)) {}
  ~FakeSession() override { record_->alive = false; }

  std::string name() const override { return backend_.hardware ? "fake_hw" : "fake_sw"; }
  bool isHardwareAccelerated() const override { return backend_.hardware; }

  H264EncodeStatus encode(const std::shared_ptr<const QRVPixelBuffer>& picture,
                          const QRVSampleTiming& timing,
                          bool forceKeyFrame,
                          std::uint64_t frameId,
                          bool& dropped) override {
    record_->submissions.push_back({picture->width(), forceKeyFrame, timing.presentationTimeStamp});
    H264EncodeStatus status = H264EncodeStatus::ok;
    if (!backend_.statuses.empty()) {
      status = backend_.statuses.front();
      backend_.statuses.pop_front();
    }
    dropped = false;
    if (!backend_.drops.empty()) {
      dropped = backend_.drops.front();
      backend_.drops.pop_front();
    }
    if (status != H264EncodeStatus::ok || dropped)
      return status;
    const bool key = forceKeyFrame || record_->submissions.size() == 1;
    H264Sample sample;
    if (key)
      sample.parameterSets = {kFakeSPS, kFakePPS};
    const std::uint8_t header = key ? 0x65 : 0x41;
    sample.data = {0, 0, 0, 3, header, 0x88, std::uint8_t(frameId)};
    sample.attachments = {key ? std::optional<bool>() : std::optional<bool>(true)};
    held_.push_back({frameId, timing.presentationTimeStamp, std::move(sample)});
    if (!backend_.holdOutput)
      completeFrames(QRVTime{});
    return status;
  }

  void completeFrames(QRVTime upTo) override {
    std::deque<Held> later;
    auto held = std::exchange(held_, {});
    for (auto& h : held) {
      if (upTo.isValid() && h.presentation.value > upTo.value)
        later.push_back(std::move(h));
      else
        output_(h.frameId, backend_.outputStatus, std::move(h.sample));
    }
    held_ = std::move(later);
  }

 private:
  struct Held {
    std::uint64_t frameId;
    QRVTime presentation;
    H264Sample sample;
  };
  FakeH264Backend& backend_;
  std::shared_ptr<FakeSessionRecord> record_;
  OutputHandler output_;
  std::deque<Held> held_;
};

}  // namespace

H264SessionResult FakeH264Backend::createSession(int width,
                                                 int height,
                                                 const std::vector<H264PropertySetting>& properties,
                                                 H264EncoderSession::OutputHandler output) {
  H264SessionResult result;
  if (createFailure != 0) {
    result.status = createFailure;
    return result;
  }
  for (const auto& p : properties) {
    auto found = refused.find(p.key);
    result.propertyStatus.push_back(found == refused.end() ? 0 : found->second);
  }
  auto record = std::make_shared<FakeSessionRecord>();
  record->width = width;
  record->height = height;
  sessions.push_back(record);
  result.session = std::make_unique<FakeSession>(*this, record, std::move(output));
  return result;
}

}  // namespace quorvix::test

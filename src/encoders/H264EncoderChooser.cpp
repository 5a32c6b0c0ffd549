#include "encoders/H264EncoderChooser.h"

#include "utils/Logging.h"

namespace quorvix {
namespace {

constexpr std::string_view kLogCategory = "H264EncoderChooser";
constexpr std::uint8_t kGrey = 128;

}  // namespace

ChoosingH264Backend::ChoosingH264Backend(std::unique_ptr<H264EncoderFactory> factory)
    : factory_(std::move(factory)), unavailable_(factory_->candidates().size(), false) {}

bool ChoosingH264Backend::encodesFirstPicture(std::size_t index,
                                              int width,
                                              int height,
                                              const std::vector<H264PropertySetting>& properties) {
  auto picture = QRVPixelBuffer::create(
      width, height, std::vector<std::uint8_t>(QRVPixelBuffer::byteCount(width, height), kGrey));
  if (!picture)
    return false;
  bool produced = false;
  H264SessionResult probe = factory_->open(
      index, width, height, properties,
      [&produced](std::uint64_t, int status, H264Sample) { produced = status == 0; });
  if (!probe.session)
    return false;
  bool dropped = false;
  if (probe.session->encode(picture, {}, true, 0, dropped) != H264EncodeStatus::ok || dropped)
    return false;
  // An encoder that holds pictures back gives this one up when told to finish.
  if (!produced)
    probe.session->completeFrames(QRVTime{});
  return produced;
}

H264SessionResult ChoosingH264Backend::createSession(
    int width,
    int height,
    const std::vector<H264PropertySetting>& properties,
    H264EncoderSession::OutputHandler output) {
  const auto log = QRV_LOGGER_FOR(kLogCategory);
  bool tryHardware = true;
  for (const auto& p : properties)
    if (p.key == H264Property::enableHardwareAcceleration)
      if (auto v = std::get_if<bool>(&p.value))
        tryHardware = *v;
  H264SessionResult result;
  result.status = -1;
  const auto& candidates = factory_->candidates();
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    const auto& candidate = candidates[i];
    if (candidate.hardware && (!tryHardware || unavailable_[i]))
      continue;
    if (candidate.hardware && !encodesFirstPicture(i, width, height, properties)) {
      log->debug("{} is unavailable", candidate.name);
      unavailable_[i] = true;
      continue;
    }
    result = factory_->open(i, width, height, properties, output);
    if (result.session)
      return result;
    log->debug("{} did not open: {}", candidate.name, result.status);
    if (candidate.hardware)
      unavailable_[i] = true;
  }
  return result;
}

}  // namespace quorvix

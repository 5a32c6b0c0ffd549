// H.264 encoders on libavcodec, in order of preference: the hardware encoders (NVENC, VAAPI when
// a render node opens, Quick Sync), then libx264. Sessions take I420 and write Annex B with the
// parameter sets in-band before every IDR picture.
//
// Threads: the factory and its sessions are used from one thread at a time (the stream's worker).
#pragma once

#include <string>
#include <vector>

#include "encoders/H264EncoderChooser.h"

namespace quorvix {

class LibavH264Factory final : public H264EncoderFactory {
 public:
  static constexpr std::size_t kCandidateCount = 4;

  const std::vector<Candidate>& candidates() const override;
  H264SessionResult open(std::size_t index,
                         int width,
                         int height,
                         const std::vector<H264PropertySetting>& properties,
                         H264EncoderSession::OutputHandler output) override;

  // The encoders of the preference list that this libavcodec build offers, in order.
  static std::vector<std::string> availableEncoders();
};

}  // namespace quorvix

// H.264 encoder sessions on libavcodec. The encoder is chosen when a session is made: the
// hardware encoders first (NVENC, VAAPI when a render node opens, Quick Sync), each of which must
// open and encode a first picture, else libx264. Sessions take I420 and write Annex B with the
// parameter sets in-band before every IDR picture.
//
// Threads: the backend and its sessions are used from one thread at a time (the stream's worker).
#pragma once

#include <array>
#include <string>
#include <vector>

#include "encoders/H264Codec.h"

namespace quorvix {

class LibavH264Backend final : public H264CodecBackend {
 public:
  H264SessionResult createSession(int width,
                                  int height,
                                  const std::vector<H264PropertySetting>& properties,
                                  H264EncoderSession::OutputHandler output) override;

  // The H.264 encoders of the preference list that this libavcodec build offers, in order.
  static std::vector<std::string> availableEncoders();

  static constexpr std::size_t kCandidateCount = 4;

 private:
  // Hardware encoders that failed to open for this backend, in preference order; not retried.
  std::array<bool, kCandidateCount> unavailable_{};
};

}  // namespace quorvix

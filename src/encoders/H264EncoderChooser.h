// Picks a platform's H.264 encoder when a session is made: the first in the platform's order of
// preference that opens, where a hardware encoder must also encode a first picture (some drivers
// open and then fail at the first one). A hardware encoder that fails is not tried again by the
// same backend; software encoders are tried every time.
//
// Threads: used from one thread at a time (the stream's worker).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "encoders/H264Codec.h"

namespace quorvix {

// One platform's encoders.
class H264EncoderFactory {
 public:
  struct Candidate {
    std::string name;
    bool hardware = false;
  };

  virtual ~H264EncoderFactory() = default;
  // In order of preference.
  virtual const std::vector<Candidate>& candidates() const = 0;
  // Opens one of them; an empty session and a status on failure.
  virtual H264SessionResult open(std::size_t index,
                                 int width,
                                 int height,
                                 const std::vector<H264PropertySetting>& properties,
                                 H264EncoderSession::OutputHandler output) = 0;
};

class ChoosingH264Backend final : public H264CodecBackend {
 public:
  explicit ChoosingH264Backend(std::unique_ptr<H264EncoderFactory> factory);

  H264SessionResult createSession(int width,
                                  int height,
                                  const std::vector<H264PropertySetting>& properties,
                                  H264EncoderSession::OutputHandler output) override;

 private:
  bool encodesFirstPicture(std::size_t index,
                           int width,
                           int height,
                           const std::vector<H264PropertySetting>& properties);

  const std::unique_ptr<H264EncoderFactory> factory_;
  std::vector<bool> unavailable_;
};

}  // namespace quorvix

// An encoder backend for the stream's logic: records every session and submission, and answers
// with small well-formed samples, at once or when the test releases them.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "encoders/H264Codec.h"

namespace quorvix::test {

inline const std::vector<std::uint8_t> kFakeSPS = {0x67, 0x64, 0x00, 0x1f, 0xac, 0xd9};
inline const std::vector<std::uint8_t> kFakePPS = {0x68, 0xeb, 0xe3, 0xcb};

struct FakeSubmission {
  int width;  // of the picture handed in
  bool forceKeyFrame;
  QRVTime presentation;
};

struct FakeSessionRecord {
  int width = 0;
  int height = 0;
  bool alive = true;
  std::vector<FakeSubmission> submissions;
};

class FakeH264Backend final : public H264CodecBackend {
 public:
  bool hardware = false;
  int createFailure = 0;  // non-zero: sessions fail with this status
  std::map<H264Property, int> refused;
  bool holdOutput = false;                // output waits for completeFrames()
  std::deque<H264EncodeStatus> statuses;  // next encode results (ok when empty)
  std::deque<bool> drops;                 // next dropped flags
  int outputStatus = 0;
  std::vector<std::shared_ptr<FakeSessionRecord>> sessions;

  std::shared_ptr<FakeSessionRecord> live() const {
    return sessions.empty() || !sessions.back()->alive ? nullptr : sessions.back();
  }

  H264SessionResult createSession(int width,
                                  int height,
                                  const std::vector<H264PropertySetting>& properties,
                                  H264EncoderSession::OutputHandler output) override;
};

}  // namespace quorvix::test

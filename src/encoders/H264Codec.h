// The seam between the H.264 stream's logic and an encoder library. A backend makes encoder
// sessions of a given output size; a session takes I420 pictures and hands each compressed
// picture to its output handler. Sessions are made, used and freed on the stream's worker thread,
// and call their output handler there, from inside encode() or completeFrames().
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "encoders/H264Sample.h"
#include "frameloop/QRVFrame.h"

namespace quorvix {

// The compression properties the stream asks every session for, in the order it sets them.
enum class H264Property {
  profileLevel,                 // "high/auto": High profile, level chosen by the encoder
  quality,                      // 0 (fastest) to 1 (best)
  allowFrameReordering,         // false: no B-frames
  averageBitRate,               // bits per second
  realTime,                     // true: tuned for latency
  expectedFrameRate,            // frames per second
  maxKeyFrameInterval,          // frames
  maxKeyFrameIntervalDuration,  // seconds
  maxFrameDelayCount,           // frames an output may lag its input
  fieldCount,                   // 1: progressive
  enableHardwareAcceleration,   // try hardware encoders first
};

std::string_view propertyName(H264Property property);

struct H264PropertySetting {
  H264Property key;
  std::variant<bool, std::int64_t, double, std::string> value;
};

enum class H264EncodeStatus {
  ok,
  // The session cannot go on; a new one has to be made.
  invalidSession,
  failed,
};

class H264EncoderSession {
 public:
  // Called once per submitted picture that was not dropped: the frame id given to encode(), a
  // status (0 = success) and the sample.
  using OutputHandler = std::function<void(std::uint64_t frameId, int status, H264Sample sample)>;

  virtual ~H264EncoderSession() = default;
  // The encoder library's name for the encoder in use.
  virtual std::string name() const = 0;
  virtual bool isHardwareAccelerated() const = 0;
  // Submits one picture, scaled to the session's size as needed; the session may keep a reference
  // to it until the encoder has taken it in. `dropped` is set when the encoder discarded it: its
  // output handler is then never called for it.
  virtual H264EncodeStatus encode(const std::shared_ptr<const QRVPixelBuffer>& picture,
                                  const QRVSampleTiming& timing,
                                  bool forceKeyFrame,
                                  std::uint64_t frameId,
                                  bool& dropped) = 0;
  // Pushes out the output of every picture presented up to `upTo`. An invalid time means all, to
  // the end: the session is about to be freed and takes no picture afterwards.
  virtual void completeFrames(QRVTime upTo) = 0;
};

struct H264SessionResult {
  std::unique_ptr<H264EncoderSession> session;  // empty on failure
  int status = 0;                               // why it failed
  // One entry per requested property: 0, or the error code with which the encoder refused it.
  std::vector<int> propertyStatus;
};

class H264CodecBackend {
 public:
  virtual ~H264CodecBackend() = default;
  virtual H264SessionResult createSession(int width,
                                          int height,
                                          const std::vector<H264PropertySetting>& properties,
                                          H264EncoderSession::OutputHandler output) = 0;
};

// The backend of this platform (libavcodec: hardware encoders first, then libx264).
std::shared_ptr<H264CodecBackend> makePlatformH264Backend();

}  // namespace quorvix

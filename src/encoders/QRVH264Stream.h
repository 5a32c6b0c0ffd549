// The video encoder of the screen stream: frames in, H.264 Annex B access units out, with the
// sequence and picture parameter sets in front of every key frame. Long runs of an unchanged
// picture stop costing encoder time after five repeats; a reset, a new frame size, a new scale and
// a failed session each start over with a key frame. Without a hardware encoder the output is
// kept within 1920 × 1080.
//
// Threads: the public methods may be called from any thread (the frame loop calls encode() on the
// main queue) and never wait for the encoder. All encoding, and every callback, runs on the
// stream's own worker thread, which owns the encoder session. The slow-encoder check runs on the
// main queue. A callback is called exactly once per frame; after destroy() no frame produces
// bytes, and encode() answers nothing at once.
#pragma once

#include <memory>
#include <string_view>

#include "encoders/H264Codec.h"
#include "encoders/QRVStreamEncoder.h"
#include "quorvix/Executor.h"

namespace quorvix {

// The scale that keeps width × height within 1920 × 1080, never above 1; 0 for an empty size.
double CalculateNewScale(int width, int height);

class QRVH264Stream final : public QRVStreamEncoder {
 public:
  static constexpr std::string_view kMimeType = "video/avc";
  static constexpr int kMaximumFramesInFlight = 60;

  struct Environment {
    // The platform's backend when empty.
    std::shared_ptr<H264CodecBackend> backend;
    // A thread of the stream's own when empty. Work queued there keeps the stream's state alive
    // until it has run, so the executor must run or drop what it was given.
    std::shared_ptr<Executor> worker;
    // Runs the slow-encoder check; the main queue when empty.
    std::shared_ptr<Executor> mainQueue;
  };

  explicit QRVH264Stream(Environment environment = {});
  ~QRVH264Stream() override;
  QRVH264Stream(const QRVH264Stream&) = delete;
  QRVH264Stream& operator=(const QRVH264Stream&) = delete;

  std::string_view mimeType() const override { return kMimeType; }
  int maximumFramesInFlight() const override { return kMaximumFramesInFlight; }
  void encode(std::shared_ptr<QRVFrame> frame, Callback callback) override;
  void reset() override;
  void destroy() override;

  // Output size ÷ frame size. Setting a different value remakes a running session.
  void setScale(double scale);
  double scale() const;
  // Asks for a key frame with the next frame submitted.
  void setForceKeyframe(bool force);
  // True while an encoder session exists.
  bool isRunning() const;

 private:
  class Core;
  std::shared_ptr<Core> core_;
};

}  // namespace quorvix

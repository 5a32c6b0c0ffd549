// The simpler frame encoder: each frame becomes one JPEG picture at quality 60, or nothing when
// the picture has not changed since the last one encoded. The picture is encoded at its own size,
// with a restart marker every tile so that only the tiles that changed are compressed again.
//
// Threads: called from one thread at a time (the frame loop's); the callback runs exactly once,
// synchronously, before encode() returns.
#pragma once

#include <memory>
#include <string_view>

#include "encoders/JPEGCompressor.h"
#include "encoders/JPEGTileEncoder.h"
#include "encoders/QRVStreamEncoder.h"

namespace quorvix {

class QRVJPEGStream final : public QRVStreamEncoder {
 public:
  static constexpr std::string_view kMimeType = "image/jpeg";
  static constexpr int kMaximumFramesInFlight = 6;

  // The platform's compressor when empty.
  explicit QRVJPEGStream(std::unique_ptr<JPEGCompressor> compressor = nullptr);
  ~QRVJPEGStream() override;

  std::string_view mimeType() const override { return kMimeType; }
  int maximumFramesInFlight() const override { return kMaximumFramesInFlight; }
  void encode(std::shared_ptr<QRVFrame> frame, Callback callback) override;
  void reset() override;
  void destroy() override;

 private:
  std::unique_ptr<JPEGCompressor> compressor_;
  JPEGTileEncoder tiles_;
  std::shared_ptr<QRVFrame> lastFrame_;
};

}  // namespace quorvix

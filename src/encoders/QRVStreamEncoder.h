// What the stream protocol hands frames to: an encoder that turns each frame into bytes for one
// "frame" message, labelled with its MIME type, or into nothing when there is nothing to send.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "frameloop/QRVFrame.h"

namespace quorvix {

class QRVStreamEncoder {
 public:
  using Bytes = std::vector<std::uint8_t>;
  // Receives the encoded bytes, or nothing when the frame produced none. Each encoder says on
  // which thread it runs; it is called exactly once per frame handed to encode().
  using Callback = std::function<void(std::optional<Bytes>)>;

  virtual ~QRVStreamEncoder() = default;

  virtual std::string_view mimeType() const = 0;
  // How many encoded frames may be sent and not yet acknowledged before the sender holds back.
  virtual int maximumFramesInFlight() const = 0;
  virtual void encode(std::shared_ptr<QRVFrame> frame, Callback callback) = 0;
  // Forgets the last picture, so that the next frame is encoded in full.
  virtual void reset() = 0;
  // Idempotent; also run when the encoder is freed.
  virtual void destroy() = 0;
};

}  // namespace quorvix

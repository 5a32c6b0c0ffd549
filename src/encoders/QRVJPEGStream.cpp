#include "encoders/QRVJPEGStream.h"

namespace quorvix {

QRVJPEGStream::QRVJPEGStream(std::unique_ptr<JPEGCompressor> compressor)
    : compressor_(compressor ? std::move(compressor) : makePlatformJPEGCompressor()),
      tiles_(*compressor_) {}

QRVJPEGStream::~QRVJPEGStream() {
  destroy();
}

void QRVJPEGStream::encode(std::shared_ptr<QRVFrame> frame, Callback callback) {
  if (!callback)
    callback = [](std::optional<Bytes>) {};
  if (!frame || (lastFrame_ && lastFrame_->sameAs(*frame))) {
    callback(std::nullopt);
    return;
  }
  // A picture that cannot be encoded still counts as sent: its bytes are simply empty.
  Bytes bytes;
  auto encoded = tiles_.encode(frame->image(), frame->changes());
  bytes.assign(encoded.begin(), encoded.end());
  lastFrame_ = std::move(frame);
  callback(std::move(bytes));
}

void QRVJPEGStream::reset() {
  lastFrame_.reset();
  tiles_.clear();
}

void QRVJPEGStream::destroy() {
  reset();
}

}  // namespace quorvix

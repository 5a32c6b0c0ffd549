// The I420 form of a stream of pictures, kept from one picture to the next: when a picture says
// where it differs from the one converted before, only those rectangles are converted again, into
// the same planes if nobody holds them any more. The result is always what converting the whole
// picture gives.
//
// Threads: used from one thread at a time (the H.264 stream's worker).
#pragma once

#include <cstdint>
#include <memory>

#include "frameloop/QRVFrame.h"

namespace quorvix {

class I420Canvas {
 public:
  // The frame's I420 form; nullptr for an empty frame or a failed conversion.
  std::shared_ptr<const QRVPixelBuffer> update(const QRVFrame& frame);
  // Lets the planes go.
  void clear();

  // How many pixels the last update() converted.
  std::size_t lastConvertedPixels() const { return lastConvertedPixels_; }

 private:
  std::shared_ptr<std::uint8_t[]> planes_;
  int width_ = 0;
  int height_ = 0;
  std::weak_ptr<const QRVImage> source_;  // what the planes hold
  std::size_t lastConvertedPixels_ = 0;
};

}  // namespace quorvix

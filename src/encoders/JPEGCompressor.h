// The seam between the JPEG stream and a JPEG library: BGRX pictures in, JFIF bytes out.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "frameloop/QRVFrame.h"

namespace quorvix {

class JPEGCompressor {
 public:
  virtual ~JPEGCompressor() = default;
  // The picture as a baseline JPEG; the bytes stay valid until the next call. Empty on failure.
  virtual std::span<const std::uint8_t> compress(const QRVImage& image) = 0;
};

// Quality 60, 4:2:0, baseline Huffman coding, read straight from the picture's rows.
std::unique_ptr<JPEGCompressor> makePlatformJPEGCompressor();

}  // namespace quorvix

// The seam between the JPEG stream and a JPEG library: BGRX rows in, JFIF bytes out.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "frameloop/QRVFrame.h"

namespace quorvix {

class JPEGCompressor {
 public:
  virtual ~JPEGCompressor() = default;
  // A picture `width` pixels wide with one pointer per row (each row width × 4 bytes of BGRX), as a
  // baseline JPEG with a restart marker every `restartInterval` MCUs (0: none). The rows need not
  // be adjacent in memory. The bytes stay valid until the next call; empty on failure.
  virtual std::span<const std::uint8_t> compress(int width,
                                                 std::span<const std::uint8_t* const> rows,
                                                 int restartInterval) = 0;

  // The whole picture without restart markers.
  std::span<const std::uint8_t> compress(const QRVImage& image);
};

// Quality 60, 4:2:0, baseline Huffman coding with the standard tables, so that equal MCUs between
// restart markers always code to equal bytes.
std::unique_ptr<JPEGCompressor> makePlatformJPEGCompressor();

}  // namespace quorvix

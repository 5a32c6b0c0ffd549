// JPEG compression with libjpeg-turbo's libjpeg interface. The TurboJPEG interface of the same
// library (2.1) reads TJ_OPTIMIZE, TJ_ARITHMETIC, TJ_RESTART and TJ_PROGRESSIVE from the
// environment on every call and lets nothing override them, so a host's environment could turn
// the stream progressive or arithmetic-coded; here every parameter is set explicitly and nothing
// is read from the environment. The settings are those TurboJPEG uses for quality 60, 4:2:0 and
// its accurate transform, so the bytes equal its output in a clean environment.
//
// One compressor object and one output buffer are reused across pictures. The buffer is grown to
// the worst case for a picture's size before compressing it, so no picture reallocates midway; the
// destination still grows it if a picture ever exceeded that bound, and never writes past it.
//
// Threads: used from one thread at a time.
#pragma once

#include <vector>

#include "encoders/JPEGCompressor.h"

struct jpeg_compress_struct;
struct jpeg_destination_mgr;

namespace quorvix {

class LibjpegCompressor final : public JPEGCompressor {
 public:
  static constexpr int kQuality = 60;

  LibjpegCompressor();
  ~LibjpegCompressor() override;
  LibjpegCompressor(const LibjpegCompressor&) = delete;
  LibjpegCompressor& operator=(const LibjpegCompressor&) = delete;

  using JPEGCompressor::compress;
  std::span<const std::uint8_t> compress(int width,
                                         std::span<const std::uint8_t* const> rows,
                                         int restartInterval) override;

  // The worst-case size of a 4:2:0 JPEG of that size, as TurboJPEG bounds it.
  static std::size_t bufferBound(int width, int height);
  std::size_t capacity() const { return buffer_.size(); }

 private:
  struct State;
  std::unique_ptr<State> state_;
  std::vector<std::uint8_t> buffer_;
};

}  // namespace quorvix

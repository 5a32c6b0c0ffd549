// Pictures to encode and independent decoders to check what the encoders wrote: libavcodec's own
// H.264 decoder and TurboJPEG's decompressor.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "frameloop/QRVFrame.h"

namespace quorvix::test {

// A desktop-like picture: light background, rows of dark glyph-sized marks, a coloured title bar
// and a block whose place depends on `step`, so consecutive steps differ a little.
std::shared_ptr<const QRVImage> desktopPicture(int width, int height, int step);
std::shared_ptr<QRVFrame> desktopFrame(int width, int height, int step);

// Peak signal-to-noise ratio in dB of two equally long sample runs; 99 when identical.
double psnr(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b);

struct DecodedPicture {
  int width = 0;
  int height = 0;
  bool keyFrame = false;
  int colorspace = 0;
  int colorRange = 0;
  std::vector<std::uint8_t> y;  // packed rows, width × height
};

struct DecodedVideo {
  std::vector<DecodedPicture> pictures;
  int errors = 0;  // access units the decoder refused
};

// Decodes each access unit as one packet with libavcodec's H.264 decoder, then drains it.
DecodedVideo decodeH264(const std::vector<std::vector<std::uint8_t>>& accessUnits);

// NAL unit types of an Annex B buffer, in order.
std::vector<int> nalTypes(std::span<const std::uint8_t> annexB);

// The coding tools the first picture parameter set of an Annex B buffer turns on; nothing when it
// has none or uses slice groups (which no encoder here writes).
struct PictureParameterTools {
  bool cabac = false;         // entropy_coding_mode_flag; CAVLC when false
  bool transform8x8 = false;  // transform_8x8_mode_flag, a High profile tool
};
std::optional<PictureParameterTools> pictureParameterTools(std::span<const std::uint8_t> annexB);

struct DecodedJPEG {
  int width = 0;
  int height = 0;
  int subsampling = -1;            // TJSAMP_*
  std::vector<std::uint8_t> bgrx;  // packed rows
};
std::optional<DecodedJPEG> decodeJPEG(std::span<const std::uint8_t> jpeg);

// The luma plane of the picture as the frames' I420 form makes it, cropped or scaled with a box
// filter to width × height.
std::vector<std::uint8_t> referenceLuma(const QRVFrame& frame, int width, int height);

}  // namespace quorvix::test

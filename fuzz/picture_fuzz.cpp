// Drawings' pictures as the agent's console sends them: any bytes, decoded as PNG or JPEG within
// the limits. Nothing may crash or allocate past the pixel limit.
#include <cstdint>
#include <cstdlib>

#include "annotations/linux/PictureDecoder.h"
#include "quorvix/Log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvix;
  static const bool quiet = (setStderrLogging(false), true);
  (void)quiet;
  if (auto picture = decodePicture(data, size)) {
    if (picture->width <= 0 || picture->height <= 0 ||
        static_cast<std::int64_t>(picture->width) * picture->height > kMaxPicturePixels ||
        picture->pixels.size() != static_cast<std::size_t>(picture->width) * picture->height)
      std::abort();
  }
  return 0;
}

// Pictures the agent's console sends (drawings): PNG or JPEG, recognised by their first bytes,
// decoded within limits on bytes and pixels so that a hostile picture cannot claim the memory or
// time of the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quorvix {

struct QRVPicture {
  int width = 0;
  int height = 0;
  // Premultiplied ARGB, one 32-bit word per pixel in native order, rows packed.
  std::vector<std::uint32_t> pixels;
};

inline constexpr std::size_t kMaxPictureBytes = 16u << 20;
inline constexpr int kMaxPictureSide = 16384;
// Two 4K screens' worth.
inline constexpr std::int64_t kMaxPicturePixels = 2LL * 3840 * 2160;

// Nothing (with a log line naming the reason) for anything that is not a PNG or JPEG within the
// limits, or that fails to decode.
std::optional<QRVPicture> decodePicture(const std::uint8_t* bytes, std::size_t size);

}  // namespace quorvix

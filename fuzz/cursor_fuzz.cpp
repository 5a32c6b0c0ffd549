// A cursor picture as the display server hands it over (any size, hot spot and pixels), drawn at
// any pointer position into a picture of any screen at any scale, with any buttons held. Nothing
// may crash or write outside the picture (run under the sanitizers).
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "frameloop/CursorOverlay.h"

namespace {

// Reads fixed-size fields from the front of the input, zeros once it runs out.
struct Reader {
  const std::uint8_t* data;
  std::size_t size;

  template <class T>
  T next() {
    T value{};
    const std::size_t n = std::min(sizeof value, size);
    std::memcpy(&value, data, n);
    data += n;
    size -= n;
    return value;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvix;
  Reader in{data, size};
  const int width = in.next<std::uint16_t>() % 600;
  const int height = in.next<std::uint16_t>() % 600;
  const int hotX = in.next<std::uint16_t>();
  const int hotY = in.next<std::uint16_t>();
  const QRVScreenRect screen{in.next<std::int16_t>(), in.next<std::int16_t>(),
                             in.next<std::uint8_t>() + 1, in.next<std::uint8_t>() + 1};
  const int pictureWidth = in.next<std::uint8_t>() % 128 + 1;
  const int pictureHeight = in.next<std::uint8_t>() % 128 + 1;
  const QRVPointerState pointer{in.next<std::int16_t>(), in.next<std::int16_t>(),
                                in.next<std::uint8_t>() & 3u, 1};
  // The pixels the server claims to send: what is left, a word at a time.
  std::vector<std::uint32_t> pixels(in.size / 4);
  if (!pixels.empty())
    std::memcpy(pixels.data(), in.data, pixels.size() * 4);
  // The count is allowed to disagree with the size: that is refused.
  auto cursor = QRVCursorImage::fromServer(width, height, hotX, hotY, pixels.data(), pixels.size());
  if (!cursor)
    cursor = QRVCursorImage::builtinArrow();
  std::vector<std::uint8_t> picture(std::size_t(pictureWidth) * pictureHeight * 4);
  drawCursor(picture.data(), pictureWidth, pictureHeight, screen, *cursor, pointer);
  return 0;
}

// What the capture tests compare frames with: pixels, a known pattern, and the RandR commands
// that shrink the test server and put it back.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "frameloop/QRVFrame.h"
#include "support/X11TestDisplay.h"

namespace quorvix::test {

inline constexpr const char* kFullSize = "xrandr --output screen --mode 1920x1080 --fb 1920x1080";

// 0xRRGGBB of a frame's pixel.
inline std::uint32_t pixelAt(const QRVFrame& frame, int x, int y) {
  auto image = frame.image();
  const std::uint8_t* p = image->bytes().data() + (std::size_t(y) * image->width() + x) * 4;
  return std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];
}

inline bool near(std::uint32_t a, std::uint32_t b, int tolerance) {
  for (int shift = 0; shift < 24; shift += 8)
    if (std::abs(int((a >> shift) & 0xff) - int((b >> shift) & 0xff)) > tolerance)
      return false;
  return true;
}

// 256 × 128: four solid quadrants on the left half, a gradient on the right.
inline std::uint32_t testPattern(int x, int y) {
  constexpr std::uint32_t kQuadrants[] = {0xff0000, 0x00ff00, 0x0000ff, 0xffffff};
  if (x < 128)
    return kQuadrants[(y / 64) * 2 + x / 64];
  return std::uint32_t((x - 128) * 2) << 16 | std::uint32_t(y * 2) << 8 | 0x80;
}

// Pixels of the pattern placed at (x, y) in a full-scale frame that differ from it.
inline int patternMismatches(const QRVFrame& frame, int x, int y) {
  int wrong = 0;
  for (int row = 0; row < 128; ++row)
    for (int col = 0; col < 256; ++col)
      wrong += pixelAt(frame, x + col, y + row) != testPattern(col, row);
  return wrong;
}

// The same at half scale, the pattern at (x, y) in the frame's pixels: solid areas exact away
// from their edges, the gradient within 3 levels (the filter averages neighbours).
inline int halfPatternMismatches(const QRVFrame& half, int x, int y) {
  int wrong = 0;
  for (int row = 1; row < 63; ++row)
    for (int col = 1; col < 127; ++col) {
      const std::uint32_t expected = testPattern(2 * col, 2 * row);
      if (col < 64) {
        if (col != 31 && col != 32 && row != 31 && row != 32 && col != 63)
          wrong += pixelAt(half, x + col, y + row) != expected;
      } else if (col > 64) {
        wrong += !near(pixelAt(half, x + col, y + row), expected, 3);
      }
    }
  return wrong;
}

// Shrinks the test server to 1600 × 900. Xvfb refuses a frame buffer smaller than the CRTC's
// mode, so the mode shrinks with it. True when it did.
inline bool shrinkTestDisplay() {
  runOnTestDisplay("xrandr --newmode 1600x900 0 1600 1600 1600 1600 900 900 900 900 2>/dev/null");
  runOnTestDisplay("xrandr --addmode screen 1600x900 2>/dev/null");
  return runOnTestDisplay("xrandr --output screen --mode 1600x900 --fb 1600x900") == 0;
}

}  // namespace quorvix::test

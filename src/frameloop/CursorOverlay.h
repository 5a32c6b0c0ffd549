// Drawing the mouse cursor and the click ring into a captured BGRX picture. Pure functions over
// plain buffers; callable from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "frameloop/QRVScreen.h"

namespace quorvix {

// A cursor picture: premultiplied ARGB words (alpha in the top byte), rows packed.
struct QRVCursorImage {
  int width = 0;
  int height = 0;
  int hotX = 0;
  int hotY = 0;
  std::vector<std::uint32_t> argb;

  bool isValid() const {
    return width > 0 && height > 0 && argb.size() == std::size_t(width) * height;
  }
  // A plain black arrow with a white outline, for when the display will not hand out its cursor.
  static std::shared_ptr<const QRVCursorImage> builtinArrow();

  // Sides above this are refused: cursors are small, and the picture comes from another client.
  static constexpr int kMaxSide = 512;
  // A cursor from the display server's answer: nullptr when a side is 0 or above kMaxSide or
  // `count` differs from width × height. The hot spot is clamped into the picture.
  static std::shared_ptr<const QRVCursorImage> fromServer(int width,
                                                          int height,
                                                          int hotX,
                                                          int hotY,
                                                          const std::uint32_t* pixels,
                                                          std::size_t count);
};

// The pointer as a capture sees it, in root coordinates.
struct QRVPointerState {
  static constexpr unsigned kLeftButton = 1;
  static constexpr unsigned kRightButton = 2;

  int x = 0;
  int y = 0;
  unsigned buttons = 0;  // kLeftButton | kRightButton
  std::uint32_t cursorSerial = 0;

  friend bool operator==(const QRVPointerState&, const QRVPointerState&) = default;
};

// Where the cursor lands in a picture of `screen` made at `scale`.
struct CursorPlacement {
  double x = 0;  // top left of the cursor picture
  double y = 0;
  double ratio = 1;  // picture pixels per screen pixel
  double ringX = 0;  // top left of the click ring's square
  double ringY = 0;
  double ringSide = 0;
};

// nullopt-like: returns false when the pointer is outside the screen, which draws nothing.
bool placeCursor(const QRVScreenRect& screen,
                 int pictureWidth,
                 const QRVCursorImage& cursor,
                 const QRVPointerState& pointer,
                 CursorPlacement& out);

// The part of a width × height picture of `screen` that drawCursor() may change, in picture
// pixels; empty when it draws nothing. What lies there is all a caller must keep to take the
// cursor out again.
QRVScreenRect cursorBounds(int width,
                           int height,
                           const QRVScreenRect& screen,
                           const QRVCursorImage& cursor,
                           const QRVPointerState& pointer);

// Draws the cursor, then the click ring while the left or right button is down (white with the
// left one, else green, each inside a black stroke), into `bgrx` (width × height, packed rows),
// a picture of `screen` whose width is `width`.
void drawCursor(std::uint8_t* bgrx,
                int width,
                int height,
                const QRVScreenRect& screen,
                const QRVCursorImage& cursor,
                const QRVPointerState& pointer);

}  // namespace quorvix

// Rebuilding the pixels that the library's own overlay windows cover in a picture of the screen:
// rectangle arithmetic, copying what lies beneath, and the root background where nothing does.
// Free of display server types; the platform code fetches the pixels and calls these.
// Pure functions: any thread.
#pragma once

#include <cstdint>
#include <span>

#include "frameloop/QRVScreen.h"

namespace quorvix {

// Packed BGRX rows (stride = width × 4) covering `rect`, in root coordinates.
struct PixelView {
  std::uint8_t* data = nullptr;
  QRVScreenRect rect;
};
struct ConstPixelView {
  const std::uint8_t* data = nullptr;
  QRVScreenRect rect;
};

QRVScreenRect intersection(const QRVScreenRect& a, const QRVScreenRect& b);
bool containsRect(const QRVScreenRect& outer, const QRVScreenRect& inner);

// Copies `src`, packed 32-bit rows of `where`, into `dst` where the two overlap. With
// `premultipliedAlpha` (a 32-bit window) it is blended over what `dst` holds, as a compositor does.
void drawPixels(PixelView dst,
                const QRVScreenRect& where,
                const std::uint8_t* src,
                bool premultipliedAlpha);

// Root backgrounds repeat from the root's origin: a solid colour every pixel, the server's default
// weave every 4. Copying from this far apart keeps any tile whose period divides it exact.
inline constexpr int kBackgroundTile = 8;
// How many tiles beyond a hole's edge a background source is looked for.
inline constexpr int kBackgroundSearchTiles = 8;

// Fills `hole` in `dst` with the root background as `reference` shows it nearby: from pixels a
// whole number of tiles away that lie in no `hidden` rectangle (every mapped window, the hole's
// own included). Where none is near, from the nearest pixel outside the hole (edge replication).
// Tiles wholly inside one of `covered` (opaque windows, drawn over it next) are left alone.
// `dst` and `reference` may be the same picture.
void replicateBackground(PixelView dst,
                         const QRVScreenRect& hole,
                         ConstPixelView reference,
                         std::span<const QRVScreenRect> hidden,
                         std::span<const QRVScreenRect> covered = {});

}  // namespace quorvix

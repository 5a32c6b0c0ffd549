// A position as fractions (0 to 1) of the shared screen's width and height, origin at the top
// left, or a difference of two such positions.
#pragma once

namespace quorvix {

struct QRVPoint {
  double x = 0;
  double y = 0;

  friend QRVPoint operator-(QRVPoint a, QRVPoint b) { return {a.x - b.x, a.y - b.y}; }
  friend bool operator==(const QRVPoint&, const QRVPoint&) = default;
};

}  // namespace quorvix

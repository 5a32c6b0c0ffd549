// A point, or the difference of two. The agent's positions are fractions (0 to 1) of the shared
// screen's width and height, origin at the top left.
#pragma once

namespace quorvix {

struct QRVPoint {
  double x = 0;
  double y = 0;

  friend QRVPoint operator-(QRVPoint a, QRVPoint b) { return {a.x - b.x, a.y - b.y}; }
  friend bool operator==(const QRVPoint&, const QRVPoint&) = default;
};

}  // namespace quorvix

// A screen as the capture sources and the frame loop see it: a rectangle of the desktop in root
// coordinates (pixels; the backing scale is always 1 here), its refresh rate and a name for the
// log. Immutable and shared between threads.
#pragma once

#include <memory>
#include <string>

namespace quorvix {

struct QRVScreenRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;

  bool contains(int px, int py) const {
    return px >= x && py >= y && px < x + width && py < y + height;
  }
  bool isEmpty() const { return width <= 0 || height <= 0; }
  friend bool operator==(const QRVScreenRect&, const QRVScreenRect&) = default;
};

class QRVScreen {
 public:
  static constexpr double kUnknownRefreshRate = 60.0;

  // A refresh rate that is not positive and finite (Xvfb reports 0) is taken as 60 Hz.
  QRVScreen(std::string name, QRVScreenRect frame, double refreshRate);

  const std::string& name() const { return name_; }
  const QRVScreenRect& frame() const { return frame_; }
  double refreshRate() const { return refreshRate_; }
  // "name WxH+X+Y @R Hz", for log lines.
  std::string description() const;

  // Desktop screens here have square corners.
  static double mainScreenDisplayCornerRadiusOrZero() { return 0.0; }

  friend bool operator==(const QRVScreen&, const QRVScreen&) = default;

 private:
  std::string name_;
  QRVScreenRect frame_;
  double refreshRate_;
};

// Whether two possibly empty screens are the same screen.
inline bool sameScreen(const std::shared_ptr<const QRVScreen>& a,
                       const std::shared_ptr<const QRVScreen>& b) {
  return a == b || (a && b && *a == *b);
}

// "(none)" for an empty screen, else its description.
std::string describe(const std::shared_ptr<const QRVScreen>& screen);

}  // namespace quorvix

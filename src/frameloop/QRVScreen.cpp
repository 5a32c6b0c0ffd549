#include "frameloop/QRVScreen.h"

#include <cmath>

#include <fmt/format.h>

namespace quorvix {

QRVScreen::QRVScreen(std::string name, QRVScreenRect frame, double refreshRate)
    : name_(std::move(name)),
      frame_(frame),
      refreshRate_(std::isfinite(refreshRate) && refreshRate > 0 ? refreshRate
                                                                 : kUnknownRefreshRate) {}

std::string QRVScreen::description() const {
  return fmt::format("{} {}x{}+{}+{} @{:.2f} Hz", name_, frame_.width, frame_.height, frame_.x,
                     frame_.y, refreshRate_);
}

std::string describe(const std::shared_ptr<const QRVScreen>& screen) {
  return screen ? screen->description() : "(none)";
}

}  // namespace quorvix

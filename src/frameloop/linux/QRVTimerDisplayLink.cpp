#include "frameloop/linux/QRVTimerDisplayLink.h"

#include <cmath>

#include "utils/Logging.h"

namespace quorvix {
namespace {

constexpr std::string_view kCategory = "QRVTimerDisplayLink";
constexpr double kMaxRefreshRate = 1000.0;

double knownOrDefault(double refreshRate) {
  if (!std::isfinite(refreshRate) || refreshRate <= 0 || refreshRate > kMaxRefreshRate)
    return QRVTimerDisplayLink::kUnknownRefreshRate;
  return refreshRate;
}

}  // namespace

QRVTimerDisplayLink::QRVTimerDisplayLink(std::shared_ptr<Executor> executor,
                                         double refreshRate,
                                         Task onVsync)
    : executor_(std::move(executor)),
      state_(std::make_shared<State>(State{knownOrDefault(refreshRate), std::move(onVsync)})) {}

QRVTimerDisplayLink::~QRVTimerDisplayLink() {
  invalidate();
}

DisplayLinkFactory QRVTimerDisplayLink::factory(std::shared_ptr<Executor> executor,
                                                double refreshRate) {
  return
      [executor = std::move(executor), refreshRate](Task onVsync) -> std::unique_ptr<DisplayLink> {
        return std::make_unique<QRVTimerDisplayLink>(executor, refreshRate, std::move(onVsync));
      };
}

int QRVTimerDisplayLink::preferredFrameRate() const {
  return state_->preferredFrameRate;
}

void QRVTimerDisplayLink::setPreferredFrameRate(int rate) {
  state_->preferredFrameRate = rate;
}

double QRVTimerDisplayLink::refreshRate() const {
  return state_->refreshRate;
}

void QRVTimerDisplayLink::begin() {
  std::weak_ptr<State> weak = state_;
  // RepeatingTimer ignores a second start, so a running link stays as it is.
  timer_.start(executor_, seconds(1.0 / state_->refreshRate), [weak] {
    if (auto state = weak.lock())
      state->tick();
  });
}

void QRVTimerDisplayLink::invalidate() {
  timer_.stop();
}

void QRVTimerDisplayLink::State::tick() {
  ++ticksInCurrentInterval;
  const double ticksTarget = refreshRate / preferredFrameRate;
  if (!std::isfinite(ticksTarget))
    QRV_FATAL(kCategory, "the vsync tick target is not finite");
  // Every tick fires when the wanted rate is at or above the display's (a target of 0 or 1).
  if (ticksInCurrentInterval < static_cast<int>(ticksTarget))
    return;
  ticksInCurrentInterval = 0;
  if (onVsync)
    onVsync();
}

}  // namespace quorvix

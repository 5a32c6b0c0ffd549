// What the window source needs of the display server: one picture of the host's own windows over
// the desktop background, with the cursor drawn in. A capturer is used by one thread at a time
// (the window source's capture thread, under its context lock).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "frameloop/QRVFrame.h"
#include "frameloop/QRVScreen.h"

namespace quorvix {

// Windows the host registered as its own, beside those found by process. Thread-safe.
class QRVWindowRegistry {
 public:
  void add(std::uint32_t window);
  void remove(std::uint32_t window);
  bool contains(std::uint32_t window) const;
  // Bumped on every change, so that cached answers can be dropped.
  std::uint64_t generation() const;

 private:
  mutable std::mutex mutex_;
  std::set<std::uint32_t> windows_;
  std::uint64_t generation_ = 0;
};

class WindowCapturer {
 public:
  virtual ~WindowCapturer() = default;

  // The host's windows on `screen` (nullptr: the main screen) in stacking order over the
  // background, with the cursor, at `scale`; nullptr when nothing could be read.
  virtual std::shared_ptr<const QRVImage> capture(const std::shared_ptr<const QRVScreen>& screen,
                                                  double scale) = 0;
  // Forgets the desktop window found so far; the next capture looks again.
  virtual void resetBackground() = 0;
  // Lets go of the drawing buffer kept between captures of one size.
  virtual void releaseContext() = 0;
  // Whether the connection broke; a lost capturer is dropped and a new one made later.
  virtual bool lost() const = 0;

  // A capturer on a new connection to the X display ("" = $DISPLAY); nullptr when it cannot be
  // reached or lacks the Composite extension.
  static std::unique_ptr<WindowCapturer> createX11(
      const std::string& displayName,
      std::shared_ptr<const QRVWindowRegistry> registry);
};

}  // namespace quorvix

// A strip of black and white blocks at the top-left corner of the screen that shows the wall
// clock, so that whoever receives a picture of the screen can tell how old it is: the age of a
// picture is the time it arrived minus the time it shows. Used by the benchmarks only.
//
// Layout: kBits blocks of kBlock x kBlock pixels in two rows, the second the inverse of the
// first (a bit is 1 when its block in the first row is brighter than the one below), holding
// the wall clock in milliseconds modulo 2^kBits. Redrawn every 5 ms from its own thread, each
// time with a single copy, so that a capture never sees half of two values.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace quorvix::bench {

class Timecode {
 public:
  static constexpr int kBits = 24;
  static constexpr int kBlock = 16;

  // Opens its own connection to `display` (empty: $DISPLAY); does nothing when that fails.
  explicit Timecode(const std::string& display);
  ~Timecode();
  Timecode(const Timecode&) = delete;
  Timecode& operator=(const Timecode&) = delete;

  bool ok() const { return thread_.joinable(); }

 private:
  void run();

  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::string display_;
};

}  // namespace quorvix::bench

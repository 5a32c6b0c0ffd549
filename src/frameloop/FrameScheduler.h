// The contract between the frame loop and what drives its passes. Both sides run on the main
// queue.
#pragma once

namespace quorvix {

// What one pass of the loop achieved, which sets the pace of the next ones.
enum class ScheduleResult {
  regular,    // a frame was handed on, or the loop stopped itself
  retrySoon,  // nothing could be produced this time
};

class FrameSchedulerDelegate {
 public:
  virtual ~FrameSchedulerDelegate() = default;
  // One pass of the loop.
  virtual ScheduleResult performFrameLoopTasks() = 0;
};

class FrameScheduler {
 public:
  virtual ~FrameScheduler() = default;
  virtual void start() = 0;
};

}  // namespace quorvix

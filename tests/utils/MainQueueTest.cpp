// The main queue's threading rules, the invokers built on them, the repeating timer and the
// per-unit loggers.
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "../support/ManualExecutor.h"
#include "quorvix/Log.h"
#include "quorvix/QRVError.h"
#include "utils/Invokers.h"
#include "utils/Logging.h"
#include "utils/RepeatingTimer.h"

namespace quorvix {
namespace {

TEST(MainQueueTest, InvokersRunInlineOnMainAndHopSynchronouslyFromElsewhere) {
  setMainQueue(makeThreadExecutor("test-main"));
  auto queue = mainQueue();

  // From another thread: the invoker returns only after the callback ran on the main queue.
  bool ran = false;
  InvokeForError(std::function<void(std::optional<QRVError>)>([&](auto) {
                   EXPECT_TRUE(queue->isCurrent());
                   ran = true;
                 }),
                 std::optional<QRVError>());
  EXPECT_TRUE(ran);

  // On the main queue: inline, before the invoker returns, not after queued work.
  std::promise<std::vector<int>> order;
  std::vector<int> seen;
  queue->post([&] {
    queue->post([&seen] { seen.push_back(2); });
    InvokeForBool(std::function<void(bool)>([&](bool) { seen.push_back(1); }), true);
    // InvokeForRequestResponse never runs inline, even on the main queue.
    InvokeForRequestResponse(std::function<void(int, int, int)>([&](int, int, int) {
                               seen.push_back(3);
                               order.set_value(seen);
                             }),
                             0, 0, 0);
    seen.push_back(0);
  });
  EXPECT_EQ(order.get_future().get(), (std::vector<int>{1, 0, 2, 3}));

  // An absent callback is a no-op.
  InvokeForBool(std::function<void(bool)>(), true);
  queue.reset();
  setMainQueue(nullptr);
}

TEST(MainQueueTest, ASyncHopReturnsWhenTheQueueGoesAway) {
  auto manual = std::make_shared<test::ManualExecutor>();
  setMainQueue(manual);
  std::atomic<bool> ran{false};
  std::thread other([&] { runOnMainSync([&] { ran = true; }); });
  // Wait for the hop to arrive, then drop the queue with the task unrun.
  while (manual->pendingCount() == 0)
    std::this_thread::yield();
  setMainQueue(nullptr);
  manual.reset();
  other.join();
  EXPECT_FALSE(ran);
}

// Sets a promise when destroyed: shows when a queued task has been let go.
struct ReleaseMarker {
  std::shared_ptr<std::promise<void>> released = std::make_shared<std::promise<void>>();
  ReleaseMarker() = default;
  ReleaseMarker(ReleaseMarker&&) = default;
  ~ReleaseMarker() {
    if (released)
      released->set_value();
  }
};

TEST(MainQueueTest, AnExecutorReleasedByItsOwnTaskOutlivesTheTask) {
  auto slot = std::make_shared<std::shared_ptr<Executor>>(makeThreadExecutor("test-self"));
  std::promise<void> go, ranOwn;
  std::shared_future<void> started = go.get_future().share();
  ReleaseMarker marker;
  auto markerReleased = marker.released->get_future();
  // The first task drops the last reference on the executor's own thread; the second never runs
  // and is let go with the queue, which must wait until the first task has returned.
  (*slot)->post([slot, started, &ranOwn] {
    started.wait();
    slot->reset();
    ranOwn.set_value();
  });
  (*slot)->post([marker = std::make_shared<ReleaseMarker>(std::move(marker))] {});
  std::weak_ptr<Executor> weak = *slot;
  go.set_value();
  ASSERT_EQ(ranOwn.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(markerReleased.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(weak.expired());
}

TEST(ManualExecutorTest, RunsDueTasksInDeadlineOrder) {
  test::ManualExecutor ex;
  std::vector<std::string> log;
  ex.postAfter(seconds(2), [&] { log.push_back("b@2"); });
  ex.postAfter(seconds(1), [&] {
    log.push_back("a@1");
    // Posted while running; due within the same advance.
    ex.postAfter(seconds(0.5), [&] { log.push_back("c@1.5"); });
  });
  ex.post([&] { log.push_back("now1"); });
  ex.post([&] { log.push_back("now2"); });
  auto cancelled = ex.postAfter(seconds(1.5), [&] { log.push_back("never"); });
  cancelled.cancel();
  EXPECT_EQ(ex.pendingCount(), 4u);
  EXPECT_EQ(ex.advanceSeconds(1.9), 4u);
  EXPECT_EQ(log, (std::vector<std::string>{"now1", "now2", "a@1", "c@1.5"}));
  EXPECT_EQ(ex.nextDelay(), seconds(0.1));
  ex.advanceSeconds(0.1);
  EXPECT_EQ(log.back(), "b@2");
  EXPECT_EQ(ex.pendingCount(), 0u);
}

TEST(RepeatingTimerTest, TicksUntilStoppedAndNeverTwice) {
  auto ex = std::make_shared<test::ManualExecutor>();
  int ticks = 0;
  RepeatingTimer timer;
  EXPECT_TRUE(timer.start(ex, seconds(1), [&] { ++ticks; }));
  EXPECT_FALSE(timer.start(ex, seconds(1), [&] { ticks += 100; }));
  ex->advanceSeconds(3.5);
  EXPECT_EQ(ticks, 3);
  timer.stop();
  timer.stop();
  ex->advanceSeconds(3);
  EXPECT_EQ(ticks, 3);
  EXPECT_EQ(ex->pendingCount(), 0u);

  // A tick may stop its own timer.
  timer.start(ex, seconds(1), [&] {
    ++ticks;
    timer.stop();
  });
  ex->advanceSeconds(5);
  EXPECT_EQ(ticks, 4);
}

TEST(LoggingTest, OneLoggerPerUnitAndHostHandlersSeeEveryLine) {
  EXPECT_EQ(QRV_LOGGER_FOR("UnitA"), QRV_LOGGER_FOR("UnitA"));
  EXPECT_NE(QRV_LOGGER_FOR("UnitA"), QRV_LOGGER_FOR("UnitB"));

  std::vector<std::string> lines;
  int id = addLogHandler([&](const LogRecord& r) {
    lines.push_back(std::string(r.subsystem) + "/" + std::string(r.category) + ": " +
                    std::string(r.message));
  });
  setStderrLogging(false);
  QRV_LOGGER_FOR("UnitA")->debug("Initialised Quorvix SDK {}", "3.13.2");
  QRV_LOGGER_FOR("UnitB")->error("Error: Cannot set capabilities after Quorvi is started");
  removeLogHandler(id);
  QRV_LOGGER_FOR("UnitA")->debug("not seen");
  setStderrLogging(true);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "io.quorvi/UnitA: Initialised Quorvix SDK 3.13.2",
                       "io.quorvi/UnitB: Error: Cannot set capabilities after Quorvi is started"}));
}

// Runs `f` on a thread of its own and waits a bounded time for it. A deadlock leaves the logging
// lock held for good, so the process ends rather than hanging every test after it.
void finishesWithoutDeadlock(const std::function<void()>& f) {
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  std::thread([f, done] {
    f();
    done->set_value();
  }).detach();
  if (finished.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
    std::fprintf(stderr, "deadlocked in a log handler\n");
    std::_Exit(1);
  }
}

TEST(LoggingTest, HandlersMayRemoveThemselvesChangeLevelsAndLog) {
  setStderrLogging(false);
  auto log = QRV_LOGGER_FOR("Reentrant");
  std::vector<std::string> seen;
  int watcher = addLogHandler([&](const LogRecord& r) { seen.emplace_back(r.message); });

  int removerCalls = 0;
  int remover = 0;
  remover = addLogHandler([&](const LogRecord&) {
    ++removerCalls;
    removeLogHandler(remover);
  });
  bool levelChanged = false;
  int leveller = addLogHandler([&](const LogRecord&) {
    setStderrLogLevel(LogLevel::warn);
    setStderrLogging(false);
    levelChanged = true;
  });
  bool echoed = false;
  int echo = addLogHandler([&](const LogRecord& r) {
    if (!echoed && r.message == "first") {
      echoed = true;
      log->debug("echo of {}", r.message);
    }
  });

  finishesWithoutDeadlock([&] {
    log->debug("first");
    log->debug("second");
  });
  EXPECT_EQ(removerCalls, 1) << "removed itself on the first line";
  EXPECT_TRUE(levelChanged);
  EXPECT_EQ(seen, (std::vector<std::string>{"first", "echo of first", "second"}));

  for (int id : {watcher, leveller, echo})
    removeLogHandler(id);
  setStderrLogLevel(LogLevel::error);
  setStderrLogging(true);
}

}  // namespace
}  // namespace quorvix

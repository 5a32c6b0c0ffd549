#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "../support/LogCapture.h"
#include "../support/ManualExecutor.h"
#include "frameloop/DisplayLinkFrameScheduler.h"
#include "frameloop/FrameRateSample.h"
#include "frameloop/QRVFrameLoop.h"
#include "frameloop/linux/QRVTimerDisplayLink.h"

namespace quorvix {
namespace {

using Events = std::vector<std::string>;

std::shared_ptr<QRVFrame> makeFrame() {
  return std::make_shared<QRVFrame>(QRVImage::create(2, 2, std::vector<std::uint8_t>(16, 0x80)));
}

class FakeSource final : public QRVFrameSource {
 public:
  explicit FakeSource(Events& events) : events_(events) {}

  void capturingWillStart() override { ++starts; }
  void capturingWillStop() override { ++stops; }
  bool isNewFrameAvailable() override {
    ++availabilityChecks;
    return newFrameAvailable;
  }
  std::shared_ptr<QRVFrame> newFrame(double scale) override {
    events_.push_back("newFrame " + std::to_string(scale));
    return next;
  }
  std::shared_ptr<QRVFrame> lastFrame() override {
    ++lastFrameCalls;
    return last;
  }

  bool newFrameAvailable = true;
  std::shared_ptr<QRVFrame> next = makeFrame();
  std::shared_ptr<QRVFrame> last;
  int starts = 0;
  int stops = 0;
  int availabilityChecks = 0;
  int lastFrameCalls = 0;

 private:
  Events& events_;
};

class FakeDelegate final : public QRVFrameLoopDelegate {
 public:
  explicit FakeDelegate(test::ManualExecutor& executor) : executor_(executor) {}

  bool shouldCaptureFrame() override {
    ++passes;
    return capture;
  }
  double scale() override { return 0.5; }
  void handleFrame(std::shared_ptr<QRVFrame> frame, std::function<void()> callback) override {
    handed.push_back({frame, frame->timing(), nowMs()});
    callback();
  }

  std::int64_t nowMs() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               executor_.wallNow().time_since_epoch())
        .count();
  }

  struct Handed {
    std::shared_ptr<QRVFrame> frame;
    QRVSampleTiming timing;
    std::int64_t at;
  };
  bool capture = true;
  int passes = 0;
  std::vector<Handed> handed;

 private:
  test::ManualExecutor& executor_;
};

class RecordingObserver final : public QRVFrameLoopObserver {
 public:
  RecordingObserver(Events& events, std::string name) : events_(events), name_(std::move(name)) {}
  void willCaptureFrame() override {
    events_.push_back(name_ + " will");
    if (onWill)
      onWill();
  }
  void didCaptureFrame(const std::shared_ptr<QRVFrame>& frame) override {
    events_.push_back(name_ + (frame ? " did frame" : " did nothing"));
  }
  std::function<void()> onWill;

 private:
  Events& events_;
  std::string name_;
};

// Passes the link through, recording every rate set on it.
class CountingLink final : public DisplayLink {
 public:
  CountingLink(std::unique_ptr<DisplayLink> inner, std::vector<int>& sets)
      : inner_(std::move(inner)), sets_(sets) {}
  int preferredFrameRate() const override { return inner_->preferredFrameRate(); }
  void setPreferredFrameRate(int rate) override {
    sets_.push_back(rate);
    inner_->setPreferredFrameRate(rate);
  }
  void begin() override { inner_->begin(); }
  void invalidate() override { inner_->invalidate(); }

 private:
  std::unique_ptr<DisplayLink> inner_;
  std::vector<int>& sets_;
};

class QRVFrameLoopTest : public ::testing::Test {
 protected:
  QRVFrameLoopTest() {
    // A display of unknown rate: the link ticks at 60 Hz.
    auto timerLinks = QRVTimerDisplayLink::factory(executor, 0);
    loop = QRVFrameLoop::create(
        delegate, {.executor = executor, .displayLinkFactory = [this, timerLinks](Task onVsync) {
                     ++linksMade;
                     return std::make_unique<CountingLink>(timerLinks(std::move(onVsync)),
                                                           rateSets);
                   }});
    loop->setSource(source);
  }
  ~QRVFrameLoopTest() override { loop->stop(); }

  // Passes during one second of virtual time.
  int passesInOneSecond() {
    const int before = delegate->passes;
    executor->advanceSeconds(1);
    return delegate->passes - before;
  }

  test::LogCapture logs;
  std::shared_ptr<test::ManualExecutor> executor = std::make_shared<test::ManualExecutor>();
  std::shared_ptr<FakeDelegate> delegate = std::make_shared<FakeDelegate>(*executor);
  Events events;
  std::shared_ptr<FakeSource> source = std::make_shared<FakeSource>(events);
  std::vector<int> rateSets;
  int linksMade = 0;
  std::shared_ptr<QRVFrameLoop> loop;
};

int count(const std::vector<std::string>& lines, const std::string& line) {
  return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

TEST_F(QRVFrameLoopTest, StartsOnceAndStopsEvenWhenStopped) {
  EXPECT_TRUE(logs.contains(LogLevel::debug, "Created frame loop"));
  loop->start();
  loop->start();
  EXPECT_TRUE(loop->isRunning());
  EXPECT_EQ(source->starts, 1);
  EXPECT_EQ(linksMade, 1);
  EXPECT_EQ(count(logs.messages(LogLevel::debug), "Started frame loop"), 1);
  EXPECT_EQ(passesInOneSecond(), 10);

  loop->stop();
  EXPECT_FALSE(loop->isRunning());
  EXPECT_EQ(executor->pendingCount(), 0u);
  loop->stop();
  EXPECT_EQ(source->stops, 2);
  EXPECT_EQ(count(logs.messages(LogLevel::debug), "Stopped frame loop"), 2);

  // A restart makes a fresh link.
  loop->start();
  EXPECT_EQ(linksMade, 2);
  EXPECT_EQ(passesInOneSecond(), 10);
}

TEST_F(QRVFrameLoopTest, DeclinedCaptureRetriesAtSixtyUntilAFrameIsHandedOn) {
  delegate->capture = false;
  loop->start();
  executor->advanceSeconds(0.1);
  ASSERT_EQ(delegate->passes, 1);
  EXPECT_EQ(passesInOneSecond(), 60);
  EXPECT_EQ(source->availabilityChecks, 0);
  EXPECT_EQ(source->lastFrameCalls, 0);
  EXPECT_TRUE(events.empty());
  EXPECT_TRUE(logs.contains(LogLevel::debug, "Frame couldn't be rendered, scheduled a delay."));

  delegate->capture = true;
  executor->advanceSeconds(1.0 / 60);
  EXPECT_EQ(delegate->handed.size(), 1u);
  EXPECT_EQ(passesInOneSecond(), 10);
  // Rates are set only when they change: the start's 10, then 60 once, then 10 once.
  EXPECT_EQ(rateSets, (std::vector<int>{10, 60, 10}));
}

TEST_F(QRVFrameLoopTest, UnchangedScreenReStampsTheLastFrame) {
  source->newFrameAvailable = false;
  source->last = makeFrame();
  auto observer = std::make_shared<RecordingObserver>(events, "masks");
  loop->registerFrameLoopObserver(observer);
  // Time passes between creating and starting: the first duration counts from the start.
  executor->advanceSeconds(5);
  loop->start();
  const std::int64_t startedAt = delegate->nowMs();
  executor->advanceSeconds(0.25);

  ASSERT_EQ(delegate->handed.size(), 2u);
  const auto& first = delegate->handed[0];
  const auto& second = delegate->handed[1];
  EXPECT_EQ(first.frame, source->last);
  EXPECT_EQ(second.frame, source->last);
  EXPECT_EQ(first.timing.presentationTimeStamp, QRVTime::milliseconds(first.at));
  EXPECT_EQ(first.timing.duration, QRVTime::milliseconds(first.at - startedAt));
  EXPECT_NEAR(first.timing.duration.value, 100, 1);
  EXPECT_EQ(second.timing.presentationTimeStamp, QRVTime::milliseconds(second.at));
  EXPECT_EQ(second.timing.duration, QRVTime::milliseconds(second.at - first.at));
  EXPECT_FALSE(second.timing.decodeTimeStamp.isValid());
  EXPECT_EQ(second.timing.decodeTimeStamp, QRVTime{});
  // No capture, so the observers stay out of it.
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(rateSets, (std::vector<int>{10}));
}

TEST_F(QRVFrameLoopTest, ObserversSurroundACaptureThatYieldsNothing) {
  auto first = std::make_shared<RecordingObserver>(events, "first");
  auto second = std::make_shared<RecordingObserver>(events, "second");
  auto freed = std::make_shared<RecordingObserver>(events, "freed");
  loop->registerFrameLoopObserver(first);
  loop->registerFrameLoopObserver(first);
  loop->registerFrameLoopObserver(freed);
  freed.reset();
  // Leaving while being told does not disturb the others.
  first->onWill = [&] { loop->removeFrameLoopObserver(first); };
  loop->registerFrameLoopObserver(second);
  source->next = nullptr;

  EXPECT_EQ(loop->performFrameLoopTasks(), ScheduleResult::retrySoon);
  EXPECT_EQ(events,
            (Events{"first will", "second will", "newFrame 0.500000", "second did nothing"}));
  EXPECT_TRUE(delegate->handed.empty());

  events.clear();
  source->next = makeFrame();
  EXPECT_EQ(loop->performFrameLoopTasks(), ScheduleResult::regular);
  EXPECT_EQ(events, (Events{"second will", "newFrame 0.500000", "second did frame"}));
  ASSERT_EQ(delegate->handed.size(), 1u);
  EXPECT_EQ(delegate->handed[0].frame, source->next);
}

TEST_F(QRVFrameLoopTest, StopsItselfWithoutDelegateOrSource) {
  loop->start();
  loop->setSource(nullptr);
  executor->advanceSeconds(0.1);
  EXPECT_TRUE(logs.contains(LogLevel::error,
                            "Attempting to render a frame without a delegate or frameSource"));
  EXPECT_FALSE(loop->isRunning());
  EXPECT_EQ(executor->pendingCount(), 0u);

  loop->setSource(source);
  loop->start();
  delegate.reset();
  executor->advanceSeconds(0.1);
  EXPECT_FALSE(loop->isRunning());
  EXPECT_EQ(source->stops, 1);
  EXPECT_EQ(executor->pendingCount(), 0u);
}

TEST_F(QRVFrameLoopTest, SchedulerWithoutDelegateMakesNoLink) {
  auto scheduler = DisplayLinkFrameScheduler::create({}, [&](Task) {
    ++linksMade;
    return std::unique_ptr<DisplayLink>();
  });
  scheduler->start();
  EXPECT_FALSE(scheduler->hasDisplayLink());
  EXPECT_EQ(linksMade, 0);
  EXPECT_TRUE(
      logs.contains(LogLevel::debug, "Attempted to start a QRVFrameScheduler without a delegate."));
}

TEST(QRVTimerDisplayLinkTest, DividesTheRefreshRateDownToThePreferredRate) {
  struct Case {
    double refreshRate;
    int preferred;
    int callsPerSecond;
  };
  const Case cases[] = {
      {60, 10, 10}, {60, 60, 60},           {120, 10, 10}, {120, 60, 60},
      {75, 10, 10}, {60, 200, 60},          {60, -5, 60},  {0, 10, 10},
      {-1, 60, 60}, {std::nan(""), 30, 30}, {144, 60, 72},  // 144 / 60 truncates to every 2nd tick
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.refreshRate << " Hz at " << c.preferred);
    auto executor = std::make_shared<test::ManualExecutor>();
    int calls = 0;
    QRVTimerDisplayLink link(executor, c.refreshRate, [&] { ++calls; });
    link.setPreferredFrameRate(c.preferred);
    link.begin();
    link.begin();
    executor->advanceSeconds(1);
    EXPECT_EQ(calls, c.callsPerSecond);
    link.invalidate();
    link.invalidate();
    EXPECT_EQ(executor->pendingCount(), 0u);
  }
}

TEST(QRVTimerDisplayLinkDeathTest, ZeroPreferredRateIsAProgrammingError) {
  auto executor = std::make_shared<test::ManualExecutor>();
  QRVTimerDisplayLink link(executor, 60, [] {});
  link.setPreferredFrameRate(0);
  link.begin();
  EXPECT_DEATH(executor->advanceSeconds(0.1), "not finite");
}

TEST(FrameRateSampleTest, LogsTheMeasuredRateOncePerInterval) {
  test::LogCapture logs;
  auto executor = std::make_shared<test::ManualExecutor>();
  FrameRateSample sample(executor, std::chrono::milliseconds(1000));
  for (int i = 0; i < 25; ++i) {
    executor->advanceSeconds(0.1);
    sample.tick();
  }
  EXPECT_EQ(logs.messages(LogLevel::debug), (std::vector<std::string>{"FPS: 10.00", "FPS: 10.00"}));
}

}  // namespace
}  // namespace quorvix

#include "core/QRVSessionMetrics.h"

#include "core/QRVSessionResource.h"

#include <gtest/gtest.h>

#include "../support/ManualExecutor.h"

namespace quorvix {
namespace {

class QRVSessionMetricsTest : public ::testing::Test {
 protected:
  std::shared_ptr<test::ManualExecutor> clock_ = std::make_shared<test::ManualExecutor>();
  int updates_ = 0;
  QRVSessionMetrics metrics_{[this] { ++updates_; }, clock_};
};

TEST_F(QRVSessionMetricsTest, ReportsOnlyWhenThereIsSomethingToReport) {
  EXPECT_TRUE(metrics_.isEmpty());
  EXPECT_EQ(metrics_.latency(), 0.0);
  double latency = 0.0;
  metrics_.setLatencySupplier([&] { return latency; });
  clock_->advanceSeconds(5);
  EXPECT_EQ(updates_, 0) << "a zero latency without an answered probe is nothing to report";
  latency = 0.25;
  clock_->advanceSeconds(3);
  EXPECT_EQ(updates_, 3);
  EXPECT_EQ(metrics_.latency(), 0.25);

  metrics_.setLatencySupplier(nullptr);
  EXPECT_EQ(clock_->pendingCount(), 0u);
  clock_->advanceSeconds(10);
  EXPECT_EQ(updates_, 3);
  EXPECT_EQ(metrics_.latency(), 0.0);
}

TEST_F(QRVSessionMetricsTest, SettingTheSupplierTwiceKeepsOneTimer) {
  metrics_.setLatencySupplier([] { return 0.1; });
  metrics_.setLatencySupplier([] { return 0.2; });
  EXPECT_EQ(clock_->pendingCount(), 1u);
  clock_->advanceSeconds(2);
  EXPECT_EQ(updates_, 2);
  EXPECT_EQ(metrics_.latency(), 0.2);
}

TEST_F(QRVSessionMetricsTest, AProbeAnswerReportsAtOnceAndSurvivesTheSupplier) {
  EXPECT_FALSE(metrics_.lastAlive());
  clock_->advanceSeconds(7);
  metrics_.onProbeResponded();
  EXPECT_EQ(updates_, 1);
  EXPECT_EQ(metrics_.lastAlive(), clock_->wallNow());
  EXPECT_FALSE(metrics_.isEmpty());
  EXPECT_EQ(clock_->pendingCount(), 0u) << "no timer without a supplier";

  // With a probe answered, even a zero latency is worth a report each second.
  metrics_.setLatencySupplier([] { return 0.0; });
  clock_->advanceSeconds(2);
  EXPECT_EQ(updates_, 3);
  metrics_.setLatencySupplier(nullptr);
  EXPECT_TRUE(metrics_.lastAlive());
}

TEST(QRVSessionMetricsLifetimeTest, NoTickAfterDestruction) {
  auto clock = std::make_shared<test::ManualExecutor>();
  int updates = 0;
  {
    QRVSessionMetrics metrics([&] { ++updates; }, clock);
    metrics.setLatencySupplier([] { return 1.0; });
  }
  clock->advanceSeconds(5);
  EXPECT_EQ(updates, 0);
  EXPECT_EQ(clock->pendingCount(), 0u);
}

class CountingObserver final : public QRVSessionObserver {
 public:
  void sessionDidEnd(const std::shared_ptr<QRVSession>&) override {}
  void sessionMetricsDidUpdate(const std::shared_ptr<QRVSession>&) override { ++updates; }
  int updates = 0;
};

TEST(QRVSessionMetricsLifetimeTest, ASessionReleasedWhileATickRunsIsNotTouchedAgain) {
  test::ScopedManualMainQueue main;
  auto session = std::make_shared<QRVSessionResource>(main.get());
  auto observer = std::make_shared<CountingObserver>();
  session->registerSessionObserver(observer);
  std::weak_ptr<QRVSession> weak = session;
  bool release = false;
  // The tick reads the supplier; dropping the session there is what a release on another thread
  // looks like to a tick already under way.
  session->metrics().setLatencySupplier([&] {
    if (release)
      session.reset();
    return 0.5;
  });
  main->advanceSeconds(1);
  EXPECT_EQ(observer->updates, 1);

  release = true;
  main->advanceSeconds(1);
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(observer->updates, 1) << "no report about a session that is gone";
  main->advanceSeconds(5);
  EXPECT_EQ(main->pendingCount(), 0u);
}

}  // namespace
}  // namespace quorvix

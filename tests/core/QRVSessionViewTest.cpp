// The session as a host sees it. The public header comes first and alone, so that it compiles on
// its own; this file is built with -Woverloaded-virtual where the compiler has it, so an observer
// overriding a single notification, as hosts write them, keeps compiling under -Werror.
#include "quorvix/QRVSession.h"

#include <gtest/gtest.h>

#include "../support/ManualExecutor.h"
#include "../support/TestUtil.h"
#include "core/QRVSessionResource.h"

namespace quorvix {
namespace {

// Hears only the update with its previous state, and metrics; the rest keep their defaults.
class HostObserver final : public QRVSessionObserver {
 public:
  void sessionDidEnd(const std::shared_ptr<QRVSession>& session) override {
    log.push_back("end " + session->sessionId().value_or("-"));
  }
  void sessionDidUpdateFromPrevious(const std::shared_ptr<QRVSession>& session,
                                    const std::shared_ptr<QRVSession>& previous) override {
    log.push_back(previous->state().value_or("-") + " -> " + session->state().value_or("-"));
  }
  void sessionMetricsDidUpdate(const std::shared_ptr<QRVSession>& session) override {
    log.push_back("latency " + std::to_string(session->latency()) + " alive " +
                  (session->lastAlive() ? "yes" : "no"));
  }
  std::vector<std::string> log;
};

Value::Map sessionMap(Value::Map extra = {}) {
  Value::Map m{{"type", "Session"}, {"id", "S1"}, {"state", "pending"}};
  for (auto& [k, v] : extra)
    m[k] = v;
  return m;
}

TEST(QRVSessionViewTest, AnObserverOverridingOneUpdateHearsItWithThePublicSession) {
  test::ScopedManualMainQueue main;
  auto resource = std::make_shared<QRVSessionResource>(sessionMap());
  std::shared_ptr<QRVSession> session = resource;
  auto observer = std::make_shared<HostObserver>();
  session->registerSessionObserver(observer);

  ASSERT_FALSE(resource->updateResource(Value(sessionMap({{"state", "active"}}))));
  ASSERT_FALSE(resource->updateResource(Value(sessionMap({{"state", "ended"}}))));
  EXPECT_EQ(observer->log,
            (std::vector<std::string>{"pending -> active", "active -> ended", "end S1"}));

  observer->log.clear();
  resource->metrics().setLatencySupplier([] { return 0.25; });
  main->advanceSeconds(1);
  resource->metrics().onProbeResponded();
  EXPECT_EQ(observer->log,
            (std::vector<std::string>{"latency 0.250000 alive no", "latency 0.250000 alive yes"}));
  EXPECT_EQ(session->lastAlive(), main->wallNow());

  session->removeSessionObserver(observer);
  observer->log.clear();
  resource->updateResource(Value(sessionMap({{"state", "ended"}})));
  EXPECT_TRUE(observer->log.empty());
  resource->metrics().setLatencySupplier(nullptr);
}

TEST(QRVSessionViewTest, TheViewReadsAndChangesTheResource) {
  test::ScopedManualMainQueue main;
  using namespace std::chrono;
  auto resource = std::make_shared<QRVSessionResource>(
      sessionMap({{"code", "123456"},
                  {"state", "authorizing"},
                  {"agent", Value::Map{{"id", "A1"}, {"name", "Ann"}}},
                  {"require_consent", true},
                  {"full_device", true},
                  {"remote_control", "on"},
                  {"custom_data", Value::Map{{"age", 42}}},
                  {"capabilities", Value::Array{"laser"}},
                  {"scale", 0.75},
                  {"ended_reason", "agent_ended"},
                  {"created", "2024-05-01T10:20:30.123Z"}}));
  resource->setCapabilities({"laser", "pointer"});
  std::shared_ptr<const QRVSession> view = resource;

  EXPECT_EQ(view->sessionId(), "S1");
  EXPECT_EQ(view->code(), "123456");
  EXPECT_TRUE(view->isAuthorizing());
  EXPECT_FALSE(view->isPending() || view->isActive() || view->isEnded());
  EXPECT_EQ(view->agent(), (QRVAgent{"A1", "Ann", std::nullopt}));
  EXPECT_TRUE(view->hasAgent());
  EXPECT_TRUE(view->requireConsent());
  EXPECT_EQ(view->fullDevice(), QRVConsentState::requested);
  EXPECT_TRUE(view->allowRemoteControl());
  EXPECT_EQ(view->customData(), (Value::Map{{"age", "42"}}));
  EXPECT_EQ(view->capabilities(), std::vector<std::string>{"laser"});
  EXPECT_EQ(view->scale(), 0.75);
  EXPECT_EQ(view->endedReason(), QRVEndedReason::agentEnded);
  EXPECT_EQ(view->created(), WallTime(sys_days(2024y / 5 / 1) + 10h + 20min + 30s + 123ms));
  EXPECT_EQ(view->expires(), std::nullopt);
  EXPECT_EQ(view->latency(), 0.0);
  EXPECT_EQ(view->lastAlive(), std::nullopt);

  // Changes through the view complete with the very session the host holds.
  std::shared_ptr<QRVSession> session = resource;
  test::CallRecorder<std::optional<QRVError>, std::shared_ptr<QRVSession>> rec;
  session->setRemoteControl(QRVConsentState::on, rec.callback());
  ASSERT_EQ(rec.calls(), 1);
  EXPECT_FALSE(rec.arg<0>());
  EXPECT_EQ(rec.arg<1>(), session);
  resource->updateResource(Value(sessionMap({{"state", "ended"}})));
  session->setCustomData({{"a", 1}}, rec.callback());
  ASSERT_EQ(rec.calls(), 2);
  EXPECT_EQ(rec.arg<0>(), QRVError("Session ended", 400));
  EXPECT_EQ(rec.arg<1>(), session);
  EXPECT_EQ(main->pendingCount(), 0u) << "nothing was sent";
}

}  // namespace
}  // namespace quorvix

#include <gtest/gtest.h>

#include <deque>
#include <thread>

#include "../support/FakeTransport.h"
#include "../support/Hex.h"
#include "../support/LogCapture.h"
#include "../support/ManualExecutor.h"
#include "../support/TestUtil.h"
#include "cbor/CBORDecoder.h"
#include "quorvix/CBOR.h"
#include "web-socket/CBORSocket.h"

namespace quorvix {
namespace {

using test::FakeTransport;
using test::hex;
using test::toHex;

CBOR text(const char* s) {
  return CBOR(std::string(s));
}
CBOR uint(std::uint64_t v) {
  return CBOR(CBOR::UnsignedInt{v});
}

class CBORSocketTest : public ::testing::Test {
 protected:
  std::shared_ptr<CBORSocket> make() {
    CBORSocket::Environment env;
    env.executor = main.get();
    env.random = [this] {
      std::uint32_t v = randoms.empty() ? 0 : randoms.front();
      if (!randoms.empty())
        randoms.pop_front();
      return v;
    };
    env.transportFactory = [this](const QRVSocketRequest& r, std::shared_ptr<QRVURLSession>) {
      auto t = std::make_shared<FakeTransport>(r);
      t->failsAtOnce = failAtOnce;
      t->opensFromAnotherThread = openFromAnotherThread;
      t->reportsDisconnectLater = disconnectReportsLater;
      transports.push_back(t);
      return t;
    };
    auto provider = [this] {
      ++requests;
      return QRVSocketRequest{*QRVURL::parse("ws://127.0.0.1:1/sockets/1/ws"), {}, {}};
    };
    sockets.push_back(CBORSocket::create(nullptr, provider, env));
    return sockets.back();
  }

  // A pending reconnect keeps a socket alive until its owner disconnects it.
  void TearDown() override {
    for (auto& s : sockets)
      s->disconnect();
  }

  FakeTransport& last() { return *transports.back(); }

  // The envelopes written on the last transport, decoded.
  std::vector<CBOR> sent() {
    std::vector<CBOR> out;
    for (const auto& bytes : last().writes)
      out.push_back(*CBORDecoder(bytes).decodeItem().value());
    return out;
  }

  test::ScopedManualMainQueue main;
  std::deque<std::uint32_t> randoms;
  bool failAtOnce = false;
  bool openFromAnotherThread = false;
  bool disconnectReportsLater = false;
  std::vector<std::shared_ptr<FakeTransport>> transports;
  std::vector<std::shared_ptr<CBORSocket>> sockets;
  int requests = 0;
  // What observers saw. Members, since TearDown's disconnect still reaches the observers.
  int disconnects = 0;
  std::vector<std::optional<QRVError>> seen;
};

TEST(CBORSocketDelayTest, FollowsTheBackoffTableWithinItsClamps) {
  const std::uint32_t most = 0xffffffff;
  // Attempts 0 and 1 are below any minimum, whatever the jitter.
  EXPECT_EQ(CBORSocket::reconnectDelay(0, most, 0.5, 30.0), 0.5);
  EXPECT_EQ(CBORSocket::reconnectDelay(1, most, 0.5, 30.0), 0.5);
  EXPECT_NEAR(CBORSocket::reconnectDelay(1, most, 0.0, 30.0), 0.354, 0.001);
  EXPECT_NEAR(CBORSocket::reconnectDelay(10, 0, 0.5, 30.0), 3.737, 0.001);
  EXPECT_NEAR(CBORSocket::reconnectDelay(20, 0, 0.5, 30.0), 8.586, 0.001);
  EXPECT_NEAR(CBORSocket::reconnectDelay(40, most, 0.5, 30.0), 29.588, 0.001);
  // From 57 on, the maximum even without jitter.
  EXPECT_EQ(CBORSocket::reconnectDelay(57, 0, 0.5, 30.0), 30.0);
  EXPECT_EQ(CBORSocket::reconnectDelay(57, 0, 0.5, 60.0) > 30.0, true);
}

TEST_F(CBORSocketTest, DrawsItsMinimumDelayOnceInTheHalfToOneAndAHalfRange) {
  randoms = {0};
  EXPECT_EQ(make()->minReconnectDelay(), 0.5);
  randoms = {0xffffffff};
  EXPECT_EQ(make()->minReconnectDelay(), 1.5);
}

TEST_F(CBORSocketTest, NumbersEnvelopesAndRestartsAtOneAfterAReconnect) {
  auto socket = make();
  ASSERT_EQ(transports.size(), 1u);
  EXPECT_EQ(last().connects, 1);
  last().open();
  int done = 0;
  socket->send("frame", {{"n", Value(1)}},
               test::expectCalledOnce(std::function<void()>([&] { ++done; })));
  socket->send("frame", {}, nullptr);
  // Keys in encoded order: "id", "data", "event".
  EXPECT_EQ(toHex(last().writes[0]),
            toHex(hex("a3 62 6964 01 64 64617461 a1 616e 01 65 6576656e74 65 6672616d65")));
  EXPECT_EQ(*sent()[1].find("id"), uint(2));
  last().completions[0]();
  EXPECT_EQ(done, 1);

  last().receive(CBOR(CBOR::Map{{text("ack"), uint(1)}}));
  EXPECT_EQ(socket->messageLag(), 1u);

  last().drop();
  EXPECT_EQ(socket->messageLag(), 0u);
  main->advanceSeconds(socket->minReconnectDelay());
  ASSERT_EQ(transports.size(), 2u);
  EXPECT_EQ(requests, 2);  // a fresh request for every attempt
  last().open();
  socket->send("frame", {});
  EXPECT_EQ(*sent()[0].find("id"), uint(1));
  EXPECT_EQ(socket->messageLag(), 0u);
}

TEST_F(CBORSocketTest, GrowsTheBackoffUntilDataArrives) {
  randoms = {0};  // minimum 0.5, no jitter
  auto socket = make();
  std::vector<double> delays;
  for (int i = 0; i < 12; ++i) {
    last().open();  // opening does not reset the count
    last().drop();
    delays.push_back(std::chrono::duration<double>(*main->nextDelay()).count());
    main->advance(*main->nextDelay());
  }
  EXPECT_EQ(delays[0], 0.5);
  EXPECT_EQ(delays[1], 0.5);
  EXPECT_NEAR(delays[10], 3.737, 0.001);
  EXPECT_NEAR(delays[11], 4.2, 0.1);
  // Any binary message resets it, even one that does not decode.
  last().open();
  transports.back()->delegate()->websocketDidReceiveData({0xff, 0x00});
  last().drop();
  EXPECT_EQ(std::chrono::duration<double>(*main->nextDelay()).count(), 0.5);
}

TEST_F(CBORSocketTest, RetriesATransportThatFailsBeforeConnectReturns) {
  randoms = {0};
  failAtOnce = true;
  auto socket = make();
  for (std::size_t attempt = 1; attempt <= 3; ++attempt) {
    ASSERT_EQ(transports.size(), attempt);
    ASSERT_TRUE(main->nextDelay()) << "no retry after attempt " << attempt;
    main->advance(*main->nextDelay());
  }
  // The reset observer was in before the first report.
  failAtOnce = false;
  last().open();
  socket->send("frame", {});
  EXPECT_EQ(*sent()[0].find("id"), uint(1));
}

TEST_F(CBORSocketTest, EventsFromTheTransportsThreadReachObserversOnTheExecutor) {
  openFromAnotherThread = true;
  auto socket = make();
  int connects = 0;
  bool onExecutor = false;
  socket->onConnect([&] {
    ++connects;
    onExecutor = main->isCurrent();
  });
  main->runUntilIdle();
  EXPECT_EQ(connects, 1);
  EXPECT_TRUE(onExecutor);
}

TEST_F(CBORSocketTest, PingsEveryMinuteAndRebuildsASilentConnectionOnce) {
  auto socket = make();
  last().open();
  socket->onDisconnect([this](const std::optional<QRVError>&) { ++disconnects; });

  // A pong in time cancels the deadline.
  main->advanceSeconds(60.0);
  ASSERT_EQ(last().pings.size(), 1u);
  EXPECT_TRUE(last().pings[0].empty());
  last().delegate()->websocketDidReceivePong();
  main->advanceSeconds(10.0);
  EXPECT_EQ(last().disconnects, 0);

  // No pong: the transport is told to disconnect (and reports it at once), and the deadline's
  // own reconnect finds one already scheduled.
  main->advanceSeconds(50.0);
  ASSERT_EQ(last().pings.size(), 2u);
  main->advanceSeconds(10.0);
  EXPECT_EQ(last().disconnects, 1);
  EXPECT_EQ(disconnects, 1);
  EXPECT_EQ(main->pendingCount(), 2u);  // the ping timer and one reconnect
  main->advanceSeconds(socket->minReconnectDelay());
  EXPECT_EQ(transports.size(), 2u);
  EXPECT_EQ(transports[0]->disconnects, 1);  // replaced without another call
}

TEST_F(CBORSocketTest, HandsEventsToListenersAndReadsAcks) {
  auto socket = make();
  last().open();
  std::vector<std::string> calls;
  Value::Map got;
  socket->onMessage("x", [&](const Value::Map& d) {
    calls.push_back("first");
    got = d;
  });
  socket->onMessage("x", [&](const Value::Map&) { calls.push_back("second"); });

  // An ack frame is only an ack, whatever else it carries.
  socket->send("a", {});
  socket->send("b", {});
  last().receive(CBOR(CBOR::Map{
      {text("ack"), uint(1)}, {text("event"), text("x")}, {text("data"), CBOR(CBOR::Map{})}}));
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(socket->messageLag(), 1u);
  // Not acks, not events: dropped.
  last().receive(CBOR(CBOR::Map{{text("ack"), text("5")}}));
  last().receive(CBOR(CBOR::Map{{text("event"), text("x")}}));
  last().receive(CBOR(CBOR::Map{{uint(1), text("x")}}));
  last().receive(CBOR(CBOR::Array{}));
  last().receive(
      CBOR(CBOR::Map{{text("event"), text("nobody")}, {text("data"), CBOR(CBOR::Map{})}}));
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(socket->messageLag(), 1u);

  CBOR::Map data{{text("neg"), CBOR(CBOR::NegativeInt{9})},  // -10
                 {text("half"), CBOR(CBOR::Half{1.5f})},
                 {text("list"), CBOR(CBOR::Array{CBOR(true), CBOR(CBOR::Simple{16})})},
                 {text("nested"), CBOR(CBOR::Map{{text("k"), CBOR(CBOR::Bytes{1, 2})}})},
                 {text("intKeys"), CBOR(CBOR::Map{{uint(1), uint(2)}})},
                 {text("nil"), CBOR(CBOR::Null{})}};
  last().receive(CBOR(CBOR::Map{{text("event"), text("x")}, {text("data"), CBOR(data)}}));
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(got.at("neg"), Value(std::uint64_t{9}));
  EXPECT_TRUE(std::holds_alternative<float>(got.at("half").storage()));
  EXPECT_EQ(got.at("list"), Value(Value::Array{Value(true), Value(std::uint64_t{16})}));
  EXPECT_EQ(*got.at("nested").find("k"), Value(Value::Bytes{1, 2}));
  ASSERT_TRUE(got.at("intKeys").isCBOR());
  ASSERT_TRUE(got.at("nil").isCBOR());
  EXPECT_EQ(got.at("nil").asCBOR()->kind(), CBOR::Kind::null);
}

TEST_F(CBORSocketTest, NormalisesClientErrorsAndPassesOthersOn) {
  auto socket = make();
  socket->onDisconnect([this](const std::optional<QRVError>& e) { seen.push_back(e); });
  last().drop(WSError{WSError::ErrorType::upgradeError, "Invalid HTTP upgrade", 401});
  main->advance(*main->nextDelay());
  last().drop(QRVError("URLSessionWebSocketTask", 4001, "3 bytes"));
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0], QRVError("CBORSocket", 401, ""));
  EXPECT_EQ(seen[1], QRVError("URLSessionWebSocketTask", 4001, "3 bytes"));
}

TEST_F(CBORSocketTest, DisconnectIsFinal) {
  auto socket = make();
  last().open();
  int connectCalls = 0;
  std::vector<std::optional<QRVError>> seen;
  socket->onConnect([&] { ++connectCalls; });
  socket->onDisconnect([&](const std::optional<QRVError>& e) { seen.push_back(e); });

  socket->disconnect();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_FALSE(seen[0]);
  EXPECT_EQ(transports[0]->disconnects, 1);
  EXPECT_FALSE(socket->isConneced());
  // The transport's own report afterwards reaches nobody and schedules nothing.
  transports[0]->drop();
  socket->disconnect();
  EXPECT_EQ(seen.size(), 1u);
  EXPECT_EQ(main->pendingCount(), 0u);

  socket->send("frame", {}, test::expectNeverCalled<>());
  EXPECT_EQ(transports[0]->writes.size(), 0u);
  main->advanceSeconds(3600);
  EXPECT_EQ(transports.size(), 1u);
}

// Once closed, nothing holds the socket or its transports: no timer, work item or delegate.
TEST_F(CBORSocketTest, LetsEverythingGoOnceDisconnected) {
  std::weak_ptr<CBORSocket> socket = make();
  last().open();
  last().drop();               // a reconnect is pending
  main->advanceSeconds(60.0);  // and a pong deadline
  sockets.back()->send("frame", {});
  sockets.back()->disconnect();
  sockets.clear();
  std::vector<std::weak_ptr<FakeTransport>> weakTransports(transports.begin(), transports.end());
  transports.clear();
  main->advanceSeconds(3600.0);
  EXPECT_TRUE(socket.expired());
  for (const auto& t : weakTransports)
    EXPECT_TRUE(t.expired());
  EXPECT_EQ(main->pendingCount(), 0u);
}

// Timestamps are seconds since 1970 in a double: about a tenth of a microsecond apart today.
constexpr double kClockGrain = 1e-6;

TEST_F(CBORSocketTest, EstimatesLatencyFromTheTimedMessage) {
  auto socket = make();
  last().open();
  EXPECT_EQ(socket->metrics().latency(), 0.0);
  socket->send("frame", {});
  main->advanceSeconds(2.0);
  EXPECT_NEAR(socket->metrics().latency(), 2.0, kClockGrain);  // climbs while unacknowledged
  main->advanceSeconds(0.2);
  last().receive(CBOR(CBOR::Map{{text("ack"), uint(1)}}));
  EXPECT_NEAR(socket->metrics().latency(), 2.2, kClockGrain);
  socket->send("frame", {});
  main->advanceSeconds(0.2);
  last().receive(CBOR(CBOR::Map{{text("ack"), uint(2)}}));
  EXPECT_NEAR(socket->metrics().latency(), 0.125 * 0.2 + 0.875 * 2.2, kClockGrain);

  // Only one message is timed at a time; a higher ack gives the timed one up.
  socket->send("frame", {});  // 3, timed
  socket->send("frame", {});  // 4, not timed
  main->advanceSeconds(1.0);
  last().receive(CBOR(CBOR::Map{{text("ack"), uint(4)}}));
  EXPECT_NEAR(socket->metrics().latency(), 1.95, kClockGrain);
  socket->send("frame", {});  // 5, timed again
  main->advanceSeconds(0.5);
  last().receive(CBOR(CBOR::Map{{text("ack"), uint(5)}}));
  EXPECT_NEAR(socket->metrics().latency(), 0.125 * 0.5 + 0.875 * 1.95, kClockGrain);
}

CBOR ack(std::uint64_t id) {
  return CBOR(CBOR::Map{{text("ack"), uint(id)}});
}

CBOR event(const char* name, CBOR::Map data = {}) {
  return CBOR(CBOR::Map{{text("event"), text(name)}, {text("data"), CBOR(std::move(data))}});
}

// Acks, data, connects and pongs of a transport that has ended, or been replaced, belong to a
// numbering that no longer exists: taking them would make the lag meaningless.
TEST_F(CBORSocketTest, DropsEverythingFromATransportOnceItHasEnded) {
  auto socket = make();
  last().open();
  int connects = 0;
  int events = 0;
  socket->onConnect([&] { ++connects; });
  socket->onMessage("x", [&](const Value::Map&) { ++events; });
  for (int i = 0; i < 3; ++i)
    socket->send("frame", {});
  auto old = transports[0];
  old->drop();
  // Still arriving during the close handshake, or already queued.
  old->receive(ack(3));
  old->receive(event("x"));
  EXPECT_EQ(socket->messageLag(), 0u);
  EXPECT_EQ(events, 0);

  main->advanceSeconds(socket->minReconnectDelay());
  ASSERT_EQ(transports.size(), 2u);
  last().open();
  EXPECT_EQ(connects, 1);
  socket->send("frame", {});
  old->receive(ack(3));
  old->open();
  old->receive(event("x"));
  old->drop();
  EXPECT_EQ(socket->messageLag(), 0u);
  EXPECT_EQ(connects, 1);
  EXPECT_EQ(events, 0);
  EXPECT_FALSE(socket->isReconnectScheduled());

  // An old pong does not cancel the current deadline.
  main->advanceSeconds(60.0);
  old->delegate()->websocketDidReceivePong();
  main->advanceSeconds(10.0);
  EXPECT_EQ(transports[1]->disconnects, 1);

  // The current transport's own events still count.
  main->advanceSeconds(socket->minReconnectDelay());
  ASSERT_EQ(transports.size(), 3u);
  last().open();
  last().receive(event("x"));
  EXPECT_EQ(connects, 2);
  EXPECT_EQ(events, 1);
}

// The library's own client reports its end only after the close handshake, which a dead
// connection never finishes.
TEST_F(CBORSocketTest, APongDeadlineEndsATransportThatReportsLaterExactlyOnce) {
  disconnectReportsLater = true;
  auto socket = make();
  last().open();
  socket->onDisconnect([this](const std::optional<QRVError>&) { ++disconnects; });
  for (int i = 0; i < 3; ++i)
    socket->send("frame", {});
  main->advanceSeconds(70.0);
  EXPECT_EQ(transports[0]->disconnects, 1);
  EXPECT_EQ(disconnects, 1);
  main->advanceSeconds(socket->minReconnectDelay());
  ASSERT_EQ(transports.size(), 2u);
  transports[0]->drop();  // its late report
  EXPECT_EQ(disconnects, 1);
  last().open();
  socket->send("frame", {});
  EXPECT_EQ(*sent()[0].find("id"), uint(1));
}

TEST_F(CBORSocketTest, IgnoresAnAckAboveTheLastSentIdAndSaysSoOnce) {
  test::LogCapture log;
  auto socket = make();
  last().open();
  socket->send("frame", {});
  last().receive(ack(99));
  last().receive(ack(99));
  EXPECT_EQ(socket->messageLag(), 0u);
  EXPECT_EQ(
      log.messages(LogLevel::error),
      std::vector<std::string>{"Ignored an acknowledgement of message 99, above the last sent 1"});
  last().receive(ack(1));
  socket->send("frame", {});
  EXPECT_EQ(socket->messageLag(), 1u);
}

// Maps whose keys are not all text reach listeners as CBOR items, so keys that would convert to
// the same text ("1" and 1) cannot clash; the connection goes on.
TEST_F(CBORSocketTest, KeepsMapsWithNonTextKeysAsItems) {
  auto socket = make();
  last().open();
  std::vector<Value::Map> got;
  socket->onMessage("x", [&](const Value::Map& d) { got.push_back(d); });
  last().receive(
      event("x", {{text("m"), CBOR(CBOR::Map{{uint(1), text("a")}, {text("1"), text("b")}})}}));
  // Duplicate text keys on the wire: the decoder keeps the last.
  last().delegate()->websocketDidReceiveData(
      hex("a2 65 6576656e74 61 78 64 64617461 a2 61 6b 01 61 6b 02"));
  ASSERT_EQ(got.size(), 2u);
  ASSERT_TRUE(got[0].at("m").isCBOR());
  EXPECT_EQ(got[1].at("k"), Value(std::uint64_t{2}));
}

// The estimate runs on the monotonic clock: setting the system time does not disturb it.
TEST_F(CBORSocketTest, LatencyIgnoresTheWallClock) {
  auto socket = make();
  last().open();
  socket->send("frame", {});
  main->advanceSeconds(1.0);
  main->setWallClock(seconds(-3600.0));
  main->advanceSeconds(1.0);
  EXPECT_NEAR(socket->metrics().latency(), 2.0, 1e-6);
  last().receive(ack(1));
  EXPECT_NEAR(socket->metrics().latency(), 2.0, 1e-6);
}

}  // namespace
}  // namespace quorvix

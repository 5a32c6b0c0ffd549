// Both transports and the CBOR socket against an in-process Beast server on loopback.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <boost/asio/post.hpp>

#include "../support/ManualExecutor.h"
#include "../support/TestCertificates.h"
#include "../support/TestUtil.h"
#include "../support/WsTestServer.h"
#include "cbor/CBORDecoder.h"
#include "quorvix/CBOR.h"
#include "quorvix/QRVBundle.h"
#include "quorvix/TLSConfiguration.h"
#include "utils/linux/IoThread.h"
#include "web-socket/CBORSocket.h"
#include "web-socket/StarscreamSocket.h"
#include "web-socket/linux/BeastSocket.h"

namespace quorvix {
namespace {

using test::pattern;
using test::WsServerOptions;
using test::WsTestServer;

// Records a transport's events from whichever thread they come.
class Recorder final : public SocketDelegate {
 public:
  void websocketDidConnect() override {
    std::lock_guard lock(mutex);
    ++connects;
  }
  void websocketDidDisconnect(std::optional<TransportError> error) override {
    std::lock_guard lock(mutex);
    disconnects.push_back(std::move(error));
  }
  void websocketDidReceiveData(std::vector<std::uint8_t> bytes) override {
    std::lock_guard lock(mutex);
    allOnMain = allOnMain && mainQueue()->isCurrent();
    data.push_back(std::move(bytes));
  }
  void websocketDidReceivePong() override {
    std::lock_guard lock(mutex);
    ++pongs;
  }

  template <typename F>
  auto read(F f) {
    std::lock_guard lock(mutex);
    return f(*this);
  }

  std::mutex mutex;
  int connects = 0;
  int pongs = 0;
  bool allOnMain = true;
  std::vector<std::optional<TransportError>> disconnects;
  std::vector<std::vector<std::uint8_t>> data;
};

std::string name(const ::testing::TestParamInfo<WebsocketMethod>& info) {
  return info.param == WebsocketMethod::starscream ? "OwnClient" : "Beast";
}

class TransportTest : public ::testing::TestWithParam<WebsocketMethod> {
 protected:
  void TearDown() override { setTLSConfiguration({}); }

  std::shared_ptr<SocketTransport> open(
      const std::string& url,
      bool waitForConnect = true,
      std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    QRVSocketRequest request{*QRVURL::parse(url), {{"Authorization", "Bearer secret"}}, timeout};
    auto transport = makeSocket(GetParam(), request, nullptr);
    transport->setDelegate(recorder);
    transport->connect();
    if (waitForConnect) {
      EXPECT_TRUE(until([](Recorder& r) { return r.connects == 1; }));
    }
    return transport;
  }

  bool until(const std::function<bool(Recorder&)>& condition) {
    return main->runUntil([&] { return recorder->read(condition); });
  }

  std::optional<TransportError> lastError() {
    return recorder->read([](Recorder& r) { return r.disconnects.back(); });
  }

  bool own() const { return GetParam() == WebsocketMethod::starscream; }

  test::ScopedManualMainQueue main;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

TEST_P(TransportTest, EchoesBinaryMessagesWithAndWithoutCompression) {
  for (bool deflate : {false, true}) {
    SCOPED_TRACE(deflate ? "deflate" : "plain");
    recorder = std::make_shared<Recorder>();
    WsTestServer server(WsServerOptions{.deflate = deflate});
    auto transport = open(server.url("/sockets/1/ws?x=1"));
    EXPECT_TRUE(transport->isConnected());
    const std::vector<std::size_t> sizes{1, 125, 126, 65536, 300000};
    int completions = 0;
    for (auto n : sizes)
      transport->write(pattern(n), [&] { ++completions; });
    ASSERT_TRUE(until([&](Recorder& r) { return r.data.size() == sizes.size(); }));
    for (std::size_t i = 0; i < sizes.size(); ++i)
      EXPECT_EQ(recorder->data[i], pattern(sizes[i]));
    EXPECT_TRUE(recorder->allOnMain);
    EXPECT_TRUE(main->runUntil([&] { return completions == 5; }));
    EXPECT_EQ(server.lastUsedDeflate(), deflate);
    const auto headers = server.requestHeaders().at(0);
    EXPECT_EQ(headers.at("authorization"), "Bearer secret");
    if (own()) {
      EXPECT_EQ(headers.at("sec-websocket-extensions"),
                "permessage-deflate; client_max_window_bits; server_max_window_bits=15");
    }
  }
}

TEST_P(TransportTest, ReportsTheServersCloseCode) {
  for (int code : {1000, 4001}) {
    recorder = std::make_shared<Recorder>();
    WsTestServer server;
    auto transport = open(server.url());
    server.closeAll(static_cast<std::uint16_t>(code), code == 1000 ? "" : "abc");
    ASSERT_TRUE(until([](Recorder& r) { return !r.disconnects.empty(); }));
    EXPECT_FALSE(transport->isConnected());
    auto error = lastError();
    if (own()) {
      EXPECT_EQ(error, TransportError(WSError{WSError::ErrorType::protocolError,
                                              "connection closed by server", code}));
    } else if (code == 1000) {
      EXPECT_FALSE(error);
    } else {
      EXPECT_EQ(error, TransportError(QRVError(BeastSocket::kErrorDomain, 4001, "3 bytes")));
    }
  }
}

TEST_P(TransportTest, PingsAreAnsweredAndReported) {
  WsTestServer server;
  auto transport = open(server.url());
  std::atomic<bool> completed{false};  // the platform transport completes on its own thread
  transport->writePing({}, [&] { completed = true; });
  EXPECT_TRUE(until([](Recorder& r) { return r.pongs == 1; }));
  EXPECT_TRUE(main->runUntil([&] { return completed.load(); }));
}

TEST_P(TransportTest, RefusedUpgradeEndsTheAttempt) {
  WsTestServer server(WsServerOptions{.refuseWithStatus = 401});
  auto transport = open(server.url(), false);
  ASSERT_TRUE(until([](Recorder& r) { return !r.disconnects.empty(); }));
  EXPECT_EQ(recorder->connects, 0);
  auto error = lastError();
  ASSERT_TRUE(error);
  if (own()) {
    EXPECT_EQ(std::get<WSError>(*error),
              (WSError{WSError::ErrorType::upgradeError, "Invalid HTTP upgrade", 401}));
  } else {
    EXPECT_NE(std::get<QRVError>(*error).message().find("HTTP 401"), std::string::npos);
  }
}

TEST_P(TransportTest, DisconnectReportsAtOnceOnlyOnThePlatformTransport) {
  WsTestServer server;
  auto transport = open(server.url());
  QRVError reason("Test", 7, "why");
  transport->disconnect(TransportError(reason));
  const auto sync = recorder->read([](Recorder& r) { return r.disconnects.size(); });
  if (own()) {
    EXPECT_EQ(sync, 0u);
    // The server answers the close frame; that is what ends the connection.
    ASSERT_TRUE(until([](Recorder& r) { return r.disconnects.size() == 1; }));
    EXPECT_EQ(std::get<WSError>(*lastError()).code, 1000);
  } else {
    EXPECT_FALSE(transport->isConnected());
    // The second report comes from the network thread and may already be in.
    ASSERT_GE(sync, 1u);
    EXPECT_EQ(recorder->disconnects[0], TransportError(reason));
    // The cancelled task reports again later, as the platform's does.
    EXPECT_TRUE(until([](Recorder& r) { return r.disconnects.size() == 2; }));
  }
  // Writes after the end do not reach the server. Both transports handle writes on the shared
  // network thread in order, so once a later connection's message is in, this one was dropped.
  transport->write(pattern(10));
  recorder = std::make_shared<Recorder>();
  auto marker = open(server.url());
  marker->write({42});
  ASSERT_TRUE(main->runUntil([&] { return server.messagesReceived() == 1; }));
  EXPECT_EQ(server.received().at(0).data, std::vector<std::uint8_t>{42});
}

TEST_P(TransportTest, TrustsOnlyVerifiedCertificatesForTheRightHost) {
  test::TestCertificates certs;
  ASSERT_TRUE(certs.ok) << "openssl could not make the test certificates";
  struct Case {
    const char* what;
    std::string cert, key;
    bool trustCA;
    bool accepted;
  };
  const std::vector<Case> cases{
      {"unknown root", certs.localhostPem, certs.localhostKey, false, false},
      {"root added", certs.localhostPem, certs.localhostKey, true, true},
      {"wrong host", certs.otherHostPem, certs.otherHostKey, true, false},
      {"self-signed", certs.selfSignedPem, certs.selfSignedKey, true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    recorder = std::make_shared<Recorder>();
    setTLSConfiguration(c.trustCA ? TLSConfiguration{{certs.caPem}} : TLSConfiguration{});
    WsTestServer server(WsServerOptions{.certificate = c.cert, .privateKey = c.key});
    auto transport = open(server.url("/", "localhost"), false);
    ASSERT_TRUE(until([](Recorder& r) { return r.connects > 0 || !r.disconnects.empty(); }));
    EXPECT_EQ(recorder->connects, c.accepted ? 1 : 0);
    if (c.accepted) {
      transport->write(pattern(1000));
      EXPECT_TRUE(until([](Recorder& r) { return r.data.size() == 1; }));
      continue;
    }
    auto error = lastError();
    ASSERT_TRUE(error);
    if (own()) {
      EXPECT_EQ(std::get<WSError>(*error).type, WSError::ErrorType::invalidSSLError);
      EXPECT_EQ(std::get<WSError>(*error).message, "Invalid SSL certificate");
    } else {
      EXPECT_EQ(std::get<QRVError>(*error).domain(), "TLS");
    }
  }
}

// The service sends nothing near this size; a larger message is refused, not buffered.
TEST_P(TransportTest, EndsTheConnectionOnAMessageAboveTheLimit) {
  WsTestServer server;
  auto transport = open(server.url());
  ASSERT_TRUE(main->runUntil([&] { return server.upgrades() == 1; }));
  server.sendToAll(pattern(kMaxIncomingMessageBytes));
  server.sendToAll(pattern(kMaxIncomingMessageBytes + 1));
  ASSERT_TRUE(until([](Recorder& r) { return !r.disconnects.empty(); }));
  main->runUntilIdle();
  ASSERT_EQ(recorder->data.size(), 1u);
  EXPECT_EQ(recorder->data[0].size(), kMaxIncomingMessageBytes);
  EXPECT_TRUE(recorder->disconnects[0].has_value());
}

// While the main queue is busy, a transport stops reading rather than queueing without bound,
// and picks up again where it left off.
TEST_P(TransportTest, HoldsThePeerBackWhileTheMainQueueFallsBehind) {
  WsTestServer server;
  auto transport = open(server.url());
  ASSERT_TRUE(main->runUntil([&] { return server.upgrades() == 1; }));
  constexpr int kMessages = 40;
  constexpr std::size_t kSize = 512u << 10;
  for (int i = 0; i < kMessages; ++i) {
    auto message = pattern(kSize);
    message[0] = static_cast<std::uint8_t>(i);
    server.sendToAll(std::move(message));
  }
  std::size_t most = 0;
  for (int round = 0; round < 10 * kMessages; ++round) {
    if (recorder->read([](Recorder& r) { return r.data.size(); }) == kMessages)
      break;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (main->pendingCount() == 0 && std::chrono::steady_clock::now() < limit)
      std::this_thread::yield();
    ASSERT_GT(main->pendingCount(), 0u) << "delivery stopped after " << recorder->data.size();
    most = std::max(most, main->pendingCount());
    main->runUntilIdle();
  }
  ASSERT_EQ(recorder->data.size(), std::size_t{kMessages});
  for (int i = 0; i < kMessages; ++i)
    EXPECT_EQ(recorder->data[i][0], i);
  EXPECT_LE(most * kSize, kMaxQueuedIncomingBytes + 2 * kSize);
}

INSTANTIATE_TEST_SUITE_P(Transports,
                         TransportTest,
                         ::testing::Values(WebsocketMethod::urlSession,
                                           WebsocketMethod::starscream),
                         name);

// Frames are written from the encoder's thread while the main queue reconnects.
TEST(BeastSocketTest, TakesWritesFromAnotherThreadWhileItReconnects) {
  test::ScopedManualMainQueue main;
  WsTestServer server(WsServerOptions{.mode = WsServerOptions::Mode::sink});
  auto recorder = std::make_shared<Recorder>();
  BeastSocket transport(
      QRVSocketRequest{*QRVURL::parse(server.url()), {}, std::chrono::seconds(10)}, nullptr);
  transport.setDelegate(recorder);
  std::atomic<bool> done{false};
  std::thread encoder([&] {
    for (int n = 0; n < 200000 && !done; ++n) {
      transport.write(pattern(100));
      std::this_thread::yield();
    }
  });
  for (int i = 0; i < 20; ++i)
    transport.connect();
  ASSERT_TRUE(main->runUntil([&] { return server.messagesReceived() > 0; }));
  done = true;
  encoder.join();
}

TEST(BeastSocketTest, AfterATextMessageNothingIsDeliveredButPingsStillWork) {
  test::ScopedManualMainQueue main;
  WsTestServer server;
  auto recorder = std::make_shared<Recorder>();
  BeastSocket transport(
      QRVSocketRequest{*QRVURL::parse(server.url()), {}, std::chrono::seconds(10)}, nullptr);
  transport.setDelegate(recorder);
  transport.connect();
  ASSERT_TRUE(
      main->runUntil([&] { return recorder->read([](Recorder& r) { return r.connects; }); }));
  server.sendToAll({'h', 'i'}, false);
  server.sendToAll({1, 2, 3}, true);
  // Once our ping's pong is back, the binary message sent before it was read (and anything it
  // delivered was posted before the pong was reported).
  transport.writePing({});
  ASSERT_TRUE(main->runUntil([&] { return recorder->read([](Recorder& r) { return r.pongs; }); }));
  main->runUntilIdle();
  EXPECT_TRUE(recorder->data.empty());
  EXPECT_TRUE(transport.isConnected());
}

// A connection still open at exit holds the network thread. Exit must still wait for the handler
// under way, or it would run on while OpenSSL and the statics are torn down around it.
TEST(IoThreadDeathTest, ExitJoinsTheThreadThatConnectionsStillHold) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        auto held = IoThread::shared();
        std::atomic<bool> started{false};
        boost::asio::post(held->context(), [&started] {
          started = true;
          std::this_thread::sleep_for(std::chrono::milliseconds(100));
          std::fputs("handler finished\n", stderr);
        });
        while (!started)
          std::this_thread::yield();
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "handler finished");
}

TEST(StarscreamWebSocketTest, GivesUpAWriteTheSocketNeverTakes) {
  test::ScopedManualMainQueue main;
  WsTestServer server(WsServerOptions{.mode = WsServerOptions::Mode::mute});
  auto recorder = std::make_shared<Recorder>();
  StarscreamSocket transport(
      QRVSocketRequest{*QRVURL::parse(server.url()), {}, std::chrono::milliseconds(300)});
  transport.setDelegate(recorder);
  transport.connect();
  ASSERT_TRUE(
      main->runUntil([&] { return recorder->read([](Recorder& r) { return r.connects; }); }));
  // Far more than the socket buffers on both ends hold.
  for (int i = 0; i < 64; ++i)
    transport.write(std::vector<std::uint8_t>(1 << 20, 0x55));
  ASSERT_TRUE(main->runUntil(
      [&] { return recorder->read([](Recorder& r) { return !r.disconnects.empty(); }); },
      std::chrono::seconds(20)));
  EXPECT_EQ(recorder->disconnects[0],
            TransportError(WSError{WSError::ErrorType::writeTimeoutError,
                                   "Timed out waiting for the socket to be ready for a write", 0}));
}

// The CBOR socket over each transport, chosen through the host's setting.
class CBORSocketRecoveryTest : public ::testing::TestWithParam<WebsocketMethod> {
 protected:
  void SetUp() override {
    QRVBundle bundle = QRVBundle::main();
    bundle.settings["QRVWebSocketMethod"] = Value(static_cast<int>(GetParam()));
    QRVBundle::setMain(bundle);
  }
  void TearDown() override {
    if (socket)
      socket->disconnect();
    QRVBundle::resetMain();
  }

  void start(WsTestServer& server) {
    const std::string url = server.url("/sockets/1/ws");
    socket = CBORSocket::create(nullptr, [url] {
      return QRVSocketRequest{*QRVURL::parse(url), {}, std::chrono::seconds(10)};
    });
    socket->onConnect([seen = seen] { ++seen->connects; });
    socket->onDisconnect([seen = seen](const std::optional<QRVError>& e) {
      std::lock_guard lock(seen->mutex);
      seen->errors.push_back(e);
    });
    socket->onMessage("hello", [seen = seen](const Value::Map& data) {
      std::lock_guard lock(seen->mutex);
      seen->messages.push_back(data);
    });
  }

  std::size_t disconnectCount() {
    std::lock_guard lock(seen->mutex);
    return seen->errors.size();
  }

  // The id of the last envelope the server got.
  std::uint64_t lastIdSent(WsTestServer& server) {
    auto got = server.received();
    auto item = CBORDecoder(got.back().data).decodeItem();
    return item.value()->find("id")->get<CBOR::UnsignedInt>()->value;
  }

  // Shared with the observers: the platform transport may still be reporting from its own
  // thread while the test ends.
  struct Seen {
    std::atomic<int> connects{0};
    std::mutex mutex;
    std::vector<std::optional<QRVError>> errors;
    std::vector<Value::Map> messages;
  };

  test::ScopedManualMainQueue main;
  std::shared_ptr<CBORSocket> socket;
  std::shared_ptr<Seen> seen = std::make_shared<Seen>();
};

TEST_P(CBORSocketRecoveryTest, CarriesEventsAndComesBackAfterTheServerDrops) {
  WsTestServer server;
  start(server);
  ASSERT_TRUE(main->runUntil([&] { return socket->isConneced(); }));
  // The echo server sends the envelope back: an event for our own listener.
  socket->send("hello", {{"n", Value(1)}});
  socket->send("hello", {{"n", Value(2)}});
  ASSERT_TRUE(main->runUntil([&] {
    std::lock_guard lock(seen->mutex);
    return seen->messages.size() == 2;
  }));
  EXPECT_EQ(seen->messages[1].at("n"), Value(2));
  EXPECT_EQ(lastIdSent(server), 2u);

  const int before = seen->connects;
  server.dropAll();
  // Observers first, then the reconnect is scheduled (beside the ping timer).
  ASSERT_TRUE(main->runUntil([&] { return disconnectCount() >= 1 && main->pendingCount() == 2; }));
  main->advanceSeconds(socket->minReconnectDelay());
  // The server counts an upgrade once its answer is out, so the client may hear it first.
  ASSERT_TRUE(
      main->runUntil([&] { return seen->connects == before + 1 && server.upgrades() == 2; }));
  socket->send("hello", {{"n", Value(3)}});
  ASSERT_TRUE(main->runUntil([&] { return server.received().size() == 3; }));
  EXPECT_EQ(lastIdSent(server), 1u);
}

TEST_P(CBORSocketRecoveryTest, RebuildsAConnectionWhosePongsStop) {
  WsTestServer server(WsServerOptions{.mode = WsServerOptions::Mode::mute});
  start(server);
  ASSERT_TRUE(main->runUntil([&] { return socket->isConneced(); }));
  // The mute server never answers the ping.
  main->advanceSeconds(CBORSocket::kPingInterval);
  main->advanceSeconds(CBORSocket::kPongTimeout);
  ASSERT_TRUE(socket->isReconnectScheduled());
  // Counted only now: the first connect may still have been on its way to the observer.
  const int before = seen->connects;
  main->advanceSeconds(socket->minReconnectDelay());
  EXPECT_TRUE(
      main->runUntil([&] { return seen->connects == before + 1 && server.upgrades() == 2; }));
}

TEST_P(CBORSocketRecoveryTest, KeepsRetryingARefusedUpgrade) {
  WsTestServer server(WsServerOptions{.refuseWithStatus = 401});
  start(server);
  for (int attempt = 1; attempt <= 3; ++attempt) {
    SCOPED_TRACE(attempt);
    ASSERT_TRUE(main->runUntil([&] { return socket->isReconnectScheduled(); }));
    // Longer than any of the first delays (at most 1.5 s).
    main->advanceSeconds(2.0);
  }
  EXPECT_TRUE(main->runUntil([&] { return server.requestHeaders().size() >= 4; }));
  // Every refusal reaches the observers, even the first, which may come before create() returns.
  EXPECT_GE(disconnectCount(), 3u);
  EXPECT_EQ(seen->connects, 0);
  if (GetParam() == WebsocketMethod::starscream) {
    EXPECT_EQ(seen->errors[0], QRVError("CBORSocket", 401, ""));
  }
}

// The service must see an orderly close, not a lost connection, whichever transport closes.
TEST_P(CBORSocketRecoveryTest, ClosesWithACloseFrameEveryTime) {
  WsTestServer server;
  for (int round = 1; round <= 5; ++round) {
    SCOPED_TRACE(round);
    start(server);
    ASSERT_TRUE(main->runUntil([&] { return socket->isConneced(); }));
    socket->disconnect();
    socket.reset();
    ASSERT_TRUE(main->runUntil([&] { return server.endings().size() == std::size_t(round); }));
    EXPECT_EQ(server.endings().back(), 1000);
  }
}

INSTANTIATE_TEST_SUITE_P(Transports,
                         CBORSocketRecoveryTest,
                         ::testing::Values(WebsocketMethod::urlSession,
                                           WebsocketMethod::starscream),
                         name);

// Trusted root, right name, but only in the common name: refused, as modern clients do.
TEST_P(TransportTest, RefusesACertificateThatNamesTheHostOnlyInItsCommonName) {
  test::TestCertificates certs;
  ASSERT_TRUE(certs.ok) << "openssl could not make the test certificates";
  setTLSConfiguration({{certs.caPem}});
  WsTestServer server(WsServerOptions{.certificate = certs.commonNameOnlyPem,
                                      .privateKey = certs.commonNameOnlyKey});
  auto transport = open(server.url("/", "localhost"), false);
  ASSERT_TRUE(until([](Recorder& r) { return r.connects > 0 || !r.disconnects.empty(); }));
  EXPECT_EQ(recorder->connects, 0);
  EXPECT_TRUE(lastError().has_value());
  EXPECT_EQ(server.upgrades(), 0);
}

}  // namespace
}  // namespace quorvix

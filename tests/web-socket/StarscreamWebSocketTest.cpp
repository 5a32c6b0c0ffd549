// The library's own client over a scripted stream: what it writes for a given server answer.
#include <gtest/gtest.h>

#include <string>

#include "../support/ManualExecutor.h"
#include "../support/TestUtil.h"
#include "web-socket/StarscreamWebSocket.h"
#include "web-socket/WSHandshake.h"

namespace quorvix {
namespace {

// Runs everything inline on the test's thread and keeps what the client writes.
class ScriptedStream final : public WSStream {
 public:
  void connect(const WSStreamTarget&, std::weak_ptr<WSStreamDelegate> d) override {
    delegate = std::move(d);
    delegate.lock()->streamDidOpen();
  }
  void write(std::vector<std::uint8_t> head,
             std::vector<std::uint8_t> body,
             WriteDone done) override {
    head.insert(head.end(), body.begin(), body.end());
    writes.push_back(std::move(head));
    if (done)
      done();
  }
  void close() override { closed = true; }
  void setReadingPaused(bool) override {}
  void post(Task task) override { task(); }
  bool isCurrent() const override { return true; }

  // Answers the upgrade request the client wrote first.
  void accept(const std::string& extensions) {
    const std::string request(writes.at(0).begin(), writes.at(0).end());
    const std::string name = "Sec-WebSocket-Key: ";
    const auto at = request.find(name) + name.size();
    const std::string key = request.substr(at, request.find("\r\n", at) - at);
    const std::string answer =
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Accept: " +
        webSocketAccept(key) + "\r\nSec-WebSocket-Extensions: " + extensions + "\r\n\r\n";
    delegate.lock()->streamDidReceive(
        std::span(reinterpret_cast<const std::uint8_t*>(answer.data()), answer.size()));
  }

  std::weak_ptr<WSStreamDelegate> delegate;
  std::vector<std::vector<std::uint8_t>> writes;
  bool closed = false;
};

struct Client {
  explicit Client(const std::string& extensions) {
    client = StarscreamWebSocket::create(
        QRVSocketRequest{*QRVURL::parse("ws://127.0.0.1:9/"), {}, std::chrono::seconds(10)}, {},
        [this] {
          streams.push_back(std::make_shared<ScriptedStream>());
          return stream = streams.back();
        });
    client->callbackQueue = main.get();
    client->connect();
    stream->accept(extensions);
    main->runUntilIdle();
  }

  test::ScopedManualMainQueue main;
  std::vector<std::shared_ptr<ScriptedStream>> streams;
  std::shared_ptr<ScriptedStream> stream;
  std::shared_ptr<StarscreamWebSocket> client;
};

// zlib's raw deflate cannot keep to an 8-bit window: what it would send needs back-references
// the server cannot resolve. Such a window is honoured by sending uncompressed.
TEST(StarscreamWebSocketTest, CompressesOnlyWithinAWindowItCanKeepTo) {
  for (const auto& [extensions, compressed] : std::vector<std::pair<std::string, bool>>{
           {"permessage-deflate", true},
           {"permessage-deflate; client_max_window_bits=9", true},
           {"permessage-deflate; client_max_window_bits=8", false}}) {
    SCOPED_TRACE(extensions);
    Client c(extensions);
    ASSERT_TRUE(c.client->isConnected());
    c.client->write(test::pattern(1000));
    ASSERT_EQ(c.stream->writes.size(), 2u);
    EXPECT_EQ((c.stream->writes[1][0] & 0x40) != 0, compressed);
  }
}

// Released after a close frame was queued, the client still waits for the server's close frame
// before it closes the stream, or gives up once its timeout has passed.
TEST(StarscreamWebSocketTest, ReleasedClientFinishesItsCloseHandshake) {
  Client c("permessage-deflate");
  c.client->disconnect();
  ASSERT_EQ(c.stream->writes.size(), 2u);
  EXPECT_EQ(c.stream->writes[1][0], 0x88);  // FIN + close
  auto stream = c.stream;
  c.client.reset();
  EXPECT_FALSE(stream->closed);
  const std::vector<std::uint8_t> serverClose{0x88, 0x02, 0x03, 0xe8};
  stream->delegate.lock()->streamDidReceive(serverClose);
  EXPECT_TRUE(stream->closed);

  Client silent("permessage-deflate");
  silent.client->disconnect();
  auto quiet = silent.stream;
  silent.client.reset();
  silent.main->advanceSeconds(9.9);
  EXPECT_FALSE(quiet->closed);
  silent.main->advanceSeconds(0.2);
  EXPECT_TRUE(quiet->closed);
  EXPECT_TRUE(quiet->delegate.expired());
}

// A forced close that falls due after the client has connected again ends nothing new.
TEST(StarscreamWebSocketTest, AForcedCloseEndsOnlyTheConnectionItWasFor) {
  Client c("permessage-deflate");
  c.client->disconnect(seconds(1.0));
  const std::vector<std::uint8_t> serverClose{0x88, 0x02, 0x03, 0xe8};
  c.stream->delegate.lock()->streamDidReceive(serverClose);
  c.main->runUntilIdle();
  ASSERT_FALSE(c.client->isConnected());
  ASSERT_TRUE(c.client->connect());
  c.stream->accept("permessage-deflate");
  c.main->runUntilIdle();
  ASSERT_TRUE(c.client->isConnected());
  c.main->advanceSeconds(1.0);
  EXPECT_TRUE(c.client->isConnected());
  EXPECT_FALSE(c.streams.back()->closed);
}

}  // namespace
}  // namespace quorvix

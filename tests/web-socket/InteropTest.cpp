// The library's own client against Node's `ws` server (tests/interop), a peer nobody here wrote.
#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>

#include "../support/ChildProcess.h"
#include "../support/ManualExecutor.h"
#include "../support/TestUtil.h"
#include "web-socket/StarscreamWebSocket.h"

namespace quorvix {
namespace {

using test::pattern;

struct Events {
  std::mutex mutex;
  bool connected = false;
  std::vector<std::optional<TransportError>> disconnects;
  std::vector<std::string> texts;
  std::vector<std::vector<std::uint8_t>> data;
};

class NodeServer {
 public:
  explicit NodeServer(const std::string& options)
      : process_({"node", QRV_INTEROP_DIR "/ws-server.js", options}) {
    if (auto line = process_.readLine(); line && line->rfind("PORT ", 0) == 0)
      port_ = std::stoi(line->substr(5));
  }
  int port() const { return port_; }

 private:
  test::ChildProcess process_;
  int port_ = 0;
};

class InteropTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(std::filesystem::exists(QRV_INTEROP_DIR "/node_modules/ws"))
        << "run `npm install` in tests/interop (scripts/test does)";
  }

  void connect(const std::string& serverOptions, bool compression = true) {
    server_ = std::make_unique<NodeServer>(serverOptions);
    ASSERT_NE(server_->port(), 0) << "the node peer did not start";
    const std::string url = "ws://127.0.0.1:" + std::to_string(server_->port()) + "/";
    client_ = StarscreamWebSocket::create(
        QRVSocketRequest{*QRVURL::parse(url), {}, std::chrono::seconds(10)});
    client_->enableCompression = compression;
    auto e = events_;
    client_->onConnect = [e] {
      std::lock_guard lock(e->mutex);
      e->connected = true;
    };
    client_->onDisconnect = [e](const std::optional<TransportError>& error) {
      std::lock_guard lock(e->mutex);
      e->disconnects.push_back(error);
    };
    client_->onText = [e](const std::string& t) {
      std::lock_guard lock(e->mutex);
      e->texts.push_back(t);
    };
    client_->onData = [e](const std::vector<std::uint8_t>& d) {
      std::lock_guard lock(e->mutex);
      e->data.push_back(d);
    };
    client_->connect();
    ASSERT_TRUE(wait([](Events& e) { return e.connected; }));
  }

  bool wait(const std::function<bool(Events&)>& f) {
    return main_->runUntil([&] {
      std::lock_guard lock(events_->mutex);
      return f(*events_);
    });
  }

  std::string command(const std::string& json) {
    const std::size_t before = events_->texts.size();
    client_->write("cmd:" + json);
    EXPECT_TRUE(wait([&](Events& e) { return e.texts.size() > before; }));
    return events_->texts.back();
  }

  test::ScopedManualMainQueue main_;
  std::shared_ptr<Events> events_ = std::make_shared<Events>();
  std::unique_ptr<NodeServer> server_;
  std::shared_ptr<StarscreamWebSocket> client_;
};

TEST_F(InteropTest, CarriesTextAndBinaryOfEveryLengthForm) {
  connect("{}");
  const std::vector<std::size_t> sizes{0, 125, 126, 65535, 65536, 16u << 20};
  for (auto n : sizes)
    client_->write(pattern(n));
  ASSERT_TRUE(wait([&](Events& e) { return e.data.size() == sizes.size(); }));
  for (std::size_t i = 0; i < sizes.size(); ++i)
    EXPECT_EQ(events_->data[i], pattern(sizes[i])) << sizes[i];
  // And the server's own messages of those lengths.
  for (auto n : sizes)
    client_->write("cmd:{\"size\":" + std::to_string(n) + "}");
  ASSERT_TRUE(wait([&](Events& e) { return e.data.size() == 2 * sizes.size(); }));
  for (std::size_t i = 0; i < sizes.size(); ++i)
    EXPECT_EQ(events_->data[sizes.size() + i], pattern(sizes[i])) << sizes[i];
  client_->write(std::string("h\xc3\xa9llo"));
  ASSERT_TRUE(wait([](Events& e) { return e.texts.size() == 1; }));
  EXPECT_EQ(events_->texts[0], "h\xc3\xa9llo");
}

TEST_F(InteropTest, ReassemblesFragmentedMessages) {
  connect("{}");
  EXPECT_EQ(command(R"({"fragments":["ab","cd","ef"]})"), "abcdef");
  client_->write("cmd:{\"fragments\":[\"x\",\"\",\"yz\"],\"binary\":true}");
  ASSERT_TRUE(wait([](Events& e) { return e.data.size() == 1; }));
  EXPECT_EQ(events_->data[0], (std::vector<std::uint8_t>{'x', 'y', 'z'}));
}

TEST_F(InteropTest, CompressesWithAndWithoutContextTakeover) {
  struct Case {
    const char* options;
    const char* params;  // what the server accepted
  };
  const std::vector<Case> cases{
      {R"({"perMessageDeflate":{"threshold":0}})", "{\"server_max_window_bits\":15"},
      {R"({"perMessageDeflate":{"threshold":0,"serverNoContextTakeover":true,)"
       R"("clientNoContextTakeover":true}})",
       "\"server_no_context_takeover\":true"},
      {R"({"perMessageDeflate":{"threshold":0,"serverMaxWindowBits":9,"clientMaxWindowBits":9}})",
       "\"client_max_window_bits\":9"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    events_ = std::make_shared<Events>();
    connect(c.options);
    const std::string ext = command(R"({"extensions":true})");
    EXPECT_EQ(ext.rfind("ext:permessage-deflate:", 0), 0u) << ext;
    EXPECT_NE(ext.find(c.params), std::string::npos) << ext;
    // Repeated, compressible messages exercise the kept (or reset) windows on both sides.
    std::vector<std::uint8_t> text(50000);
    for (std::size_t i = 0; i < text.size(); ++i)
      text[i] = static_cast<std::uint8_t>("the quick brown fox "[i % 20]);
    for (int i = 0; i < 5; ++i)
      client_->write(text);
    client_->write(pattern(70000));
    ASSERT_TRUE(wait([](Events& e) { return e.data.size() == 6; }));
    for (int i = 0; i < 5; ++i)
      EXPECT_EQ(events_->data[i], text);
    EXPECT_EQ(events_->data[5], pattern(70000));
  }
}

TEST_F(InteropTest, AnswersTheServersPingsAndReportsItsClose) {
  connect("{}");
  EXPECT_EQ(command(R"({"ping":"hello"})"), "pong:hello");
  client_->write("cmd:{\"close\":4002,\"reason\":\"bye\"}");
  ASSERT_TRUE(wait([](Events& e) { return !e.disconnects.empty(); }));
  EXPECT_EQ(events_->disconnects[0], TransportError(WSError{WSError::ErrorType::protocolError,
                                                            "connection closed by server", 4002}));
  EXPECT_FALSE(client_->isConnected());
}

TEST_F(InteropTest, WorksWithoutOfferingCompression) {
  connect(R"({"perMessageDeflate":true})", false);
  EXPECT_EQ(command(R"({"extensions":true})"), "ext::{}");
  client_->write(pattern(1000));
  ASSERT_TRUE(wait([](Events& e) { return e.data.size() == 1; }));
}

}  // namespace
}  // namespace quorvix

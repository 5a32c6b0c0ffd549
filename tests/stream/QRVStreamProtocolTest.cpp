// The session's realtime protocol on fake transports and a fake encoder: which encoder, when
// frames go out or are held back, what each (re)connection sends, and agent events.
#include "stream/QRVStreamProtocol.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include "cbor/CBORDecoder.h"
#include "core/QRVRequest.h"
#include "support/FakeTransport.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"
#include "support/RecordingURLSession.h"
#include "support/ScopedURLSession.h"
#include "web-socket/CBORSocket.h"

namespace quorvix {
namespace {

using test::FakeTransport;

// Completes when told to; counts what the protocol asks of it.
class FakeEncoder : public QRVStreamEncoder {
 public:
  explicit FakeEncoder(const char* mime) : mime_(mime) {}
  std::string_view mimeType() const override { return mime_; }
  int maximumFramesInFlight() const override { return 3; }
  void encode(std::shared_ptr<QRVFrame>, Callback callback) override {
    pending.push_back(std::move(callback));
  }
  void reset() override { ++resets; }
  void destroy() override { ++destroys; }
  void complete(std::optional<Bytes> bytes) {
    auto callback = std::move(pending.front());
    pending.erase(pending.begin());
    callback(std::move(bytes));
  }
  std::vector<Callback> pending;
  int resets = 0;
  int destroys = 0;

 private:
  const char* mime_;
};

class Observer : public QRVStreamProtocolObserver {
 public:
  void onAgentEvent(const std::shared_ptr<QRVSession>&, const QRVAgentEvent& event) override {
    events.push_back(event);
  }
  void onSyncRequest(const std::shared_ptr<QRVSession>&) override { ++syncs; }
  void onStreamDisconnected(const std::shared_ptr<QRVSession>&) override { ++disconnects; }
  int disconnects = 0;
  std::vector<QRVAgentEvent> events;
  int syncs = 0;
};

CBOR cborText(const char* s) {
  return CBOR(std::string(s));
}

class QRVStreamProtocolTest : public ::testing::Test {
 protected:
  QRVStreamProtocolTest() {
    QRVRESTResource::setBaseUrl("http://127.0.0.1:9/");
    QRVStreamProtocol::Environment environment;
    environment.executor = main.get();
    environment.sockets.executor = main.get();
    environment.sockets.random = [] { return 0u; };
    environment.sockets.transportFactory = [this](const QRVSocketRequest& r,
                                                  std::shared_ptr<QRVURLSession>) {
      auto t = std::make_shared<FakeTransport>(r);
      transports.push_back(t);
      return t;
    };
    environment.makeEncoder = [this](QRVStreamProtocol::EncoderKind kind) {
      auto e = std::make_shared<FakeEncoder>(
          kind == QRVStreamProtocol::EncoderKind::h264 ? "video/avc" : "image/jpeg");
      encoders.push_back(e);
      return e;
    };
    environment.displayCornerRadius = [this] { return cornerRadius; };
    protocol = QRVStreamProtocol::create(session, environment);
    protocol->registerStreamProtocolObserver(observer);
  }
  ~QRVStreamProtocolTest() override {
    protocol->close();
    session->cleanup();
  }

  void serverSays(Value::Map fields) {
    Value::Map m{{"type", "Session"},         {"id", "S1"},
                 {"state", "active"},         {"control_url", "c/"},
                 {"control_token", "ctoken"}, {"stream_url", "s/"},
                 {"stream_token", "stoken"}};
    for (auto& [k, v] : fields)
      m[k] = v;
    ASSERT_FALSE(session->updateResource(Value(m)));
  }
  // The transports of the stream socket are every second one: control first.
  FakeTransport& streamTransport() {
    for (auto it = transports.rbegin(); it != transports.rend(); ++it) {
      if ((*it)->request.url.toString().find("/s/") != std::string::npos)
        return **it;
    }
    throw std::runtime_error("no stream transport");
  }
  std::vector<std::pair<std::string, CBOR>> sentOn(FakeTransport& t) {
    std::vector<std::pair<std::string, CBOR>> out;
    for (const auto& bytes : t.writes) {
      auto item = CBORDecoder(bytes).decodeItem().value();
      auto value = convertIncoming(*item);
      out.emplace_back(*value->find("event")->asString(), *item);
    }
    return out;
  }
  std::vector<std::string> eventsOn(FakeTransport& t) {
    std::vector<std::string> names;
    for (auto& [name, item] : sentOn(t))
      names.push_back(name);
    return names;
  }
  void ack(FakeTransport& t, std::uint64_t id) {
    t.receive(CBOR(CBOR::Map{{cborText("ack"), CBOR(CBOR::UnsignedInt{id})}}));
    main->runUntilIdle();
  }
  FakeEncoder& encoder() { return *encoders.back(); }
  std::shared_ptr<QRVFrame> frame() {
    return std::make_shared<QRVFrame>(QRVImage::create(4, 4, std::vector<std::uint8_t>(64)));
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<test::RecordingURLSession> http = std::make_shared<test::RecordingURLSession>();
  test::ScopedURLSession scopedHttp{http};
  std::shared_ptr<QRVSessionResource> session = std::make_shared<QRVSessionResource>();
  std::vector<std::shared_ptr<FakeTransport>> transports;
  std::vector<std::shared_ptr<FakeEncoder>> encoders;
  std::shared_ptr<Observer> observer = std::make_shared<Observer>();
  std::shared_ptr<QRVStreamProtocol> protocol;
  double cornerRadius = 0;
};

TEST_F(QRVStreamProtocolTest, ChoosesVideoUnlessOnlyJPEGIsAllowedAndKeepsTheEncoder) {
  test::LogCapture logs;
  using Kind = QRVStreamProtocol::EncoderKind;
  serverSays({});
  EXPECT_EQ(protocol->encoderKind(), Kind::h264) << "absent codecs";
  serverSays({{"video_codecs", Value::Array{}}});
  EXPECT_EQ(encoders.size(), 1u) << "empty codecs: still video, the same encoder";
  serverSays({{"video_codecs", Value::Array{"image/jpeg"}}});
  EXPECT_EQ(protocol->encoderKind(), Kind::jpeg);
  EXPECT_EQ(encoders[0]->destroys, 1);
  serverSays({{"video_codecs", Value::Array{"image/jpeg", "video/avc"}}});
  EXPECT_EQ(protocol->encoderKind(), Kind::h264);
  EXPECT_EQ(encoders.size(), 3u);
  std::vector<std::string> using_;
  for (const auto& m : logs.messages(LogLevel::debug))
    if (m.rfind("using ", 0) == 0)
      using_.push_back(m);
  EXPECT_EQ(using_, (std::vector<std::string>{"using video/avc encoder", "using image/jpeg encoder",
                                              "using video/avc encoder"}));
}

TEST_F(QRVStreamProtocolTest, EachStreamConnectionSendsItsFilterThenForcesASync) {
  serverSays({});
  FakeTransport& stream = streamTransport();
  EXPECT_EQ(stream.request.header("Authorization"), "Bearer stoken");
  stream.open();
  main->runUntilIdle();
  EXPECT_EQ(eventsOn(stream), std::vector<std::string>{"filter"});
  EXPECT_EQ(encoder().resets, 1);
  EXPECT_EQ(observer->syncs, 1);

  // A new token arrives with an update; the next connection uses it.
  serverSays({{"stream_token", "fresh"}});
  stream.drop(QRVError("NSURLErrorDomain", -1005, "lost"));
  main->advanceSeconds(60);
  FakeTransport& again = streamTransport();
  EXPECT_EQ(again.request.header("Authorization"), "Bearer fresh");
  again.open();
  main->runUntilIdle();
  EXPECT_EQ(eventsOn(again), std::vector<std::string>{"filter"});
  EXPECT_EQ(observer->syncs, 2);
}

TEST_F(QRVStreamProtocolTest, TheControlSocketFetchesTheSessionAgainOnceItsFilterIsAcknowledged) {
  serverSays({});
  FakeTransport* control = nullptr;
  for (auto& t : transports)
    if (t->request.url.toString().find("/c/") != std::string::npos)
      control = t.get();
  ASSERT_NE(control, nullptr);
  const auto fetches = [&] {
    int n = 0;
    for (const auto& body : http->bodies())
      n += body.rfind("GET ", 0) == 0;
    return n;
  };
  control->open();
  main->runUntilIdle();
  EXPECT_EQ(eventsOn(*control), std::vector<std::string>{"filter"});
  EXPECT_EQ(fetches(), 1) << "what was pushed while disconnected";
  // A change between that answer and the filter's arrival reached no socket: fetch once more.
  ack(*control, 1);
  EXPECT_EQ(fetches(), 2);

  // A connection that drops before its filter is acknowledged fetches again only on the next.
  control->drop(QRVError("NSURLErrorDomain", -1005, "lost"));
  main->advanceSeconds(60);
  FakeTransport& again = *transports.back();
  ASSERT_NE(&again, control);
  again.open();
  main->runUntilIdle();
  EXPECT_EQ(fetches(), 3);
  ack(again, 1);
  EXPECT_EQ(fetches(), 4);
}

TEST_F(QRVStreamProtocolTest, FramesAreHeldBackOnlyOnceTheServiceLagsByTheLimit) {
  serverSays({});
  FakeTransport& stream = streamTransport();
  stream.open();
  main->runUntilIdle();
  int ready = 0;
  // Before any acknowledgement nothing is held back, however much was sent.
  for (int i = 0; i < 5; ++i) {
    protocol->sendFrame(frame(), [&] { ++ready; });
    encoder().complete(QRVStreamEncoder::Bytes{1, 2, 3});
  }
  EXPECT_EQ(ready, 5);
  EXPECT_EQ(eventsOn(stream).size(), 6u) << "filter and five frames";

  ack(stream, 3);  // six sent, three acknowledged: lag 3, the limit
  protocol->sendFrame(frame(), [&] { ++ready; });
  EXPECT_EQ(ready, 6) << "dropped, and ready once";
  EXPECT_TRUE(encoder().pending.empty());

  ack(stream, 4);  // lag 2
  protocol->sendFrame(frame(), [&] { ++ready; });
  EXPECT_EQ(ready, 7) << "ready right after handing over";
  ASSERT_EQ(encoder().pending.size(), 1u);
  encoder().complete(std::nullopt);
  EXPECT_EQ(ready, 8) << "nothing encoded: ready once more";
}

TEST_F(QRVStreamProtocolTest, ALatencyBoundHoldsFramesBackUntilTheLinkDrains) {
  test::LogCapture logs;
  protocol->setLatencyBound(0.5);
  serverSays({});
  FakeTransport& stream = streamTransport();
  stream.open();
  main->runUntilIdle();
  int ready = 0;
  const auto send = [&] {
    protocol->sendFrame(frame(), [&] { ++ready; });
    if (encoder().pending.empty())
      return false;
    encoder().complete(QRVStreamEncoder::Bytes{1});
    return true;
  };
  // Before the first acknowledgement, as on a slow link: the filter (message 1) is timed.
  main->advanceSeconds(0.4);
  EXPECT_TRUE(send()) << "0.4 s unacknowledged is within the bound";
  main->advanceSeconds(0.8);
  EXPECT_FALSE(send()) << "1.2 s without an acknowledgement: held back";
  EXPECT_TRUE(logs.mentions("held back a frame"));

  ack(stream, 1);
  ack(stream, 2);  // drained, though the estimate is still high
  ASSERT_GT(protocol->stream()->metrics().latency(), 0.5);
  EXPECT_TRUE(send()) << "nothing in flight: a frame goes out to measure again";
  EXPECT_EQ(ready, 3);
  // Prompt acknowledgements bring the estimate under the bound, and frames flow again.
  for (std::uint64_t id = 3; id < 12 && protocol->stream()->metrics().latency() > 0.5; ++id) {
    ack(stream, id);
    ASSERT_TRUE(send());
  }
  ASSERT_LE(protocol->stream()->metrics().latency(), 0.5);
  EXPECT_TRUE(send()) << "one in flight, under the bound";
  // A sudden stall shows in the age of what is out long before it shows in the smoothed figure.
  protocol->setLatencyBound(2.0);
  main->advanceSeconds(2.5);
  ASSERT_LT(protocol->stream()->metrics().latency(), 2.0);
  EXPECT_FALSE(send()) << "a frame out for 2.5 s";

  // Off: only the limit of frames in flight counts.
  protocol->setLatencyBound(0);
  main->advanceSeconds(5);
  EXPECT_TRUE(send());
}

TEST_F(QRVStreamProtocolTest, FrameMessagesAndAFrameForADisconnectedStream) {
  serverSays({{"scale", 0.5}});
  FakeTransport& stream = streamTransport();
  stream.open();
  main->runUntilIdle();
  protocol->sendFrame(frame(), nullptr);
  encoder().complete(QRVStreamEncoder::Bytes{9});
  auto sent = sentOn(stream);
  ASSERT_EQ(sent.size(), 2u);
  const auto frameMessage = convertIncoming(sent[1].second);
  const Value* data = frameMessage->find("data");
  ASSERT_TRUE(data && data->asMap());
  EXPECT_EQ(*data->find("type")->asString(), "Frame");
  EXPECT_EQ(*data->find("mime_type")->asString(), "video/avc");
  EXPECT_EQ(*data->find("data")->asBytes(), (Value::Bytes{9}));
  EXPECT_TRUE(data->find("id")->isInteger());
  EXPECT_FALSE(data->find("border_radius")) << "square corners";

  cornerRadius = 10;
  protocol->sendFrame(frame(), nullptr);
  encoder().complete(QRVStreamEncoder::Bytes{9});
  const auto second = convertIncoming(sentOn(stream)[2].second);
  data = second->find("data");
  EXPECT_EQ(data->find("border_radius")->toDouble(), 5.0);

  const int resets = encoder().resets;
  stream.drop();
  main->runUntilIdle();
  EXPECT_EQ(observer->disconnects, 1) << "the context hears of the drop";
  protocol->sendFrame(frame(), nullptr);
  encoder().complete(QRVStreamEncoder::Bytes{9});
  main->runUntilIdle();
  EXPECT_EQ(encoder().resets, resets + 1) << "the next frame after reconnecting is complete";
}

TEST_F(QRVStreamProtocolTest, ProbesAreAnsweredAndAgentEventsHandedOnAsParsed) {
  serverSays({});
  FakeTransport& stream = streamTransport();
  stream.open();
  main->runUntilIdle();
  auto envelope = [](const char* event, CBOR::Map data) {
    return CBOR(CBOR::Map{{cborText("event"), cborText(event)},
                          {cborText("data"), CBOR(std::move(data))},
                          {cborText("id"), CBOR(CBOR::UnsignedInt{1})}});
  };
  stream.receive(envelope("probe", {{cborText("t"), CBOR(CBOR::UnsignedInt{1})}}));
  stream.receive(envelope("laser", {{cborText("type"), cborText("Laser")},
                                    {cborText("id"), cborText("l")},
                                    {cborText("state"), cborText("touchmove")}}));
  stream.receive(envelope("mouse", {{cborText("type"), cborText("Nonsense")}}));
  main->runUntilIdle();
  auto sent = sentOn(stream);
  ASSERT_EQ(sent.back().first, "alive");
  EXPECT_EQ(*convertIncoming(sent.back().second)->find("data"), Value(Value::Map{{"t", 1}}));
  EXPECT_TRUE(session->lastAlive());
  ASSERT_EQ(observer->events.size(), 2u);
  EXPECT_TRUE(std::holds_alternative<QRVLaser>(observer->events[0]));
  EXPECT_TRUE(std::holds_alternative<std::monostate>(observer->events[1]))
      << "what fails to parse is handed on as nothing";
}

TEST_F(QRVStreamProtocolTest, CloseIsOrderlyAndIdempotentAndAnEndedSessionOpensNothing) {
  serverSays({});
  ASSERT_EQ(transports.size(), 2u);
  protocol->close();
  protocol->close();
  EXPECT_EQ(encoders[0]->destroys, 1);
  EXPECT_FALSE(protocol->stream());
  EXPECT_FALSE(protocol->encoder());
  int ready = 0;
  protocol->sendFrame(frame(), [&] { ++ready; });
  EXPECT_EQ(ready, 1) << "no socket, no encoder: dropped";

  serverSays({{"state", "ended"}});
  EXPECT_EQ(transports.size(), 2u);
}

TEST(QRVStreamProtocolDateTest, LocalTimeWithItsOffsetOrZ) {
  const WallTime t = std::chrono::system_clock::from_time_t(1714572187);  // 2024-05-01T14:03:07Z
  setenv("TZ", "UTC0", 1);
  tzset();
  EXPECT_EQ(QRVStreamProtocol::ISODateString(t), "2024-05-01T14:03:07Z");
  setenv("TZ", "XYZ-2", 1);
  tzset();
  EXPECT_EQ(QRVStreamProtocol::ISODateString(t), "2024-05-01T16:03:07+02:00");
  setenv("TZ", "XYZ+3:30", 1);
  tzset();
  EXPECT_EQ(QRVStreamProtocol::ISODateString(t), "2024-05-01T10:33:07-03:30");
}

}  // namespace
}  // namespace quorvix

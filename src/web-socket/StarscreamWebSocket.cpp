#include "web-socket/StarscreamWebSocket.h"

#include <openssl/rand.h>

#include "utils/Logging.h"
#include "utils/UTF8.h"
#include "web-socket/WSCompression.h"
#include "web-socket/WSHandshake.h"

namespace quorvix {
namespace {

template <std::size_t N>
std::array<std::uint8_t, N> secureRandom() {
  std::array<std::uint8_t, N> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(N)) != 1)
    QRV_FATAL("StarscreamWebSocket", "the secure random generator failed");
  return bytes;
}

bool isDataOpCode(OpCode op) {
  return op == OpCode::textFrame || op == OpCode::binaryFrame;
}

// The status code of a server's close frame, 1002 when it is malformed or not one an endpoint
// may send (RFC 6455 section 7.4).
int closeStatus(const std::vector<std::uint8_t>& payload) {
  if (payload.empty())
    return closeCode::normal;
  if (payload.size() == 1)
    return closeCode::protocolError;
  const int code = payload[0] << 8 | payload[1];
  const bool valid = (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) ||
                     (code >= 3000 && code <= 4999);
  if (!valid || !isValidUTF8(std::span(payload).subspan(2)))
    return closeCode::protocolError;
  return code;
}

std::vector<std::uint8_t> closePayload(int code) {
  return {static_cast<std::uint8_t>(code >> 8), static_cast<std::uint8_t>(code)};
}

// For requests that carry no timeout of their own.
constexpr double kDefaultTimeout = 10.0;

// Received bytes that may wait for the callback queue before reading stops.
constexpr std::size_t kMaxQueuedMessageBytes = 4u << 20;

}  // namespace

// One connection attempt. Everything below runs on the stream's work queue.
struct StarscreamWebSocket::Connection final : WSStreamDelegate,
                                               std::enable_shared_from_this<Connection> {
  std::weak_ptr<StarscreamWebSocket> owner;
  std::shared_ptr<WSStream> stream;
  WSHandshakeInput input;
  bool respondToPing = true;
  std::uint64_t maxMessage = 256u << 20;
  std::shared_ptr<Executor> queue;
  Duration timeout = seconds(kDefaultTimeout);
  TaskHandle openDeadline;
  // While a released client's close handshake runs, the connection keeps itself alive.
  std::shared_ptr<Connection> closing;
  TaskHandle closeDeadline;

  std::optional<WSHandshakeReader> handshake;
  WSFrameReader reader;
  WSMessageAssembler assembler;
  std::unique_ptr<WSCompressor> compressor;
  std::unique_ptr<WSDecompressor> decompressor;
  bool open = false;
  bool ended = false;
  bool closeSent = false;
  // Bytes of messages posted to the callback queue and not yet handled there.
  std::size_t queued = 0;

  void prepare() {
    reader = WSFrameReader(false, maxMessage);
    assembler = WSMessageAssembler(maxMessage);
  }

  // A callback queue that falls behind stops the reading until it has caught up.
  void didQueue(std::size_t size) {
    queued += size;
    if (queued > kMaxQueuedMessageBytes)
      stream->setReadingPaused(true);
  }

  void didDeliver(std::size_t size) {
    queued -= size;
    if (queued <= kMaxQueuedMessageBytes / 2)
      stream->setReadingPaused(false);
  }

  // The client is gone. Once a close frame was queued, the handshake still runs to its end (the
  // server's close frame, or the timeout), so the server sees an orderly close; otherwise the
  // stream closes at once.
  void release() {
    if (!open || ended || !closeSent)
      return stream->close();
    closing = shared_from_this();
    closeDeadline = queue->postAfter(timeout, [weak = weak_from_this()] {
      if (auto c = weak.lock())
        c->stream->post([c] { c->end(std::nullopt, std::nullopt); });
    });
  }

  void streamDidOpen() override {
    const std::string key = webSocketKey(secureRandom<16>());
    const std::string text = buildHandshake(input, key);
    stream->write(std::vector<std::uint8_t>(text.begin(), text.end()), {}, nullptr);
    handshake.emplace(key);
  }

  void streamDidReceive(std::span<const std::uint8_t> bytes) override {
    if (ended)
      return;
    if (open)
      return readFrames(bytes);
    if (!handshake)
      return;
    auto result = handshake->feed(bytes);
    if (!result)
      return;
    if (result->second)
      return end(result->second, std::nullopt);
    didUpgrade(std::move(*result->first));
  }

  void streamDidEnd(std::optional<TransportError> error) override {
    ended = true;
    auto self = std::move(closing);
    closeDeadline.cancel();
    openDeadline.cancel();
    if (auto o = owner.lock())
      o->connectionEnded(this, std::move(error));
  }

  void didUpgrade(WSHandshakeReader::Response response) {
    openDeadline.cancel();
    handshake.reset();
    open = true;
    const WSCompressionConfig& c = response.compression;
    if (input.enableCompression && c.enabled) {
      reader.setCompressionNegotiated(true);
      // zlib's raw deflate cannot keep to an 8-bit window; sending uncompressed is always allowed.
      if (c.clientMaxWindowBits > 8)
        compressor =
            std::make_unique<WSCompressor>(c.clientMaxWindowBits, c.clientNoContextTakeover);
      decompressor = std::make_unique<WSDecompressor>(c.serverMaxWindowBits,
                                                      c.serverNoContextTakeover, maxMessage);
    }
    auto o = owner.lock();
    if (!o)
      return;
    o->post([headers = std::move(response.headers)](StarscreamWebSocket& s) {
      if (s.onHttpResponseHeaders)
        s.onHttpResponseHeaders(headers);
    });
    o->connectionOpened(this);
    if (!response.rest.empty())
      readFrames(response.rest);
  }

  void readFrames(std::span<const std::uint8_t> bytes) {
    auto error = reader.feed(bytes, [this](WSFrame&& frame) {
      if (!ended)
        handleFrame(std::move(frame));
    });
    if (error)
      fail(*error);
  }

  void handleFrame(WSFrame&& frame) {
    std::optional<WSError> error;
    auto message = assembler.add(std::move(frame), &error);
    if (error)
      return fail(*error);
    if (!message)
      return;
    // Without an owner, only the close handshake still matters.
    auto o = owner.lock();
    if (!o && message->opcode != OpCode::connectionClose && message->opcode != OpCode::ping)
      return;
    switch (message->opcode) {
      case OpCode::ping:
        if (respondToPing)
          send(OpCode::pong, std::move(message->payload), nullptr);
        return;
      case OpCode::pong:
        o->post([data = std::move(message->payload)](StarscreamWebSocket& s) {
          if (s.onPong)
            s.onPong(data);
          if (auto d = s.pongDelegate.lock())
            d->websocketDidReceivePong(s, data);
        });
        return;
      case OpCode::connectionClose: {
        const int code = closeStatus(message->payload);
        return end(WSError{WSError::ErrorType::protocolError, "connection closed by server", code},
                   code);
      }
      default:
        break;
    }
    std::vector<std::uint8_t> data = std::move(message->payload);
    if (message->compressed) {
      std::vector<std::uint8_t> inflated;
      if (auto e = decompressor->decompress(data, inflated))
        return fail(WSError{WSError::ErrorType::compressionError,
                            "Decompression failed: " + e->message, closeCode::invalidPayload});
      data = std::move(inflated);
    }
    if (message->opcode == OpCode::textFrame) {
      if (!isValidUTF8(data))
        return fail(WSError{WSError::ErrorType::protocolError, "invalid UTF-8 in a text message",
                            closeCode::invalidPayload});
      didQueue(data.size());
      o->post([weak = weak_from_this(),
               text = std::string(data.begin(), data.end())](StarscreamWebSocket& s) {
        if (s.onText)
          s.onText(text);
        if (auto d = s.delegate.lock())
          d->websocketDidReceiveMessage(s, text);
        if (auto c = weak.lock())
          c->stream->post([c, size = text.size()] { c->didDeliver(size); });
      });
    } else {
      didQueue(data.size());
      o->post([weak = weak_from_this(), data = std::move(data)](StarscreamWebSocket& s) mutable {
        const std::size_t size = data.size();
        if (s.onData)
          s.onData(data);
        if (auto d = s.delegate.lock())
          d->websocketDidReceiveData(s, std::move(data));
        if (auto c = weak.lock())
          c->stream->post([c, size] { c->didDeliver(size); });
      });
    }
  }

  void send(OpCode op, std::vector<std::uint8_t> data, Completion completion) {
    if (!open || ended || (closeSent && op != OpCode::pong))
      return;
    bool rsv1 = false;
    if (compressor && isDataOpCode(op)) {
      std::vector<std::uint8_t> deflated;
      if (auto e = compressor->compress(data, deflated))
        return fail(*e);
      data = std::move(deflated);
      rsv1 = true;
    }
    if (op == OpCode::connectionClose)
      closeSent = true;
    const auto key = secureRandom<4>();
    std::vector<std::uint8_t> head;
    head.reserve(kMaxFrameSize);
    writeFrameHeader(head, op, data.size(), key, true, rsv1);
    applyMask(data, key);
    WSStream::WriteDone done;
    if (completion) {
      done = [owner = owner, completion = std::move(completion)] {
        if (auto o = owner.lock())
          o->post([completion](StarscreamWebSocket&) { completion(); });
      };
    }
    stream->write(std::move(head), std::move(data), std::move(done));
  }

  // A protocol fault: the server is told with a close frame carrying the error's code.
  void fail(const WSError& error) { end(error, error.code); }

  void end(std::optional<TransportError> error, std::optional<int> sendClose) {
    if (ended)
      return;
    auto self = std::move(closing);
    closeDeadline.cancel();
    openDeadline.cancel();
    if (sendClose && open && !closeSent) {
      send(OpCode::connectionClose, closePayload(*sendClose), nullptr);
      stream->write({}, {}, [stream = stream] { stream->close(); });
    } else {
      stream->close();
    }
    ended = true;
    if (auto o = owner.lock())
      o->connectionEnded(this, std::move(error));
  }
};

std::shared_ptr<StarscreamWebSocket> StarscreamWebSocket::create(QRVSocketRequest request,
                                                                 std::vector<std::string> protocols,
                                                                 StreamFactory streamFactory) {
  return std::make_shared<StarscreamWebSocket>(std::move(request), std::move(protocols),
                                               std::move(streamFactory));
}

StarscreamWebSocket::StarscreamWebSocket(QRVSocketRequest request,
                                         std::vector<std::string> protocols,
                                         StreamFactory streamFactory)
    : callbackQueue(mainQueue()),
      request_(std::move(request)),
      protocols_(std::move(protocols)),
      streamFactory_(streamFactory ? std::move(streamFactory) : makeFoundationStream) {}

StarscreamWebSocket::~StarscreamWebSocket() {
  if (auto c = current())
    c->stream->post([c] { c->release(); });
}

bool StarscreamWebSocket::connect() {
  if (!beginConnecting())
    return false;
  createHTTPRequest();
  return true;
}

bool StarscreamWebSocket::beginConnecting() {
  std::lock_guard lock(mutex_);
  if (isConnecting_)
    return false;
  didDisconnect_ = false;
  isConnecting_ = true;
  return true;
}

void StarscreamWebSocket::createHTTPRequest() {
  const WSEndpoint endpoint = wsEndpoint(request_.url);
  auto connection = std::make_shared<Connection>();
  connection->owner = weak_from_this();
  connection->stream = streamFactory_();
  connection->respondToPing = respondToPingWithPong;
  connection->maxMessage = maximumMessageSize;
  connection->queue = callbackQueue;
  connection->prepare();
  WSHandshakeInput& input = connection->input;
  input.resource = endpoint.resource;
  input.host = endpoint.authority;
  input.origin = std::string(endpoint.tls ? "https" : "http") + "://" + endpoint.authority;
  input.headers = request_.headers;
  if (!protocols_.empty()) {
    std::string joined;
    for (const auto& p : protocols_)
      joined += (joined.empty() ? "" : ",") + p;
    input.headers.emplace_back("Sec-WebSocket-Protocol", joined);
  }
  input.enableCompression = enableCompression;
  {
    std::lock_guard lock(mutex_);
    if (connection_)
      connection_->stream->close();
    connection_ = connection;
  }
  const Duration timeout =
      request_.timeout > Duration::zero() ? Duration(request_.timeout) : seconds(kDefaultTimeout);
  connection->timeout = timeout;
  // The budget covers the upgrade too: a server that accepts and never answers is given up.
  // Armed before connecting, so that the stream's thread only ever sees it set.
  connection->openDeadline =
      callbackQueue->postAfter(timeout, [weak = std::weak_ptr<Connection>(connection)] {
        if (auto c = weak.lock()) {
          c->stream->post([c] {
            if (!c->open)
              c->end(writeTimeoutError(), std::nullopt);
          });
        }
      });
  connection->stream->connect(WSStreamTarget{endpoint.host, endpoint.port, endpoint.tls, timeout},
                              connection);
}

void StarscreamWebSocket::disconnect(std::optional<Duration> forceTimeout, int code) {
  // The connection of this call only: a later connect() makes a new one that must stay.
  auto drop = [weak = std::weak_ptr<Connection>(current())] {
    if (auto c = weak.lock())
      c->stream->post([c] { c->end(std::nullopt, std::nullopt); });
  };
  if (forceTimeout && *forceTimeout <= Duration::zero())
    return drop();
  if (forceTimeout)
    callbackQueue->postAfter(*forceTimeout, drop);
  writeError(code);
}

void StarscreamWebSocket::write(std::vector<std::uint8_t> data, Completion completion) {
  dequeueWrite(std::move(data), OpCode::binaryFrame, std::move(completion));
}

void StarscreamWebSocket::write(const std::string& text, Completion completion) {
  dequeueWrite(std::vector<std::uint8_t>(text.begin(), text.end()), OpCode::textFrame,
               std::move(completion));
}

void StarscreamWebSocket::writePing(std::vector<std::uint8_t> data, Completion completion) {
  dequeueWrite(std::move(data), OpCode::ping, std::move(completion));
}

void StarscreamWebSocket::writeError(int code) {
  dequeueWrite(closePayload(code), OpCode::connectionClose, nullptr);
}

void StarscreamWebSocket::dequeueWrite(std::vector<std::uint8_t> data,
                                       OpCode code,
                                       Completion completion) {
  auto c = current();
  if (!c)
    return;
  c->stream->post([c, data = std::move(data), code, completion = std::move(completion)]() mutable {
    c->send(code, std::move(data), std::move(completion));
  });
}

bool StarscreamWebSocket::isConnected() const {
  std::lock_guard lock(mutex_);
  return connected_;
}

bool StarscreamWebSocket::isConnecting() const {
  std::lock_guard lock(mutex_);
  return isConnecting_;
}

std::shared_ptr<StarscreamWebSocket::Connection> StarscreamWebSocket::current() const {
  std::lock_guard lock(mutex_);
  return connection_;
}

void StarscreamWebSocket::post(std::function<void(StarscreamWebSocket&)> call) {
  callbackQueue->post([weak = weak_from_this(), call = std::move(call)] {
    if (auto self = weak.lock())
      call(*self);
  });
}

void StarscreamWebSocket::connectionOpened(const Connection* connection) {
  {
    std::lock_guard lock(mutex_);
    if (connection_.get() != connection)
      return;
    connected_ = true;
    isConnecting_ = false;
  }
  post([](StarscreamWebSocket& s) {
    if (s.onConnect)
      s.onConnect();
    if (auto d = s.delegate.lock())
      d->websocketDidConnect(s);
  });
}

void StarscreamWebSocket::connectionEnded(const Connection* connection,
                                          std::optional<TransportError> error) {
  {
    std::lock_guard lock(mutex_);
    if (connection_.get() != connection || didDisconnect_)
      return;
    connected_ = false;
    isConnecting_ = false;
    didDisconnect_ = true;
  }
  post([error = std::move(error)](StarscreamWebSocket& s) {
    if (s.onDisconnect)
      s.onDisconnect(error);
    if (auto d = s.delegate.lock())
      d->websocketDidDisconnect(s, error);
  });
}

}  // namespace quorvix

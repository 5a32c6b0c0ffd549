#include "web-socket/CBORSocket.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <utility>

#include <openssl/rand.h>

#include "cbor/CBORDecoder.h"
#include "quorvix/CBOR.h"
#include "utils/Logging.h"

namespace quorvix {

// ---- CBORSocketMetrics

// Monotonic: only differences are ever used, and a wall clock set back would make them negative.
double CBORSocketMetrics::now() const {
  return std::chrono::duration<double>(clock_.now().time_since_epoch()).count();
}

void CBORSocketMetrics::onSent(std::uint64_t messageId) {
  std::lock_guard lock(queue_);
  if (outstanding_.size() < kMaxOutstanding)
    outstanding_.emplace_back(messageId, now());
  if (lastAck_ < lastMessage_)
    return;  // the timed message is still out
  lastMessage_ = messageId;
  lastMessageTimestamp_ = now();
}

void CBORSocketMetrics::onReceived(std::uint64_t ackId) {
  std::lock_guard lock(queue_);
  const double t = now();
  while (!outstanding_.empty() && outstanding_.front().first <= ackId)
    outstanding_.pop_front();
  lastAck_ = ackId;
  lastAckTimestamp_ = t;
  double sample = 0;
  if (lastMessage_ != 0 && ackId != 0) {
    if (lastMessage_ != ackId)
      return;
    sample = t - lastMessageTimestamp_;
  }
  // A zero sample decays a running estimate on purpose.
  filteredLatency_ = filteredLatency_ == 0 ? sample : 0.125 * sample + 0.875 * filteredLatency_;
}

double CBORSocketMetrics::latency() const {
  std::lock_guard lock(queue_);
  if (lastMessage_ == 0)
    return 0;
  if (filteredLatency_ > 0 && lastMessage_ == lastAck_)
    return filteredLatency_;
  const double elapsed = now() - lastMessageTimestamp_;
  if (filteredLatency_ >= elapsed)
    return filteredLatency_;
  return filteredLatency_ == 0 ? elapsed : 0.125 * elapsed + 0.875 * filteredLatency_;
}

double CBORSocketMetrics::oldestUnacknowledgedAge() const {
  std::lock_guard lock(queue_);
  return outstanding_.empty() ? 0.0 : now() - outstanding_.front().second;
}

void CBORSocketMetrics::reset() {
  std::lock_guard lock(queue_);
  outstanding_.clear();
  lastMessage_ = 0;
  lastMessageTimestamp_ = 0;
  lastAck_ = 0;
  lastAckTimestamp_ = 0;
  filteredLatency_ = 0;
}

// ---- conversion of incoming items

std::optional<Value> convertIncoming(const CBOR& item) {
  switch (item.kind()) {
    case CBOR::Kind::unsignedInt:
      return Value(item.get<CBOR::UnsignedInt>()->value);
    case CBOR::Kind::negativeInt:
      // The raw argument, not -1 - n: what the service's listeners have always been given.
      return Value(item.get<CBOR::NegativeInt>()->n);
    case CBOR::Kind::byteString:
      return Value(*item.get<CBOR::Bytes>());
    case CBOR::Kind::utf8String:
      return Value(*item.get<std::string>());
    case CBOR::Kind::array: {
      Value::Array out;
      out.reserve(item.get<CBOR::Array>()->size());
      for (const auto& v : *item.get<CBOR::Array>()) {
        auto converted = convertIncoming(v);
        if (!converted)
          return std::nullopt;
        out.push_back(std::move(*converted));
      }
      return Value(std::move(out));
    }
    case CBOR::Kind::map: {
      const auto& map = *item.get<CBOR::Map>();
      Value::Map out;
      for (const auto& [key, value] : map) {
        const std::string* text = key.get<std::string>();
        if (!text)  // a dictionary here holds text keys only; the item goes on as it is
          return Value(std::make_shared<const CBOR>(item));
        auto converted = convertIncoming(value);
        if (!converted || !out.emplace(*text, std::move(*converted)).second)
          return std::nullopt;
      }
      return Value(std::move(out));
    }
    case CBOR::Kind::simple:
      return Value(static_cast<std::uint64_t>(item.get<CBOR::Simple>()->value));
    case CBOR::Kind::boolean:
      return Value(*item.get<bool>());
    case CBOR::Kind::half:
      return Value(item.get<CBOR::Half>()->value);
    case CBOR::Kind::float32:
      return Value(*item.get<float>());
    case CBOR::Kind::float64:
      return Value(*item.get<double>());
    case CBOR::Kind::date:
      return Value(*item.get<Date>());
    case CBOR::Kind::tagged:
    case CBOR::Kind::null:
    case CBOR::Kind::undefined:
    case CBOR::Kind::breakMark:
      break;
  }
  return Value(std::make_shared<const CBOR>(item));
}

// ---- SocketDelegate

void SocketDelegate::websocketDidConnect() {
  if (auto socket = cborSocket.lock())
    socket->onExecutor([g = generation](CBORSocket& s) { s.transportDidConnect(g); });
}

void SocketDelegate::websocketDidDisconnect(std::optional<TransportError> error) {
  if (auto socket = cborSocket.lock())
    socket->onExecutor([g = generation, error = std::move(error)](CBORSocket& s) {
      s.transportDidDisconnect(g, error);
    });
}

void SocketDelegate::websocketDidReceiveData(std::vector<std::uint8_t> data) {
  if (auto socket = cborSocket.lock())
    socket->onExecutor([g = generation, data = std::move(data)](CBORSocket& s) {
      s.transportDidReceive(g, data);
    });
}

void SocketDelegate::websocketDidReceivePong() {
  if (auto socket = cborSocket.lock())
    socket->onExecutor([g = generation](CBORSocket& s) { s.transportDidReceivePong(g); });
}

// ---- CBORSocket

namespace {

auto logger() {
  static auto l = QRV_LOGGER_FOR("CBORSocket");
  return l;
}

std::uint32_t secureRandom32() {
  std::uint32_t v = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&v), sizeof v) != 1)
    QRV_FATAL("CBORSocket", "the secure random generator failed");
  return v;
}

}  // namespace

std::shared_ptr<CBORSocket> CBORSocket::create(std::shared_ptr<QRVURLSession> session,
                                               RequestProvider request,
                                               Environment environment) {
  auto socket =
      std::make_shared<CBORSocket>(std::move(session), std::move(request), std::move(environment));
  socket->start();
  return socket;
}

CBORSocket::CBORSocket(std::shared_ptr<QRVURLSession> session,
                       RequestProvider request,
                       Environment environment)
    : executor_(environment.executor ? std::move(environment.executor) : mainQueue()),
      random_(environment.random ? std::move(environment.random) : secureRandom32),
      transportFactory_(
          environment.transportFactory
              ? std::move(environment.transportFactory)
              : [](const QRVSocketRequest& r,
                   std::shared_ptr<QRVURLSession>
                       s) { return makeSocket(currentWebsocketMethod(), r, std::move(s)); }),
      urlSession_(std::move(session)),
      request_(std::move(request)),
      metrics_(executor_->clock()),
      minReconnectDelay_(random_() / 4294967295.0 + 0.5) {}

void CBORSocket::start() {
  pingTimer_.start(executor_, seconds(kPingInterval), [weak = weak_from_this()] {
    if (auto self = weak.lock())
      self->sendPing();
  });
  // First in line, so that every observer sees ids already back at 1.
  onDisconnect([weak = weak_from_this()](const std::optional<QRVError>&) {
    auto self = weak.lock();
    if (!self)
      return;
    {
      std::lock_guard lock(self->mutex_);
      self->lastMessageAck_ = 0;
      self->messageId_ = 0;
      self->onAcknowledged_.clear();
    }
    self->metrics_.reset();
  });
  connectTransport(request_(), true);
}

CBORSocket::~CBORSocket() {
  pingTimer_.stop();
  if (socket_)
    socket_->disconnect();
}

struct CBORSocket::WorkItem {
  std::mutex mutex;
  std::shared_ptr<CBORSocket> target;
  TaskHandle handle;

  void cancel() {
    handle.cancel();
    std::lock_guard lock(mutex);
    target.reset();
  }
};

std::shared_ptr<CBORSocket::WorkItem> CBORSocket::schedule(double delay,
                                                           void (CBORSocket::*run)()) {
  auto item = std::make_shared<WorkItem>();
  item->target = shared_from_this();
  item->handle = executor_->postAfter(seconds(delay), [item, run] {
    std::shared_ptr<CBORSocket> target;
    {
      std::lock_guard lock(item->mutex);
      target = std::move(item->target);
    }
    if (target)
      ((*target).*run)();
  });
  return item;
}

void CBORSocket::onExecutor(std::function<void(CBORSocket&)> event) {
  if (executor_->isCurrent())
    return event(*this);
  executor_->post([weak = weak_from_this(), event = std::move(event)] {
    if (auto self = weak.lock())
      event(*self);
  });
}

void CBORSocket::connectTransport(const QRVSocketRequest& request, bool initial) {
  auto transport = transportFactory_(request, urlSession_);
  auto delegate = std::make_shared<SocketDelegate>();
  delegate->cborSocket = weak_from_this();
  // Current before it connects: a transport may report its failure before connect() returns,
  // and only a current transport gets its retry scheduled.
  std::shared_ptr<SocketTransport> previous;
  {
    std::lock_guard lock(mutex_);
    if (!initial && !socket_)
      return;
    delegate->generation = ++generation_;
    transportEnded_ = false;
    previous = std::exchange(socket_, transport);
  }
  transport->setDelegate(std::move(delegate));
  // Dropped without another call; its destructor closes it quietly.
  previous.reset();
  transport->connect();
}

void CBORSocket::onMessage(const std::string& event, Listener listener) {
  std::lock_guard lock(mutex_);
  onMessageObservers_[event].push_back(std::move(listener));
}

void CBORSocket::onConnect(std::function<void()> observer) {
  std::lock_guard lock(mutex_);
  onConnectObservers_.push_back(std::move(observer));
}

void CBORSocket::onDisconnect(DisconnectObserver observer) {
  std::lock_guard lock(mutex_);
  onDisconnectObservers_.push_back(std::move(observer));
}

void CBORSocket::send(const std::string& event, Value::Map data, std::function<void()> completion) {
  send(event, std::move(data), std::move(completion), {});
}

void CBORSocket::send(const std::string& event,
                      Value::Map data,
                      std::function<void()> completion,
                      std::function<void()> acknowledged) {
  std::uint64_t id;
  std::shared_ptr<SocketTransport> transport;
  {
    std::lock_guard lock(mutex_);
    if (messageId_ == std::numeric_limits<std::uint64_t>::max())
      QRV_FATAL("CBORSocket", "message id overflow");
    id = ++messageId_;
    transport = socket_;
    if (acknowledged && transport)
      onAcknowledged_.emplace(id, std::move(acknowledged));
  }
  metrics_.onSent(id);
  if (!transport)
    return;
  Value::Map envelope;
  envelope.emplace("event", Value(event));
  envelope.emplace("data", Value(std::move(data)));
  envelope.emplace("id", Value(id));
  auto bytes = CBOR::encodeMap(envelope);
  if (!bytes)
    return;
  transport->write(std::move(bytes).value(), std::move(completion));
}

void CBORSocket::sendPing() {
  std::shared_ptr<SocketTransport> transport;
  {
    std::lock_guard lock(mutex_);
    transport = socket_;
  }
  if (transport)
    transport->writePing({});
  std::lock_guard lock(mutex_);
  if (pongTimeout_)
    pongTimeout_->cancel();
  pongTimeout_ = schedule(kPongTimeout, &CBORSocket::pongDeadlinePassed);
}

void CBORSocket::pongDeadlinePassed() {
  std::shared_ptr<SocketTransport> current;
  std::uint64_t generation;
  {
    std::lock_guard lock(mutex_);
    current = socket_;
    generation = generation_;
  }
  if (current) {
    current->disconnect();
    // The platform transport has reported its end by now; the library's own client reports only
    // once the close handshake is over. The connection is given up either way, so its end is
    // handled here, and its later report is dropped as a repeat.
    transportDidDisconnect(generation, std::nullopt);
  }
  reconnect();
}

void CBORSocket::transportDidReceivePong(std::uint64_t generation) {
  std::lock_guard lock(mutex_);
  if (!isLiveLocked(generation))
    return;
  if (pongTimeout_)
    pongTimeout_->cancel();
}

bool CBORSocket::isLiveLocked(std::uint64_t generation) const {
  return generation == generation_ && !transportEnded_ && socket_;
}

double CBORSocket::reconnectDelay(std::int64_t attempts,
                                  std::uint32_t random,
                                  double minDelay,
                                  double maxDelay) {
  const float r = static_cast<float>(random) * 0x1p-32f;
  const float jitter = 1.0f + 0.5f * r;
  const float base = std::pow(static_cast<float>(attempts) * 0.3f, 1.2f);
  const double d = static_cast<double>(base * jitter);
  return std::max(minDelay, std::min(maxDelay, d));
}

void CBORSocket::reconnect() {
  std::lock_guard lock(mutex_);
  if (!socket_ || reconnectTimer_)
    return;
  const double delay = reconnectDelay(attempts_, random_(), minReconnectDelay_, maxReconnectDelay_);
  reconnectTimer_ = schedule(delay, &CBORSocket::runReconnect);
  ++attempts_;
}

void CBORSocket::runReconnect() {
  RequestProvider provider;
  {
    std::lock_guard lock(mutex_);
    reconnectTimer_.reset();
    if (!socket_) {
      std::fputs("Quorvix: Socket tried to reconnect after disconnect\n", stdout);
      std::fflush(stdout);
      return;
    }
    provider = request_;
  }
  connectTransport(provider(), false);
}

void CBORSocket::transportDidConnect(std::uint64_t generation) {
  std::vector<std::function<void()>> observers;
  {
    std::lock_guard lock(mutex_);
    if (!isLiveLocked(generation))
      return;
    observers = onConnectObservers_;
  }
  for (const auto& observer : observers)
    observer();
}

void CBORSocket::transportDidDisconnect(std::uint64_t generation,
                                        const std::optional<TransportError>& error) {
  {
    std::lock_guard lock(mutex_);
    if (!isLiveLocked(generation))
      return;
    transportEnded_ = true;
  }
  std::optional<QRVError> reported;
  if (error) {
    if (const auto* ws = std::get_if<WSError>(&*error))
      reported = QRVError("CBORSocket", ws->code, "");
    else
      reported = std::get<QRVError>(*error);
  }
  std::vector<DisconnectObserver> observers;
  {
    std::lock_guard lock(mutex_);
    observers = onDisconnectObservers_;
  }
  for (const auto& observer : observers)
    observer(reported);
  reconnect();
}

void CBORSocket::transportDidReceive(std::uint64_t generation,
                                     const std::vector<std::uint8_t>& data) {
  {
    std::lock_guard lock(mutex_);
    if (!isLiveLocked(generation))
      return;
    attempts_ = 0;
  }
  CBORDecoder decoder(data);
  auto decoded = decoder.decodeItem();
  if (!decoded || !decoded.value())
    return;
  const CBOR& item = *decoded.value();
  if (item.kind() != CBOR::Kind::map)
    return;
  auto converted = convertIncoming(item);
  if (!converted) {
    logger()->error("Dropped a message with two keys of the same value");
    return;
  }
  const Value::Map* frame = converted->asMap();
  if (!frame)
    return;
  if (auto ack = frame->find("ack"); ack != frame->end()) {
    if (const auto* n = std::get_if<std::uint64_t>(&ack->second.storage()))
      handleAck(*n);
    return;
  }
  auto event = frame->find("event");
  auto payload = frame->find("data");
  if (event == frame->end() || payload == frame->end() || !event->second.asString() ||
      !payload->second.asMap())
    return;
  std::vector<Listener> listeners;
  {
    std::lock_guard lock(mutex_);
    auto it = onMessageObservers_.find(*event->second.asString());
    if (it == onMessageObservers_.end())
      return;
    listeners = it->second;
  }
  for (const auto& listener : listeners)
    listener(*payload->second.asMap());
}

void CBORSocket::handleAck(std::uint64_t ack) {
  {
    std::lock_guard lock(mutex_);
    // The service cannot have received what was never sent; such an ack is its fault, and
    // believing it would make the lag meaningless.
    if (ack > messageId_) {
      if (!std::exchange(loggedAckAboveSent_, true))
        logger()->error("Ignored an acknowledgement of message {}, above the last sent {}", ack,
                        messageId_);
      return;
    }
    lastMessageAck_ = ack;  // a plain overwrite: a late, lower ack moves it back
  }
  metrics_.onReceived(ack);
  std::vector<std::function<void()>> acknowledged;
  {
    std::lock_guard lock(mutex_);
    while (!onAcknowledged_.empty() && onAcknowledged_.begin()->first <= ack) {
      acknowledged.push_back(std::move(onAcknowledged_.begin()->second));
      onAcknowledged_.erase(onAcknowledged_.begin());
    }
  }
  for (const auto& callback : acknowledged)
    callback();
}

void CBORSocket::disconnect() {
  std::vector<DisconnectObserver> observers;
  {
    std::lock_guard lock(mutex_);
    observers = onDisconnectObservers_;
  }
  for (const auto& observer : observers)
    observer(std::nullopt);
  std::shared_ptr<SocketTransport> transport;
  {
    std::lock_guard lock(mutex_);
    onDisconnectObservers_.clear();
    onConnectObservers_.clear();
    onMessageObservers_.clear();
    if (pongTimeout_)
      pongTimeout_->cancel();
    if (reconnectTimer_)
      reconnectTimer_->cancel();
    transport = std::move(socket_);
    request_ = nullptr;
    transportEnded_ = true;
  }
  pingTimer_.stop();
  if (transport)
    transport->disconnect();
}

bool CBORSocket::isConneced() const {
  std::lock_guard lock(mutex_);
  return socket_ && socket_->isConnected();
}

bool CBORSocket::isReconnectScheduled() const {
  std::lock_guard lock(mutex_);
  return reconnectTimer_ != nullptr;
}

std::uint64_t CBORSocket::messageLag() const {
  std::lock_guard lock(mutex_);
  if (lastMessageAck_ == 0)
    return 0;
  if (lastMessageAck_ > messageId_)
    QRV_FATAL("CBORSocket", "an acknowledgement above the last message sent");
  return messageId_ - lastMessageAck_;
}

std::uint64_t CBORSocket::unacknowledged() const {
  std::lock_guard lock(mutex_);
  return messageId_ > lastMessageAck_ ? messageId_ - lastMessageAck_ : 0;
}

double CBORSocket::maxReconnectDelay() const {
  std::lock_guard lock(mutex_);
  return maxReconnectDelay_;
}

void CBORSocket::setMaxReconnectDelay(double seconds) {
  std::lock_guard lock(mutex_);
  maxReconnectDelay_ = seconds;
}

double CBORSocket::minReconnectDelay() const {
  std::lock_guard lock(mutex_);
  return minReconnectDelay_;
}

void CBORSocket::setMinReconnectDelay(double seconds) {
  std::lock_guard lock(mutex_);
  minReconnectDelay_ = seconds;
}

}  // namespace quorvix

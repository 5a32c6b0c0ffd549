#include "stream/QRVStreamProtocol.h"

#include <algorithm>

#include <cassert>
#include <ctime>

#include <fmt/format.h>

#include "core/QRVRequest.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

std::shared_ptr<spdlog::logger> logger() {
  static const auto log = QRV_LOGGER_FOR("QRVStreamProtocol");
  return log;
}

std::atomic<std::uint32_t> frameCounter{0};

const std::string* stringField(const QRVSessionResource& session, std::string_view key) {
  const Value* value = session.field(key);
  return value ? value->asString() : nullptr;
}

Value textOrNull(const std::optional<std::string>& text) {
  return text ? Value(*text) : Value();
}

}  // namespace

std::shared_ptr<QRVStreamProtocol> QRVStreamProtocol::create(
    std::shared_ptr<QRVSessionResource> session,
    Environment environment) {
  std::shared_ptr<QRVStreamProtocol> protocol(
      new QRVStreamProtocol(std::move(session), std::move(environment)));
  protocol->session_->registerSessionObserver(protocol);
  return protocol;
}

QRVStreamProtocol::QRVStreamProtocol(std::shared_ptr<QRVSessionResource> session,
                                     Environment environment)
    : session_(std::move(session)),
      environment_(std::move(environment)),
      executor_(environment_.executor ? environment_.executor : mainQueue()) {
  if (!environment_.sockets.executor)
    environment_.sockets.executor = executor_;
}

QRVStreamProtocol::~QRVStreamProtocol() {
  close();
}

void QRVStreamProtocol::registerStreamProtocolObserver(
    std::shared_ptr<QRVStreamProtocolObserver> observer) {
  if (observer)
    observers_.insert(std::move(observer));
}

void QRVStreamProtocol::removeStreamProtocolObserver(
    const std::shared_ptr<QRVStreamProtocolObserver>& observer) {
  observers_.erase(observer);
}

void QRVStreamProtocol::sessionDidUpdate(const std::shared_ptr<QRVSession>& /*session*/) {
  open();
  selectEncoder(session_->videoCodecs());
}

void QRVStreamProtocol::sessionDidEnd(const std::shared_ptr<QRVSession>& /*session*/) {
  close();
}

std::shared_ptr<CBORSocket> QRVStreamProtocol::control() const {
  std::lock_guard lock(mutex_);
  return control_;
}

std::shared_ptr<CBORSocket> QRVStreamProtocol::stream() const {
  std::lock_guard lock(mutex_);
  return stream_;
}

std::shared_ptr<QRVStreamEncoder> QRVStreamProtocol::encoder() const {
  std::lock_guard lock(mutex_);
  return encoder_;
}

std::optional<QRVStreamProtocol::EncoderKind> QRVStreamProtocol::encoderKind() const {
  std::lock_guard lock(mutex_);
  return encoderKind_;
}

void QRVStreamProtocol::open() {
  assert(executor_->isCurrent());
  if (session_->isEnded())
    return;
  openControlSocket();
  openStreamSocket();
}

std::shared_ptr<CBORSocket> QRVStreamProtocol::socket(const std::string& urlField,
                                                      const std::string& tokenField) {
  std::weak_ptr<QRVSessionResource> weakSession = session_;
  // Read afresh on every connection, so that a token a later update brought is used.
  auto request = [weakSession, urlField, tokenField]() -> QRVSocketRequest {
    auto session = weakSession.lock();
    auto base = QRVRESTResource::baseNSURL();
    if (session && base) {
      const std::string* url = stringField(*session, urlField);
      const std::string* token = stringField(*session, tokenField);
      if (auto built =
              QRVRequest::socketRequest(url ? std::optional<std::string>(*url) : std::nullopt,
                                        token ? *token : "", session->headers(), *base))
        return *built;
    }
    logger()->error("Quorvix: the {} cannot be resolved", urlField);
    return QRVSocketRequest{};  // fails to connect; the socket tries again later
  };
  return CBORSocket::create(QRVRequest::urlSession(), std::move(request), environment_.sockets);
}

void QRVStreamProtocol::openControlSocket() {
  if (!session_->field("control_url") || control())
    return;
  logger()->debug("opening control socket");
  auto control = socket("control_url", "control_token");
  {
    std::lock_guard lock(mutex_);
    control_ = control;
  }
  std::weak_ptr<QRVSessionResource> weakSession = session_;
  std::weak_ptr<CBORSocket> weakSocket = control;
  control->onMessage("session", [weakSession](const Value::Map& data) {
    logger()->debug("session event");
    if (auto session = weakSession.lock())
      session->updateResource(Value(data));
  });
  control->onConnect([weakSession, weakSocket] {
    logger()->debug("control socket opened");
    // Whatever was pushed while disconnected.
    if (auto session = weakSession.lock())
      session->fetch(nullptr);
    // The service pushes only to filtered sockets, and the fetch may be answered before the
    // filter arrives: a change in between (an agent joining) would be heard of by nobody. Once
    // the filter is acknowledged, every change reaches this socket; one more fetch covers the gap.
    if (auto socket = weakSocket.lock())
      socket->send("filter", Value::Map{{"events", Value::Array{"session"}}}, {}, [weakSession] {
        if (auto session = weakSession.lock())
          session->fetch(nullptr);
      });
  });
  control->onDisconnect([](const std::optional<QRVError>& error) {
    if (error)
      logger()->error("Quorvix socket error {}", error->description());
  });
}

template <class Record>
void QRVStreamProtocol::listen(const std::shared_ptr<CBORSocket>& socket, const char* event) {
  std::weak_ptr<QRVStreamProtocol> weak = weak_from_this();
  socket->onMessage(event, [weak](const Value::Map& data) {
    auto self = weak.lock();
    if (!self)
      return;
    auto record = Record::from(Value(data));
    self->tellObservers(record ? QRVAgentEvent(std::move(*record)) : QRVAgentEvent());
  });
}

void QRVStreamProtocol::openStreamSocket() {
  if (!session_->field("stream_url") || stream())
    return;
  logger()->debug("opening stream socket");
  auto stream = socket("stream_url", "stream_token");
  {
    std::lock_guard lock(mutex_);
    stream_ = stream;
  }
  std::weak_ptr<CBORSocket> weakSocket = stream;
  session_->metrics().setLatencySupplier([weakSocket] {
    auto socket = weakSocket.lock();
    return socket ? socket->metrics().latency() : 0.0;
  });
  listen<QRVDrawing>(stream, "drawing");
  listen<QRVLaser>(stream, "laser");
  listen<QRVTouchEvent>(stream, "touch");
  listen<QRVKeyPress>(stream, "keypress");
  listen<QRVMouseEvent>(stream, "mouse");
  std::weak_ptr<QRVStreamProtocol> weak = weak_from_this();
  stream->onMessage("sync", [weak](const Value::Map&) {
    if (auto self = weak.lock())
      self->forceSync();
  });
  stream->onMessage("probe", [weak, weakSocket](const Value::Map& data) {
    auto self = weak.lock();
    auto socket = weakSocket.lock();
    if (!self || !socket)
      return;
    socket->send("alive", data);
    self->session_->metrics().onProbeResponded();
  });
  stream->onConnect([weak, weakSocket] {
    logger()->debug("stream socket opened");
    if (auto socket = weakSocket.lock())
      socket->send("filter",
                   Value::Map{{"events", Value::Array{"drawing", "laser", "url", "touch",
                                                      "keypress", "sync", "probe", "mouse"}}});
    // The first frame on every connection is complete.
    if (auto self = weak.lock())
      self->forceSync();
  });
  stream->onDisconnect([weak](const std::optional<QRVError>& error) {
    if (error)
      logger()->error("Quorvix stream error {}", error->description());
    auto self = weak.lock();
    if (!self)
      return;
    const auto observers = self->observers_;
    for (const auto& observer : observers)
      observer->onStreamDisconnected(self->session_);
  });
}

void QRVStreamProtocol::tellObservers(const QRVAgentEvent& event) {
  // An observer may register or remove observers while being told.
  const auto observers = observers_;
  for (const auto& observer : observers)
    observer->onAgentEvent(session_, event);
}

void QRVStreamProtocol::close() {
  session_->metrics().setLatencySupplier(nullptr);
  std::shared_ptr<CBORSocket> control, stream;
  std::shared_ptr<QRVStreamEncoder> encoder;
  {
    std::lock_guard lock(mutex_);
    control = std::move(control_);
    stream = std::move(stream_);
    encoder = std::move(encoder_);
    control_.reset();
    stream_.reset();
    encoder_.reset();
    encoderKind_.reset();
  }
  if (control)
    control->disconnect();
  if (stream)
    stream->disconnect();
  if (encoder)
    encoder->destroy();
  observers_.clear();
}

void QRVStreamProtocol::selectEncoder(const Value* videoCodecs) {
  // A session that does not restrict codecs gets video.
  EncoderKind kind = EncoderKind::h264;
  const Value::Array* codecs = videoCodecs ? videoCodecs->asArray() : nullptr;
  if (codecs && !codecs->empty()) {
    const bool h264 = std::any_of(codecs->begin(), codecs->end(), [](const Value& codec) {
      const std::string* s = codec.asString();
      return s && *s == kH264MimeType;
    });
    kind = h264 ? EncoderKind::h264 : EncoderKind::jpeg;
  }
  setEncoder(kind);
}

void QRVStreamProtocol::setEncoder(EncoderKind kind) {
  assert(executor_->isCurrent());
  std::shared_ptr<QRVStreamEncoder> previous;
  {
    std::lock_guard lock(mutex_);
    if (encoder_ && encoderKind_ == kind)
      return;
    previous = std::move(encoder_);
    encoder_.reset();
  }
  if (previous)
    previous->destroy();
  auto encoder = environment_.makeEncoder ? environment_.makeEncoder(kind) : nullptr;
  if (!encoder) {
    logger()->error("No encoder for {}", kind == EncoderKind::h264 ? kH264MimeType : kJPEGMimeType);
    return;
  }
  logger()->debug("using {} encoder", encoder->mimeType());
  std::lock_guard lock(mutex_);
  encoder_ = std::move(encoder);
  encoderKind_ = kind;
}

void QRVStreamProtocol::forceSync() {
  auto encoder = this->encoder();
  if (!encoder) {
    logger()->debug("cannot force sync because encoder is destroyed");
    return;
  }
  logger()->debug("forcing sync");
  encoder->reset();
  const auto observers = observers_;
  for (const auto& observer : observers)
    observer->onSyncRequest(session_);
}

void QRVStreamProtocol::ready(const std::function<void()>& callback) {
  if (!callback)
    return;
  // Never waits on the main queue from the encoder's thread: the encoder's owner may be waiting
  // for that thread.
  if (executor_->isCurrent())
    callback();
  else
    executor_->post(callback);
}

void QRVStreamProtocol::sendFrame(std::shared_ptr<QRVFrame> frame, std::function<void()> ready) {
  assert(executor_->isCurrent());
  const double cornerRadius =
      environment_.displayCornerRadius ? environment_.displayCornerRadius() : 0.0;
  const double borderRadius = session_->scale() * cornerRadius;
  std::shared_ptr<CBORSocket> stream;
  std::shared_ptr<QRVStreamEncoder> encoder;
  {
    std::lock_guard lock(mutex_);
    stream = stream_;
    encoder = encoder_;
  }
  const std::int64_t lag = stream ? static_cast<std::int64_t>(stream->messageLag()) : 0;
  const std::int64_t limit = encoder ? encoder->maximumFramesInFlight() : 0;
  if (lag >= limit) {
    logger()->debug("Quorvix dropped frame due to network congestion");
    this->ready(ready);
    return;
  }
  // With nothing in flight the link is drained, so a frame goes out whatever the estimate says:
  // its acknowledgement is what brings the estimate down again. Counted from the first message:
  // on a slow link the first acknowledgement is late, and frames sent meanwhile would pile up.
  if (const double bound = latencyBound(); bound > 0 && stream && stream->unacknowledged() > 0) {
    // The smoothed latency, or the age of what is still out: the first lags a sudden slowdown
    // by several round trips, during which a frame every 100 ms would pile up on the link.
    const auto& metrics = stream->metrics();
    if (const double latency = std::max(metrics.latency(), metrics.oldestUnacknowledgedAge());
        latency > bound) {
      logger()->debug("held back a frame: latency {:.3f} s over the bound of {:.3f} s", latency,
                      bound);
      this->ready(ready);
      return;
    }
  }
  std::weak_ptr<QRVStreamProtocol> weak = weak_from_this();
  encoder->encode(std::move(frame),
                  [weak, borderRadius, ready](std::optional<QRVStreamEncoder::Bytes> bytes) {
                    if (auto self = weak.lock())
                      self->frameEncoded(std::move(bytes), borderRadius, ready);
                  });
  this->ready(ready);
}

void QRVStreamProtocol::frameEncoded(std::optional<QRVStreamEncoder::Bytes> bytes,
                                     double borderRadius,
                                     const std::function<void()>& ready) {
  auto encoder = this->encoder();
  if (!encoder) {
    logger()->debug("encoder was nil");
    this->ready(ready);
    return;
  }
  if (!bytes) {
    this->ready(ready);
    return;
  }
  Value::Map data{
      {"type", "Frame"},
      {"id", Value(static_cast<std::int64_t>(nextFrameId()))},
      {"data", Value(std::move(*bytes))},
      {"timestamp", timestamp()},
      {"mime_type", std::string(encoder->mimeType())},
  };
  if (borderRadius > 0)
    data.emplace("border_radius", Value(borderRadius));
  std::weak_ptr<QRVStreamProtocol> weak = weak_from_this();
  sendStreamEvent("frame", std::move(data), [weak](bool sent) {
    if (sent)
      return;
    // Not connected: the first frame after reconnecting must be complete.
    if (auto self = weak.lock()) {
      self->executor_->post([weak] {
        if (auto self = weak.lock())
          self->forceSync();
      });
    }
  });
}

void QRVStreamProtocol::sendStreamEvent(const std::string& event,
                                        Value::Map data,
                                        std::function<void(bool sent)> sent) {
  auto stream = this->stream();
  if (!stream || !stream->isConneced()) {
    if (sent)
      sent(false);
    return;
  }
  stream->send(event, std::move(data), [sent] {
    if (sent)
      sent(true);
  });
}

void QRVStreamProtocol::sendScreenDetails(const std::optional<std::string>& className,
                                          const std::optional<std::string>& title,
                                          bool active,
                                          int screenCaptureState) {
  const char* state = active && screenCaptureState == 1 ? "uncapturable"
                      : active                          ? "active"
                                                        : "background";
  sendStreamEvent("screen",
                  Value::Map{{"type", "Screen"},
                             {"class", textOrNull(className)},
                             {"title", textOrNull(title)},
                             {"timestamp", timestamp()},
                             {"state", state}},
                  nullptr);
}

void QRVStreamProtocol::sendViewHierarchy(const QRVViewTree& tree) {
  Value::Array patch;
  tree.depthFirstVisit(tree.root(), [&](const QRVViewTree::Node& node) {
    Value::Array children;
    for (std::uint64_t id : tree.childIDsForView(node))
      children.emplace_back(std::to_string(id));
    patch.emplace_back(Value::Map{
        {"id", std::to_string(node.viewId)},
        {"tagName", textOrNull(node.tag)},
        {"attributes", node.attributes ? Value(*node.attributes) : Value()},
        {"x", Value(node.x)},
        {"y", Value(node.y)},
        {"width", Value(node.width)},
        {"height", Value(node.height)},
        {"childNodes", Value(std::move(children))},
    });
  });
  sendStreamEvent("viewhierarchy",
                  Value::Map{{"type", "ViewHierarchy"},
                             {"timestamp", timestamp()},
                             {"document_id", std::to_string(tree.root().viewId)},
                             {"patch", Value(std::move(patch))}},
                  nullptr);
}

std::string QRVStreamProtocol::timestamp() const {
  return ISODateString(executor_->clock().wallNow());
}

std::string QRVStreamProtocol::ISODateString(WallTime time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(
      std::chrono::time_point_cast<std::chrono::system_clock::duration>(time));
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
  const long offset = local.tm_gmtoff;
  if (offset == 0)
    return std::string(text) + "Z";
  const long minutes = (offset < 0 ? -offset : offset) / 60;
  return fmt::format("{}{}{:02}:{:02}", text, offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

std::int32_t QRVStreamProtocol::nextFrameId() {
  return static_cast<std::int32_t>(frameCounter.fetch_add(1));
}

}  // namespace quorvix

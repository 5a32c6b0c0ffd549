#include "web-socket/linux/BeastSocket.h"

#include <atomic>
#include <deque>
#include <mutex>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "utils/linux/IoThread.h"
#include "web-socket/WSHandshake.h"
#include "web-socket/linux/TLS.h"

namespace quorvix {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using boost::system::error_code;

// What the transport and its connection share. The connection holds it weakly: once the
// transport is gone, nothing more is reported.
struct BeastSocket::State {
  std::mutex mutex;
  std::shared_ptr<SocketDelegate> delegate;
  std::atomic<bool> connected{false};

  std::shared_ptr<SocketDelegate> currentDelegate() {
    std::lock_guard lock(mutex);
    return delegate;
  }
};

// One connection, living on the network thread.
class BeastSocket::Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(const QRVSocketRequest& request, std::weak_ptr<State> state)
      : thread_(IoThread::shared()),
        io_(thread_->context()),
        resolver_(io_),
        request_(request),
        endpoint_(wsEndpoint(request.url)),
        timeout_(request.timeout > std::chrono::milliseconds::zero() ? request.timeout
                                                                     : std::chrono::seconds(10)),
        state_(std::move(state)) {}

  void start() {
    asio::post(io_, [self = shared_from_this()] { self->resolve(); });
  }

  void send(std::vector<std::uint8_t> data, Completion completion) {
    enqueue(Op{Op::message, std::move(data), std::move(completion)});
  }

  void ping(Completion completion) { enqueue(Op{Op::ping, {}, std::move(completion)}); }

  // Cancelling the task: a close frame with 1000, then the socket goes. Nothing received is
  // delivered from now on, not even what is already on its way to the main queue.
  void cancel() {
    delivering_ = false;
    asio::post(io_, [self = shared_from_this()] {
      if (self->cancelled_)
        return;
      self->cancelled_ = true;
      if (self->open_ && !self->ended_) {
        self->closing_ = true;
        self->writes_.push_back(Op{Op::close, {}, nullptr});
      }
      self->pump();
      if (!self->open_)
        self->closeSocket();
    });
  }

  // The transport is gone: close quietly, at once unless a close handshake is under way, which
  // runs to its end (bounded by the handshake timeout) so that the server sees an orderly close.
  void abandon() {
    delivering_ = false;
    asio::post(io_, [self = shared_from_this()] {
      self->cancelled_ = true;
      if (!self->closing_)
        self->closeSocket();
    });
  }

 private:
  struct Op {
    enum Kind { message, ping, close } kind;
    std::vector<std::uint8_t> data;
    Completion completion;
  };

  template <typename F>
  void with(F&& f) {
    if (tls_)
      f(*tls_);
    else
      f(*plain_);
  }

  void resolve() {
    if (cancelled_)
      return;
    if (endpoint_.tls) {
      QRVError error("", 0);
      context_ = makeClientTLSContext(&error);
      if (!context_)
        return finish(error);
      tls_.emplace(io_, *context_);
      if (!prepareClientTLS(tls_->next_layer().native_handle(), endpoint_.host))
        return finish(QRVError("TLS", 0, "cannot set the host name to verify"));
    } else {
      plain_.emplace(io_);
    }
    resolver_.async_resolve(
        endpoint_.host, std::to_string(endpoint_.port),
        [self = shared_from_this()](const error_code& ec, tcp::resolver::results_type results) {
          if (ec)
            return self->finish(systemError(ec));
          self->connectTo(results);
        });
  }

  void connectTo(const tcp::resolver::results_type& results) {
    with([&](auto& ws) {
      auto& tcpStream = beast::get_lowest_layer(ws);
      tcpStream.expires_after(timeout_);
      tcpStream.async_connect(
          results, [self = shared_from_this()](const error_code& ec, const tcp::endpoint&) {
            if (ec)
              return self->finish(systemError(ec));
            if (self->cancelled_)
              return self->finish(systemError(asio::error::operation_aborted));
            error_code ignored;
            self->with([&](auto& ws) {
              beast::get_lowest_layer(ws).socket().set_option(tcp::no_delay(true), ignored);
            });
            if (self->tls_)
              self->encrypt();
            else
              self->upgrade();
          });
    });
  }

  void encrypt() {
    tls_->next_layer().async_handshake(
        asio::ssl::stream_base::client, [self = shared_from_this()](const error_code& ec) {
          if (!ec)
            return self->upgrade();
          SSL* ssl = self->tls_->next_layer().native_handle();
          if (auto bad = certificateError(ssl))
            return self->finish(QRVError("TLS", bad->code,
                                         std::string("Invalid SSL certificate: ") +
                                             X509_verify_cert_error_string(bad->code)));
          self->finish(systemError(ec));
        });
  }

  void upgrade() {
    with([&](auto& ws) {
      beast::get_lowest_layer(ws).expires_never();
      websocket::stream_base::timeout timeout{};
      timeout.handshake_timeout = timeout_;
      timeout.idle_timeout = websocket::stream_base::none();
      timeout.keep_alive_pings = false;
      ws.set_option(timeout);
      websocket::permessage_deflate deflate;
      deflate.client_enable = true;
      ws.set_option(deflate);
      ws.binary(true);
      ws.read_message_max(kMaxIncomingMessageBytes);
      ws.set_option(websocket::stream_base::decorator(
          [headers = request_.headers](websocket::request_type& req) {
            for (const auto& [name, value] : headers)
              req.set(name, value);
          }));
      ws.control_callback(
          [weak = weak_from_this()](websocket::frame_type kind, beast::string_view) {
            if (kind == websocket::frame_type::pong)
              if (auto self = weak.lock())
                self->pongArrived();
          });
      ws.async_handshake(response_, endpoint_.authority, endpoint_.resource,
                         [self = shared_from_this()](const error_code& ec) {
                           if (!ec)
                             return self->opened();
                           QRVError error = systemError(ec);
                           if (ec == websocket::error::upgrade_declined)
                             error =
                                 QRVError(error.domain(), error.code(),
                                          error.message() + " (HTTP " +
                                              std::to_string(self->response_.result_int()) + ")");
                           self->finish(error);
                         });
    });
  }

  void opened() {
    open_ = true;
    if (cancelled_)
      return finish(systemError(asio::error::operation_aborted));
    if (auto state = state_.lock()) {
      state->connected = true;
      if (auto d = state->currentDelegate())
        d->websocketDidConnect();
    }
    read();
    pump();
  }

  void read() {
    with([&](auto& ws) {
      ws.async_read(buffer_, [self = shared_from_this()](const error_code& ec, std::size_t) {
        self->didRead(ec);
      });
    });
  }

  void didRead(const error_code& ec) {
    if (ec == websocket::error::closed) {
      websocket::close_reason reason;
      with([&](auto& ws) { reason = ws.reason(); });
      std::optional<TransportError> error;
      if (reason.code != websocket::close_code::normal) {
        const std::size_t bytes = reason.reason.size();
        error = QRVError(kErrorDomain, reason.code,
                         bytes ? std::to_string(bytes) + " bytes" : std::string());
      }
      return finish(std::move(error));
    }
    if (ec)
      return finish(systemError(ec));
    bool text = false;
    with([&](auto& ws) { text = ws.got_text(); });
    // After a text message nothing more is delivered on this connection; reading goes on so
    // that pongs still arrive.
    if (text)
      deliver_ = false;
    if (deliver_) {
      const auto bytes = buffer_.cdata();
      const auto* p = static_cast<const std::uint8_t*>(bytes.data());
      std::vector<std::uint8_t> data(p, p + bytes.size());
      queued_ += data.size();
      mainQueue()->post([self = shared_from_this(), data = std::move(data)]() mutable {
        const std::size_t size = data.size();
        if (self->delivering_)
          if (auto s = self->state_.lock())
            if (auto d = s->currentDelegate())
              d->websocketDidReceiveData(std::move(data));
        asio::post(self->io_, [self, size] { self->consumed(size); });
      });
    }
    buffer_.clear();
    // A main queue that falls behind stops the reading until it has caught up.
    if (queued_ > kMaxQueuedIncomingBytes)
      readPaused_ = true;
    else
      read();
  }

  void consumed(std::size_t size) {
    queued_ -= size;
    if (readPaused_ && queued_ <= kMaxQueuedIncomingBytes / 2 && !ended_) {
      readPaused_ = false;
      read();
    }
  }

  void enqueue(Op op) {
    asio::post(io_, [self = shared_from_this(), op = std::move(op)]() mutable {
      if (self->ended_) {
        // A send on a finished task fails, and its completion still runs.
        if (op.completion)
          op.completion();
        return;
      }
      self->writes_.push_back(std::move(op));
      self->pump();
    });
  }

  // Beast allows one write-class operation at a time; pings, messages and the close take turns.
  void pump() {
    if (writing_ || writes_.empty() || !open_ || ended_)
      return;
    writing_ = true;
    inFlight_ = std::move(writes_.front());
    writes_.pop_front();
    Op& op = *inFlight_;
    auto done = [self = shared_from_this()](const error_code& ec, std::size_t = 0) {
      self->didWrite(ec);
    };
    with([&](auto& ws) {
      switch (op.kind) {
        case Op::message:
          ws.async_write(asio::buffer(op.data), done);
          break;
        case Op::ping:
          ws.async_ping({}, done);
          break;
        case Op::close:
          ws.async_close(websocket::close_code::normal, done);
          break;
      }
    });
  }

  void didWrite(const error_code& ec) {
    writing_ = false;
    Op op = std::move(*inFlight_);
    inFlight_.reset();
    if (op.kind == Op::ping && !ec && !ended_)
      pongWaiters_.push_back(std::move(op.completion));
    else if (op.completion)
      op.completion();
    if (op.kind == Op::close)
      closeSocket();
    pump();
  }

  void pongArrived() {
    if (pongWaiters_.empty())
      return;
    Completion completion = std::move(pongWaiters_.front());
    pongWaiters_.pop_front();
    if (auto state = state_.lock())
      if (auto d = state->currentDelegate())
        d->websocketDidReceivePong();
    if (completion)
      completion();
  }

  // The end of the task, reported from this thread like the platform's callbacks.
  void finish(std::optional<TransportError> error) {
    if (ended_)
      return;
    ended_ = true;
    closeSocket();
    // Pong handlers and sends still waiting run with their failure.
    for (auto& waiter : pongWaiters_)
      if (waiter)
        waiter();
    pongWaiters_.clear();
    for (auto& op : writes_)
      if (op.completion)
        op.completion();
    writes_.clear();
    if (auto state = state_.lock()) {
      state->connected = false;
      if (auto d = state->currentDelegate())
        d->websocketDidDisconnect(std::move(error));
    }
  }

  void closeSocket() {
    error_code ignored;
    resolver_.cancel();
    if (tls_)
      beast::get_lowest_layer(*tls_).socket().close(ignored);
    if (plain_)
      beast::get_lowest_layer(*plain_).socket().close(ignored);
  }

  // Declared first so that the streams go before the context they belong to.
  std::shared_ptr<IoThread> thread_;
  asio::io_context& io_;
  tcp::resolver resolver_;
  const QRVSocketRequest request_;
  const WSEndpoint endpoint_;
  const std::chrono::milliseconds timeout_;
  std::weak_ptr<State> state_;
  std::optional<asio::ssl::context> context_;
  std::optional<websocket::stream<beast::tcp_stream>> plain_;
  std::optional<websocket::stream<beast::ssl_stream<beast::tcp_stream>>> tls_;
  websocket::response_type response_;
  beast::flat_buffer buffer_;
  std::deque<Op> writes_;
  std::optional<Op> inFlight_;
  std::deque<Completion> pongWaiters_;
  // Set off the network thread by cancel() and abandon(), read on the main queue.
  std::atomic<bool> delivering_{true};
  // Bytes posted to the main queue and not yet handled there.
  std::size_t queued_ = 0;
  bool readPaused_ = false;
  bool closing_ = false;
  bool open_ = false;
  bool writing_ = false;
  bool deliver_ = true;
  bool cancelled_ = false;
  bool ended_ = false;
};

BeastSocket::BeastSocket(QRVSocketRequest request, std::shared_ptr<QRVURLSession> session)
    : request_(std::move(request)),
      session_(std::move(session)),
      state_(std::make_shared<State>()) {}

BeastSocket::~BeastSocket() {
  if (auto task = this->task())
    task->abandon();
}

std::shared_ptr<BeastSocket::Connection> BeastSocket::task() const {
  std::lock_guard lock(taskMutex_);
  return task_;
}

bool BeastSocket::isConnected() const {
  return state_->connected;
}

std::shared_ptr<SocketDelegate> BeastSocket::delegate() const {
  return state_->currentDelegate();
}

void BeastSocket::setDelegate(std::shared_ptr<SocketDelegate> delegate) {
  std::lock_guard lock(state_->mutex);
  state_->delegate = std::move(delegate);
}

void BeastSocket::connect() {
  auto task = std::make_shared<Connection>(request_, state_);
  std::shared_ptr<Connection> previous;
  {
    std::lock_guard lock(taskMutex_);
    previous = std::exchange(task_, task);
  }
  if (previous)
    previous->abandon();
  task->start();
}

void BeastSocket::disconnect(std::optional<TransportError> error) {
  // Told first, so that the cancelled task's own later report cannot overtake this one.
  auto task = this->task();
  state_->connected = false;
  if (auto d = delegate())
    d->websocketDidDisconnect(std::move(error));
  if (task)
    task->cancel();
}

void BeastSocket::write(std::vector<std::uint8_t> data, Completion completion) {
  if (auto task = this->task())
    task->send(std::move(data), std::move(completion));
}

void BeastSocket::writePing(std::vector<std::uint8_t>, Completion completion) {
  if (auto task = this->task())
    task->ping(std::move(completion));
}

}  // namespace quorvix

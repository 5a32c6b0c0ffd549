// TCP and TLS on Asio for the library's own WebSocket client.
#include <array>
#include <deque>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>

#include "utils/linux/IoThread.h"
#include "web-socket/WSStream.h"
#include "web-socket/linux/TLS.h"

namespace quorvix {
namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;

constexpr std::size_t kBufferMax = 4096;

class FoundationStream final : public WSStream,
                               public std::enable_shared_from_this<FoundationStream> {
 public:
  FoundationStream()
      : thread_(IoThread::shared()),
        io_(thread_->context()),
        resolver_(io_),
        socket_(io_),
        deadline_(io_) {}

  void connect(const WSStreamTarget& target, std::weak_ptr<WSStreamDelegate> delegate) override {
    post([self = shared_from_this(), target, delegate = std::move(delegate)] {
      self->start(target, delegate);
    });
  }

  void write(std::vector<std::uint8_t> head,
             std::vector<std::uint8_t> body,
             WriteDone done) override {
    post([self = shared_from_this(), head = std::move(head), body = std::move(body),
          done = std::move(done)]() mutable {
      if (self->closed_)
        return;
      self->writes_.push_back({std::move(head), std::move(body), std::move(done)});
      self->pumpWrites();
    });
  }

  void close() override {
    post([self = shared_from_this()] { self->shutdown(); });
  }

  void setReadingPaused(bool paused) override {
    readingPaused_ = paused;
    if (!paused && !reading_ && readStarted_ && !closed_)
      read();
  }

  void post(Task task) override { asio::post(io_, std::move(task)); }
  bool isCurrent() const override { return thread_->isCurrent(); }

 private:
  struct PendingWrite {
    std::vector<std::uint8_t> head, body;
    WriteDone done;
  };

  template <typename F>
  void withStream(F&& f) {
    if (tls_)
      f(*tls_);
    else
      f(socket_);
  }

  void start(const WSStreamTarget& target, std::weak_ptr<WSStreamDelegate> delegate) {
    if (closed_ || delegate_.lock())
      return;
    delegate_ = std::move(delegate);
    timeout_ = target.timeout;
    if (target.tls) {
      QRVError error("", 0);
      context_ = makeClientTLSContext(&error);
      if (!context_)
        return fail(error);
      tls_.emplace(socket_, *context_);
      if (!prepareClientTLS(tls_->native_handle(), target.host))
        return fail(QRVError("TLS", 0, "cannot set the host name to verify"));
    }
    armDeadline([](FoundationStream& s) { s.fail(writeTimeoutError()); });
    resolver_.async_resolve(
        target.host, std::to_string(target.port),
        [self = shared_from_this()](const error_code& ec, tcp::resolver::results_type results) {
          if (self->closed_)
            return;
          if (ec)
            return self->fail(systemError(ec));
          asio::async_connect(
              self->socket_, results,
              [self](const error_code& ec, const tcp::endpoint&) { self->connected(ec); });
        });
  }

  void connected(const error_code& ec) {
    if (closed_)
      return;
    if (ec)
      return fail(systemError(ec));
    error_code ignored;  // a socket without it only sends a little later
    socket_.set_option(tcp::no_delay(true), ignored);
    if (!tls_)
      return opened();
    tls_->async_handshake(asio::ssl::stream_base::client,
                          [self = shared_from_this()](const error_code& ec) {
                            if (self->closed_)
                              return;
                            if (ec) {
                              if (auto bad = certificateError(self->tls_->native_handle()))
                                return self->fail(*bad);
                              return self->fail(systemError(ec));
                            }
                            self->opened();
                          });
  }

  void opened() {
    deadline_.cancel();
    if (auto d = delegate_.lock())
      d->streamDidOpen();
    read();
  }

  void read() {
    readStarted_ = true;
    reading_ = true;
    withStream([this](auto& stream) {
      stream.async_read_some(asio::buffer(readBuffer_),
                             [self = shared_from_this()](const error_code& ec, std::size_t n) {
                               self->didRead(ec, n);
                             });
    });
  }

  void didRead(const error_code& ec, std::size_t n) {
    reading_ = false;
    if (closed_)
      return;
    if (n > 0) {
      if (auto d = delegate_.lock())
        d->streamDidReceive(std::span(readBuffer_.data(), n));
      if (closed_)
        return;
    }
    if (ec && timedOut_)
      return end(writeTimeoutError());
    if (ec == asio::error::eof || ec == asio::ssl::error::stream_truncated)
      return end(std::nullopt);
    if (ec)
      return end(systemError(ec));
    if (!readingPaused_)
      read();
  }

  void pumpWrites() {
    if (writing_ || writes_.empty() || closed_)
      return;
    writing_ = true;
    PendingWrite& w = writes_.front();
    progress_ = 0;
    armWriteDeadline();
    const std::array<asio::const_buffer, 2> buffers{asio::buffer(w.head), asio::buffer(w.body)};
    auto progress = [self = shared_from_this()](const error_code& ec, std::size_t sent) {
      // Each time bytes go out, the socket had room: the budget starts again.
      if (!ec && sent > self->progress_) {
        self->progress_ = sent;
        self->armWriteDeadline();
      }
      return asio::transfer_all()(ec, sent);
    };
    withStream([&](auto& stream) {
      asio::async_write(
          stream, buffers, progress,
          [self = shared_from_this()](const error_code& ec, std::size_t) { self->didWrite(ec); });
    });
  }

  void didWrite(const error_code& ec) {
    if (closed_)
      return;
    deadline_.cancel();
    writing_ = false;
    PendingWrite w = std::move(writes_.front());
    writes_.pop_front();
    if (ec)
      return end(timedOut_ ? writeTimeoutError()
                           : WSError{WSError::ErrorType::outputStreamWriteError,
                                     "output stream had an error during write", ec.value()});
    if (w.done)
      w.done();
    pumpWrites();
  }

  // No room for the whole budget: the write is cancelled and reported as timed out.
  void armWriteDeadline() {
    armDeadline([](FoundationStream& s) {
      s.timedOut_ = true;
      error_code ignored;
      s.socket_.cancel(ignored);
    });
  }

  template <typename OnExpiry>
  void armDeadline(OnExpiry onExpiry) {
    deadline_.expires_after(timeout_);
    deadline_.async_wait([self = shared_from_this(), onExpiry](const error_code& ec) {
      if (!ec && !self->closed_)
        onExpiry(*self);
    });
  }

  void fail(TransportError error) { end(std::move(error)); }

  void end(std::optional<TransportError> error) {
    if (closed_)
      return;
    auto d = delegate_.lock();
    shutdown();
    if (d)
      d->streamDidEnd(std::move(error));
  }

  void shutdown() {
    if (closed_)
      return;
    closed_ = true;
    writes_.clear();
    error_code ignored;
    deadline_.cancel();
    resolver_.cancel();
    socket_.shutdown(tcp::socket::shutdown_both, ignored);
    socket_.close(ignored);
  }

  // Declared first so that the sockets go before the context they belong to.
  std::shared_ptr<IoThread> thread_;
  asio::io_context& io_;
  tcp::resolver resolver_;
  tcp::socket socket_;
  std::optional<asio::ssl::context> context_;
  std::optional<asio::ssl::stream<tcp::socket&>> tls_;
  asio::steady_timer deadline_;
  std::weak_ptr<WSStreamDelegate> delegate_;
  Duration timeout_ = seconds(10.0);
  std::array<std::uint8_t, kBufferMax> readBuffer_{};
  std::deque<PendingWrite> writes_;
  std::size_t progress_ = 0;
  bool writing_ = false;
  bool readStarted_ = false;
  bool reading_ = false;
  bool readingPaused_ = false;
  bool timedOut_ = false;
  bool closed_ = false;
};

}  // namespace

std::shared_ptr<WSStream> makeFoundationStream() {
  return std::make_shared<FoundationStream>();
}

}  // namespace quorvix

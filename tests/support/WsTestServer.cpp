#include "WsTestServer.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "utils/Strings.h"

namespace quorvix::test {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using boost::system::error_code;

struct SessionBase {
  virtual ~SessionBase() = default;
  virtual void send(std::shared_ptr<const std::vector<std::uint8_t>> data, bool binary) = 0;
  virtual void close(std::uint16_t code, std::string reason) = 0;
  virtual void drop() = 0;
};

// Sessions and handlers point at it plainly: it outlives the thread that runs them.
struct WsTestServer::Impl {
  explicit Impl(WsServerOptions o) : options(std::move(o)), acceptor(io) {}

  WsServerOptions options;
  asio::io_context io;
  std::optional<asio::ssl::context> tls;
  tcp::acceptor acceptor;
  std::thread thread;
  unsigned short port = 0;

  mutable std::mutex mutex;
  // Held strongly: a session that never reads has no operation keeping it alive.
  std::vector<std::shared_ptr<SessionBase>> sessions;
  std::vector<std::map<std::string, std::string>> headers;
  std::vector<WsReceived> received;
  std::vector<int> endings;
  std::atomic<std::uint64_t> messages{0}, bytes{0};
  std::atomic<int> upgrades{0};
  std::atomic<bool> lastDeflate{false};

  void accept() {
    acceptor.async_accept([this](const error_code& ec, tcp::socket socket) {
      if (ec)
        return;
      start(std::move(socket));
      accept();
    });
  }

  void start(tcp::socket socket);

  template <typename F>
  void forEach(F f) {
    std::vector<std::shared_ptr<SessionBase>> live;
    {
      std::lock_guard lock(mutex);
      live = sessions;
    }
    asio::post(io, [live, f] {
      for (auto& s : live)
        f(*s);
    });
  }
};

namespace {

template <typename Next>
class Session final : public SessionBase, public std::enable_shared_from_this<Session<Next>> {
 public:
  Session(WsTestServer::Impl* server, websocket::stream<Next> ws)
      : server_(server), ws_(std::move(ws)) {}

  void runTLS() {
    ws_.next_layer().async_handshake(asio::ssl::stream_base::server,
                                     [self = this->shared_from_this()](const error_code& ec) {
                                       if (!ec)
                                         self->readRequest();
                                     });
  }

  void readRequest() {
    http::async_read(ws_.next_layer(), buffer_, request_,
                     [self = this->shared_from_this()](const error_code& ec, std::size_t) {
                       if (!ec)
                         self->upgrade();
                     });
  }

  void send(std::shared_ptr<const std::vector<std::uint8_t>> data, bool binary) override {
    outbox_.push_back({std::move(data), binary});
    pump();
  }

  void close(std::uint16_t code, std::string reason) override {
    // The client may see the upgrade answer before the accept has completed here, and the
    // stream takes no other operation until it has.
    if (!accepted_) {
      pendingClose_.emplace(code, std::move(reason));
      return;
    }
    closing_ = true;
    ws_.async_close(websocket::close_reason(static_cast<websocket::close_code>(code), reason),
                    [self = this->shared_from_this()](const error_code&) {});
  }

  void drop() override {
    error_code ignored;
    beast::get_lowest_layer(ws_).socket().close(ignored);
  }

 private:
  void upgrade() {
    const auto& o = server_->options;
    std::map<std::string, std::string> headers;
    for (const auto& field : request_)
      headers[asciiLower(std::string_view(
          field.name_string().data(), field.name_string().size()))] = std::string(field.value());
    {
      std::lock_guard lock(server_->mutex);
      server_->headers.push_back(headers);
    }
    if (o.refuseWithStatus) {
      auto response = std::make_shared<http::response<http::string_body>>(
          static_cast<http::status>(o.refuseWithStatus), request_.version());
      response->set(http::field::content_type, "application/json");
      response->body() = R"({"message":"refused"})";
      response->prepare_payload();
      response->keep_alive(false);
      auto write = [self = this->shared_from_this(), response](auto& stream) {
        http::async_write(stream, *response,
                          [self, response](const error_code&, std::size_t) { self->drop(); });
      };
      write(ws_.next_layer());
      return;
    }
    websocket::permessage_deflate deflate;
    deflate.server_enable = o.deflate;
    deflate.server_no_context_takeover = o.serverNoContextTakeover;
    deflate.client_no_context_takeover = o.clientNoContextTakeover;
    ws_.set_option(deflate);
    ws_.read_message_max(64u << 20);
    ws_.async_accept(request_, [self = this->shared_from_this()](const error_code& ec) {
      if (ec)
        return;
      self->accepted_ = true;
      self->server_->upgrades++;
      self->server_->lastDeflate = self->request_.count(http::field::sec_websocket_extensions) &&
                                   self->server_->options.deflate;
      if (self->server_->options.mode != WsServerOptions::Mode::mute)
        self->read();
      if (auto pending = std::exchange(self->pendingClose_, std::nullopt))
        return self->close(pending->first, std::move(pending->second));
      self->pump();
    });
  }

  void read() {
    ws_.async_read(in_, [self = this->shared_from_this()](const error_code& ec, std::size_t n) {
      auto& server = *self->server_;
      if (ec) {
        // A connection that ends with the client's close frame, or without one.
        std::lock_guard lock(server.mutex);
        server.endings.push_back(ec == websocket::error::closed ? int(self->ws_.reason().code) : 0);
        return;
      }
      server.messages++;
      server.bytes += n;
      const bool binary = self->ws_.got_binary();
      const auto mode = server.options.mode;
      if (mode == WsServerOptions::Mode::echo || mode == WsServerOptions::Mode::record) {
        const auto* p = static_cast<const std::uint8_t*>(self->in_.cdata().data());
        std::vector<std::uint8_t> data(p, p + self->in_.size());
        {
          std::lock_guard lock(server.mutex);
          server.received.push_back({binary, data});
        }
        if (mode == WsServerOptions::Mode::echo)
          self->send(std::make_shared<const std::vector<std::uint8_t>>(std::move(data)), binary);
      }
      self->in_.clear();
      self->read();
    });
  }

  void pump() {
    if (!accepted_ || writing_ || outbox_.empty() || closing_)
      return;
    writing_ = true;
    ws_.binary(outbox_.front().second);
    ws_.async_write(asio::buffer(*outbox_.front().first),
                    [self = this->shared_from_this()](const error_code& ec, std::size_t) {
                      self->writing_ = false;
                      self->outbox_.pop_front();
                      if (!ec)
                        self->pump();
                    });
  }

  WsTestServer::Impl* server_;
  websocket::stream<Next> ws_;
  beast::flat_buffer buffer_;
  beast::flat_buffer in_;
  http::request<http::string_body> request_;
  std::deque<std::pair<std::shared_ptr<const std::vector<std::uint8_t>>, bool>> outbox_;
  bool accepted_ = false;
  bool writing_ = false;
  bool closing_ = false;
  std::optional<std::pair<std::uint16_t, std::string>> pendingClose_;
};

}  // namespace

void WsTestServer::Impl::start(tcp::socket socket) {
  if (tls) {
    auto session = std::make_shared<Session<beast::ssl_stream<beast::tcp_stream>>>(
        this, websocket::stream<beast::ssl_stream<beast::tcp_stream>>(
                  beast::tcp_stream(std::move(socket)), *tls));
    {
      std::lock_guard lock(mutex);
      sessions.push_back(session);
    }
    session->runTLS();
  } else {
    auto session = std::make_shared<Session<beast::tcp_stream>>(
        this, websocket::stream<beast::tcp_stream>(std::move(socket)));
    {
      std::lock_guard lock(mutex);
      sessions.push_back(session);
    }
    session->readRequest();
  }
}

WsTestServer::WsTestServer(WsServerOptions options)
    : impl_(std::make_shared<Impl>(std::move(options))) {
  if (impl_->options.certificate) {
    impl_->tls.emplace(asio::ssl::context::tls_server);
    impl_->tls->use_certificate_chain(asio::buffer(*impl_->options.certificate));
    impl_->tls->use_private_key(asio::buffer(*impl_->options.privateKey), asio::ssl::context::pem);
  }
  tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), 0);
  impl_->acceptor.open(endpoint.protocol());
  impl_->acceptor.set_option(asio::socket_base::reuse_address(true));
  impl_->acceptor.bind(endpoint);
  impl_->acceptor.listen();
  impl_->port = impl_->acceptor.local_endpoint().port();
  impl_->accept();
  impl_->thread = std::thread([impl = impl_.get()] { impl->io.run(); });
}

WsTestServer::~WsTestServer() {
  impl_->io.stop();
  impl_->thread.join();
  std::lock_guard lock(impl_->mutex);
  impl_->sessions.clear();
}

unsigned short WsTestServer::port() const {
  return impl_->port;
}

std::string WsTestServer::url(const std::string& path, const std::string& host) const {
  return std::string(impl_->tls ? "wss://" : "ws://") + host + ":" + std::to_string(port()) + path;
}

int WsTestServer::upgrades() const {
  return impl_->upgrades;
}

std::vector<std::map<std::string, std::string>> WsTestServer::requestHeaders() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->headers;
}

std::vector<WsReceived> WsTestServer::received() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->received;
}

std::uint64_t WsTestServer::messagesReceived() const {
  return impl_->messages;
}

std::uint64_t WsTestServer::bytesReceived() const {
  return impl_->bytes;
}

bool WsTestServer::lastUsedDeflate() const {
  return impl_->lastDeflate;
}

void WsTestServer::sendToAll(std::vector<std::uint8_t> data, bool binary) {
  auto shared = std::make_shared<const std::vector<std::uint8_t>>(std::move(data));
  impl_->forEach([shared, binary](SessionBase& s) { s.send(shared, binary); });
}

std::vector<int> WsTestServer::endings() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->endings;
}

void WsTestServer::closeAll(std::uint16_t code, const std::string& reason) {
  impl_->forEach([code, reason](SessionBase& s) { s.close(code, reason); });
}

void WsTestServer::dropAll() {
  impl_->forEach([](SessionBase& s) { s.drop(); });
}

}  // namespace quorvix::test

#include "HttpTestServer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cctype>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

namespace quorvix::test {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;

std::optional<std::string> RecordedRequest::header(std::string_view lowerName) const {
  for (const auto& [k, v] : headers)
    if (k == lowerName)
      return v;
  return std::nullopt;
}

std::size_t RecordedRequest::headerCount(std::string_view lowerName) const {
  return std::count_if(headers.begin(), headers.end(),
                       [&](const auto& h) { return h.first == lowerName; });
}

struct HttpTestServer::Impl {
  asio::io_context io;
  tcp::acceptor acceptor{io};
  std::thread acceptThread;
  std::mutex mutex;
  Handler handler;
  std::vector<RecordedRequest> requests;
  std::vector<std::thread> connectionThreads;
  std::vector<int> openSockets;
  std::atomic<bool> stopping{false};
  std::optional<asio::ssl::context> tls;

  void serve(tcp::socket socket, int index) {
    if (!tls) {
      serveRequests(socket, index);
      finish(socket);
      return;
    }
    asio::ssl::stream<tcp::socket> stream(std::move(socket), *tls);
    boost::system::error_code ec;
    stream.handshake(asio::ssl::stream_base::server, ec);
    if (!ec)
      serveRequests(stream, index);
    finish(stream.next_layer());
  }

  template <typename Stream>
  void serveRequests(Stream& socket, int index) {
    boost::beast::flat_buffer buffer;
    boost::system::error_code ec;
    while (!stopping) {
      http::request_parser<http::string_body> parser;
      parser.body_limit(256u << 20);
      http::read(socket, buffer, parser, ec);
      if (ec)
        break;
      auto& req = parser.get();
      RecordedRequest rec;
      rec.method = std::string(req.method_string());
      rec.target = std::string(req.target());
      for (const auto& field : req) {
        std::string name(field.name_string());
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        rec.headers.emplace_back(std::move(name), std::string(field.value()));
      }
      rec.body = req.body();
      rec.connection = index;
      Handler h;
      {
        std::lock_guard lock(mutex);
        requests.push_back(rec);
        h = handler;
      }
      TestResponse answer = h ? h(rec) : TestResponse{};
      if (answer.hangUp)
        break;
      if (answer.neverAnswer) {
        char byte;
        while (!stopping && !ec)
          socket.read_some(asio::buffer(&byte, 1), ec);
        break;
      }
      http::response<http::string_body> res{static_cast<http::status>(answer.status),
                                            req.version()};
      bool hasType = false;
      for (const auto& [k, v] : answer.headers) {
        res.insert(k, v);
        hasType = hasType || k == "Content-Type";
      }
      if (!hasType)
        res.set(http::field::content_type, "application/json");
      res.body() = answer.body;
      res.keep_alive(req.keep_alive());
      if (answer.status == 204) {
        // Beast will not frame a body for a 204; the test wants one on the wire anyway.
        res.set(http::field::content_length, std::to_string(answer.body.size()));
      } else {
        res.prepare_payload();
      }
      http::write(socket, res, ec);
      if (ec || !req.keep_alive())
        break;
    }
  }

  void finish(tcp::socket& socket) {
    boost::system::error_code ec;
    socket.shutdown(tcp::socket::shutdown_both, ec);
    // Forget the descriptor before the socket closes it, so it is never shut down once reused.
    std::lock_guard lock(mutex);
    std::erase(openSockets, socket.native_handle());
  }
};

HttpTestServer::HttpTestServer(Handler handler, std::optional<TlsIdentity> tls)
    : impl_(std::make_unique<Impl>()) {
  impl_->handler = std::move(handler);
  if (tls) {
    impl_->tls.emplace(asio::ssl::context::tls_server);
    impl_->tls->use_certificate_chain(asio::buffer(tls->certificate));
    impl_->tls->use_private_key(asio::buffer(tls->privateKey), asio::ssl::context::pem);
  }
  tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), 0);
  impl_->acceptor.open(endpoint.protocol());
  impl_->acceptor.set_option(tcp::acceptor::reuse_address(true));
  impl_->acceptor.bind(endpoint);
  impl_->acceptor.listen();
  port_ = impl_->acceptor.local_endpoint().port();
  impl_->acceptThread = std::thread([this] {
    while (true) {
      boost::system::error_code ec;
      tcp::socket socket(impl_->io);
      impl_->acceptor.accept(socket, ec);
      if (impl_->stopping || ec)
        break;
      int index = ++connections_;
      std::lock_guard lock(impl_->mutex);
      impl_->openSockets.push_back(socket.native_handle());
      impl_->connectionThreads.emplace_back(
          [this, s = std::move(socket), index]() mutable { impl_->serve(std::move(s), index); });
    }
  });
}

HttpTestServer::~HttpTestServer() {
  impl_->stopping = true;
  // Unblock the accept and every read with a shutdown of the underlying sockets.
  ::shutdown(impl_->acceptor.native_handle(), SHUT_RDWR);
  impl_->acceptThread.join();
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(impl_->mutex);
    for (int fd : impl_->openSockets)
      ::shutdown(fd, SHUT_RDWR);
    threads.swap(impl_->connectionThreads);
  }
  for (auto& t : threads)
    t.join();
}

std::string HttpTestServer::url(std::string_view path, std::string_view host) const {
  return std::string(impl_->tls ? "https://" : "http://") + std::string(host) + ":" +
         std::to_string(port_) + std::string(path);
}

void HttpTestServer::setHandler(Handler handler) {
  std::lock_guard lock(impl_->mutex);
  impl_->handler = std::move(handler);
}

std::vector<RecordedRequest> HttpTestServer::requests() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->requests;
}

unsigned short HttpTestServer::closedPort() {
  asio::io_context io;
  tcp::acceptor a(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
  return a.local_endpoint().port();
}

}  // namespace quorvix::test

// Throughput of the WebSocket transports: 20 000 binary messages of 100 KB over loopback to a sink
// server that only counts, with and without permessage-deflate. Peers: the library's own client,
// the Beast-based platform transport, and Beast's own client writing in a plain loop. Each run is
// a fresh client process (so CPU time and peak memory are its own) against a fresh server process.
//
//   websocket_bench [messages] [bytes]
#include <semaphore>
#include <thread>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

#include <openssl/rand.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "web-socket/SocketTransport.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using namespace quorvix;

constexpr int kWindow = 16;  // messages in flight, for the transports that report completions

// The sink: reads every message; after `expected` of them it answers with one byte.
[[noreturn]] void runSink(int portPipe, bool deflate, std::uint64_t expected) {
  asio::io_context io;
  tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
  const unsigned short port = acceptor.local_endpoint().port();
  if (write(portPipe, &port, sizeof port) != sizeof port)
    _exit(1);
  while (true) {
    websocket::stream<tcp::socket> ws(acceptor.accept());
    websocket::permessage_deflate pmd;
    pmd.server_enable = deflate;
    ws.set_option(pmd);
    ws.read_message_max(1u << 30);
    boost::system::error_code ec;
    ws.accept(ec);
    beast::flat_buffer buffer;
    std::uint64_t n = 0;
    while (!ec) {
      ws.read(buffer, ec);
      buffer.clear();
      if (!ec && ++n == expected) {
        ws.binary(true);
        ws.write(asio::buffer("k", 1), ec);
      }
    }
  }
}

struct Result {
  double seconds = 0, cpu = 0;
  long maxRssKb = 0;
  bool ok = false;
};

double cpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

class Delegate final : public SocketDelegate {
 public:
  std::binary_semaphore connected{0}, done{0};
  void websocketDidConnect() override { connected.release(); }
  void websocketDidDisconnect(std::optional<TransportError>) override {}
  void websocketDidReceiveData(std::vector<std::uint8_t>) override { done.release(); }
};

bool runTransport(WebsocketMethod method,
                  unsigned short port,
                  std::uint64_t count,
                  const std::vector<std::uint8_t>& payload) {
  const std::string url = "ws://127.0.0.1:" + std::to_string(port) + "/";
  auto transport = makeSocket(method, QRVSocketRequest{*QRVURL::parse(url), {}, {}}, nullptr);
  auto delegate = std::make_shared<Delegate>();
  transport->setDelegate(delegate);
  transport->connect();
  if (!delegate->connected.try_acquire_for(std::chrono::seconds(10)))
    return false;
  std::counting_semaphore<kWindow> window(kWindow);
  for (std::uint64_t i = 0; i < count; ++i) {
    window.acquire();
    transport->write(payload, [&window] { window.release(); });
  }
  return delegate->done.try_acquire_for(std::chrono::seconds(120));
}

bool runBeastClient(unsigned short port,
                    bool deflate,
                    std::uint64_t count,
                    const std::vector<std::uint8_t>& payload) {
  asio::io_context io;
  websocket::stream<tcp::socket> ws(io);
  ws.next_layer().connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
  ws.next_layer().set_option(tcp::no_delay(true));
  websocket::permessage_deflate pmd;
  pmd.client_enable = deflate;
  ws.set_option(pmd);
  ws.handshake("127.0.0.1:" + std::to_string(port), "/");
  ws.binary(true);
  for (std::uint64_t i = 0; i < count; ++i) {
    // A fresh copy per message, as the transports take theirs.
    std::vector<std::uint8_t> message = payload;
    ws.write(asio::buffer(message));
  }
  beast::flat_buffer buffer;
  ws.read(buffer);
  return buffer.size() == 1;
}

Result measure(int peer, bool deflate, std::uint64_t count, std::size_t bytes) {
  int portPipe[2], resultPipe[2];
  if (pipe(portPipe) != 0 || pipe(resultPipe) != 0)
    return {};
  const pid_t sink = fork();
  if (sink == 0)
    runSink(portPipe[1], deflate, count);
  unsigned short port = 0;
  if (read(portPipe[0], &port, sizeof port) != sizeof port)
    return {};
  const pid_t client = fork();
  if (client == 0) {
    std::vector<std::uint8_t> payload(bytes);
    RAND_bytes(payload.data(), static_cast<int>(payload.size()));  // like encoded frames
    const double cpu0 = cpuSeconds();
    const auto t0 = std::chrono::steady_clock::now();
    bool ok = peer == 0   ? runTransport(WebsocketMethod::starscream, port, count, payload)
              : peer == 1 ? runTransport(WebsocketMethod::urlSession, port, count, payload)
                          : runBeastClient(port, deflate, count, payload);
    Result r;
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    r.cpu = cpuSeconds() - cpu0;
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    r.maxRssKb = u.ru_maxrss;
    r.ok = ok;
    (void)!write(resultPipe[1], &r, sizeof r);
    _exit(0);
  }
  Result r;
  if (read(resultPipe[0], &r, sizeof r) != sizeof r)
    r = {};
  waitpid(client, nullptr, 0);
  kill(sink, SIGKILL);
  waitpid(sink, nullptr, 0);
  for (int fd : {portPipe[0], portPipe[1], resultPipe[0], resultPipe[1]})
    close(fd);
  return r;
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t count = argc > 1 ? std::stoull(argv[1]) : 20000;
  const std::size_t bytes = argc > 2 ? std::stoul(argv[2]) : 100 * 1024;
  const char* names[] = {"own client (StarscreamSocket)", "platform (BeastSocket)",
                         "Beast's own client"};
  std::printf("%llu messages of %zu bytes, random content\n\n",
              static_cast<unsigned long long>(count), bytes);
  std::printf("%-32s %-8s %10s %9s %14s %12s\n", "client", "deflate", "msgs/s", "MB/s",
              "CPU us/msg", "peak RSS MB");
  for (bool deflate : {false, true}) {
    for (int peer = 0; peer < 3; ++peer) {
      Result r = measure(peer, deflate, count, bytes);
      if (!r.ok) {
        std::printf("%-32s %-8s failed\n", names[peer], deflate ? "on" : "off");
        continue;
      }
      std::printf("%-32s %-8s %10.0f %9.1f %14.1f %12.1f\n", names[peer], deflate ? "on" : "off",
                  count / r.seconds, count * bytes / r.seconds / 1e6, r.cpu / count * 1e6,
                  r.maxRssKb / 1024.0);
    }
  }
  return 0;
}

#include <gtest/gtest.h>

#include "../support/Hex.h"
#include "web-socket/WSFraming.h"
#include "web-socket/WSHandshake.h"

namespace quorvix {
namespace {

using test::hex;
using test::toHex;

constexpr std::array<std::uint8_t, 4> kKey{0x37, 0xfa, 0x21, 0x3d};

// A frame as a server writes it: never masked.
std::vector<std::uint8_t> serverFrame(std::uint8_t first,
                                      std::size_t length,
                                      std::uint8_t fill = 'x') {
  std::vector<std::uint8_t> out{first};
  if (length <= 125) {
    out.push_back(static_cast<std::uint8_t>(length));
  } else if (length <= 0xffff) {
    out.insert(out.end(),
               {126, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)});
  } else {
    out.push_back(127);
    for (int i = 7; i >= 0; --i)
      out.push_back(static_cast<std::uint8_t>(length >> (8 * i)));
  }
  out.insert(out.end(), length, fill);
  return out;
}

TEST(WSFramingTest, WritesMaskedClientFramesWithTheShortestLength) {
  // RFC 6455 section 5.7: a masked "Hello".
  std::vector<std::uint8_t> out;
  std::string hello = "Hello";
  writeFrame(out, OpCode::textFrame, {reinterpret_cast<const std::uint8_t*>(hello.data()), 5},
             kKey);
  EXPECT_EQ(toHex(out), "818537fa213d7f9f4d5158");

  for (std::size_t n : {0, 125, 126, 65535, 65536}) {
    std::vector<std::uint8_t> payload(n, 0xab), frame;
    writeFrame(frame, OpCode::binaryFrame, payload, kKey);
    std::size_t header = n <= 125 ? 6 : n <= 65535 ? 8 : 14;
    ASSERT_EQ(frame.size(), header + n) << n;
    EXPECT_EQ(frame[0], 0x82);
    EXPECT_EQ(frame[1] & 0x7f, n <= 125 ? n : n <= 65535 ? 126 : 127) << n;
    // Unmasking gives the payload back, whatever the alignment of the fast path.
    for (std::size_t i = 0; i < n; ++i)
      ASSERT_EQ(frame[header + i] ^ kKey[i % 4], 0xab) << n << " at " << i;
  }
  std::vector<std::uint8_t> compressed;
  writeFrame(compressed, OpCode::textFrame, {}, kKey, /*fin=*/false, /*rsv1=*/true);
  EXPECT_EQ(compressed[0], 0x41);
}

TEST(WSFramingTest, ReadsServerFramesSplitAnywhere) {
  std::vector<std::uint8_t> stream;
  for (std::size_t n : {0, 125, 126, 65535, 65536}) {
    auto f = serverFrame(0x82, n, static_cast<std::uint8_t>(n));
    stream.insert(stream.end(), f.begin(), f.end());
  }
  auto ping = serverFrame(0x89, 4);
  stream.insert(stream.end(), ping.begin(), ping.end());
  // Whole, one byte at a time, and in odd-sized pieces: the same frames each time.
  for (std::size_t piece : {stream.size(), std::size_t{1}, std::size_t{7}, std::size_t{4093}}) {
    WSFrameReader reader;
    std::vector<WSFrame> frames;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      auto chunk = std::span(stream).subspan(at, std::min(piece, stream.size() - at));
      ASSERT_FALSE(reader.feed(chunk, [&](WSFrame&& f) { frames.push_back(std::move(f)); }));
    }
    ASSERT_EQ(frames.size(), 6u) << piece;
    EXPECT_EQ(frames[3].payload.size(), 65535u);
    EXPECT_EQ(frames[4].payload.size(), 65536u);
    EXPECT_EQ(frames[4].payload.back(), static_cast<std::uint8_t>(65536));
    EXPECT_EQ(frames[5].opcode, 0x9);
    EXPECT_EQ(reader.buffered(), 0u);
  }
}

TEST(WSFramingTest, RefusesFramesAServerMustNotSend) {
  struct Case {
    const char* hex;
    bool compression;
    const char* message;
  };
  const Case cases[] = {
      {"8281 00000000 61", false, "masked and rsv data is not currently supported"},
      {"c100", false, "masked and rsv data is not currently supported"},
      {"a100", true, "masked and rsv data is not currently supported"},
      {"c900", true, "masked and rsv data is not currently supported"},
      {"8300", false, "unknown opcode: 3"},
      {"8b00", false, "unknown opcode: 11"},
      {"0900", false, "control frames can't be fragmented"},
      {"897e0080", false, "control frame payload longer than 125 bytes"},
      {"827f8000000000000000", false, "payload length with the most significant bit set"},
      {"827f0000000010000000", false, "frame payload too large"},
  };
  for (const auto& c : cases) {
    WSFrameReader reader(c.compression);
    auto error = reader.feed(hex(c.hex), [](WSFrame&&) { FAIL() << "no frame expected"; });
    ASSERT_TRUE(error) << c.hex;
    EXPECT_EQ(error->message, c.message) << c.hex;
    EXPECT_EQ(error->type, WSError::ErrorType::protocolError);
    // Spent: later bytes do not revive it.
    EXPECT_TRUE(reader.feed(hex("8100"), [](WSFrame&&) {}));
  }
  WSFrameReader compressed(true);
  int frames = 0;
  EXPECT_FALSE(compressed.feed(hex("c100"), [&](WSFrame&& f) { frames += f.rsv1; }));
  EXPECT_EQ(frames, 1);
}

TEST(WSFramingTest, ReassemblesFragmentsWithControlFramesBetween) {
  WSMessageAssembler assembler;
  std::optional<WSError> error;
  auto frame = [](std::uint8_t op, bool fin, const char* text, bool rsv1 = false) {
    std::string s(text);
    return WSFrame{fin, rsv1, op, std::vector<std::uint8_t>(s.begin(), s.end())};
  };
  EXPECT_FALSE(assembler.add(frame(0x1, false, "Hel", true), &error));
  auto pong = assembler.add(frame(0xA, true, "p"), &error);
  ASSERT_TRUE(pong);
  EXPECT_EQ(pong->opcode, OpCode::pong);
  EXPECT_FALSE(assembler.add(frame(0x0, false, "l"), &error));
  auto message = assembler.add(frame(0x0, true, "o"), &error);
  ASSERT_TRUE(message);
  EXPECT_FALSE(error);
  EXPECT_EQ(std::string(message->payload.begin(), message->payload.end()), "Hello");
  EXPECT_TRUE(message->compressed);
  EXPECT_EQ(message->opcode, OpCode::textFrame);

  struct Case {
    std::vector<WSFrame> frames;
    const char* message;
  };
  std::vector<Case> cases;
  cases.push_back({{frame(0x0, true, "x")}, "first frame can't be a continue frame"});
  cases.push_back({{frame(0x2, true, "a"), frame(0x0, true, "x")},
                   "continue frame before a binary or text frame"});
  cases.push_back({{frame(0x2, false, "a"), frame(0x1, true, "b")},
                   "second and beyond of fragment message must be a continue frame"});
  for (auto& c : cases) {
    WSMessageAssembler fresh;
    std::optional<WSError> e;
    for (auto& f : c.frames)
      fresh.add(std::move(f), &e);
    ASSERT_TRUE(e) << c.message;
    EXPECT_EQ(e->message, c.message);
  }
  WSMessageAssembler small(4);
  std::optional<WSError> big;
  small.add(frame(0x2, false, "abc"), &big);
  small.add(frame(0x0, true, "de"), &big);
  ASSERT_TRUE(big);
  EXPECT_EQ(big->code, closeCode::messageTooBig);
}

TEST(WSHandshakeTest, BuildsTheRequestAndChecksTheAnswer) {
  // RFC 6455 section 1.3.
  EXPECT_EQ(webSocketAccept("dGhlIHNhbXBsZSBub25jZQ=="), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
  std::array<std::uint8_t, 16> nonce{};
  for (int i = 0; i < 16; ++i)
    nonce[i] = static_cast<std::uint8_t>(i + 1);
  std::string key = webSocketKey(nonce);
  EXPECT_EQ(key, "AQIDBAUGBwgJCgsMDQ4PEA==");

  WSHandshakeInput input{"/sockets/1/ws?v=1",
                         "api.example.com",
                         "https://api.example.com",
                         {{"Authorization", "Bearer t"}, {"Sec-WebSocket-Key", "forged"}},
                         true};
  EXPECT_EQ(buildHandshake(input, key),
            "GET /sockets/1/ws?v=1 HTTP/1.1\r\n"
            "Authorization: Bearer t\r\n"
            "Upgrade: websocket\r\nConnection: Upgrade\r\n"
            "Host: api.example.com\r\n"
            "Origin: https://api.example.com\r\n"
            "Sec-WebSocket-Version: 13\r\n"
            "Sec-WebSocket-Extensions: permessage-deflate; client_max_window_bits; "
            "server_max_window_bits=15\r\n"
            "Sec-WebSocket-Key: AQIDBAUGBwgJCgsMDQ4PEA==\r\n\r\n");

  std::string accept = webSocketAccept(key);
  std::string ok =
      "HTTP/1.1 101 Switching Protocols\r\nUpgrade: WebSocket\r\n"
      "Connection: keep-alive, Upgrade\r\nSec-WebSocket-Accept: " +
      accept +
      "\r\nSec-WebSocket-Extensions: permessage-deflate; client_no_context_takeover;"
      " server_max_window_bits=10\r\n\r\n\x81\x02hi";
  WSHandshakeReader reader(key);
  std::optional<std::pair<std::optional<WSHandshakeReader::Response>, std::optional<WSError>>> r;
  // One byte at a time up to the last byte of the headers, which arrives with the first frame.
  std::size_t last = ok.find("\r\n\r\n") + 3;
  auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(ok.data()), ok.size());
  for (std::size_t i = 0; i < last; ++i) {
    r = reader.feed(bytes.subspan(i, 1));
    ASSERT_FALSE(r) << "decided too early";
  }
  r = reader.feed(bytes.subspan(last));
  ASSERT_TRUE(r && r->first) << (r && r->second ? r->second->message : "");
  EXPECT_TRUE(r->first->compression.enabled);
  EXPECT_TRUE(r->first->compression.clientNoContextTakeover);
  EXPECT_EQ(r->first->compression.serverMaxWindowBits, 10);
  EXPECT_EQ(toHex(r->first->rest), "81026869");

  for (std::string bad : std::vector<std::string>{
           "HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n",
           "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           "Sec-WebSocket-Accept: wrong\r\n\r\n",
           "HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
               accept + "\r\n\r\n",
           "garbage\r\n\r\n",
           std::string(WSHandshakeReader::kMaxHeaderBytes + 10, 'a'),
       }) {
    WSHandshakeReader refusing(key);
    auto result = refusing.feed({reinterpret_cast<const std::uint8_t*>(bad.data()), bad.size()});
    ASSERT_TRUE(result && result->second) << bad.substr(0, 40);
    EXPECT_EQ(result->second->message, "Invalid HTTP upgrade");
    EXPECT_EQ(result->second->type, WSError::ErrorType::upgradeError);
  }
}

TEST(WSHandshakeTest, ExtensionNegotiation) {
  auto c = parseExtensions(
      "permessage-deflate; server_max_window_bits=12; client_max_window_bits=9; "
      "server_no_context_takeover");
  EXPECT_TRUE(c.enabled);
  EXPECT_EQ(c.serverMaxWindowBits, 12);
  EXPECT_EQ(c.clientMaxWindowBits, 9);
  EXPECT_TRUE(c.serverNoContextTakeover);
  EXPECT_FALSE(c.clientNoContextTakeover);
  EXPECT_FALSE(parseExtensions("").enabled);
  EXPECT_FALSE(parseExtensions("x-webkit-deflate-frame").enabled);
  EXPECT_FALSE(parseExtensions("permessage-deflate; server_max_window_bits=16").enabled);
  EXPECT_FALSE(parseExtensions("permessage-deflate; mystery").enabled);
  EXPECT_TRUE(parseExtensions("permessage-deflate; client_max_window_bits=\"15\"").enabled);
}

}  // namespace
}  // namespace quorvix

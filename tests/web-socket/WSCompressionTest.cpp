#include "web-socket/WSCompression.h"

#include <random>

#include <gtest/gtest.h>

#include "../support/Hex.h"

namespace quorvix {
namespace {

using test::hex;
using test::toHex;

std::span<const std::uint8_t> bytes(const std::string& s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

// RFC 7692 section 7.2.3: "Hello" twice, with and without the window kept between messages.
TEST(WSCompressionTest, MatchesTheExamplesOfRFC7692) {
  WSDecompressor inflater(15, false);
  std::vector<std::uint8_t> out;
  ASSERT_FALSE(inflater.decompress(hex("f248cdc9c90700"), out));
  ASSERT_FALSE(inflater.decompress(hex("f200110000"), out));  // refers back to the first
  EXPECT_EQ(std::string(out.begin(), out.end()), "HelloHello");
  // Uncompressed (stored) block, and a message split over two deflate blocks.
  std::vector<std::uint8_t> stored, split;
  ASSERT_FALSE(WSDecompressor(15, false).decompress(hex("000500faff48656c6c6f00"), stored));
  EXPECT_EQ(std::string(stored.begin(), stored.end()), "Hello");
  ASSERT_FALSE(WSDecompressor(15, false).decompress(hex("f24805000000ffffcac9c90700"), split));
  EXPECT_EQ(std::string(split.begin(), split.end()), "Hello");

  WSCompressor kept(15, false);
  std::vector<std::uint8_t> first, second;
  ASSERT_FALSE(kept.compress(bytes("Hello"), first));
  ASSERT_FALSE(kept.compress(bytes("Hello"), second));
  EXPECT_EQ(toHex(first), "f248cdc9c90700");
  EXPECT_EQ(toHex(second), "f200110000");
  WSCompressor fresh(15, true);
  std::vector<std::uint8_t> a, b;
  ASSERT_FALSE(fresh.compress(bytes("Hello"), a));
  ASSERT_FALSE(fresh.compress(bytes("Hello"), b));
  EXPECT_EQ(toHex(b), toHex(a)) << "no context takeover: each message stands alone";
}

TEST(WSCompressionTest, RoundTripsUnderEveryWindowAndTakeoverSetting) {
  std::mt19937 random(7);
  std::vector<std::uint8_t> text(200000);
  for (auto& c : text)
    c = "abcdefgh "[random() % 9];
  for (int bits : {8, 9, 12, 15}) {
    for (bool noTakeover : {false, true}) {
      WSCompressor compressor(bits, noTakeover);
      WSDecompressor decompressor(std::max(bits, 9), noTakeover);
      for (std::size_t size : {0, 1, 125, 65536, 200000}) {
        std::span<const std::uint8_t> message(text.data(), size);
        std::vector<std::uint8_t> packed, unpacked;
        ASSERT_FALSE(compressor.compress(message, packed));
        ASSERT_FALSE(decompressor.decompress(packed, unpacked)) << bits << " " << size;
        ASSERT_EQ(unpacked.size(), size);
        EXPECT_TRUE(std::equal(unpacked.begin(), unpacked.end(), message.begin()));
      }
    }
  }
}

TEST(WSCompressionTest, RefusesCorruptDataAndBombs) {
  std::vector<std::uint8_t> out;
  auto error = WSDecompressor(15, false).decompress(hex("ffffffff"), out);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message.rfind("Decompression failed: ", 0), 0u) << error->message;
  EXPECT_EQ(error->type, WSError::ErrorType::compressionError);

  // A megabyte of zeros compresses to about a kilobyte; with a 64 KB limit it is refused.
  std::vector<std::uint8_t> zeros(1 << 20), packed;
  ASSERT_FALSE(WSCompressor(15, true).compress(zeros, packed));
  EXPECT_LT(packed.size(), 2048u);
  std::vector<std::uint8_t> inflated;
  auto bomb = WSDecompressor(15, true, 64 * 1024).decompress(packed, inflated);
  ASSERT_TRUE(bomb);
  EXPECT_EQ(bomb->message, "Decompression failed: message too large");
  EXPECT_LE(inflated.size(), 64u * 1024);
}

}  // namespace
}  // namespace quorvix

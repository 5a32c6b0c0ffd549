#include "quorvix/CBOR.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "../support/Hex.h"

#include "cbor/CBORDecoder.h"

namespace quorvix {
namespace {

using test::hex;
using test::toHex;

Expected<std::optional<CBOR>, CBORError> decode(std::string_view h, CBOROptions o = {}) {
  static thread_local CBOR::Bytes keep;
  keep = hex(h);
  CBORDecoder d(keep, o);
  return d.decodeItem();
}

CBOR u(std::uint64_t v) {
  return CBOR(CBOR::UnsignedInt{v});
}
CBOR n(std::uint64_t v) {
  return CBOR(CBOR::NegativeInt{v});
}
CBOR half(float f) {
  return CBOR(CBOR::Half{f});
}
CBOR arr(std::initializer_list<CBOR> items) {
  return CBOR(CBOR::Array(items));
}
CBOR::Array range(int from, int to) {
  CBOR::Array a;
  for (int i = from; i <= to; ++i)
    a.push_back(u(i));
  return a;
}

// RFC 8949 Appendix A. `reencode` marks the examples whose encoding is also this encoder's
// preferred form: it never narrows 32- or 64-bit floats, and writes definite lengths only. A
// decoded half keeps its width, so the half examples re-encode too.
TEST(CBORTest, AppendixAExamples) {
  constexpr float kInfF = std::numeric_limits<float>::infinity();
  constexpr double kInf = std::numeric_limits<double>::infinity();
  struct Example {
    const char* diagnostic;
    const char* encoded;
    CBOR value;
    bool reencode;
  };
  const Example examples[] = {
      {"0", "00", u(0), true},
      {"1", "01", u(1), true},
      {"10", "0a", u(10), true},
      {"23", "17", u(23), true},
      {"24", "1818", u(24), true},
      {"25", "1819", u(25), true},
      {"100", "1864", u(100), true},
      {"1000", "1903e8", u(1000), true},
      {"1000000", "1a000f4240", u(1000000), true},
      {"1000000000000", "1b000000e8d4a51000", u(1000000000000), true},
      {"18446744073709551615", "1bffffffffffffffff", u(18446744073709551615ull), true},
      {"bignum 2^64", "c249010000000000000000", CBOR(2, CBOR(hex("010000000000000000"))), true},
      {"-18446744073709551616", "3bffffffffffffffff", n(18446744073709551615ull), true},
      {"-bignum", "c349010000000000000000", CBOR(3, CBOR(hex("010000000000000000"))), true},
      {"-1", "20", n(0), true},
      {"-10", "29", n(9), true},
      {"-100", "3863", n(99), true},
      {"-1000", "3903e7", n(999), true},
      {"0.0", "f90000", half(0.0f), true},
      {"-0.0", "f98000", half(-0.0f), true},
      {"1.0", "f93c00", half(1.0f), true},
      {"1.1", "fb3ff199999999999a", CBOR(1.1), true},
      {"1.5", "f93e00", half(1.5f), true},
      {"65504.0", "f97bff", half(65504.0f), true},
      {"100000.0", "fa47c35000", CBOR(100000.0f), true},
      {"3.4028234663852886e+38", "fa7f7fffff", CBOR(3.4028234663852886e+38f), true},
      {"1.0e+300", "fb7e37e43c8800759c", CBOR(1.0e+300), true},
      {"5.960464477539063e-8", "f90001", half(5.960464477539063e-8f), true},
      {"0.00006103515625", "f90400", half(0.00006103515625f), true},
      {"-4.0", "f9c400", half(-4.0f), true},
      {"-4.1", "fbc010666666666666", CBOR(-4.1), true},
      {"Infinity (half)", "f97c00", half(kInfF), true},
      {"NaN (half)", "f97e00", half(std::nanf("")), true},
      {"-Infinity (half)", "f9fc00", half(-kInfF), true},
      {"Infinity (single)", "fa7f800000", CBOR(kInfF), true},
      {"NaN (single)", "fa7fc00000", CBOR(std::nanf("")), true},
      {"-Infinity (single)", "faff800000", CBOR(-kInfF), true},
      {"Infinity (double)", "fb7ff0000000000000", CBOR(kInf), true},
      {"NaN (double)", "fb7ff8000000000000", CBOR(std::nan("")), true},
      {"-Infinity (double)", "fbfff0000000000000", CBOR(-kInf), true},
      {"false", "f4", CBOR(false), true},
      {"true", "f5", CBOR(true), true},
      {"null", "f6", CBOR(CBOR::Null{}), true},
      {"undefined", "f7", CBOR(CBOR::Undefined{}), true},
      {"simple(16)", "f0", CBOR(CBOR::Simple{16}), true},
      {"simple(255)", "f8ff", CBOR(CBOR::Simple{255}), true},
      {"0(\"2013-03-21T20:04:00Z\")", "c074323031332d30332d32315432303a30343a30305a",
       CBOR(0, CBOR("2013-03-21T20:04:00Z")), true},
      {"1(1363896240)", "c11a514b67b0", CBOR(Date{1363896240}), true},
      {"1(1363896240.5)", "c1fb41d452d9ec200000", CBOR(Date{1363896240.5}), true},
      {"23(h'01020304')", "d74401020304", CBOR(23, CBOR(hex("01020304"))), true},
      {"24(h'6449455446')", "d818456449455446", CBOR(24, CBOR(hex("6449455446"))), true},
      {"32(\"http://www.example.com\")", "d82076687474703a2f2f7777772e6578616d706c652e636f6d",
       CBOR(32, CBOR("http://www.example.com")), true},
      {"h''", "40", CBOR(CBOR::Bytes{}), true},
      {"h'01020304'", "4401020304", CBOR(hex("01020304")), true},
      {"\"\"", "60", CBOR(""), true},
      {"\"a\"", "6161", CBOR("a"), true},
      {"\"IETF\"", "6449455446", CBOR("IETF"), true},
      {"\"\\\"\\\\\"", "62225c", CBOR("\"\\"), true},
      {"\"\\u00fc\"", "62c3bc", CBOR("\xc3\xbc"), true},
      {"\"\\u6c34\"", "63e6b0b4", CBOR("\xe6\xb0\xb4"), true},
      {"\"\\ud800\\udd51\"", "64f0908591", CBOR("\xf0\x90\x85\x91"), true},
      {"[]", "80", arr({}), true},
      {"[1, 2, 3]", "83010203", arr({u(1), u(2), u(3)}), true},
      {"[1, [2, 3], [4, 5]]", "8301820203820405", arr({u(1), arr({u(2), u(3)}), arr({u(4), u(5)})}),
       true},
      {"[1..25]", "98190102030405060708090a0b0c0d0e0f101112131415161718181819", CBOR(range(1, 25)),
       true},
      {"{}", "a0", CBOR(CBOR::Map{}), true},
      {"{1: 2, 3: 4}", "a201020304", CBOR(CBOR::Map{{u(1), u(2)}, {u(3), u(4)}}), true},
      {"{\"a\": 1, \"b\": [2, 3]}", "a26161016162820203",
       CBOR(CBOR::Map{{"a", u(1)}, {"b", arr({u(2), u(3)})}}), true},
      {"[\"a\", {\"b\": \"c\"}]", "826161a161626163", arr({"a", CBOR(CBOR::Map{{"b", "c"}})}),
       true},
      {"{a..e}", "a56161614161626142616361436164614461656145",
       CBOR(CBOR::Map{{"a", "A"}, {"b", "B"}, {"c", "C"}, {"d", "D"}, {"e", "E"}}), true},
      {"(_ h'0102', h'030405')", "5f42010243030405ff", CBOR(hex("0102030405")), false},
      {"(_ \"strea\", \"ming\")", "7f657374726561646d696e67ff", CBOR("streaming"), false},
      {"[_ ]", "9fff", arr({}), false},
      {"[_ 1, [2, 3], [_ 4, 5]]", "9f018202039f0405ffff",
       arr({u(1), arr({u(2), u(3)}), arr({u(4), u(5)})}), false},
      {"[_ 1, [2, 3], [4, 5]]", "9f01820203820405ff",
       arr({u(1), arr({u(2), u(3)}), arr({u(4), u(5)})}), false},
      {"[1, [2, 3], [_ 4, 5]]", "83018202039f0405ff",
       arr({u(1), arr({u(2), u(3)}), arr({u(4), u(5)})}), false},
      {"[1, [_ 2, 3], [4, 5]]", "83019f0203ff820405",
       arr({u(1), arr({u(2), u(3)}), arr({u(4), u(5)})}), false},
      {"[_ 1..25]", "9f0102030405060708090a0b0c0d0e0f101112131415161718181819ff",
       CBOR(range(1, 25)), false},
      {"{_ \"a\": 1, \"b\": [_ 2, 3]}", "bf61610161629f0203ffff",
       CBOR(CBOR::Map{{"a", u(1)}, {"b", arr({u(2), u(3)})}}), false},
      {"[\"a\", {_ \"b\": \"c\"}]", "826161bf61626163ff", arr({"a", CBOR(CBOR::Map{{"b", "c"}})}),
       false},
      {"{_ \"Fun\": true, \"Amt\": -2}", "bf6346756ef563416d7421ff",
       CBOR(CBOR::Map{{"Fun", true}, {"Amt", n(1)}}), false},
  };
  int decoded = 0, reencoded = 0;
  for (const auto& e : examples) {
    SCOPED_TRACE(e.diagnostic);
    auto got = decode(e.encoded);
    ASSERT_TRUE(got) << describe(got.error());
    ASSERT_TRUE(*got);
    EXPECT_EQ(**got, e.value);
    ++decoded;
    if (e.reencode) {
      auto bytes = e.value.encode();
      ASSERT_TRUE(bytes);
      EXPECT_EQ(toHex(*bytes), e.encoded);
      ++reencoded;
    }
  }
  EXPECT_EQ(decoded, 81);
  EXPECT_EQ(reencoded, 70);
}

TEST(CBORTest, EncodesHeadsIntegersAndFloatsInTheirPreferredForm) {
  const std::pair<Value, const char*> cases[] = {
      {Value(23), "17"},
      {Value(24), "1818"},
      {Value(256), "190100"},
      {Value(-1), "20"},
      {Value(-25), "3818"},
      {Value(std::numeric_limits<std::int64_t>::min()), "3b7fffffffffffffff"},
      {Value(1.5), "fb3ff8000000000000"},
      {Value(1.5f), "fa3fc00000"},
      {Value(), "f6"},
      {Value(Value::Bytes{1, 2}), "420102"},
  };
  for (const auto& [value, expected] : cases)
    EXPECT_EQ(toHex(*CBOR::encodeAny(value)), expected) << expected;
}

TEST(CBORTest, MapsAreWrittenInBytewiseKeyOrder) {
  Value::Map envelope{{"event", "x"}, {"data", Value::Map{}}, {"id", 1}};
  EXPECT_EQ(toHex(*CBOR::encodeMap(envelope)), "a3626964016464617461a0656576656e746178");
  // Non-text keys of a CBOR map sort by their encodings too: 10 (0a) < 100 (1864) < -1 (20) <
  // "a" (6161).
  CBOR mixed(CBOR::Map{{"a", u(1)}, {n(0), u(2)}, {u(100), u(3)}, {u(10), u(4)}});
  EXPECT_EQ(toHex(*mixed.encode()),
            "a40a0418640320026161"
            "01");
  CBOROptions strict;
  strict.forbidNonStringMapKeys = true;
  auto refused = mixed.encode(strict);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error(), CBOREncoderError::nonStringKeyInMap);
  EXPECT_TRUE(CBOR(CBOR::Map{{"a", u(1)}}).encode(strict));
}

TEST(CBORTest, Dates) {
  EXPECT_EQ(toHex(CBOR::encodeDate(Date{1700000000.0})), "c11a6553f100");
  EXPECT_EQ(toHex(CBOR::encodeDate(Date{1700000000.5})), "c1fb41d954fc40200000");
  EXPECT_EQ(toHex(CBOR::encodeDate(Date{-5.0})), "c124");
  EXPECT_EQ(toHex(CBOR::encodeDate(Date{-5.5})), "c1fbc016000000000000");
  // Whole times from 2^32 seconds on are written as floats.
  EXPECT_EQ(toHex(CBOR::encodeDate(Date{4294967295.0})), "c11affffffff");
  EXPECT_EQ(toHex(CBOR::encodeDate(Date{4294967296.0})), "c1fb41f0000000000000");

  CBOROptions annotated;
  annotated.dateStrategy = DateStrategy::annotatedMap;
  auto bytes = CBOR::encodeDate(Date{1}, annotated);
  EXPECT_EQ(toHex(bytes),
            "a2665f5f7479706574646174655f65706f63685f74696d657374616d70675f5f76616c756501");
  auto back = decode(toHex(bytes), annotated);
  EXPECT_EQ(**back, CBOR(Date{1}));
  // Without the annotated strategy the same bytes stay a map.
  EXPECT_EQ((*decode(toHex(bytes)))->kind(), CBOR::Kind::map);
  // A map whose "__value" is no time is left as it is.
  EXPECT_EQ((**decode("a2665f5f7479706574646174655f65706f63685f74696d657374616d70675f5f76616c756561"
                      "78",
                      annotated))
                .kind(),
            CBOR::Kind::map);

  EXPECT_EQ(**decode("c101"), CBOR(Date{1}));
  EXPECT_EQ(**decode("c1fb41d954fc40000000"), CBOR(Date{1700000000.0}));
  EXPECT_EQ(**decode("c120"), CBOR(Date{-1}));
}

// Each input has one defect.
TEST(CBORTest, MalformedInputIsRefused) {
  struct Case {
    const char* hex;
    CBORError error;
    const char* defect;
  };
  const Case cases[] = {
      {"18", CBORError::unfinishedSequence, "argument byte missing"},
      {"1b000000", CBORError::unfinishedSequence, "8-byte argument cut short"},
      {"62 61", CBORError::unfinishedSequence, "text shorter than its length"},
      {"5b1000000000000000", CBORError::unfinishedSequence, "2^60 bytes claimed"},
      {"9b1000000000000000", CBORError::unfinishedSequence, "2^60 items claimed"},
      {"bb1000000000000000", CBORError::unfinishedSequence, "2^60 pairs claimed"},
      {"5bffffffffffffffff", CBORError::tooLongSequence, "length beyond the platform integer"},
      {"83 01 02", CBORError::unfinishedSequence, "array missing an item"},
      {"a1 01", CBORError::unfinishedSequence, "map missing a value"},
      {"9f 01 02", CBORError::unfinishedSequence, "indefinite array without break"},
      {"5f 41 01", CBORError::unfinishedSequence, "indefinite bytes without break"},
      {"7f 61 61 41 62 ff", CBORError::wrongTypeInsideSequence, "byte chunk in text"},
      {"5f 5f ff ff", CBORError::wrongTypeInsideSequence, "nested indefinite chunk"},
      {"c1 f9 3c00", CBORError::wrongTypeInsideSequence, "half-precision epoch time"},
      {"c1 61 61", CBORError::wrongTypeInsideSequence, "text epoch time"},
      {"1c", CBORError::wrongTypeInsideSequence, "reserved additional information"},
      {"fc", CBORError::wrongTypeInsideSequence, "reserved simple form"},
      {"f815", CBORError::wrongTypeInsideSequence, "true in the two-byte form (found by fuzzing)"},
      {"62 c3 28", CBORError::incorrectUTF8String, "invalid continuation byte"},
      {"62 c0 80", CBORError::incorrectUTF8String, "overlong encoding"},
      {"63 ed a0 80", CBORError::incorrectUTF8String, "surrogate"},
      {"7f 61 c3 61 bc ff", CBORError::incorrectUTF8String, "character split across chunks"},
  };
  for (const auto& c : cases) {
    auto got = decode(c.hex);
    ASSERT_FALSE(got) << c.defect;
    EXPECT_EQ(got.error(), c.error) << c.defect;
  }
  EXPECT_EQ(**decode("5f41014102ff"), CBOR(hex("0102")));
  std::string deep(2 * CBORDecoder::kMaxDepth + 10, '8');
  for (std::size_t i = 1; i < deep.size(); i += 2)
    deep[i] = '1';
  auto nested = decode(deep + "00");
  ASSERT_FALSE(nested);
  EXPECT_EQ(nested.error(), CBORError::nestingTooDeep);
}

// Found by fuzzing: a half-precision "__value" is no time, so the map stays a map, and it must
// stay one after a round trip rather than turn into a date once the half is widened.
TEST(CBORTest, HalfFloatsKeepTheirWidthThroughARoundTrip) {
  CBOROptions annotated;
  annotated.dateStrategy = DateStrategy::annotatedMap;
  const char* h =
      "a2665f5f7479706574646174655f65706f63685f74696d657374616d70675f5f76616c7565f93c00";
  auto first = decode(h, annotated);
  ASSERT_EQ((**first).kind(), CBOR::Kind::map);
  EXPECT_EQ(toHex(*(**first).encode(annotated)), h);
  for (float f : {0.1f, 1e-7f, 70000.0f, -2.5f, 6.1e-5f, 65519.0f}) {
    std::string once = toHex(*CBOR(CBOR::Half{f}).encode());
    EXPECT_EQ(toHex(*(**decode(once)).encode()), once) << f;
  }
  EXPECT_EQ(toHex(*CBOR(CBOR::Half{0.1f}).encode()), "f92e66");
  EXPECT_EQ(toHex(*CBOR(CBOR::Half{70000.0f}).encode()), "f97c00");
}

TEST(CBORTest, SimpleValuesWithoutAnEncodingAreRefused) {
  EXPECT_EQ(toHex(*CBOR(CBOR::Simple{19}).encode()), "f3");
  EXPECT_EQ(toHex(*CBOR(CBOR::Simple{32}).encode()), "f820");
  for (std::uint8_t v : {20, 23, 24, 31}) {
    auto refused = CBOR(CBOR::Simple{v}).encode();
    ASSERT_FALSE(refused) << int(v);
    EXPECT_EQ(refused.error(), CBOREncoderError::invalidType);
  }
}

// Found by fuzzing: deeply nested items as map keys made comparison exponential in the depth.
TEST(CBORTest, ComparingDeepItemsTakesLinearTime) {
  CBOR a = u(1), b = u(2);
  for (int i = 0; i < 400; ++i) {
    a = arr({a});
    b = arr({b});
  }
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a < b);
  CBOR::Map keyed{{a, u(0)}, {b, u(1)}, {a, u(2)}};
  EXPECT_EQ(keyed.size(), 2u);
}

TEST(CBORTest, DecodesASequenceOfItems) {
  auto bytes = hex("01f6ff");
  CBORDecoder d(bytes);
  EXPECT_EQ(**d.decodeItem(), u(1));
  EXPECT_EQ(**d.decodeItem(), CBOR(CBOR::Null{}));
  EXPECT_EQ(**d.decodeItem(), CBOR(CBOR::Break{}));
  auto end = d.decodeItem();
  ASSERT_TRUE(end);
  EXPECT_FALSE(*end);
}

TEST(CBORTest, ValuesCarryCBORThroughUnconverted) {
  auto item = std::make_shared<const CBOR>(CBOR(7, CBOR("x")));
  Value v = Value::Map{{"raw", Value(item)}};
  EXPECT_EQ(toHex(*CBOR::encodeAny(v)), "a163726177c76178");
  EXPECT_EQ(v, Value(Value::Map{{"raw", Value(std::make_shared<const CBOR>(CBOR(7, CBOR("x"))))}}));
  EXPECT_FALSE(v.toJson());
}

// Nested arrays each claiming sixteen million elements over sixteen megabytes of input: every
// claim is within the remaining bytes, but reserving for them all would take terabytes.
TEST(CBORDecoderTest, DoesNotReserveWhatNestedCountsOnlyClaim) {
  std::vector<std::uint8_t> bytes;
  for (int level = 0; level < 500; ++level)
    bytes.insert(bytes.end(), {0x9a, 0x01, 0x00, 0x00, 0x00});
  bytes.push_back(0x80);  // the innermost is empty
  bytes.push_back(0x1c);  // and its sibling malformed
  bytes.resize(bytes.size() + (16u << 20), 0x00);
  EXPECT_FALSE(CBORDecoder(bytes).decodeItem());
}

// A writer made with the default options keeps them: they outlive the temporary they came from.
TEST(CBORWriterTest, KeepsItsDefaultOptions) {
  std::vector<std::uint8_t> out;
  CBORWriter writer(out);
  writer.date(Date{1.0});
  EXPECT_EQ(test::toHex(out), "c101");
}

}  // namespace
}  // namespace quorvix

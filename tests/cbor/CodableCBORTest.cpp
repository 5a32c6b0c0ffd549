#include "cbor/CodableCBOR.h"

#include <gtest/gtest.h>

#include "../support/Hex.h"

namespace quorvix {
namespace {

using test::hex;
using test::toHex;

struct Point {
  double x = 0;
  double y = 0;
  void encode(Encoder& e) const {
    auto c = e.container();
    c.encode(x, "x");
    c.encode(y, "y");
  }
  static Point decode(Decoder& d) {
    auto c = d.container();
    return {c.decode<double>("x"), c.decode<double>("y")};
  }
  bool operator==(const Point&) const = default;
};

// A record with integer coding keys, nested containers, optionals and a date.
struct Stroke {
  std::string color;
  std::vector<Point> points;
  std::optional<std::int32_t> width;
  Date at;
  std::map<std::string, bool> flags;
  CBOR::Bytes payload;

  void encode(Encoder& e) const {
    auto c = e.container();
    c.encode(color, {"color", 1});
    c.encode(points, {"points", 2});
    c.encodeIfPresent(width, {"width", 3});
    c.encode(at, {"at", 4});
    c.encode(flags, {"flags", 5});
    c.encode(payload, {"payload", 6});
  }
  static Stroke decode(Decoder& d) {
    auto c = d.container();
    Stroke s;
    s.color = c.decode<std::string>({"color", 1});
    s.points = c.decode<std::vector<Point>>({"points", 2});
    s.width = c.decodeIfPresent<std::int32_t>({"width", 3});
    s.at = c.decode<Date>({"at", 4});
    s.flags = c.decode<std::map<std::string, bool>>({"flags", 5});
    s.payload = c.decode<CBOR::Bytes>({"payload", 6});
    return s;
  }
  bool operator==(const Stroke&) const = default;
};

TEST(CodableCBORTest, RoundTripsStructuredTypesUnderEveryOption) {
  Stroke s{"red", {{0.5, 0.25}, {1, 0}}, 3, Date{1700000000.0}, {{"fade", true}}, {9, 8}};
  for (bool stringKeys : {false, true}) {
    for (auto strategy : {DateStrategy::taggedAsEpochTimestamp, DateStrategy::annotatedMap}) {
      CBOROptions options{stringKeys, strategy, false};
      auto bytes = CodableCBOREncoder(options).encode(s);
      ASSERT_TRUE(bytes) << bytes.error().description;
      auto back = CodableCBORDecoder(options).decode<Stroke>(*bytes);
      ASSERT_TRUE(back) << back.error().description;
      EXPECT_EQ(*back, s);
    }
  }
  Stroke noWidth = s;
  noWidth.width.reset();
  auto bytes = CodableCBOREncoder().encode(noWidth);
  EXPECT_EQ(CodableCBORDecoder().decode<Stroke>(*bytes)->width, std::nullopt);
}

TEST(CodableCBORTest, KeysTakeTheirIntegerFormUnlessStringKeysAreAsked) {
  struct Keyed {
    void encode(Encoder& e) const {
      auto c = e.container();
      c.encode(true, {"flag", 7});
      c.encode("v", "name");
    }
  };
  EXPECT_EQ(toHex(*CodableCBOREncoder().encode(Keyed{})), "a207f5646e616d656176");
  CBOROptions stringKeys;
  stringKeys.useStringKeys = true;
  EXPECT_EQ(toHex(*CodableCBOREncoder(stringKeys).encode(Keyed{})), "a264666c6167f5646e616d656176");
}

TEST(CodableCBORTest, ASingleValueContainerTakesOneValue) {
  struct Twice {
    void encode(Encoder& e) const {
      auto c = e.singleValueContainer();
      c.encode(1);
      c.encode(2);
    }
  };
  auto result = CodableCBOREncoder().encode(Twice{});
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().description,
            "Attempt to encode value through single value container when previously value "
            "already encoded.");
}

TEST(CodableCBORTest, DecodingErrorsSayWhatWentWrong) {
  struct Case {
    const char* hex;
    const char* description;
  };
  // Each decodes as a Stroke, or for the scalar rows as the type named in the comment.
  const Case strokes[] = {
      {"a2", "Unexpected end of data"},
      {"bf ff", "Unable to get count of elements in dictionary"},
      {"82 01 02", "Invalid format: 130"},
      {"c2 40", "Handling tags (other than epoch-based date/time) is not supported yet"},
      {"a1 01 7f ff", "Handling UTF8 strings with break bytes is not supported yet"},
      {"a1 01 f6", "cannot decode nil for key: color"},
      {"a1 01 fc", "Invalid format for getting length of item: 252"},
  };
  for (const auto& c : strokes) {
    auto bytes = hex(c.hex);
    auto result = CodableCBORDecoder().decode<Stroke>(bytes);
    ASSERT_FALSE(result) << c.hex;
    EXPECT_EQ(result.error().description, c.description) << c.hex;
  }
  auto fails = [](const char* h, auto type) {
    auto bytes = hex(h);
    auto r = CodableCBORDecoder().decode<decltype(type)>(bytes);
    return r ? std::string("decoded") : r.error().description;
  };
  EXPECT_EQ(fails("c074", Date{}), "Handling text-based date/time is not supported yet");
  EXPECT_EQ(fails("5f4101ff", CBOR::Bytes{}),
            "Handling byte strings with break bytes is not supported yet");
  EXPECT_EQ(fails("81f6", std::vector<int>{}), "cannot decode nil for index: 0");
  EXPECT_EQ(fails("190100", std::uint8_t{}), "Number 256 does not fit");
  EXPECT_EQ(fails("", 0), "Unexpected end of data");
  EXPECT_EQ(fails("c1f93c00", Date{}), "Invalid format: 249");
  // Optionals take nil; vectors read indefinite arrays.
  auto ok = hex("9ff601ff");
  auto list = CodableCBORDecoder().decode<std::vector<std::optional<int>>>(ok);
  ASSERT_TRUE(list);
  EXPECT_EQ(*list, (std::vector<std::optional<int>>{std::nullopt, 1}));
}

}  // namespace
}  // namespace quorvix

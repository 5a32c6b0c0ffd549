#include "quorvix/Value.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "quorvix/QRVError.h"
#include "utils/QRVDictionaryUtils.h"

namespace quorvix {
namespace {

TEST(ValueTest, JsonRoundTripIsLossless) {
  const char* texts[] = {
      R"({"a":[1,-1,0,9223372036854775807,-9223372036854775808,18446744073709551615]})",
      R"([0.1,1e+300,-2.5e-308,5e-324,1.7976931348623157e+308])",
      R"({"s":"line\nbreak \"quoted\" \\ tab\t \u0001 é ✓","e":"","n":null,"t":true,"f":false})",
      R"([[],{},[[{}]]])",
  };
  for (const char* text : texts) {
    auto v = Value::fromJson(text);
    ASSERT_TRUE(v) << text;
    auto out = v->toJson();
    ASSERT_TRUE(out);
    auto again = Value::fromJson(*out);
    ASSERT_TRUE(again) << *out;
    EXPECT_EQ(*again, *v) << *out;
    EXPECT_EQ(again->storage().index(), v->storage().index());
  }
  auto big = Value::fromJson("[18446744073709551615, 9223372036854775807, -1]");
  const auto& a = *big->asArray();
  EXPECT_TRUE(std::holds_alternative<std::uint64_t>(a[0].storage()));
  EXPECT_TRUE(std::holds_alternative<std::int64_t>(a[1].storage()));
  EXPECT_EQ(Value(0.1).toJson(), "0.1");
  EXPECT_EQ(Value(0.1f).toJson(), "0.1") << "floats are written in their own shortest form";
}

TEST(ValueTest, JsonRefusals) {
  struct Case {
    const char* text;
    const char* why;
  };
  for (auto [text, why] : {Case{"", "empty"}, Case{"42", "bare scalar"},
                           Case{"\"s\"", "bare string"}, Case{"{", "unfinished"},
                           Case{"{\"a\":1,}", "trailing comma"}, Case{"[1] [2]", "two documents"},
                           Case{"[\"\xff\"]", "invalid UTF-8"}, Case{"[NaN]", "NaN"}}) {
    std::optional<QRVError> error;
    EXPECT_FALSE(Value::fromJson(text, &error)) << why;
    ASSERT_TRUE(error) << why;
    EXPECT_EQ(error->domain(), "JSON");
  }
  std::string deep =
      std::string(Value::kMaxJsonDepth, '[') + std::string(Value::kMaxJsonDepth, ']');
  EXPECT_TRUE(Value::fromJson(deep));
  EXPECT_FALSE(Value::fromJson("[" + deep + "]"));

  for (Value v :
       {Value(Value::Bytes{}), Value(Date{1}), Value(std::numeric_limits<double>::infinity()),
        Value(Value::Map{{"k", Value::Array{std::nanf("")}}})}) {
    std::optional<QRVError> error;
    EXPECT_FALSE(v.toJson(&error));
    EXPECT_TRUE(error);
  }
}

TEST(ValueTest, EqualityIsDeepAndNumeric) {
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(1), Value(1u));
  EXPECT_EQ(Value(0.5f), Value(0.5));
  EXPECT_NE(Value(-1), Value(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_NE(Value(true), Value(1));
  EXPECT_NE(Value(), Value(0));
  EXPECT_NE(Value("1"), Value(1));
  Value a = Value::Map{{"x", Value::Array{1, "two", Value::Map{{"y", nullptr}}}}};
  Value b = Value::Map{{"x", Value::Array{1.0, "two", Value::Map{{"y", nullptr}}}}};
  Value c = Value::Map{{"x", Value::Array{1, "two", Value::Map{{"y", false}}}}};
  EXPECT_EQ(a, b);
  EXPECT_NE(a, c);
}

TEST(ValueTest, NumericConversionsSaturate) {
  EXPECT_EQ(Value(1e300).toInt64(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(Value(-5).toUInt64(), 0u);
  EXPECT_EQ(Value(std::numeric_limits<std::uint64_t>::max()).toInt64(),
            std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(Value(true).toInt64(), 1);
  EXPECT_FALSE(Value("3").toDouble());
  EXPECT_EQ(NotNil(std::optional<Value>()), Value());
}

TEST(QRVDictionaryUtilsTest, Contains) {
  Value::Map a{{"state", "active"}, {"n", 2}, {"nested", Value::Map{{"k", 1}}}};
  EXPECT_TRUE(QRVDictionaryUtils::contains(a, {}));
  EXPECT_TRUE(QRVDictionaryUtils::contains(a, {{"n", 2.0}, {"state", "active"}}));
  EXPECT_TRUE(QRVDictionaryUtils::contains(a, {{"nested", Value::Map{{"k", 1}}}}));
  EXPECT_FALSE(QRVDictionaryUtils::contains(a, {{"state", "ended"}}));
  EXPECT_FALSE(QRVDictionaryUtils::contains(a, {{"missing", nullptr}}));
  EXPECT_FALSE(QRVDictionaryUtils::contains({}, {{"n", 2}}));
}

}  // namespace
}  // namespace quorvix

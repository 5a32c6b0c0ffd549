// The library's untyped value: what JSON answers of the service and CBOR maps from its sockets
// both become, so that a resource can be updated from either path with one type.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quorvix {

class QRVError;
class CBOR;

// A point in time as seconds since 1970, the resolution the wire formats carry.
struct Date {
  double secondsSince1970 = 0;
  friend bool operator==(const Date&, const Date&) = default;
};

class Value {
 public:
  using Null = std::monostate;
  using Bytes = std::vector<std::uint8_t>;
  using Array = std::vector<Value>;
  using Map = std::map<std::string, Value, std::less<>>;
  using Storage = std::variant<Null,
                               bool,
                               std::int64_t,
                               std::uint64_t,
                               float,
                               double,
                               std::string,
                               Bytes,
                               Array,
                               Map,
                               Date,
                               std::shared_ptr<const CBOR>>;

  Value() = default;  // null
  Value(std::nullptr_t) {}
  Value(bool b) : storage_(b) {}
  Value(int i) : storage_(std::int64_t{i}) {}
  Value(long i) : storage_(std::int64_t{i}) {}
  Value(long long i) : storage_(std::int64_t{i}) {}
  Value(unsigned u) : storage_(std::uint64_t{u}) {}
  Value(unsigned long u) : storage_(std::uint64_t{u}) {}
  Value(unsigned long long u) : storage_(std::uint64_t{u}) {}
  Value(float f) : storage_(f) {}
  Value(double d) : storage_(d) {}
  Value(const char* s) : storage_(std::string(s)) {}
  Value(std::string_view s) : storage_(std::string(s)) {}
  Value(std::string s) : storage_(std::move(s)) {}
  Value(Bytes b) : storage_(std::move(b)) {}
  Value(Array a) : storage_(std::move(a)) {}
  Value(Map m) : storage_(std::move(m)) {}
  Value(Date d) : storage_(d) {}
  // A CBOR item handed on unconverted.
  Value(std::shared_ptr<const CBOR> c) : storage_(std::move(c)) {}

  const Storage& storage() const { return storage_; }

  bool isNull() const { return std::holds_alternative<Null>(storage_); }
  bool isBool() const { return std::holds_alternative<bool>(storage_); }
  bool isString() const { return std::holds_alternative<std::string>(storage_); }
  bool isBytes() const { return std::holds_alternative<Bytes>(storage_); }
  bool isArray() const { return std::holds_alternative<Array>(storage_); }
  bool isMap() const { return std::holds_alternative<Map>(storage_); }
  bool isDate() const { return std::holds_alternative<Date>(storage_); }
  bool isCBOR() const { return std::holds_alternative<std::shared_ptr<const CBOR>>(storage_); }
  // Integers and floating-point numbers alike.
  bool isNumber() const;
  bool isInteger() const;

  // Typed access: nullptr when the value holds another kind.
  const bool* asBool() const { return std::get_if<bool>(&storage_); }
  const std::string* asString() const { return std::get_if<std::string>(&storage_); }
  const Bytes* asBytes() const { return std::get_if<Bytes>(&storage_); }
  const Array* asArray() const { return std::get_if<Array>(&storage_); }
  const Map* asMap() const { return std::get_if<Map>(&storage_); }
  const Date* asDate() const { return std::get_if<Date>(&storage_); }
  const CBOR* asCBOR() const;
  Array* asArray() { return std::get_if<Array>(&storage_); }
  Map* asMap() { return std::get_if<Map>(&storage_); }

  // Numeric views with the conversions of a boxed number: any numeric kind (and bool) converts;
  // anything else gives nothing. Out-of-range conversions saturate.
  std::optional<double> toDouble() const;
  std::optional<std::int64_t> toInt64() const;
  std::optional<std::uint64_t> toUInt64() const;

  // Map lookup: nullptr when this is not a map or the key is missing.
  const Value* find(std::string_view key) const;

  // JSON text. Parsing accepts an object or array at the top level, at most kMaxJsonDepth deep;
  // non-negative integers that fit become int64, larger ones uint64. Writing refuses what JSON
  // cannot hold (bytes, dates, CBOR items, NaN and infinities) and depth beyond kMaxJsonDepth.
  static constexpr int kMaxJsonDepth = 512;
  static std::optional<Value> fromJson(std::string_view text,
                                       std::optional<QRVError>* error = nullptr);
  std::optional<std::string> toJson(std::optional<QRVError>* error = nullptr) const;

  // Deep equality. Numbers compare by value across integer and floating kinds (1 == 1.0), as
  // boxed numbers do; a bool never equals a number.
  friend bool operator==(const Value& a, const Value& b);

 private:
  Storage storage_;
};

// An absent value becomes null, so that it can be written where a value is required.
inline Value NotNil(const std::optional<Value>& v) {
  return v ? *v : Value();
}
inline Value NotNil(const Value* v) {
  return v ? *v : Value();
}

}  // namespace quorvix

#include "quorvix/Value.h"

#include <charconv>
#include <cmath>
#include <limits>

#include <nlohmann/json.hpp>

#include "quorvix/QRVError.h"

namespace quorvix {

// Structural equality of codec items, defined with the codec so that values need none of it.
bool sameCBORItem(const CBOR& a, const CBOR& b);

namespace {

constexpr const char* kJsonDomain = "JSON";

template <typename Int>
Int saturate(double d) {
  if (std::isnan(d))
    return 0;
  if (d <= static_cast<double>(std::numeric_limits<Int>::min()))
    return std::numeric_limits<Int>::min();
  if (d >= static_cast<double>(std::numeric_limits<Int>::max()))
    return std::numeric_limits<Int>::max();
  return static_cast<Int>(d);
}

// Builds a Value directly from the parser's events, so that integers keep their exact kind and
// nesting is bounded before anything deep is allocated.
class ValueBuilder final : public nlohmann::json_sax<nlohmann::json> {
 public:
  bool null() override { return put(Value()); }
  bool boolean(bool b) override { return put(Value(b)); }
  bool number_integer(number_integer_t i) override { return put(Value(std::int64_t{i})); }
  bool number_unsigned(number_unsigned_t u) override {
    if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return put(Value(static_cast<std::int64_t>(u)));
    return put(Value(std::uint64_t{u}));
  }
  bool number_float(number_float_t d, const string_t&) override { return put(Value(d)); }
  bool string(string_t& s) override { return put(Value(std::move(s))); }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override { return open(Value(Value::Map{})); }
  bool key(string_t& k) override {
    key_ = std::move(k);
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(Value(Value::Array{})); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t position,
                   const std::string&,
                   const nlohmann::detail::exception& e) override {
    if (error_.empty())
      error_ = e.what() + std::string(" at byte ") + std::to_string(position);
    return false;
  }

  Value result() { return std::move(root_); }
  const std::string& error() const { return error_; }

 private:
  struct Frame {
    Value value;
    std::string key;  // the key this container goes under in its parent map
  };

  bool put(Value v) {
    if (stack_.empty()) {
      // A bare scalar at the top level is not a document this library accepts.
      error_ = "JSON text did not start with array or object";
      return false;
    }
    Value& parent = stack_.back().value;
    if (auto* m = parent.asMap())
      (*m)[std::move(key_)] = std::move(v);
    else
      parent.asArray()->push_back(std::move(v));
    return true;
  }
  bool open(Value container) {
    if (stack_.size() >= static_cast<std::size_t>(Value::kMaxJsonDepth)) {
      error_ = "JSON nesting deeper than " + std::to_string(Value::kMaxJsonDepth);
      return false;
    }
    stack_.push_back({std::move(container), std::move(key_)});
    return true;
  }
  bool close() {
    Frame done = std::move(stack_.back());
    stack_.pop_back();
    if (stack_.empty()) {
      root_ = std::move(done.value);
      return true;
    }
    key_ = std::move(done.key);
    return put(std::move(done.value));
  }

  std::vector<Frame> stack_;
  std::string key_;
  Value root_;
  std::string error_;
};

void writeString(std::string& out, std::string_view s) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  for (unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      default:
        if (c < 0x20) {
          out += "\\u00";
          out.push_back(kHex[c >> 4]);
          out.push_back(kHex[c & 0xf]);
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  out.push_back('"');
}

template <typename T>
void writeNumber(std::string& out, T n) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, n);
  out.append(buf, end);
}

bool writeValue(std::string& out, const Value& v, int depth, std::string& error) {
  if (depth > Value::kMaxJsonDepth) {
    error = "Invalid JSON write (nesting deeper than " + std::to_string(Value::kMaxJsonDepth) + ")";
    return false;
  }
  return std::visit(
      [&](const auto& x) -> bool {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, Value::Null>) {
          out += "null";
        } else if constexpr (std::is_same_v<T, bool>) {
          out += x ? "true" : "false";
        } else if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, std::uint64_t>) {
          writeNumber(out, x);
        } else if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double>) {
          if (!std::isfinite(x)) {
            error = "Invalid number value (" + std::string(std::isnan(x) ? "NaN" : "infinite") +
                    ") in JSON write";
            return false;
          }
          // The shortest text that reads back to the same value.
          writeNumber(out, x);
        } else if constexpr (std::is_same_v<T, std::string>) {
          writeString(out, x);
        } else if constexpr (std::is_same_v<T, Value::Bytes>) {
          error = "Invalid type in JSON write (bytes)";
          return false;
        } else if constexpr (std::is_same_v<T, Date>) {
          error = "Invalid type in JSON write (date)";
          return false;
        } else if constexpr (std::is_same_v<T, std::shared_ptr<const CBOR>>) {
          error = "Invalid type in JSON write (CBOR)";
          return false;
        } else if constexpr (std::is_same_v<T, Value::Array>) {
          out.push_back('[');
          bool first = true;
          for (const auto& e : x) {
            if (!first)
              out.push_back(',');
            first = false;
            if (!writeValue(out, e, depth + 1, error))
              return false;
          }
          out.push_back(']');
        } else if constexpr (std::is_same_v<T, Value::Map>) {
          out.push_back('{');
          bool first = true;
          for (const auto& [k, e] : x) {
            if (!first)
              out.push_back(',');
            first = false;
            writeString(out, k);
            out.push_back(':');
            if (!writeValue(out, e, depth + 1, error))
              return false;
          }
          out.push_back('}');
        }
        return true;
      },
      v.storage());
}

}  // namespace

bool Value::isNumber() const {
  return isInteger() || std::holds_alternative<float>(storage_) ||
         std::holds_alternative<double>(storage_);
}

bool Value::isInteger() const {
  return std::holds_alternative<std::int64_t>(storage_) ||
         std::holds_alternative<std::uint64_t>(storage_);
}

std::optional<double> Value::toDouble() const {
  return std::visit(
      [](const auto& x) -> std::optional<double> {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_arithmetic_v<T>)
          return static_cast<double>(x);
        else
          return std::nullopt;
      },
      storage_);
}

std::optional<std::int64_t> Value::toInt64() const {
  return std::visit(
      [](const auto& x) -> std::optional<std::int64_t> {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, std::uint64_t>)
          return x > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                     ? std::numeric_limits<std::int64_t>::max()
                     : static_cast<std::int64_t>(x);
        else if constexpr (std::is_floating_point_v<T>)
          return saturate<std::int64_t>(x);
        else if constexpr (std::is_arithmetic_v<T>)
          return static_cast<std::int64_t>(x);
        else
          return std::nullopt;
      },
      storage_);
}

std::optional<std::uint64_t> Value::toUInt64() const {
  return std::visit(
      [](const auto& x) -> std::optional<std::uint64_t> {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, std::int64_t>)
          return x < 0 ? 0 : static_cast<std::uint64_t>(x);
        else if constexpr (std::is_floating_point_v<T>)
          return saturate<std::uint64_t>(x);
        else if constexpr (std::is_arithmetic_v<T>)
          return static_cast<std::uint64_t>(x);
        else
          return std::nullopt;
      },
      storage_);
}

const CBOR* Value::asCBOR() const {
  auto p = std::get_if<std::shared_ptr<const CBOR>>(&storage_);
  return p ? p->get() : nullptr;
}

const Value* Value::find(std::string_view key) const {
  const Map* m = asMap();
  if (!m)
    return nullptr;
  auto it = m->find(key);
  return it == m->end() ? nullptr : &it->second;
}

std::optional<Value> Value::fromJson(std::string_view text, std::optional<QRVError>* error) {
  ValueBuilder builder;
  bool ok = nlohmann::json::sax_parse(text.begin(), text.end(), &builder,
                                      nlohmann::json::input_format_t::json, /*strict=*/true);
  if (!ok) {
    if (error) {
      std::string message = builder.error().empty() ? "Invalid JSON text" : builder.error();
      *error = QRVError(kJsonDomain, 3840, std::move(message));
    }
    return std::nullopt;
  }
  return builder.result();
}

std::optional<std::string> Value::toJson(std::optional<QRVError>* error) const {
  std::string out;
  std::string message;
  if (!writeValue(out, *this, 0, message)) {
    if (error)
      *error = QRVError(kJsonDomain, 3851, std::move(message));
    return std::nullopt;
  }
  return out;
}

bool operator==(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) {
    if (a.isInteger() && b.isInteger()) {
      // Compare exactly, whatever the signedness of each side.
      auto ai = std::get_if<std::int64_t>(&a.storage_);
      auto bi = std::get_if<std::int64_t>(&b.storage_);
      if (ai && bi)
        return *ai == *bi;
      auto au = std::get_if<std::uint64_t>(&a.storage_);
      auto bu = std::get_if<std::uint64_t>(&b.storage_);
      if (au && bu)
        return *au == *bu;
      std::int64_t s = ai ? *ai : *bi;
      std::uint64_t u = au ? *au : *bu;
      return s >= 0 && static_cast<std::uint64_t>(s) == u;
    }
    return *a.toDouble() == *b.toDouble();
  }
  if (a.isCBOR() && b.isCBOR()) {
    const CBOR* x = a.asCBOR();
    const CBOR* y = b.asCBOR();
    return x == y || (x && y && sameCBORItem(*x, *y));
  }
  return a.storage_ == b.storage_;
}

}  // namespace quorvix

#include "quorvix/CBOR.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>

namespace quorvix {
namespace {

constexpr std::string_view kDateType = "date_epoch_timestamp";

template <typename T>
auto bitsOf(T f) {
  if constexpr (sizeof(T) == 4)
    return std::bit_cast<std::uint32_t>(f);
  else
    return std::bit_cast<std::uint64_t>(f);
}

template <typename T>
int order(const T& a, const T& b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

// Bytewise order, a prefix first.
int compareBytes(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
  std::size_t n = std::min(a.size(), b.size());
  int c = n ? std::memcmp(a.data(), b.data(), n) : 0;
  return c != 0 ? (c < 0 ? -1 : 1) : order(a.size(), b.size());
}

bool bytewiseLess(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b) {
  return compareBytes(a, b) < 0;
}

int compare(const CBOR& a, const CBOR& b);

// Three-way, so that nested containers are walked once: a two-way "less" applied twice per
// level would take time exponential in the nesting depth.
struct Compare {
  template <typename T>
  int operator()(const T& a, const T& b) const {
    if constexpr (std::is_same_v<T, CBOR::UnsignedInt>) {
      return order(a.value, b.value);
    } else if constexpr (std::is_same_v<T, CBOR::NegativeInt>) {
      return order(a.n, b.n);
    } else if constexpr (std::is_same_v<T, CBOR::Tagged>) {
      if (a.tag != b.tag)
        return order(a.tag, b.tag);
      if (!a.item || !b.item)
        return order(a.item != nullptr, b.item != nullptr);
      return compare(*a.item, *b.item);
    } else if constexpr (std::is_same_v<T, CBOR::Simple>) {
      return order(a.value, b.value);
    } else if constexpr (std::is_same_v<T, bool>) {
      return order(a, b);
    } else if constexpr (std::is_same_v<T, CBOR::Null> || std::is_same_v<T, CBOR::Undefined> ||
                         std::is_same_v<T, CBOR::Break>) {
      return 0;
    } else if constexpr (std::is_same_v<T, CBOR::Half>) {
      return order(bitsOf(a.value), bitsOf(b.value));
    } else if constexpr (std::is_floating_point_v<T>) {
      return order(bitsOf(a), bitsOf(b));  // bits, so that NaN equals itself
    } else if constexpr (std::is_same_v<T, Date>) {
      return order(bitsOf(a.secondsSince1970), bitsOf(b.secondsSince1970));
    } else if constexpr (std::is_same_v<T, CBOR::Bytes>) {
      return compareBytes(a, b);
    } else if constexpr (std::is_same_v<T, std::string>) {
      int c = a.compare(b);
      return c < 0 ? -1 : (c > 0 ? 1 : 0);
    } else if constexpr (std::is_same_v<T, CBOR::Array>) {
      for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
        if (int c = compare(a[i], b[i]))
          return c;
      return order(a.size(), b.size());
    } else {  // maps, entries in key order
      static_assert(std::is_same_v<T, CBOR::Map>);
      auto x = a.begin(), y = b.begin();
      for (; x != a.end() && y != b.end(); ++x, ++y) {
        if (int c = compare(x->first, y->first))
          return c;
        if (int c = compare(x->second, y->second))
          return c;
      }
      return order(a.size(), b.size());
    }
  }
};

int compare(const CBOR& a, const CBOR& b) {
  if (a.storage().index() != b.storage().index())
    return order(a.storage().index(), b.storage().index());
  return std::visit(
      [&b](const auto& x) {
        using T = std::decay_t<decltype(x)>;
        return Compare{}(x, *b.template get<T>());
      },
      a.storage());
}

// An upper bound of the encoded size, so that the output is allocated once and a large byte
// string is copied once.
std::size_t sizeBound(const Value& v);
std::size_t sizeBound(const CBOR& v);

constexpr std::size_t kDateBound = 40;  // the annotated map form, the larger of the two

std::size_t sizeBound(const Value& v) {
  return std::visit(
      [](const auto& x) -> std::size_t {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, Value::Bytes>) {
          return 9 + x.size();
        } else if constexpr (std::is_same_v<T, Value::Array>) {
          std::size_t n = 9;
          for (const auto& e : x)
            n += sizeBound(e);
          return n;
        } else if constexpr (std::is_same_v<T, Value::Map>) {
          std::size_t n = 9;
          for (const auto& [k, e] : x)
            n += 9 + k.size() + sizeBound(e);
          return n;
        } else if constexpr (std::is_same_v<T, Date>) {
          return kDateBound;
        } else if constexpr (std::is_same_v<T, std::shared_ptr<const CBOR>>) {
          return x ? sizeBound(*x) : 0;
        } else {
          return 9;
        }
      },
      v.storage());
}

std::size_t sizeBound(const CBOR& v) {
  return std::visit(
      [](const auto& x) -> std::size_t {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, CBOR::Bytes>) {
          return 9 + x.size();
        } else if constexpr (std::is_same_v<T, CBOR::Array>) {
          std::size_t n = 9;
          for (const auto& e : x)
            n += sizeBound(e);
          return n;
        } else if constexpr (std::is_same_v<T, CBOR::Map>) {
          std::size_t n = 9;
          for (const auto& [k, e] : x)
            n += sizeBound(k) + sizeBound(e);
          return n;
        } else if constexpr (std::is_same_v<T, CBOR::Tagged>) {
          return 9 + (x.item ? sizeBound(*x.item) : 1);
        } else if constexpr (std::is_same_v<T, Date>) {
          return kDateBound;
        } else {
          return 9;
        }
      },
      v.storage());
}

// Round to nearest, ties to even; NaN payloads keep their top bits.
std::uint16_t floatToHalf(float value) {
  const std::uint32_t f = std::bit_cast<std::uint32_t>(value);
  const std::uint16_t sign = static_cast<std::uint16_t>((f >> 16) & 0x8000);
  const std::uint32_t exponent = (f >> 23) & 0xff;
  std::uint32_t mantissa = f & 0x7fffff;
  if (exponent == 0xff) {
    std::uint16_t payload = static_cast<std::uint16_t>(mantissa >> 13);
    if (mantissa && !payload)
      payload = 1;
    return sign | 0x7c00 | payload;
  }
  const int e = static_cast<int>(exponent) - 127 + 15;
  if (e >= 31)
    return sign | 0x7c00;
  std::uint32_t shift;
  std::uint32_t base;
  if (e <= 0) {
    if (e < -10)
      return sign;
    mantissa |= 0x800000;
    shift = static_cast<std::uint32_t>(14 - e);
    base = 0;
  } else {
    shift = 13;
    base = static_cast<std::uint32_t>(e) << 10;
  }
  std::uint32_t half = base | (mantissa >> shift);
  const std::uint32_t rest = mantissa & ((1u << shift) - 1);
  const std::uint32_t midpoint = 1u << (shift - 1);
  if (rest > midpoint || (rest == midpoint && (half & 1)))
    ++half;  // a carry into the exponent is the right result
  return static_cast<std::uint16_t>(sign | half);
}

}  // namespace

const char* describe(CBORError error) {
  switch (error) {
    case CBORError::unfinishedSequence:
      return "unfinishedSequence";
    case CBORError::wrongTypeInsideSequence:
      return "wrongTypeInsideSequence";
    case CBORError::tooLongSequence:
      return "tooLongSequence";
    case CBORError::incorrectUTF8String:
      return "incorrectUTF8String";
    case CBORError::nestingTooDeep:
      return "nestingTooDeep";
  }
  return "unknown";
}

const char* describe(CBOREncoderError error) {
  switch (error) {
    case CBOREncoderError::invalidType:
      return "invalidType";
    case CBOREncoderError::nonStringKeyInMap:
      return "nonStringKeyInMap";
  }
  return "unknown";
}

CBOR CBOR::integer(std::int64_t v) {
  if (v >= 0)
    return CBOR(UnsignedInt{static_cast<std::uint64_t>(v)});
  return CBOR(NegativeInt{static_cast<std::uint64_t>(-1 - v)});
}

const CBOR* CBOR::find(std::string_view key) const {
  const Map* m = get<Map>();
  if (!m)
    return nullptr;
  auto it = m->find(CBOR(std::string(key)));
  return it == m->end() ? nullptr : &it->second;
}

bool operator<(const CBOR& a, const CBOR& b) {
  return compare(a, b) < 0;
}

bool operator==(const CBOR& a, const CBOR& b) {
  return compare(a, b) == 0;
}

// ---- Encoding --------------------------------------------------------------------------------

void CBORWriter::head(std::uint8_t major, std::uint64_t arg) {
  std::uint8_t m = static_cast<std::uint8_t>(major << 5);
  if (arg < 24) {
    out_.push_back(m | static_cast<std::uint8_t>(arg));
  } else if (arg <= 0xff) {
    out_.insert(out_.end(), {static_cast<std::uint8_t>(m | 24), static_cast<std::uint8_t>(arg)});
  } else if (arg <= 0xffff) {
    out_.insert(out_.end(), {static_cast<std::uint8_t>(m | 25), static_cast<std::uint8_t>(arg >> 8),
                             static_cast<std::uint8_t>(arg)});
  } else if (arg <= 0xffffffff) {
    out_.insert(out_.end(),
                {static_cast<std::uint8_t>(m | 26), static_cast<std::uint8_t>(arg >> 24),
                 static_cast<std::uint8_t>(arg >> 16), static_cast<std::uint8_t>(arg >> 8),
                 static_cast<std::uint8_t>(arg)});
  } else {
    std::uint8_t buf[9] = {static_cast<std::uint8_t>(m | 27)};
    for (int i = 0; i < 8; ++i)
      buf[1 + i] = static_cast<std::uint8_t>(arg >> (56 - 8 * i));
    out_.insert(out_.end(), buf, buf + 9);
  }
}

void CBORWriter::integer(std::int64_t v) {
  if (v >= 0)
    head(0, static_cast<std::uint64_t>(v));
  else
    head(1, static_cast<std::uint64_t>(-1 - v));
}

void CBORWriter::bytes(std::span<const std::uint8_t> b) {
  head(2, b.size());
  out_.insert(out_.end(), b.begin(), b.end());
}

void CBORWriter::text(std::string_view s) {
  head(3, s.size());
  out_.insert(out_.end(), s.begin(), s.end());
}

void CBORWriter::float32(float f) {
  std::uint32_t bits = std::bit_cast<std::uint32_t>(f);
  out_.insert(out_.end(),
              {0xfa, static_cast<std::uint8_t>(bits >> 24), static_cast<std::uint8_t>(bits >> 16),
               static_cast<std::uint8_t>(bits >> 8), static_cast<std::uint8_t>(bits)});
}

void CBORWriter::float64(double d) {
  std::uint64_t bits = std::bit_cast<std::uint64_t>(d);
  std::uint8_t buf[9] = {0xfb};
  for (int i = 0; i < 8; ++i)
    buf[1 + i] = static_cast<std::uint8_t>(bits >> (56 - 8 * i));
  out_.insert(out_.end(), buf, buf + 9);
}

void CBORWriter::date(Date d) {
  const double s = d.secondsSince1970;
  auto writeTime = [&] {
    if (!std::isfinite(s)) {
      float64(s);
      return;
    }
    double whole = 0;
    const double fraction = std::modf(s, &whole);
    const auto nanos = static_cast<std::int64_t>(fraction * 1e9);
    // Whole times from 2^32 seconds on are written as floats; so are negative ones beyond what
    // a 64-bit integer holds.
    if (nanos == 0 && whole < 0 && whole >= -9223372036854775808.0)
      head(1, static_cast<std::uint64_t>(-1 - static_cast<std::int64_t>(whole)));
    else if (nanos != 0 || whole < 0 || whole >= 4294967296.0)
      float64(s);
    else
      head(0, static_cast<std::uint64_t>(whole));
  };
  if (options_.dateStrategy == DateStrategy::taggedAsEpochTimestamp) {
    out_.push_back(0xc1);
    writeTime();
  } else {
    // "__type" sorts before "__value": shorter keys first.
    head(5, 2);
    text("__type");
    text(kDateType);
    text("__value");
    writeTime();
  }
}

bool CBORWriter::item(const CBOR& v, CBOREncoderError* error) {
  return std::visit(
      [&](const auto& x) -> bool {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, CBOR::UnsignedInt>) {
          head(0, x.value);
        } else if constexpr (std::is_same_v<T, CBOR::NegativeInt>) {
          head(1, x.n);
        } else if constexpr (std::is_same_v<T, CBOR::Bytes>) {
          bytes(x);
        } else if constexpr (std::is_same_v<T, std::string>) {
          text(x);
        } else if constexpr (std::is_same_v<T, CBOR::Array>) {
          head(4, x.size());
          for (const auto& e : x)
            if (!item(e, error))
              return false;
        } else if constexpr (std::is_same_v<T, CBOR::Map>) {
          // Keys in bytewise order of their encodings.
          std::vector<std::pair<std::vector<std::uint8_t>, const CBOR*>> entries;
          entries.reserve(x.size());
          for (const auto& [k, val] : x) {
            if (options_.forbidNonStringMapKeys && k.kind() != CBOR::Kind::utf8String) {
              *error = CBOREncoderError::nonStringKeyInMap;
              return false;
            }
            std::vector<std::uint8_t> key;
            CBORWriter w(key, options_);
            if (!w.item(k, error))
              return false;
            entries.emplace_back(std::move(key), &val);
          }
          std::sort(entries.begin(), entries.end(),
                    [](const auto& a, const auto& b) { return bytewiseLess(a.first, b.first); });
          head(5, entries.size());
          for (const auto& [key, val] : entries) {
            out_.insert(out_.end(), key.begin(), key.end());
            if (!item(*val, error))
              return false;
          }
        } else if constexpr (std::is_same_v<T, CBOR::Tagged>) {
          head(6, x.tag);
          return item(x.item ? *x.item : CBOR(), error);
        } else if constexpr (std::is_same_v<T, CBOR::Simple>) {
          // 20 to 23 are false, true, null and undefined; 24 to 31 have no encoding at all.
          if (x.value < 20) {
            out_.push_back(static_cast<std::uint8_t>(0xe0 | x.value));
          } else if (x.value >= 32) {
            out_.insert(out_.end(), {0xf8, x.value});
          } else {
            *error = CBOREncoderError::invalidType;
            return false;
          }
        } else if constexpr (std::is_same_v<T, bool>) {
          boolean(x);
        } else if constexpr (std::is_same_v<T, CBOR::Null>) {
          null();
        } else if constexpr (std::is_same_v<T, CBOR::Undefined>) {
          out_.push_back(0xf7);
        } else if constexpr (std::is_same_v<T, CBOR::Half>) {
          // A half keeps its own width, so a decoded item re-encodes as it came.
          const std::uint16_t h = floatToHalf(x.value);
          out_.insert(out_.end(),
                      {0xf9, static_cast<std::uint8_t>(h >> 8), static_cast<std::uint8_t>(h)});
        } else if constexpr (std::is_same_v<T, float>) {
          float32(x);
        } else if constexpr (std::is_same_v<T, double>) {
          float64(x);
        } else if constexpr (std::is_same_v<T, CBOR::Break>) {
          out_.push_back(0xff);
        } else if constexpr (std::is_same_v<T, Date>) {
          date(x);
        }
        return true;
      },
      v.storage());
}

bool CBORWriter::map(const Value::Map& m, CBOREncoderError* error) {
  // Text keys order by length, then bytes: that is the bytewise order of their encodings, since
  // a head grows monotonically with the length it carries.
  std::vector<const Value::Map::value_type*> entries;
  entries.reserve(m.size());
  for (const auto& e : m)
    entries.push_back(&e);
  std::sort(entries.begin(), entries.end(), [](auto* a, auto* b) {
    return a->first.size() != b->first.size() ? a->first.size() < b->first.size()
                                              : a->first < b->first;
  });
  head(5, entries.size());
  for (const auto* e : entries) {
    text(e->first);
    if (!any(e->second, error))
      return false;
  }
  return true;
}

bool CBORWriter::any(const Value& v, CBOREncoderError* error) {
  return std::visit(
      [&](const auto& x) -> bool {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, Value::Null>) {
          null();
        } else if constexpr (std::is_same_v<T, bool>) {
          boolean(x);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          integer(x);
        } else if constexpr (std::is_same_v<T, std::uint64_t>) {
          head(0, x);
        } else if constexpr (std::is_same_v<T, float>) {
          float32(x);
        } else if constexpr (std::is_same_v<T, double>) {
          float64(x);
        } else if constexpr (std::is_same_v<T, std::string>) {
          text(x);
        } else if constexpr (std::is_same_v<T, Value::Bytes>) {
          bytes(x);
        } else if constexpr (std::is_same_v<T, Value::Array>) {
          head(4, x.size());
          for (const auto& e : x)
            if (!any(e, error))
              return false;
        } else if constexpr (std::is_same_v<T, Value::Map>) {
          return map(x, error);
        } else if constexpr (std::is_same_v<T, Date>) {
          date(x);
        } else if constexpr (std::is_same_v<T, std::shared_ptr<const CBOR>>) {
          if (!x) {
            *error = CBOREncoderError::invalidType;
            return false;
          }
          return item(*x, error);
        }
        return true;
      },
      v.storage());
}

Expected<CBOR::Bytes, CBOREncoderError> CBOR::encode(const CBOROptions& options) const {
  Bytes out;
  out.reserve(sizeBound(*this));
  CBORWriter w(out, options);
  CBOREncoderError error{};
  if (!w.item(*this, &error))
    return error;
  return out;
}

Expected<CBOR::Bytes, CBOREncoderError> CBOR::encodeAny(const Value& value,
                                                        const CBOROptions& options) {
  Bytes out;
  out.reserve(sizeBound(value));
  CBORWriter w(out, options);
  CBOREncoderError error{};
  if (!w.any(value, &error))
    return error;
  return out;
}

Expected<CBOR::Bytes, CBOREncoderError> CBOR::encodeMap(const Value::Map& map,
                                                        const CBOROptions& options) {
  Bytes out;
  std::size_t bound = 9;
  for (const auto& [k, e] : map)
    bound += 9 + k.size() + sizeBound(e);
  out.reserve(bound);
  CBORWriter w(out, options);
  CBOREncoderError error{};
  if (!w.map(map, &error))
    return error;
  return out;
}

Expected<CBOR::Bytes, CBOREncoderError> CBOR::encodeArray(const Value::Array& array,
                                                          const CBOROptions& options) {
  Bytes out;
  std::size_t bound = 9;
  for (const auto& e : array)
    bound += sizeBound(e);
  out.reserve(bound);
  CBORWriter w(out, options);
  CBOREncoderError error{};
  w.head(4, array.size());
  for (const auto& e : array)
    if (!w.any(e, &error))
      return error;
  return out;
}

CBOR::Bytes CBOR::encodeDate(Date date, const CBOROptions& options) {
  Bytes out;
  CBORWriter(out, options).date(date);
  return out;
}

bool sameCBORItem(const CBOR& a, const CBOR& b) {
  return a == b;
}

}  // namespace quorvix

std::size_t std::hash<quorvix::CBOR>::operator()(const quorvix::CBOR& v) const {
  // Hash the canonical encoding: equal values encode equally.
  auto bytes = v.encode();
  std::string_view view(bytes ? reinterpret_cast<const char*>(bytes->data()) : "",
                        bytes ? bytes->size() : 0);
  return std::hash<std::string_view>{}(view);
}

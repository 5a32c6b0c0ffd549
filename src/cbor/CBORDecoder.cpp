#include "cbor/CBORDecoder.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "utils/UTF8.h"

namespace quorvix {
namespace {

// Elements reserved up front for a definite array; more are added as they are read.
constexpr std::size_t kMaxReserve = 1024;

float halfToFloat(std::uint16_t h) {
  int exponent = (h >> 10) & 0x1f;
  int mantissa = h & 0x3ff;
  float value;
  if (exponent == 0)
    value = std::ldexp(static_cast<float>(mantissa), -24);
  else if (exponent != 31)
    value = std::ldexp(static_cast<float>(mantissa + 1024), exponent - 25);
  else  // infinities and NaNs keep their sign and payload
    return std::bit_cast<float>(static_cast<std::uint32_t>(
        (h & 0x8000u) << 16 | 0x7f800000u | static_cast<std::uint32_t>(mantissa) << 13));
  return (h & 0x8000) ? -value : value;
}

std::uint64_t bigEndian(const std::uint8_t* p, int n) {
  std::uint64_t v = 0;
  for (int i = 0; i < n; ++i)
    v = (v << 8) | p[i];
  return v;
}

}  // namespace

std::optional<double> epochTime(const CBOR& item) {
  switch (item.kind()) {
    case CBOR::Kind::unsignedInt:
      return static_cast<double>(item.get<CBOR::UnsignedInt>()->value);
    case CBOR::Kind::negativeInt:
      return -1.0 - static_cast<double>(item.get<CBOR::NegativeInt>()->n);
    case CBOR::Kind::float32:
      return static_cast<double>(*item.get<float>());
    case CBOR::Kind::float64:
      return *item.get<double>();
    default:
      return std::nullopt;
  }
}

Expected<std::optional<CBOR>, CBORError> CBORDecoder::decodeItem() {
  if (pos_ >= istream_.size())
    return std::optional<CBOR>();
  CBOR item;
  if (!readItem(item, 0))
    return error_;
  return std::optional<CBOR>(std::move(item));
}

bool CBORDecoder::readBytes(std::size_t n, const std::uint8_t*& out) {
  if (n > istream_.size() - pos_)
    return fail(CBORError::unfinishedSequence);
  out = istream_.data() + pos_;
  pos_ += n;
  return true;
}

bool CBORDecoder::readVarUInt(std::uint8_t additional, std::uint64_t& out) {
  if (additional < 24) {
    out = additional;
    return true;
  }
  if (additional > 27)
    return fail(CBORError::wrongTypeInsideSequence);
  int n = 1 << (additional - 24);
  const std::uint8_t* p;
  if (!readBytes(n, p))
    return false;
  out = bigEndian(p, n);
  return true;
}

bool CBORDecoder::readLength(std::uint8_t additional, std::size_t& out) {
  std::uint64_t v;
  if (!readVarUInt(additional, v))
    return false;
  if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
    return fail(CBORError::tooLongSequence);
  // Every element takes at least one byte, so no count beyond the remaining input can be real.
  if (v > istream_.size() - pos_)
    return fail(CBORError::unfinishedSequence);
  out = static_cast<std::size_t>(v);
  return true;
}

bool CBORDecoder::readString(std::uint8_t major,
                             std::uint8_t additional,
                             std::string* text,
                             CBOR::Bytes* bytes) {
  // Each chunk of a text must be valid UTF-8 on its own; a character may not straddle two.
  auto append = [&](const std::uint8_t* p, std::size_t n) {
    if (text) {
      if (!isValidUTF8({p, n}))
        return fail(CBORError::incorrectUTF8String);
      text->append(reinterpret_cast<const char*>(p), n);
    } else {
      bytes->insert(bytes->end(), p, p + n);
    }
    return true;
  };
  if (additional != 31) {
    std::size_t n;
    const std::uint8_t* p;
    if (!readLength(additional, n) || !readBytes(n, p))
      return false;
    return append(p, n);
  }
  while (true) {
    const std::uint8_t* p;
    if (!readBytes(1, p))
      return false;
    if (*p == 0xff)
      return true;
    // Chunks are definite strings of the same major type.
    if ((*p >> 5) != major || (*p & 0x1f) == 31)
      return fail(CBORError::wrongTypeInsideSequence);
    std::size_t n;
    const std::uint8_t* chunk;
    if (!readLength(*p & 0x1f, n) || !readBytes(n, chunk) || !append(chunk, n))
      return false;
  }
}

bool CBORDecoder::readBreak(bool& found) {
  if (pos_ >= istream_.size())
    return fail(CBORError::unfinishedSequence);
  found = istream_[pos_] == 0xff;
  if (found)
    ++pos_;
  return true;
}

bool CBORDecoder::readUntilBreak(CBOR::Array& out, int depth) {
  while (true) {
    bool done = false;
    if (!readBreak(done))
      return false;
    if (done)
      return true;
    CBOR item;
    if (!readItem(item, depth))
      return false;
    out.push_back(std::move(item));
  }
}

bool CBORDecoder::readNPairs(std::size_t n, CBOR::Map& out, int depth) {
  for (std::size_t i = 0; i < n; ++i) {
    CBOR key, value;
    if (!readItem(key, depth) || !readItem(value, depth))
      return false;
    out.insert_or_assign(std::move(key), std::move(value));
  }
  return true;
}

bool CBORDecoder::readPairsUntilBreak(CBOR::Map& out, int depth) {
  while (true) {
    bool done = false;
    if (!readBreak(done))
      return false;
    if (done)
      return true;
    if (!readNPairs(1, out, depth))
      return false;
  }
}

bool CBORDecoder::readItem(CBOR& out, int depth) {
  if (depth > kMaxDepth)
    return fail(CBORError::nestingTooDeep);
  const std::uint8_t* p;
  if (!readBytes(1, p))
    return false;
  const std::uint8_t initial = *p;
  const std::uint8_t major = initial >> 5;
  const std::uint8_t additional = initial & 0x1f;
  switch (major) {
    case 0:
    case 1: {
      std::uint64_t v;
      if (!readVarUInt(additional, v))
        return false;
      out = major == 0 ? CBOR(CBOR::UnsignedInt{v}) : CBOR(CBOR::NegativeInt{v});
      return true;
    }
    case 2: {
      CBOR::Bytes bytes;
      if (!readString(major, additional, nullptr, &bytes))
        return false;
      out = CBOR(std::move(bytes));
      return true;
    }
    case 3: {
      std::string text;
      if (!readString(major, additional, &text, nullptr))
        return false;
      out = CBOR(std::move(text));
      return true;
    }
    case 4: {
      CBOR::Array items;
      if (additional == 31) {
        if (!readUntilBreak(items, depth + 1))
          return false;
      } else {
        std::size_t n;
        if (!readLength(additional, n))
          return false;
        // A count is only a claim: each element is far larger in memory than its one byte on the
        // wire, and nested arrays would each reserve for the same remaining input.
        items.reserve(std::min<std::size_t>(n, kMaxReserve));
        for (std::size_t i = 0; i < n; ++i) {
          items.emplace_back();
          if (!readItem(items.back(), depth + 1))
            return false;
        }
      }
      out = CBOR(std::move(items));
      return true;
    }
    case 5: {
      CBOR::Map map;
      if (additional == 31) {
        if (!readPairsUntilBreak(map, depth + 1))
          return false;
      } else {
        std::size_t n;
        if (!readLength(additional, n) || !readNPairs(n, map, depth + 1))
          return false;
      }
      if (options_.dateStrategy == DateStrategy::annotatedMap) {
        CBOR asMap(std::move(map));
        const CBOR* type = asMap.find("__type");
        const CBOR* value = asMap.find("__value");
        const std::string* typeText = type ? type->get<std::string>() : nullptr;
        std::optional<double> time = value ? epochTime(*value) : std::nullopt;
        if (typeText && *typeText == "date_epoch_timestamp" && time)
          out = CBOR(Date{*time});
        else
          out = std::move(asMap);
        return true;
      }
      out = CBOR(std::move(map));
      return true;
    }
    case 6: {
      std::uint64_t tag;
      if (!readVarUInt(additional, tag))
        return false;
      CBOR content;
      if (!readItem(content, depth + 1))
        return false;
      if (tag == 1) {
        auto time = epochTime(content);
        if (!time)
          return fail(CBORError::wrongTypeInsideSequence);
        out = CBOR(Date{*time});
      } else {
        out = CBOR(tag, std::move(content));
      }
      return true;
    }
    default: {  // major type 7
      if (additional < 20) {
        out = CBOR(CBOR::Simple{additional});
        return true;
      }
      switch (additional) {
        case 20:
          out = CBOR(false);
          return true;
        case 21:
          out = CBOR(true);
          return true;
        case 22:
          out = CBOR(CBOR::Null{});
          return true;
        case 23:
          out = CBOR(CBOR::Undefined{});
          return true;
        case 24: {
          if (!readBytes(1, p))
            return false;
          // Values below 32 have a one-byte form (or none); the two-byte form is not well formed.
          if (*p < 32)
            return fail(CBORError::wrongTypeInsideSequence);
          out = CBOR(CBOR::Simple{*p});
          return true;
        }
        case 25: {
          if (!readBytes(2, p))
            return false;
          out = CBOR(CBOR::Half{halfToFloat(static_cast<std::uint16_t>(bigEndian(p, 2)))});
          return true;
        }
        case 26: {
          if (!readBytes(4, p))
            return false;
          out = CBOR(std::bit_cast<float>(static_cast<std::uint32_t>(bigEndian(p, 4))));
          return true;
        }
        case 27: {
          if (!readBytes(8, p))
            return false;
          out = CBOR(std::bit_cast<double>(bigEndian(p, 8)));
          return true;
        }
        case 31:
          out = CBOR(CBOR::Break{});
          return true;
        default:
          return fail(CBORError::wrongTypeInsideSequence);
      }
    }
  }
}

}  // namespace quorvix

// The CBOR data model (RFC 8949) of the library's realtime messages, with its encoder. Every
// socket message is one CBOR data item; maps are written with their keys in bytewise order of
// their encodings, heads in their shortest form, floats never narrowed.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "quorvix/Expected.h"
#include "quorvix/Value.h"

namespace quorvix {

enum class DateStrategy {
  taggedAsEpochTimestamp,  // tag 1 followed by the epoch time
  annotatedMap,            // {"__type": "date_epoch_timestamp", "__value": epoch time}
};

struct CBOROptions {
  // Keyed containers write their keys as text even when a key has an integer form.
  bool useStringKeys = false;
  DateStrategy dateStrategy = DateStrategy::taggedAsEpochTimestamp;
  // Encoding a map with a key that is not text fails with nonStringKeyInMap.
  bool forbidNonStringMapKeys = false;
};

enum class CBORError {
  unfinishedSequence,       // the input ended inside an item
  wrongTypeInsideSequence,  // an item of the wrong kind where another was required
  tooLongSequence,          // a length beyond the platform's integer
  incorrectUTF8String,      // text that is not valid UTF-8
  nestingTooDeep,           // containers nested beyond CBORDecoder::kMaxDepth
};

enum class CBOREncoderError {
  invalidType,        // an untyped value of a kind the encoder does not know
  nonStringKeyInMap,  // see CBOROptions::forbidNonStringMapKeys
};

const char* describe(CBORError error);
const char* describe(CBOREncoderError error);

class CBOR {
 public:
  using Bytes = std::vector<std::uint8_t>;
  using Array = std::vector<CBOR>;
  using Map = std::map<CBOR, CBOR>;
  using Tag = std::uint64_t;

  struct UnsignedInt {
    std::uint64_t value;
  };
  // Stands for -1 - n.
  struct NegativeInt {
    std::uint64_t n;
  };
  struct Tagged {
    Tag tag;
    std::shared_ptr<const CBOR> item;
  };
  struct Simple {
    std::uint8_t value;
  };
  struct Null {};
  struct Undefined {};
  // A half-precision float, kept widened to 32 bits.
  struct Half {
    float value;
  };
  struct Break {};

  enum class Kind {
    unsignedInt,
    negativeInt,
    byteString,
    utf8String,
    array,
    map,
    tagged,
    simple,
    boolean,
    null,
    undefined,
    half,
    float32,
    float64,
    breakMark,
    date,
  };

  using Storage = std::variant<UnsignedInt,
                               NegativeInt,
                               Bytes,
                               std::string,
                               Array,
                               Map,
                               Tagged,
                               Simple,
                               bool,
                               Null,
                               Undefined,
                               Half,
                               float,
                               double,
                               Break,
                               Date>;

  CBOR() : storage_(Null{}) {}
  CBOR(UnsignedInt v) : storage_(v) {}
  CBOR(NegativeInt v) : storage_(v) {}
  CBOR(Bytes v) : storage_(std::move(v)) {}
  CBOR(std::string v) : storage_(std::move(v)) {}
  CBOR(const char* v) : storage_(std::string(v)) {}
  CBOR(Array v) : storage_(std::move(v)) {}
  CBOR(Map v) : storage_(std::move(v)) {}
  CBOR(Tag tag, CBOR item) : storage_(Tagged{tag, std::make_shared<const CBOR>(std::move(item))}) {}
  CBOR(Simple v) : storage_(v) {}
  CBOR(bool v) : storage_(v) {}
  CBOR(Null v) : storage_(v) {}
  CBOR(Undefined v) : storage_(v) {}
  CBOR(Half v) : storage_(v) {}
  CBOR(float v) : storage_(v) {}
  CBOR(double v) : storage_(v) {}
  CBOR(Break v) : storage_(v) {}
  CBOR(Date v) : storage_(v) {}
  // Any integer: unsignedInt when not negative, else negativeInt.
  static CBOR integer(std::int64_t v);

  Kind kind() const { return static_cast<Kind>(storage_.index()); }
  const Storage& storage() const { return storage_; }
  template <typename T>
  const T* get() const {
    return std::get_if<T>(&storage_);
  }
  // The map entry under a text key, or nullptr.
  const CBOR* find(std::string_view key) const;

  // The encoded bytes of this value.
  Expected<Bytes, CBOREncoderError> encode(const CBOROptions& options = {}) const;

  // Untyped values: null, numbers, text, bytes, dates, arrays and maps, and CBOR handed on as it
  // is. Maps are written with sorted keys, dates as options.dateStrategy says.
  static Expected<Bytes, CBOREncoderError> encodeAny(const Value& value,
                                                     const CBOROptions& options = {});
  static Expected<Bytes, CBOREncoderError> encodeMap(const Value::Map& map,
                                                     const CBOROptions& options = {});
  static Expected<Bytes, CBOREncoderError> encodeArray(const Value::Array& array,
                                                       const CBOROptions& options = {});
  static Bytes encodeDate(Date date, const CBOROptions& options = {});

  // Structural; floats compare by their bits so that equality and ordering agree (and CBOR can
  // key a map).
  friend bool operator==(const CBOR& a, const CBOR& b);
  friend bool operator<(const CBOR& a, const CBOR& b);

 private:
  Storage storage_;
};

// Streams CBOR into a byte buffer. The building block of the encoders: the typed encoders of
// the keyed/unkeyed scheme and the untyped map encoder of the sockets both write through it.
class CBORWriter {
 public:
  explicit CBORWriter(std::vector<std::uint8_t>& out, const CBOROptions& options = {})
      : out_(out), options_(options) {}

  void head(std::uint8_t major, std::uint64_t argument);
  void unsignedInt(std::uint64_t v) { head(0, v); }
  void negativeInt(std::uint64_t n) { head(1, n); }
  void integer(std::int64_t v);
  void bytes(std::span<const std::uint8_t> b);
  void text(std::string_view s);
  void float32(float f);
  void float64(double d);
  void boolean(bool b) { out_.push_back(b ? 0xf5 : 0xf4); }
  void null() { out_.push_back(0xf6); }
  void date(Date d);
  bool item(const CBOR& v, CBOREncoderError* error);
  bool any(const Value& v, CBOREncoderError* error);
  bool map(const Value::Map& m, CBOREncoderError* error);

  const CBOROptions& options() const { return options_; }

 private:
  std::vector<std::uint8_t>& out_;
  const CBOROptions options_;
};

}  // namespace quorvix

template <>
struct std::hash<quorvix::CBOR> {
  std::size_t operator()(const quorvix::CBOR& v) const;
};

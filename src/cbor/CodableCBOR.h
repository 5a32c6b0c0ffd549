// The keyed/unkeyed container scheme for structured types. A type takes part by providing
//
//   void encode(Encoder& encoder) const;        // to be encoded
//   static T decode(Decoder& decoder);          // to be decoded
//
// and writing its fields through containers: a keyed container is a CBOR map keyed by coding
// keys, an unkeyed one an array, a single-value one one item. Primitive kinds (bool, integers,
// floats, text, bytes, dates), std::optional, std::vector and string-keyed std::map are built in.
//
// Containers report failures by throwing CBORCodingFailure; CodableCBOREncoder::encode and
// CodableCBORDecoder::decode catch it and return the error, so nothing escapes to the caller.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "quorvix/CBOR.h"
#include "quorvix/Expected.h"

namespace quorvix {

struct CodingKey {
  std::string stringValue;
  std::optional<std::int64_t> intValue;

  CodingKey(const char* s) : stringValue(s) {}
  CodingKey(std::string s) : stringValue(std::move(s)) {}
  CodingKey(std::string s, std::int64_t i) : stringValue(std::move(s)), intValue(i) {}
};

struct CBORCodingError {
  enum class Kind { invalidValue, typeMismatch, valueNotFound, keyNotFound, dataCorrupted };
  Kind kind;
  std::string description;
  std::vector<std::string> codingPath;
};

struct CBORCodingFailure {
  CBORCodingError error;
};

class Encoder;
class Decoder;

template <typename T>
concept CustomEncodable = requires(const T& v, Encoder& e) {
  v.encode(e);
};
template <typename T>
concept CustomDecodable = requires(Decoder& d) {
  { T::decode(d) } -> std::same_as<T>;
};

// ---- Encoding --------------------------------------------------------------------------------

namespace codable {
struct Node;
using NodePtr = std::shared_ptr<Node>;
struct Context {
  CBOROptions options;
};
NodePtr makeNode();
void setLeaf(Node& node, CBOR value);
NodePtr keyedChild(Node& node, const CBOR& key, const std::vector<std::string>& path);
NodePtr unkeyedChild(Node& node, const std::vector<std::string>& path);
void makeKeyed(Node& node, const std::vector<std::string>& path);
void makeUnkeyed(Node& node, const std::vector<std::string>& path);
std::size_t unkeyedCount(const Node& node);
CBOR finish(const Node& node);
}  // namespace codable

class Encoder {
 public:
  class KeyedContainer;
  class UnkeyedContainer;
  class SingleValueContainer;

  Encoder(std::shared_ptr<codable::Context> context,
          codable::NodePtr node,
          std::vector<std::string> path)
      : context_(std::move(context)), node_(std::move(node)), path_(std::move(path)) {}

  KeyedContainer container();
  UnkeyedContainer unkeyedContainer();
  SingleValueContainer singleValueContainer();
  const CBOROptions& options() const { return context_->options; }
  const std::vector<std::string>& codingPath() const { return path_; }

  // Writes any encodable value into this encoder's slot.
  template <typename T>
  void encodeValue(const T& value);

 private:
  std::shared_ptr<codable::Context> context_;
  codable::NodePtr node_;
  std::vector<std::string> path_;
};

class Encoder::KeyedContainer {
 public:
  template <typename T>
  void encode(const T& value, const CodingKey& key) {
    child(key).encodeValue(value);
  }
  void encodeNil(const CodingKey& key) { child(key).encodeValue(nullptr); }
  // Leaves the key out when the value is absent.
  template <typename T>
  void encodeIfPresent(const std::optional<T>& value, const CodingKey& key) {
    if (value)
      encode(*value, key);
  }
  KeyedContainer nestedContainer(const CodingKey& key) { return child(key).container(); }
  UnkeyedContainer nestedUnkeyedContainer(const CodingKey& key);

 private:
  friend class Encoder;
  explicit KeyedContainer(Encoder owner) : owner_(std::move(owner)) {}
  Encoder child(const CodingKey& key);
  Encoder owner_;
};

class Encoder::UnkeyedContainer {
 public:
  template <typename T>
  void encode(const T& value) {
    child().encodeValue(value);
  }
  void encodeNil() { child().encodeValue(nullptr); }
  KeyedContainer nestedContainer() { return child().container(); }
  UnkeyedContainer nestedUnkeyedContainer() { return child().unkeyedContainer(); }
  std::size_t count() const { return codable::unkeyedCount(*owner_.node_); }

 private:
  friend class Encoder;
  explicit UnkeyedContainer(Encoder owner) : owner_(std::move(owner)) {}
  Encoder child();
  Encoder owner_;
};

class Encoder::SingleValueContainer {
 public:
  template <typename T>
  void encode(const T& value) {
    use();
    owner_.encodeValue(value);
  }
  void encodeNil() { encode(nullptr); }

 private:
  friend class Encoder;
  explicit SingleValueContainer(Encoder owner) : owner_(std::move(owner)) {}
  void use();
  Encoder owner_;
};

inline Encoder::UnkeyedContainer Encoder::KeyedContainer::nestedUnkeyedContainer(
    const CodingKey& key) {
  return child(key).unkeyedContainer();
}

template <typename T>
void Encoder::encodeValue(const T& value) {
  using U = std::decay_t<T>;
  if constexpr (std::is_same_v<U, std::nullptr_t>) {
    codable::setLeaf(*node_, CBOR(CBOR::Null{}));
  } else if constexpr (std::is_same_v<U, bool>) {
    codable::setLeaf(*node_, CBOR(value));
  } else if constexpr (std::is_integral_v<U> && std::is_signed_v<U>) {
    codable::setLeaf(*node_, CBOR::integer(static_cast<std::int64_t>(value)));
  } else if constexpr (std::is_integral_v<U>) {
    codable::setLeaf(*node_, CBOR(CBOR::UnsignedInt{static_cast<std::uint64_t>(value)}));
  } else if constexpr (std::is_same_v<U, float> || std::is_same_v<U, double>) {
    codable::setLeaf(*node_, CBOR(value));
  } else if constexpr (std::is_convertible_v<U, std::string_view>) {
    codable::setLeaf(*node_, CBOR(std::string(std::string_view(value))));
  } else if constexpr (std::is_same_v<U, CBOR::Bytes>) {
    codable::setLeaf(*node_, CBOR(value));
  } else if constexpr (std::is_same_v<U, Date>) {
    codable::setLeaf(*node_, CBOR(value));
  } else if constexpr (std::is_same_v<U, CBOR>) {
    codable::setLeaf(*node_, value);
  } else if constexpr (requires {
                         typename U::value_type;
                         value.has_value();
                       }) {
    if (value)
      encodeValue(*value);
    else
      encodeValue(nullptr);
  } else if constexpr (requires { typename U::mapped_type; }) {
    auto keyed = container();
    for (const auto& [k, v] : value)
      keyed.encode(v, CodingKey(std::string(k)));
  } else if constexpr (requires {
                         value.begin();
                         value.end();
                       }) {
    auto list = unkeyedContainer();
    for (const auto& v : value)
      list.encode(v);
  } else {
    static_assert(CustomEncodable<U>, "type is not encodable");
    Encoder inner(context_, node_, path_);
    value.encode(inner);
  }
}

class CodableCBOREncoder {
 public:
  explicit CodableCBOREncoder(CBOROptions options = {}) : options_(options) {}

  template <typename T>
  Expected<CBOR::Bytes, CBORCodingError> encode(const T& value) const {
    auto context = std::make_shared<codable::Context>(codable::Context{options_});
    auto root = codable::makeNode();
    try {
      Encoder encoder(context, root, {});
      encoder.encodeValue(value);
      return finishEncoding(*root);
    } catch (const CBORCodingFailure& failure) {
      return failure.error;
    }
  }

 private:
  Expected<CBOR::Bytes, CBORCodingError> finishEncoding(const codable::Node& root) const;
  CBOROptions options_;
};

// ---- Decoding --------------------------------------------------------------------------------

class Decoder {
 public:
  class KeyedContainer;
  class UnkeyedContainer;
  class SingleValueContainer;

  Decoder(std::span<const std::uint8_t> item,
          const CBOROptions& options,
          std::vector<std::string> path)
      : item_(item), options_(&options), path_(std::move(path)) {}

  KeyedContainer container() const;
  UnkeyedContainer unkeyedContainer() const;
  SingleValueContainer singleValueContainer() const;
  const CBOROptions& options() const { return *options_; }
  const std::vector<std::string>& codingPath() const { return path_; }

  // Reads this decoder's item as T.
  template <typename T>
  T decodeValue() const;
  bool isNil() const;

  [[noreturn]] void fail(CBORCodingError::Kind kind, std::string description) const;

 private:
  bool readBool() const;
  std::int64_t readSigned(std::int64_t min, std::int64_t max) const;
  std::uint64_t readUnsigned(std::uint64_t max) const;
  double readFloat() const;
  std::span<const std::uint8_t> readDefiniteString(std::uint8_t major,
                                                   const char* indefiniteRefusal) const;
  std::string readText() const;
  CBOR::Bytes readBytes() const;
  Date readDate() const;
  CBOR readCBOR() const;

  std::span<const std::uint8_t> item_;
  const CBOROptions* options_;
  std::vector<std::string> path_;
};

class Decoder::KeyedContainer {
 public:
  bool contains(const CodingKey& key) const { return find(key) != nullptr; }
  std::vector<CodingKey> allKeys() const;

  template <typename T>
  T decode(const CodingKey& key) const {
    Decoder d = child(key);
    if constexpr (!requires(T t) { t.has_value(); }) {
      if (d.isNil())
        d.fail(CBORCodingError::Kind::valueNotFound, "cannot decode nil for key: " + name(key));
    }
    return d.template decodeValue<T>();
  }
  template <typename T>
  std::optional<T> decodeIfPresent(const CodingKey& key) const {
    if (!contains(key) || decodeNil(key))
      return std::nullopt;
    return decode<T>(key);
  }
  bool decodeNil(const CodingKey& key) const { return child(key).isNil(); }
  KeyedContainer nestedContainer(const CodingKey& key) const { return child(key).container(); }
  UnkeyedContainer nestedUnkeyedContainer(const CodingKey& key) const;

 private:
  friend class Decoder;
  struct Entry {
    CodingKey key;
    std::span<const std::uint8_t> value;
  };
  KeyedContainer(Decoder owner, std::vector<Entry> entries)
      : owner_(std::move(owner)), entries_(std::move(entries)) {}
  const Entry* find(const CodingKey& key) const;
  std::string name(const CodingKey& key) const;
  Decoder child(const CodingKey& key) const;

  Decoder owner_;
  std::vector<Entry> entries_;
};

class Decoder::UnkeyedContainer {
 public:
  std::optional<std::size_t> count() const { return items_.size(); }
  bool isAtEnd() const { return index_ >= items_.size(); }
  std::size_t currentIndex() const { return index_; }

  template <typename T>
  T decode() {
    Decoder d = next();
    if constexpr (!requires(T t) { t.has_value(); }) {
      if (d.isNil())
        d.fail(CBORCodingError::Kind::valueNotFound,
               "cannot decode nil for index: " + std::to_string(index_ - 1));
    }
    return d.template decodeValue<T>();
  }
  // True (and moves on) when the next item is null.
  bool decodeNil();
  KeyedContainer nestedContainer() { return next().container(); }
  UnkeyedContainer nestedUnkeyedContainer() { return next().unkeyedContainer(); }

 private:
  friend class Decoder;
  UnkeyedContainer(Decoder owner, std::vector<std::span<const std::uint8_t>> items)
      : owner_(std::move(owner)), items_(std::move(items)) {}
  Decoder next();

  Decoder owner_;
  std::vector<std::span<const std::uint8_t>> items_;
  std::size_t index_ = 0;
};

class Decoder::SingleValueContainer {
 public:
  bool decodeNil() const { return owner_.isNil(); }
  template <typename T>
  T decode() const {
    return owner_.decodeValue<T>();
  }

 private:
  friend class Decoder;
  explicit SingleValueContainer(Decoder owner) : owner_(std::move(owner)) {}
  Decoder owner_;
};

inline Decoder::UnkeyedContainer Decoder::KeyedContainer::nestedUnkeyedContainer(
    const CodingKey& key) const {
  return child(key).unkeyedContainer();
}

template <typename T>
T Decoder::decodeValue() const {
  using U = std::decay_t<T>;
  if constexpr (std::is_same_v<U, bool>) {
    return readBool();
  } else if constexpr (std::is_integral_v<U> && std::is_signed_v<U>) {
    return static_cast<U>(readSigned(std::numeric_limits<U>::min(), std::numeric_limits<U>::max()));
  } else if constexpr (std::is_integral_v<U>) {
    return static_cast<U>(readUnsigned(std::numeric_limits<U>::max()));
  } else if constexpr (std::is_floating_point_v<U>) {
    return static_cast<U>(readFloat());
  } else if constexpr (std::is_same_v<U, std::string>) {
    return readText();
  } else if constexpr (std::is_same_v<U, CBOR::Bytes>) {
    return readBytes();
  } else if constexpr (std::is_same_v<U, Date>) {
    return readDate();
  } else if constexpr (std::is_same_v<U, CBOR>) {
    return readCBOR();
  } else if constexpr (requires(U u) {
                         typename U::value_type;
                         u.has_value();
                       }) {
    if (isNil())
      return U();
    return U(decodeValue<typename U::value_type>());
  } else if constexpr (requires { typename U::mapped_type; }) {
    U out;
    auto keyed = container();
    for (const auto& key : keyed.allKeys())
      out.emplace(key.stringValue, keyed.template decode<typename U::mapped_type>(key));
    return out;
  } else if constexpr (requires(U u) { u.push_back(std::declval<typename U::value_type>()); }) {
    U out;
    auto list = unkeyedContainer();
    while (!list.isAtEnd())
      out.push_back(list.template decode<typename U::value_type>());
    return out;
  } else {
    static_assert(CustomDecodable<U>, "type is not decodable");
    return U::decode(const_cast<Decoder&>(*this));
  }
}

class CodableCBORDecoder {
 public:
  explicit CodableCBORDecoder(CBOROptions options = {}) : options_(options) {}

  template <typename T>
  Expected<T, CBORCodingError> decode(std::span<const std::uint8_t> data) const {
    try {
      Decoder decoder(data, options_, {});
      decoder.isNil();  // checks that there is an item at all
      return decoder.template decodeValue<T>();
    } catch (const CBORCodingFailure& failure) {
      return failure.error;
    }
  }

 private:
  CBOROptions options_;
};

}  // namespace quorvix

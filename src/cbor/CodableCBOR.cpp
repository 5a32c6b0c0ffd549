#include "cbor/CodableCBOR.h"

#include <bit>
#include <cmath>

#include "cbor/CBORDecoder.h"
#include "utils/UTF8.h"

namespace quorvix {

using Kind = CBORCodingError::Kind;

namespace {

[[noreturn]] void raise(Kind kind, std::string description, std::vector<std::string> path) {
  throw CBORCodingFailure{CBORCodingError{kind, std::move(description), std::move(path)}};
}

}  // namespace

// ---- Encoding --------------------------------------------------------------------------------

namespace codable {

struct Node {
  enum class State { empty, leaf, keyed, unkeyed } state = State::empty;
  CBOR leaf;
  std::map<CBOR, NodePtr> keyed;
  std::vector<NodePtr> unkeyed;
};

NodePtr makeNode() {
  return std::make_shared<Node>();
}

void setLeaf(Node& node, CBOR value) {
  node.state = Node::State::leaf;
  node.leaf = std::move(value);
  node.keyed.clear();
  node.unkeyed.clear();
}

void makeKeyed(Node& node, const std::vector<std::string>& path) {
  if (node.state == Node::State::keyed)
    return;  // asking again shares the container already there
  if (node.state != Node::State::empty)
    raise(Kind::invalidValue,
          "Attempt to push new keyed encoding container when already previously encoded at this "
          "path.",
          path);
  node.state = Node::State::keyed;
}

void makeUnkeyed(Node& node, const std::vector<std::string>& path) {
  if (node.state == Node::State::unkeyed)
    return;
  if (node.state != Node::State::empty)
    raise(Kind::invalidValue,
          "Attempt to push new unkeyed encoding container when already previously encoded at "
          "this path.",
          path);
  node.state = Node::State::unkeyed;
}

NodePtr keyedChild(Node& node, const CBOR& key, const std::vector<std::string>&) {
  // Encoding a key again replaces what it held.
  auto child = makeNode();
  node.keyed[key] = child;
  return child;
}

NodePtr unkeyedChild(Node& node, const std::vector<std::string>&) {
  node.unkeyed.push_back(makeNode());
  return node.unkeyed.back();
}

std::size_t unkeyedCount(const Node& node) {
  return node.unkeyed.size();
}

CBOR finish(const Node& node) {
  switch (node.state) {
    case Node::State::leaf:
      return node.leaf;
    case Node::State::unkeyed: {
      CBOR::Array items;
      items.reserve(node.unkeyed.size());
      for (const auto& child : node.unkeyed)
        items.push_back(finish(*child));
      return CBOR(std::move(items));
    }
    case Node::State::keyed:
    case Node::State::empty: {
      // A value that encoded nothing is an empty keyed container.
      CBOR::Map map;
      for (const auto& [key, child] : node.keyed)
        map.emplace(key, finish(*child));
      return CBOR(std::move(map));
    }
  }
  return CBOR();
}

}  // namespace codable

Encoder::KeyedContainer Encoder::container() {
  codable::makeKeyed(*node_, path_);
  return KeyedContainer(*this);
}

Encoder::UnkeyedContainer Encoder::unkeyedContainer() {
  codable::makeUnkeyed(*node_, path_);
  return UnkeyedContainer(*this);
}

Encoder::SingleValueContainer Encoder::singleValueContainer() {
  return SingleValueContainer(*this);
}

Encoder Encoder::KeyedContainer::child(const CodingKey& key) {
  const CBOROptions& options = owner_.options();
  CBOR cborKey =
      key.intValue && !options.useStringKeys ? CBOR::integer(*key.intValue) : CBOR(key.stringValue);
  auto path = owner_.path_;
  path.push_back(key.stringValue);
  auto node = codable::keyedChild(*owner_.node_, cborKey, path);
  return Encoder(owner_.context_, std::move(node), std::move(path));
}

Encoder Encoder::UnkeyedContainer::child() {
  auto path = owner_.path_;
  path.push_back("Index " + std::to_string(count()));
  auto node = codable::unkeyedChild(*owner_.node_, path);
  return Encoder(owner_.context_, std::move(node), std::move(path));
}

void Encoder::SingleValueContainer::use() {
  if (owner_.node_->state != codable::Node::State::empty)
    raise(Kind::invalidValue,
          "Attempt to encode value through single value container when previously value already "
          "encoded.",
          owner_.path_);
}

Expected<CBOR::Bytes, CBORCodingError> CodableCBOREncoder::finishEncoding(
    const codable::Node& root) const {
  auto bytes = codable::finish(root).encode(options_);
  if (!bytes)
    return CBORCodingError{Kind::invalidValue, describe(bytes.error()), {}};
  return std::move(bytes).value();
}

// ---- Decoding --------------------------------------------------------------------------------

namespace {

struct Head {
  std::uint8_t initial;
  std::uint8_t major;
  std::uint8_t additional;
  std::uint64_t argument;
  std::size_t size;  // bytes of the head itself
};

constexpr int kMaxMeasureDepth = CBORDecoder::kMaxDepth;

class Reader {
 public:
  Reader(std::span<const std::uint8_t> data, const std::vector<std::string>& path)
      : data_(data), path_(path) {}

  [[noreturn]] void fail(Kind kind, std::string description) const {
    raise(kind, std::move(description), path_);
  }
  [[noreturn]] void invalidFormat(std::uint8_t initial) const {
    fail(Kind::typeMismatch, "Invalid format: " + std::to_string(initial));
  }

  Head head(std::size_t pos) const {
    if (pos >= data_.size())
      fail(Kind::dataCorrupted, "Unexpected end of data");
    Head h{data_[pos], static_cast<std::uint8_t>(data_[pos] >> 5),
           static_cast<std::uint8_t>(data_[pos] & 0x1f), 0, 1};
    if (h.additional < 24) {
      h.argument = h.additional;
    } else if (h.additional <= 27) {
      std::size_t n = std::size_t{1} << (h.additional - 24);
      if (n > data_.size() - pos - 1)
        fail(Kind::dataCorrupted, "Unexpected end of data");
      for (std::size_t i = 0; i < n; ++i)
        h.argument = (h.argument << 8) | data_[pos + 1 + i];
      h.size += n;
    }
    return h;
  }

  // Tags are handled only where a date is read; elsewhere they are refused by name.
  void refuseTag(const Head& h) const {
    if (h.major != 6)
      return;
    if (h.argument == 0)
      fail(Kind::dataCorrupted, "Handling text-based date/time is not supported yet");
    fail(Kind::dataCorrupted,
         "Handling tags (other than epoch-based date/time) is not supported yet");
  }

  std::size_t remaining(std::size_t pos) const { return data_.size() - pos; }

  // The encoded length of the item at pos.
  std::size_t length(std::size_t pos, int depth = 0) const {
    if (depth > kMaxMeasureDepth)
      fail(Kind::dataCorrupted, "Invalid format for getting length of item: nesting too deep");
    Head h = head(pos);
    auto badLength = [&] {
      fail(Kind::dataCorrupted,
           "Invalid format for getting length of item: " + std::to_string(h.initial));
    };
    if (h.additional >= 28 && h.additional <= 30)
      badLength();
    if (h.major == 7) {
      if (h.additional == 31)
        badLength();  // a break with nothing to close
      return h.size;
    }
    auto checked = [&](std::uint64_t n, std::size_t at) {
      if (n > remaining(at))
        fail(Kind::dataCorrupted, "Unexpected end of data");
      return static_cast<std::size_t>(n);
    };
    std::size_t at = pos + h.size;
    if (h.additional == 31) {
      if (h.major == 0 || h.major == 1 || h.major == 6)
        badLength();
      // Indefinite: items (or pairs, or chunks) until the break.
      while (true) {
        if (at >= data_.size())
          fail(Kind::dataCorrupted, "Unexpected end of data");
        if (data_[at] == 0xff)
          return at + 1 - pos;
        at += length(at, depth + 1);
      }
    }
    switch (h.major) {
      case 0:
      case 1:
        return h.size;
      case 2:
      case 3:
        return h.size + checked(h.argument, at);
      case 4:
      case 5: {
        std::uint64_t items = h.major == 5 ? h.argument * 2 : h.argument;
        if (h.argument > remaining(at))
          fail(Kind::dataCorrupted, "Unexpected end of data");
        for (std::uint64_t i = 0; i < items; ++i)
          at += length(at, depth + 1);
        return at - pos;
      }
      default:  // tag
        return h.size + length(at, depth + 1);
    }
  }

  std::span<const std::uint8_t> item(std::size_t pos) const {
    return data_.subspan(pos, length(pos));
  }

  std::span<const std::uint8_t> data_;
  const std::vector<std::string>& path_;
};

}  // namespace

void Decoder::fail(CBORCodingError::Kind kind, std::string description) const {
  raise(kind, std::move(description), path_);
}

bool Decoder::isNil() const {
  if (item_.empty())
    fail(Kind::dataCorrupted, "Unexpected end of data");
  return item_[0] == 0xf6;
}

bool Decoder::readBool() const {
  Reader r(item_, path_);
  Head h = r.head(0);
  r.refuseTag(h);
  if (h.initial == 0xf4 || h.initial == 0xf5)
    return h.initial == 0xf5;
  r.invalidFormat(h.initial);
}

std::int64_t Decoder::readSigned(std::int64_t min, std::int64_t max) const {
  Reader r(item_, path_);
  Head h = r.head(0);
  r.refuseTag(h);
  if (h.major == 0 && h.additional < 28) {
    if (h.argument > static_cast<std::uint64_t>(max))
      fail(Kind::dataCorrupted, "Number " + std::to_string(h.argument) + " does not fit");
    return static_cast<std::int64_t>(h.argument);
  }
  if (h.major == 1 && h.additional < 28) {
    // -1 - n must not fall below min.
    if (h.argument > static_cast<std::uint64_t>(-(min + 1)))
      fail(Kind::dataCorrupted, "Number -1-" + std::to_string(h.argument) + " does not fit");
    return -1 - static_cast<std::int64_t>(h.argument);
  }
  r.invalidFormat(h.initial);
}

std::uint64_t Decoder::readUnsigned(std::uint64_t max) const {
  Reader r(item_, path_);
  Head h = r.head(0);
  r.refuseTag(h);
  if (h.major == 0 && h.additional < 28) {
    if (h.argument > max)
      fail(Kind::dataCorrupted, "Number " + std::to_string(h.argument) + " does not fit");
    return h.argument;
  }
  r.invalidFormat(h.initial);
}

double Decoder::readFloat() const {
  Reader r(item_, path_);
  Head h = r.head(0);
  r.refuseTag(h);
  if (h.initial == 0xfb)
    return std::bit_cast<double>(h.argument);
  if (h.initial == 0xfa)
    return std::bit_cast<float>(static_cast<std::uint32_t>(h.argument));
  if (h.initial == 0xf9) {
    CBORDecoder d(item_.first(3));
    auto v = d.decodeItem();
    return (*v)->get<CBOR::Half>()->value;
  }
  r.invalidFormat(h.initial);
}

// The content of a definite string of the given major type.
std::span<const std::uint8_t> Decoder::readDefiniteString(std::uint8_t major,
                                                          const char* indefiniteRefusal) const {
  Reader r(item_, path_);
  Head h = r.head(0);
  r.refuseTag(h);
  if (h.major == major && h.additional == 31)
    fail(Kind::dataCorrupted, indefiniteRefusal);
  if (h.major != major || h.additional >= 28)
    r.invalidFormat(h.initial);
  if (h.argument > r.remaining(h.size))
    fail(Kind::dataCorrupted, "Unexpected end of data");
  return item_.subspan(h.size, h.argument);
}

std::string Decoder::readText() const {
  auto bytes = readDefiniteString(3, "Handling UTF8 strings with break bytes is not supported yet");
  if (!isValidUTF8(bytes))
    fail(Kind::dataCorrupted, "Invalid UTF-8 text");
  return std::string(bytes.begin(), bytes.end());
}

CBOR::Bytes Decoder::readBytes() const {
  auto bytes = readDefiniteString(2, "Handling byte strings with break bytes is not supported yet");
  return CBOR::Bytes(bytes.begin(), bytes.end());
}

Date Decoder::readDate() const {
  Reader r(item_, path_);
  Head h = r.head(0);
  auto timeOf = [&](const Decoder& d) -> double {
    Reader inner(d.item_, path_);
    Head t = inner.head(0);
    if (t.major == 0)
      return static_cast<double>(d.readUnsigned(std::numeric_limits<std::uint64_t>::max()));
    if (t.major == 1) {
      if (t.additional >= 28)
        inner.invalidFormat(t.initial);
      return -1.0 - static_cast<double>(t.argument);
    }
    if (t.initial == 0xfa || t.initial == 0xfb)
      return d.readFloat();
    inner.invalidFormat(t.initial);
  };
  if (options_->dateStrategy == DateStrategy::annotatedMap && h.major == 5) {
    auto keyed = container();
    if (keyed.decode<std::string>("__type") != "date_epoch_timestamp")
      fail(Kind::dataCorrupted, "Not an annotated date");
    return Date{timeOf(keyed.child("__value"))};
  }
  if (h.major != 6)
    r.invalidFormat(h.initial);
  if (h.argument != 1)
    r.refuseTag(h);
  Decoder content(r.item(h.size), *options_, path_);
  return Date{timeOf(content)};
}

CBOR Decoder::readCBOR() const {
  CBORDecoder d(item_, *options_);
  auto v = d.decodeItem();
  if (!v)
    fail(Kind::dataCorrupted, describe(v.error()));
  if (!*v)
    fail(Kind::dataCorrupted, "Unexpected end of data");
  return std::move(**v);
}

Decoder::KeyedContainer Decoder::container() const {
  Reader r(item_, path_);
  Head h = r.head(0);
  if (h.initial == 0xbf)
    fail(Kind::dataCorrupted, "Unable to get count of elements in dictionary");
  r.refuseTag(h);
  if (h.major != 5 || h.additional >= 28)
    r.invalidFormat(h.initial);
  if (h.argument > r.remaining(h.size))
    fail(Kind::dataCorrupted, "Unexpected end of data");
  std::vector<KeyedContainer::Entry> entries;
  entries.reserve(h.argument);
  std::size_t at = h.size;
  for (std::uint64_t i = 0; i < h.argument; ++i) {
    Head k = r.head(at);
    std::size_t keyLength = r.length(at);
    Decoder keyDecoder(item_.subspan(at, keyLength), *options_, path_);
    CodingKey key("");
    if (k.major == 3) {
      key = CodingKey(keyDecoder.readText());
    } else if (k.major == 0 || k.major == 1) {
      auto n = keyDecoder.readSigned(std::numeric_limits<std::int64_t>::min(),
                                     std::numeric_limits<std::int64_t>::max());
      key = CodingKey(std::to_string(n), n);
    } else {
      r.invalidFormat(k.initial);
    }
    at += keyLength;
    auto value = r.item(at);
    at += value.size();
    entries.push_back({std::move(key), value});
  }
  return KeyedContainer(*this, std::move(entries));
}

Decoder::UnkeyedContainer Decoder::unkeyedContainer() const {
  Reader r(item_, path_);
  Head h = r.head(0);
  r.refuseTag(h);
  if (h.major != 4 || (h.additional >= 28 && h.additional != 31))
    r.invalidFormat(h.initial);
  std::vector<std::span<const std::uint8_t>> items;
  std::size_t at = h.size;
  if (h.additional == 31) {
    while (true) {
      if (at >= item_.size())
        fail(Kind::dataCorrupted, "Unexpected end of data");
      if (item_[at] == 0xff)
        break;
      items.push_back(r.item(at));
      at += items.back().size();
    }
  } else {
    if (h.argument > r.remaining(at))
      fail(Kind::dataCorrupted, "Unexpected end of data");
    items.reserve(h.argument);
    for (std::uint64_t i = 0; i < h.argument; ++i) {
      items.push_back(r.item(at));
      at += items.back().size();
    }
  }
  return UnkeyedContainer(*this, std::move(items));
}

Decoder::SingleValueContainer Decoder::singleValueContainer() const {
  return SingleValueContainer(*this);
}

const Decoder::KeyedContainer::Entry* Decoder::KeyedContainer::find(const CodingKey& key) const {
  for (const auto& e : entries_) {
    bool same = e.key.intValue ? (key.intValue && *key.intValue == *e.key.intValue)
                               : e.key.stringValue == key.stringValue;
    if (same)
      return &e;
  }
  return nullptr;
}

std::vector<CodingKey> Decoder::KeyedContainer::allKeys() const {
  std::vector<CodingKey> keys;
  for (const auto& e : entries_)
    keys.push_back(e.key);
  return keys;
}

std::string Decoder::KeyedContainer::name(const CodingKey& key) const {
  return key.stringValue;
}

Decoder Decoder::KeyedContainer::child(const CodingKey& key) const {
  const Entry* e = find(key);
  if (!e)
    owner_.fail(Kind::keyNotFound, "No value associated with key " + name(key));
  auto path = owner_.path_;
  path.push_back(key.stringValue);
  return Decoder(e->value, *owner_.options_, std::move(path));
}

Decoder Decoder::UnkeyedContainer::next() {
  if (isAtEnd())
    owner_.fail(Kind::valueNotFound, "Unkeyed container is at end.");
  auto path = owner_.path_;
  path.push_back("Index " + std::to_string(index_));
  return Decoder(items_[index_++], *owner_.options_, std::move(path));
}

bool Decoder::UnkeyedContainer::decodeNil() {
  if (isAtEnd())
    owner_.fail(Kind::valueNotFound, "Unkeyed container is at end.");
  if (items_[index_].empty() || items_[index_][0] != 0xf6)
    return false;
  ++index_;
  return true;
}

}  // namespace quorvix

#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "quorvix/CBOR.h"

namespace quorvix {

// Reads CBOR items from a byte array, one decodeItem() at a time. Bounded by construction: it
// never reads past the input, never allocates more than the remaining input can justify (a
// length claiming 2^60 bytes fails at once), and refuses nesting deeper than kMaxDepth. The
// input must outlive the decoder.
class CBORDecoder {
 public:
  static constexpr int kMaxDepth = 512;

  explicit CBORDecoder(std::span<const std::uint8_t> input, CBOROptions options = {})
      : istream_(input), options_(options) {}

  // The next item, or nothing at the end of the input.
  Expected<std::optional<CBOR>, CBORError> decodeItem();

  std::size_t position() const { return pos_; }

 private:
  bool readItem(CBOR& out, int depth);
  bool readVarUInt(std::uint8_t additional, std::uint64_t& out);
  bool readLength(std::uint8_t additional, std::size_t& out);
  bool readBytes(std::size_t n, const std::uint8_t*& out);
  bool readString(std::uint8_t major,
                  std::uint8_t additional,
                  std::string* text,
                  CBOR::Bytes* bytes);
  // Consumes the break that ends an indefinite container, if it comes next.
  bool readBreak(bool& found);
  bool readUntilBreak(CBOR::Array& out, int depth);
  bool readNPairs(std::size_t n, CBOR::Map& out, int depth);
  bool readPairsUntilBreak(CBOR::Map& out, int depth);
  bool fail(CBORError e) {
    error_ = e;
    return false;
  }

  std::span<const std::uint8_t> istream_;
  std::size_t pos_ = 0;
  CBOROptions options_;
  CBORError error_ = CBORError::unfinishedSequence;
};

// The time a tag 1 or an annotated date carries: unsigned or negative integers, 32- or 64-bit
// floats. Nothing for anything else (half floats included).
std::optional<double> epochTime(const CBOR& item);

}  // namespace quorvix

#include "encoders/H264Sample.h"

namespace quorvix {
namespace {

constexpr std::uint8_t kStartCode[] = {0, 0, 0, 1};
constexpr std::uint8_t kNalTypeMask = 0x1F;
constexpr std::uint8_t kNalSequenceParameterSet = 7;
constexpr std::uint8_t kNalPictureParameterSet = 8;
constexpr std::size_t kConstraintByteOffset = 6;
constexpr std::uint8_t kConstraintSet3 = 0x10;
constexpr std::size_t kLengthSize = 4;

void appendUnit(std::vector<std::uint8_t>& out, std::span<const std::uint8_t> unit) {
  out.insert(out.end(), std::begin(kStartCode), std::end(kStartCode));
  out.insert(out.end(), unit.begin(), unit.end());
}

}  // namespace

bool isKeyFrame(const H264Sample& sample) {
  if (sample.attachments.empty())
    return false;
  const auto& notSync = sample.attachments.front();
  return !notSync.has_value() || !*notSync;
}

std::vector<std::uint8_t> toH264NALUAnnexB(const H264Sample& sample) {
  std::vector<std::uint8_t> out;
  if (isKeyFrame(sample)) {
    for (const auto& set : sample.parameterSets) {
      appendUnit(out, set);
      // The offset counts from the start of the output, not from this set: with the sequence
      // parameter set first it is that set's constraint byte.
      if (!set.empty() && (set[0] & kNalTypeMask) == kNalSequenceParameterSet &&
          out.size() > kConstraintByteOffset)
        out[kConstraintByteOffset] |= kConstraintSet3;
    }
  }
  const std::span<const std::uint8_t> data = sample.data;
  // A sample of exactly one length field carries no unit.
  if (data.size() == kLengthSize)
    return out;
  std::size_t offset = 0;
  while (offset + kLengthSize < data.size()) {
    const std::uint64_t length = (std::uint64_t(data[offset]) << 24) |
                                 (std::uint64_t(data[offset + 1]) << 16) |
                                 (std::uint64_t(data[offset + 2]) << 8) | data[offset + 3];
    const std::size_t start = offset + kLengthSize;
    if (length > data.size() - start)
      break;  // runs past the end: the rest is not trustworthy
    appendUnit(out, data.subspan(start, std::size_t(length)));
    offset = start + std::size_t(length);
  }
  return out;
}

std::vector<std::span<const std::uint8_t>> splitAnnexB(std::span<const std::uint8_t> bytes) {
  std::vector<std::span<const std::uint8_t>> units;
  const std::size_t n = bytes.size();
  // Finds the next 00 00 01 at or after i; n when none.
  auto nextStartCode = [&](std::size_t i) {
    for (; i + 2 < n; ++i)
      if (bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1)
        return i;
    return n;
  };
  std::size_t code = nextStartCode(0);
  while (code < n) {
    const std::size_t begin = code + 3;
    const std::size_t next = nextStartCode(begin);
    std::size_t end = next;
    // The zero before a 4-byte start code, and trailing zeros, belong to no unit.
    while (end > begin && bytes[end - 1] == 0)
      --end;
    if (end > begin)
      units.push_back(bytes.subspan(begin, end - begin));
    code = next;
  }
  return units;
}

H264Sample sampleFromAnnexB(std::span<const std::uint8_t> accessUnit, bool keyFrame) {
  H264Sample sample;
  for (auto unit : splitAnnexB(accessUnit)) {
    const std::uint8_t type = unit[0] & kNalTypeMask;
    if (keyFrame && (type == kNalSequenceParameterSet || type == kNalPictureParameterSet)) {
      sample.parameterSets.emplace_back(unit.begin(), unit.end());
      continue;
    }
    const std::uint64_t length = unit.size();
    if (length > 0xFFFFFFFFu)
      continue;
    for (int shift = 24; shift >= 0; shift -= 8)
      sample.data.push_back(std::uint8_t(length >> shift));
    sample.data.insert(sample.data.end(), unit.begin(), unit.end());
  }
  if (keyFrame)
    sample.attachments.push_back(std::nullopt);
  else
    sample.attachments.push_back(true);
  return sample;
}

}  // namespace quorvix

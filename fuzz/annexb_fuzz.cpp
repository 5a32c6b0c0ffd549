// Encoder output as the H.264 stream converts it: samples with arbitrary parameter sets and
// length-prefixed data (lengths past the end, zero lengths, fewer than four bytes), and arbitrary
// Annex B buffers split into samples. Nothing may read out of bounds; the output never holds more
// than the input plus one start code per unit; a delta sample made from Annex B converts back to
// the same units.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "encoders/H264Sample.h"

using namespace quorvix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  const std::uint8_t flags = data[0];
  std::span<const std::uint8_t> rest(data + 1, size - 1);

  H264Sample sample;
  const int sets = (flags >> 2) & 3;
  for (int i = 0; i < sets && !rest.empty(); ++i) {
    const std::size_t length = std::min<std::size_t>(rest[0], rest.size() - 1);
    sample.parameterSets.emplace_back(rest.begin() + 1, rest.begin() + 1 + length);
    rest = rest.subspan(1 + length);
  }
  sample.data.assign(rest.begin(), rest.end());
  if (flags & 1)
    sample.attachments.push_back((flags & 2) ? std::optional<bool>(true) : std::nullopt);
  const auto out = toH264NALUAnnexB(sample);
  std::size_t bound = 0;
  for (const auto& set : sample.parameterSets)
    bound += 4 + set.size();
  bound += sample.data.size() + sample.data.size() / 4 * 4 + 4;
  if (out.size() > bound)
    std::abort();
  if (!isKeyFrame(sample) && out.size() > sample.data.size())
    std::abort();

  const std::span<const std::uint8_t> whole(data, size);
  const auto units = splitAnnexB(whole);
  const H264Sample delta = sampleFromAnnexB(whole, false);
  const auto rewritten = toH264NALUAnnexB(delta);
  const auto again = splitAnnexB(rewritten);
  if (again.size() != units.size())
    std::abort();
  for (std::size_t i = 0; i < units.size(); ++i)
    if (!std::equal(units[i].begin(), units[i].end(), again[i].begin(), again[i].end()))
      std::abort();
  const H264Sample key = sampleFromAnnexB(whole, true);
  if (!isKeyFrame(key) ||
      key.parameterSets.size() + splitAnnexB(toH264NALUAnnexB(key)).size() < units.size())
    std::abort();
  return 0;
}

// One compressed picture as an H.264 encoder session hands it over, and its conversion to the
// Annex B byte stream that leaves the device. The sample's bytes come from an encoder library, so
// the conversion treats them as untrusted: lengths that run past the end end the conversion.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace quorvix {

struct H264Sample {
  // The parameter sets of the stream's format (sequence, then picture), each a NAL unit without a
  // start code. Written in front of key frames only.
  std::vector<std::vector<std::uint8_t>> parameterSets;
  // The picture's NAL units, each preceded by its length as 4 bytes big-endian.
  std::vector<std::uint8_t> data;
  // One entry per attachment record of the sample: its "not a sync sample" mark when present.
  std::vector<std::optional<bool>> attachments;
};

// Key frame: the first attachment record exists and is not marked "not sync".
bool isKeyFrame(const H264Sample& sample);

// Start codes 00 00 00 01 before each unit; parameter sets first for key frames. Sets
// constraint_set3_flag (0x10 at output offset 6, where the usual sequence parameter set written
// first keeps its constraint byte) whenever a sequence parameter set is written.
std::vector<std::uint8_t> toH264NALUAnnexB(const H264Sample& sample);

// The NAL units of an Annex B buffer (3- or 4-byte start codes), without their start codes.
// Bytes before the first start code are dropped; empty units are skipped.
std::vector<std::span<const std::uint8_t>> splitAnnexB(std::span<const std::uint8_t> bytes);

// A sample from one Annex B access unit: for a key frame its sequence and picture parameter sets
// become the format's parameter sets, every other unit goes into the length-prefixed data.
H264Sample sampleFromAnnexB(std::span<const std::uint8_t> accessUnit, bool keyFrame);

}  // namespace quorvix

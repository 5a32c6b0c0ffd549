#include <gtest/gtest.h>

#include "encoders/H264Sample.h"

namespace quorvix {
namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes kSPS = {0x67, 0x64, 0x00, 0x1f};
const Bytes kPPS = {0x68, 0xee, 0x3c, 0x80};

H264Sample sample(Bytes data, bool key) {
  H264Sample s;
  s.parameterSets = {kSPS, kPPS};
  s.data = std::move(data);
  s.attachments = {key ? std::optional<bool>() : std::optional<bool>(true)};
  return s;
}

TEST(H264SampleTest, KeyFrameFollowsTheFirstAttachmentRecord) {
  H264Sample s;
  EXPECT_FALSE(isKeyFrame(s));  // no attachments at all
  s.attachments = {std::nullopt, true};
  EXPECT_TRUE(isKeyFrame(s));
  s.attachments = {false};
  EXPECT_TRUE(isKeyFrame(s));
  s.attachments = {true, std::nullopt};
  EXPECT_FALSE(isKeyFrame(s));
}

TEST(H264SampleTest, AnnexBConversion) {
  const Bytes sets = {0, 0, 0, 1, 0x67, 0x64, 0x10, 0x1f, 0, 0, 0, 1, 0x68, 0xee, 0x3c, 0x80};
  struct Case {
    const char* what;
    Bytes data;
    bool key;
    Bytes expected;  // after the parameter sets for key frames
  };
  const Case cases[] = {
      {"two units",
       {0, 0, 0, 2, 0x65, 1, 0, 0, 0, 1, 0x06},
       true,
       {0, 0, 0, 1, 0x65, 1, 0, 0, 0, 1, 0x06}},
      {"non-key has no sets", {0, 0, 0, 1, 0x41}, false, {0, 0, 0, 1, 0x41}},
      {"exactly four bytes", {0, 0, 0, 9}, true, {}},
      {"exactly four bytes, non-key", {0, 0, 0, 0}, false, {}},
      {"fewer than four bytes", {0, 0, 1}, false, {}},
      {"empty", {}, true, {}},
      {"zero lengths",
       {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0x41},
       false,
       {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0x41}},
      {"length past the end",
       {0, 0, 0, 1, 0x41, 0, 0, 0, 9, 0x41, 0x42},
       false,
       {0, 0, 0, 1, 0x41}},
      {"huge length", {0xff, 0xff, 0xff, 0xff, 0x41}, false, {}},
      {"trailing bytes shorter than a length", {0, 0, 0, 1, 0x41, 0, 0}, false, {0, 0, 0, 1, 0x41}},
  };
  for (const auto& c : cases) {
    Bytes expected = c.key ? sets : Bytes{};
    expected.insert(expected.end(), c.expected.begin(), c.expected.end());
    EXPECT_EQ(toH264NALUAnnexB(sample(c.data, c.key)), expected) << c.what;
  }
}

TEST(H264SampleTest, ConstraintFlagGoesToOutputByteSixWhereverTheSequenceSetIs) {
  H264Sample s;
  s.parameterSets = {kPPS, kSPS};
  s.attachments = {std::nullopt};
  const Bytes out = toH264NALUAnnexB(s);
  ASSERT_GT(out.size(), 6u);
  EXPECT_EQ(out[6], 0x3c | 0x10);  // inside the picture parameter set written first
  s.parameterSets = {{0x67}};      // a sequence set too short to reach byte 6
  EXPECT_EQ(toH264NALUAnnexB(s), (Bytes{0, 0, 0, 1, 0x67}));
}

TEST(H264SampleTest, SplitsAnnexBIntoSamples) {
  const Bytes au = {9, 0,    0,    1,    0x67, 0x64, 0, 0, 0, 1, 0x68, 0xee, 0, 0,
                    1, 0x65, 0x88, 0x80, 0,    0,    0, 0, 0, 1, 0x06, 0x05, 0};
  const auto units = splitAnnexB(au);
  ASSERT_EQ(units.size(), 4u);
  EXPECT_EQ(Bytes(units[0].begin(), units[0].end()), (Bytes{0x67, 0x64}));
  EXPECT_EQ(Bytes(units[2].begin(), units[2].end()), (Bytes{0x65, 0x88, 0x80}));
  EXPECT_EQ(Bytes(units[3].begin(), units[3].end()), (Bytes{0x06, 0x05}));

  const H264Sample key = sampleFromAnnexB(au, true);
  EXPECT_EQ(key.parameterSets.size(), 2u);
  EXPECT_TRUE(isKeyFrame(key));
  EXPECT_EQ(toH264NALUAnnexB(key), (Bytes{0, 0, 0, 1,    0x67, 0x64, 0, 0, 0, 1, 0x68, 0xee, 0,
                                          0, 0, 1, 0x65, 0x88, 0x80, 0, 0, 0, 1, 0x06, 0x05}));
  const H264Sample delta = sampleFromAnnexB(au, false);
  EXPECT_TRUE(delta.parameterSets.empty());
  EXPECT_FALSE(isKeyFrame(delta));
  EXPECT_TRUE(splitAnnexB(Bytes{0, 0, 1}).empty());
  EXPECT_TRUE(splitAnnexB(Bytes{}).empty());
}

}  // namespace
}  // namespace quorvix

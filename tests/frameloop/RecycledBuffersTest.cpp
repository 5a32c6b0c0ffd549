#include "frameloop/RecycledBuffers.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quorvix {
namespace {

TEST(RecycledBuffersTest, ALetGoBufferComesBackForItsSizeAndWhatIsKeptStaysBounded) {
  constexpr std::size_t kSize = 3 << 20;
  std::uint8_t* first = nullptr;
  {
    auto buffer = recycledBuffer(kSize);
    first = buffer.get();
  }
  EXPECT_GE(recycledBytesKept(), kSize);
  EXPECT_NE(recycledBuffer(kSize + 4).get(), first) << "another size never gets it";
  const std::size_t kept = recycledBytesKept();
  auto again = recycledBuffer(kSize);
  EXPECT_EQ(again.get(), first);
  EXPECT_EQ(recycledBytesKept(), kept - kSize);

  // Many let go at once, on other threads: only the bound is kept, the oldest dropped first.
  std::vector<std::shared_ptr<std::uint8_t[]>> many;
  for (int i = 0; i < 12; ++i)
    many.push_back(recycledBuffer(kSize));
  std::thread([m = std::move(many)]() mutable { m.clear(); }).join();
  EXPECT_LE(recycledBytesKept(), kMaxRecycledBytes);
  EXPECT_GT(recycledBytesKept(), kMaxRecycledBytes - kSize);
  // Too big to keep at all.
  recycledBuffer(kMaxRecycledBytes + 1).reset();
  EXPECT_LE(recycledBytesKept(), kMaxRecycledBytes);
}

}  // namespace
}  // namespace quorvix

#include "frameloop/RecycledBuffers.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace quorvix {
namespace {

struct Pool {
  std::mutex mutex;
  std::vector<std::pair<std::size_t, std::unique_ptr<std::uint8_t[]>>> free;  // oldest first
  std::size_t keptBytes = 0;

  void giveBack(std::unique_ptr<std::uint8_t[]> buffer, std::size_t size) {
    std::lock_guard lock(mutex);
    if (size > kMaxRecycledBytes)
      return;
    free.emplace_back(size, std::move(buffer));
    keptBytes += size;
    while (keptBytes > kMaxRecycledBytes) {
      keptBytes -= free.front().first;
      free.erase(free.begin());
    }
  }

  std::unique_ptr<std::uint8_t[]> take(std::size_t size) {
    {
      std::lock_guard lock(mutex);
      const auto it = std::find_if(free.rbegin(), free.rend(),
                                   [size](const auto& kept) { return kept.first == size; });
      if (it != free.rend()) {
        auto buffer = std::move(it->second);
        keptBytes -= size;
        free.erase(std::next(it).base());
        return buffer;
      }
    }
    return std::make_unique_for_overwrite<std::uint8_t[]>(size);
  }
};

std::shared_ptr<Pool> pool() {
  // Held by every buffer out too, so that one let go after the static is gone still has a home.
  static const auto instance = std::make_shared<Pool>();
  return instance;
}

}  // namespace

std::shared_ptr<std::uint8_t[]> recycledBuffer(std::size_t size) {
  auto p = pool();
  auto buffer = p->take(size);
  return std::shared_ptr<std::uint8_t[]>(
      buffer.release(), [p = std::move(p), size](std::uint8_t* bytes) {
        p->giveBack(std::unique_ptr<std::uint8_t[]>(bytes), size);
      });
}

std::size_t recycledBytesKept() {
  auto p = pool();
  std::lock_guard lock(p->mutex);
  return p->keptBytes;
}

}  // namespace quorvix

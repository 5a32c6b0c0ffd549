// Large picture buffers, recycled: a buffer let go goes back to a short free list of its size
// instead of to the allocator, so that a picture a frame does not cost fresh pages, and the
// kernel's zeroing of them, every frame. Callable from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace quorvix {

// At most this much is kept free: two 1080p pictures, or five of their I420 forms.
inline constexpr std::size_t kMaxRecycledBytes = std::size_t(16) << 20;

// Uninitialised room for `size` bytes; a free buffer of that size when one is kept.
std::shared_ptr<std::uint8_t[]> recycledBuffer(std::size_t size);
// What is kept free now.
std::size_t recycledBytesKept();

}  // namespace quorvix

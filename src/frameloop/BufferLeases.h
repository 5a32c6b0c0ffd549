// Which of a handful of picture buffers a picture still holds. A buffer goes out with a picture
// and comes back when the picture's last holder lets go, on whichever thread that is; taking and
// returning meet under a lock, so everything the holder read happens before the buffer is written
// again. take() and add() run on the owner's thread; returns happen on any.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace quorvix {

class BufferLeases {
 public:
  // A buffer nobody holds, now marked held; nullopt when every buffer is held.
  std::optional<std::size_t> take() {
    std::lock_guard lock(state_->mutex);
    for (std::size_t i = 0; i < state_->held.size(); ++i)
      if (!state_->held[i]) {
        state_->held[i] = true;
        return i;
      }
    return std::nullopt;
  }
  // Whether buffer `index` is free, without taking it.
  bool isFree(std::size_t index) const {
    std::lock_guard lock(state_->mutex);
    return index < state_->held.size() && !state_->held[index];
  }
  // Takes buffer `index` if it is free.
  bool take(std::size_t index) {
    std::lock_guard lock(state_->mutex);
    if (index >= state_->held.size() || state_->held[index])
      return false;
    state_->held[index] = true;
    return true;
  }
  // A new buffer, held from the start; its index.
  std::size_t add() {
    std::lock_guard lock(state_->mutex);
    state_->held.push_back(true);
    return state_->held.size() - 1;
  }
  // Forgets every buffer; those still held are never counted again.
  void clear() { state_ = std::make_shared<State>(); }

  // The owner to hand out with buffer `index`, whose end returns the buffer. It keeps `keepAlive`
  // (the buffer's memory) too, so the pixels outlive this object if need be.
  std::shared_ptr<void> lease(std::size_t index,
                              void* data,
                              std::shared_ptr<void> keepAlive) const {
    return std::shared_ptr<void>(data,
                                 [state = state_, keepAlive = std::move(keepAlive), index](void*) {
                                   std::lock_guard lock(state->mutex);
                                   state->held[index] = false;
                                 });
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<bool> held;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace quorvix

// One delegate that passes each call on to several weakly held delegates, in the order they were
// added; delegates that have gone are skipped and forgotten. Return values are not combined.
//
//   QRVMultiDelegate<QuorvixDelegate> fan{first, second};
//   fan.forward(&QuorvixDelegate::quorviSessionDidUpdate, session);
//
// Threads: not synchronised; use one from a single thread (the main queue, typically).
#pragma once

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

namespace quorvix {

template <class T>
class QRVMultiDelegate {
 public:
  QRVMultiDelegate() = default;
  QRVMultiDelegate(std::initializer_list<std::shared_ptr<T>> delegates) {
    for (const auto& delegate : delegates) {
      if (delegate)
        weakDelegates_.push_back(delegate);
    }
  }

  // Appends a delegate unless it is empty or already held.
  void addDelegate(const std::shared_ptr<T>& delegate) {
    if (!delegate)
      return;
    dropCleared();
    const bool held = std::any_of(weakDelegates_.begin(), weakDelegates_.end(),
                                  [&](const std::weak_ptr<T>& w) { return w.lock() == delegate; });
    if (!held)
      weakDelegates_.push_back(delegate);
  }

  // The live delegates, in order.
  std::vector<std::shared_ptr<T>> delegates() {
    dropCleared();
    std::vector<std::shared_ptr<T>> live;
    for (const auto& w : weakDelegates_) {
      if (auto d = w.lock())
        live.push_back(std::move(d));
    }
    return live;
  }

  // Calls `method` with `args` on every live delegate. Delegates added during the call are told
  // from the next call on.
  template <class R, class... Params, class... Args>
  void forward(R (T::*method)(Params...), Args&&... args) {
    for (const auto& delegate : delegates())
      ((*delegate).*method)(args...);
  }

 private:
  void dropCleared() {
    std::erase_if(weakDelegates_, [](const std::weak_ptr<T>& w) { return w.expired(); });
  }

  std::vector<std::weak_ptr<T>> weakDelegates_;
};

}  // namespace quorvix

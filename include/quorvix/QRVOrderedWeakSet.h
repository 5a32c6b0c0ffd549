// An insertion-ordered set of weakly held objects: adding an object again moves it to the end,
// and objects that have gone simply drop out.
//
// Threads: not synchronised; use one from a single thread (the main queue, typically).
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

namespace quorvix {

template <class T>
class QRVOrderedWeakSet {
 public:
  void addObject(const std::shared_ptr<T>& object) {
    if (!object)
      return;
    removeObject(object.get());
    storage_.push_back(object);
  }

  // Removes the entry holding this very object, if any.
  void removeObject(const T* object) {
    auto it = std::find_if(storage_.begin(), storage_.end(),
                           [&](const std::weak_ptr<T>& entry) { return holds(entry, object); });
    if (it != storage_.end())
      storage_.erase(it);
  }

  // The live objects, in order.
  std::vector<std::shared_ptr<T>> allObjects() {
    dropCleared();
    std::vector<std::shared_ptr<T>> objects;
    objects.reserve(storage_.size());
    for (const auto& entry : storage_) {
      if (auto object = entry.lock())
        objects.push_back(std::move(object));
    }
    return objects;
  }

  // Reorders the live objects with a stable sort.
  template <class Less>
  void sort(Less less) {
    auto objects = allObjects();
    std::stable_sort(objects.begin(), objects.end(), less);
    storage_.clear();
    for (const auto& object : objects)
      addObject(object);
  }

  bool empty() {
    dropCleared();
    return storage_.empty();
  }

 private:
  static bool holds(const std::weak_ptr<T>& entry, const T* object) {
    auto live = entry.lock();
    return live && live.get() == object;
  }
  void dropCleared() {
    std::erase_if(storage_, [](const std::weak_ptr<T>& entry) { return entry.expired(); });
  }

  std::vector<std::weak_ptr<T>> storage_;
};

}  // namespace quorvix

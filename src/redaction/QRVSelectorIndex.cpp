#include "redaction/QRVSelectorIndex.h"

#include <atomic>
#include <vector>

namespace quorvix {
namespace {

struct Observers {
  std::mutex mutex;
  std::atomic<std::uint64_t> counter{0};
  int lastId = 0;
  std::vector<std::pair<int, SelectorObserver::Subscriber>> subscribers;
};

Observers& observers() {
  static Observers o;
  return o;
}

std::string attributeKey(const std::string& name, const Value& value) {
  return name + "=" + renderText(value);
}

}  // namespace

void SelectorObserver::notifyObservers() {
  auto& o = observers();
  std::uint64_t now = ++o.counter;
  std::vector<Subscriber> toCall;
  {
    std::lock_guard lock(o.mutex);
    for (const auto& [id, s] : o.subscribers)
      toCall.push_back(s);
  }
  // Called outside the lock, so a subscriber may unsubscribe itself.
  for (const auto& s : toCall)
    s(now);
}

std::uint64_t SelectorObserver::counter() {
  return observers().counter.load();
}

int SelectorObserver::subscribe(Subscriber subscriber) {
  auto& o = observers();
  std::lock_guard lock(o.mutex);
  o.subscribers.emplace_back(++o.lastId, std::move(subscriber));
  return o.lastId;
}

void SelectorObserver::unsubscribe(int id) {
  auto& o = observers();
  std::lock_guard lock(o.mutex);
  std::erase_if(o.subscribers, [id](const auto& e) { return e.first == id; });
}

QRVSelectorIndex& QRVSelectorIndex::redacted() {
  static QRVSelectorIndex index;
  return index;
}

QRVSelectorIndex& QRVSelectorIndex::unredacted() {
  static QRVSelectorIndex index;
  return index;
}

void QRVSelectorIndex::setSelectors(const QRVSelectorSet& selectors) {
  {
    std::lock_guard lock(mutex_);
    if (selectors == selectors_)
      return;
    byTag_.clear();
    byAttribute_.clear();
    knownAttributes_.clear();
    for (const auto& selector : selectors) {
      // A selector without parts stops the rebuild; the new set is not stored.
      if (selector.parts().empty())
        return;
      const QRVSelectorPart& last = selector.parts().back();
      if (last.tag())
        byTag_[*last.tag()].insert(selector);
      for (const auto& [name, value] : last.attributes()) {
        byAttribute_[attributeKey(name, value)].insert(selector);
        knownAttributes_.insert(name);
      }
    }
    selectors_ = selectors;
  }
  SelectorObserver::notifyObservers();
}

QRVSelectorSet QRVSelectorIndex::possibleMatchesForTag(const std::optional<std::string>& tag,
                                                       const Value::Map* attributes) const {
  std::lock_guard lock(mutex_);
  QRVSelectorSet result;
  if (tag) {
    if (auto it = byTag_.find(*tag); it != byTag_.end())
      result.insert(it->second.begin(), it->second.end());
  }
  if (attributes) {
    for (const auto& [name, value] : *attributes) {
      if (!knownAttributes_.contains(name))
        continue;  // no selector tests it; spares rendering the value
      if (auto it = byAttribute_.find(attributeKey(name, value)); it != byAttribute_.end())
        result.insert(it->second.begin(), it->second.end());
    }
  }
  return result;
}

QRVSelectorSet QRVSelectorIndex::possibleMatchesForView(
    const QRVSelectableViewProperties& view) const {
  return possibleMatchesForTag(view.tag(), &view.attributes());
}

bool QRVSelectorIndex::isEmpty() const {
  std::lock_guard lock(mutex_);
  return selectors_.empty();
}

QRVSelectorSet QRVSelectorIndex::selectors() const {
  std::lock_guard lock(mutex_);
  return selectors_;
}

std::set<std::string> QRVSelectorIndex::knownAttributes() const {
  std::lock_guard lock(mutex_);
  return knownAttributes_;
}

}  // namespace quorvix

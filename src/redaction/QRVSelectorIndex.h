// Finds candidate selectors for a view quickly: selectors are indexed by the tag and the
// attribute tests of their last part. Candidates still need QRVSelector::matches. Thread-safe.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "redaction/QRVSelector.h"

namespace quorvix {

// Tells subscribers that a selector index changed so that they re-evaluate their views.
class SelectorObserver {
 public:
  using Subscriber = std::function<void(std::uint64_t counter)>;
  static void notifyObservers();
  static std::uint64_t counter();
  static int subscribe(Subscriber subscriber);
  static void unsubscribe(int id);
};

class QRVSelectorIndex {
 public:
  // The process's two indexes, made on first use.
  static QRVSelectorIndex& redacted();
  static QRVSelectorIndex& unredacted();

  // Rebuilds the index unless the set is unchanged, then notifies the selector observers.
  void setSelectors(const QRVSelectorSet& selectors);
  QRVSelectorSet possibleMatchesForTag(const std::optional<std::string>& tag,
                                       const Value::Map* attributes) const;
  QRVSelectorSet possibleMatchesForView(const QRVSelectableViewProperties& view) const;
  bool isEmpty() const;

  QRVSelectorSet selectors() const;
  std::set<std::string> knownAttributes() const;

 private:
  mutable std::mutex mutex_;
  std::set<std::string> knownAttributes_;
  QRVSelectorSet selectors_;
  std::map<std::string, QRVSelectorSet, std::less<>> byTag_;
  std::map<std::string, QRVSelectorSet, std::less<>> byAttribute_;
};

}  // namespace quorvix

// An in-memory keychain store that records the operations it is asked for and can be told to
// fail the next ones.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "storage/KeychainStore.h"

namespace quorvix::test {

class FakeKeychainStore final : public KeychainStore {
 public:
  std::vector<KeychainItem> items;
  std::vector<std::string> operations;  // "copy account", "add account group", "remove account"
  std::string defaultGroup = "TEAM.app.example";
  // Statuses returned, in order, by the next calls of each kind instead of doing the work.
  std::deque<KeychainStatus> copyFailures, addFailures, removeFailures;

  KeychainStatus copyMatching(const KeychainQuery& query,
                              bool withData,
                              KeychainItem& found) override {
    operations.push_back("copy " + query.account);
    if (auto status = next(copyFailures))
      return *status;
    for (const auto& item : items)
      if (item.account == query.account && item.service == query.service) {
        found = item;
        if (!withData)
          found.data.reset();
        return keychain_status::kSuccess;
      }
    return keychain_status::kItemNotFound;
  }

  KeychainStatus add(const KeychainItem& item, KeychainItem* added) override {
    operations.push_back("add " + item.account + " " + item.accessGroup.value_or("-"));
    if (auto status = next(addFailures))
      return *status;
    KeychainItem stored = item;
    if (!stored.accessGroup)
      stored.accessGroup = defaultGroup;
    for (const auto& existing : items)
      if (existing.account == stored.account && existing.accessGroup == stored.accessGroup)
        return keychain_status::kDuplicateItem;
    items.push_back(stored);
    if (added)
      *added = stored;
    return keychain_status::kSuccess;
  }

  KeychainStatus remove(const KeychainQuery& query) override {
    operations.push_back("remove " + query.account);
    if (auto status = next(removeFailures))
      return *status;
    auto n = std::erase_if(items, [&](const KeychainItem& item) {
      return item.account == query.account && item.service == query.service;
    });
    return n ? keychain_status::kSuccess : keychain_status::kItemNotFound;
  }

 private:
  static std::optional<KeychainStatus> next(std::deque<KeychainStatus>& queue) {
    if (queue.empty())
      return std::nullopt;
    auto status = queue.front();
    queue.pop_front();
    return status;
  }
};

}  // namespace quorvix::test

// Where the keychain's items live: generic-password items named by an account and a service
// (both the key), with an access group attribute and the value's UTF-8 bytes. The Secret Service
// when one answers, else a file store; tests install their own.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace quorvix {

using KeychainStatus = std::int32_t;

// Status codes, numbered as the platform keychain numbers them so that log lines read alike.
namespace keychain_status {
inline constexpr KeychainStatus kSuccess = 0;
inline constexpr KeychainStatus kIO = -36;
inline constexpr KeychainStatus kParam = -50;
inline constexpr KeychainStatus kUserCanceled = -128;
inline constexpr KeychainStatus kNotAvailable = -25291;
inline constexpr KeychainStatus kDuplicateItem = -25299;
inline constexpr KeychainStatus kItemNotFound = -25300;
inline constexpr KeychainStatus kInteractionNotAllowed = -25308;
inline constexpr KeychainStatus kDecode = -26275;
inline constexpr KeychainStatus kMissingEntitlement = -34018;
}  // namespace keychain_status

struct KeychainItem {
  std::string account;
  std::string service;
  std::optional<std::string> accessGroup;
  std::optional<std::string> data;  // absent: an item stored without a value
};

struct KeychainQuery {
  std::string account;
  std::string service;
};

class KeychainStore {
 public:
  virtual ~KeychainStore() = default;

  // The first item whose account and service match, in any group; its data only when asked.
  virtual KeychainStatus copyMatching(const KeychainQuery& query,
                                      bool withData,
                                      KeychainItem& found) = 0;
  // Adds an item. An item without a group gets the store's default group; one with the same
  // account, service and group is kDuplicateItem. `added` receives the stored attributes.
  virtual KeychainStatus add(const KeychainItem& item, KeychainItem* added) = 0;
  // Deletes every item whose account and service match, whatever its group; kItemNotFound when
  // there was none.
  virtual KeychainStatus remove(const KeychainQuery& query) = 0;
};

// The group an item gets when it is added without one: "<team>.<bundle identifier>", as the
// platform keychain assigns the application's first access group. The team is the bundle's
// team identifier, or "u" and the user id when the host set none.
std::string defaultAccessGroup();

// The platform stores. The Secret Service store needs a session bus on which a service answers;
// secretServiceAnswers() tells whether one does (a round trip, starting an activatable service).
bool secretServiceAnswers();
std::shared_ptr<KeychainStore> makeSecretServiceStore(
    std::function<std::string()> defaultGroup = defaultAccessGroup);
// One file, "keychain.json", in `directory` (made 0700), replaced atomically on each change.
std::shared_ptr<KeychainStore> makeFileStore(
    std::filesystem::path directory,
    std::function<std::string()> defaultGroup = defaultAccessGroup);
// "$XDG_DATA_HOME/quorvix", or "~/.local/share/quorvix".
std::filesystem::path defaultFileStoreDirectory();

}  // namespace quorvix

#include "storage/QRVKeychain.h"

#include <mutex>

#include "quorvix/QRVBundle.h"
#include "utils/Logging.h"
#include "utils/UTF8.h"

namespace quorvix {
namespace {

namespace st = keychain_status;

constexpr const char* kProbe = "qrvBundleTest";

struct State {
  std::mutex mutex;
  std::shared_ptr<KeychainStore> store;
  std::optional<std::string> teamId;
};

State& state() {
  static State s;
  return s;
}

auto logger() {
  static auto l = QRV_LOGGER_FOR("QRVKeychain");
  return l;
}

std::string groupText(const std::optional<std::string>& group) {
  return group ? *group : "(null)";
}

std::shared_ptr<KeychainStore> chooseStore() {
  if (secretServiceAnswers()) {
    logger()->debug("Keychain: using the Secret Service");
    return makeSecretServiceStore();
  }
  auto directory = defaultFileStoreDirectory();
  logger()->debug("Keychain: no Secret Service answered, using the file store in {}",
                  directory.string());
  return makeFileStore(directory);
}

}  // namespace

std::shared_ptr<KeychainStore> QRVKeychain::store() {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  if (!s.store)
    s.store = chooseStore();
  return s.store;
}

void QRVKeychain::setStore(std::shared_ptr<KeychainStore> store) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.store = std::move(store);
  s.teamId.reset();
}

std::optional<std::string> QRVKeychain::teamId() {
  auto current = store();
  auto& s = state();
  // Held through the probe, so that two threads never add and delete it under each other.
  std::lock_guard lock(s.mutex);
  if (s.teamId)
    return s.teamId;
  const KeychainQuery probe{kProbe, kProbe};
  KeychainItem found;
  KeychainStatus status = current->copyMatching(probe, false, found);
  if (status == st::kItemNotFound)
    status = current->add(KeychainItem{kProbe, kProbe, std::nullopt, std::nullopt}, &found);
  if (status != st::kSuccess) {
    logger()->debug("Failed to determine team ID {}", status);
    return std::nullopt;
  }
  if (!found.accessGroup || found.accessGroup->empty())
    return std::nullopt;
  std::string team = found.accessGroup->substr(0, found.accessGroup->find('.'));
  current->remove(probe);
  s.teamId = team;
  return team;
}

std::optional<std::string> QRVKeychain::sharedGroup() {
  auto team = teamId();
  if (!team)
    return std::nullopt;
  return *team + ".io.quorvi";
}

std::optional<std::string> QRVKeychain::privateGroup() {
  auto team = teamId();
  if (!team)
    return std::nullopt;
  return *team + "." + QRVBundle::main().identifier;
}

KeychainQuery QRVKeychain::queryForKey(const std::string& key, const std::optional<std::string>&) {
  return KeychainQuery{key, key};
}

KeychainStatus QRVKeychain::setValue(const std::string& value,
                                     const std::string& key,
                                     const std::optional<std::string>& group) {
  auto current = store();
  const KeychainQuery query = queryForKey(key, group);
  KeychainStatus status = current->remove(query);
  if (status == st::kMissingEntitlement) {
    logger()->error("Missing entitlement for keychain group {}", groupText(group));
    return status;
  }
  // A failed delete leaves the old value in place rather than adding a second item beside it.
  if (status == st::kSuccess || status == st::kItemNotFound)
    status = current->add(KeychainItem{query.account, query.service, group, value}, nullptr);
  if (status != st::kSuccess)
    logger()->debug("Failed to set {}, reason: {}", key, status);
  return status;
}

std::optional<std::string> QRVKeychain::getValue(const std::string& key,
                                                 const std::optional<std::string>& group) {
  KeychainItem found;
  const KeychainStatus status = store()->copyMatching(queryForKey(key, group), true, found);
  switch (status) {
    case st::kSuccess:
      if (!found.data) {
        logger()->error("Keychain item was missing data");
        return std::nullopt;
      }
      // Bytes that are not UTF-8 are no text this library wrote.
      if (!isValidUTF8(
              {reinterpret_cast<const std::uint8_t*>(found.data->data()), found.data->size()}))
        return std::nullopt;
      return found.data;
    case st::kItemNotFound:
      return std::nullopt;
    case st::kMissingEntitlement:
      logger()->error("Missing entitlement for keychain group {}", groupText(sharedGroup()));
      return std::nullopt;
    default:
      logger()->error("Failed to get keychain value {}", status);
      return std::nullopt;
  }
}

KeychainStatus QRVKeychain::clearKey(const std::string& key,
                                     const std::optional<std::string>& group) {
  return store()->remove(queryForKey(key, group));
}

}  // namespace quorvix

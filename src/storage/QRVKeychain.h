// Short strings kept across launches: the device id (private to the host application) and the
// mirror of the current session that the host's extensions read (shared with them). Class
// operations only; thread-safe. Failures never reach the host: reads give nothing and writes a
// status that callers may ignore, each with a log line.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "storage/KeychainStore.h"

namespace quorvix {

class QRVKeychain {
 public:
  static constexpr const char* kApiKey = "io.quorvi.api";
  static constexpr const char* kLicenseKey = "io.quorvi.license";
  static constexpr const char* kDeviceKey = "io.quorvi.device";
  static constexpr const char* kSessionKey = "io.quorvi.session";
  static constexpr const char* kSessionTokenKey = "io.quorvi.session-token";

  // Discovered through a probe item once per process, retried until it succeeds once.
  static std::optional<std::string> teamId();
  // "<team>.io.quorvi" and "<team>.<bundle identifier>"; nothing without a team id.
  static std::optional<std::string> sharedGroup();
  static std::optional<std::string> privateGroup();

  // The item's account and service; the group does not restrict a query.
  static KeychainQuery queryForKey(const std::string& key, const std::optional<std::string>& group);
  // Replaces the key's item in every group by one in `group`: delete, then add.
  static KeychainStatus setValue(const std::string& value,
                                 const std::string& key,
                                 const std::optional<std::string>& group);
  static std::optional<std::string> getValue(const std::string& key,
                                             const std::optional<std::string>& group);
  // Removes the key from every group.
  static KeychainStatus clearKey(const std::string& key, const std::optional<std::string>& group);

  // The store in use: chosen on first use (the Secret Service when one answers, else the file
  // store). Installing one (nullptr: choose again) also forgets the team id.
  static std::shared_ptr<KeychainStore> store();
  static void setStore(std::shared_ptr<KeychainStore> store);
};

}  // namespace quorvix

// The host application's identity and settings, the counterpart of an application bundle's
// information. The host sets it before start; the library reads it when it builds requests and
// on every socket connection attempt.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "quorvix/Value.h"

namespace quorvix {

struct QRVBundle {
  std::string identifier;    // reverse-DNS id, e.g. "com.example.helpdesk"
  std::string name;          // short name, used in "User-Agent"
  std::string displayName;   // name shown to the user in prompts
  std::string shortVersion;  // marketing version, e.g. "2.4"
  std::string version;       // build version, used in "User-Agent"
  // The vendor's team: the keychain items the host shares with its extensions are grouped under
  // it. Dots are not allowed (they are replaced). Empty: one team per user.
  std::string teamIdentifier;
  // Host settings such as "QRVWebSocketMethod" and "QRVBroadcastExtension".
  std::map<std::string, Value, std::less<>> settings;

  // The host's bundle. Until the host sets one: the executable's name for the names and the
  // identifier, "1.0" and "1" for the versions, and the settings "QRVWebSocketMethod" and
  // "QRVBroadcastExtension" taken from environment variables of those names when present.
  static QRVBundle main();
  static void setMain(QRVBundle bundle);
  // Back to the defaults above.
  static void resetMain();

  // The value of a setting, or nothing.
  std::optional<Value> setting(std::string_view key) const;
};

}  // namespace quorvix

// What the service is told about this device and application, with registrations, session
// creation and activation.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "quorvix/QRVBundle.h"
#include "quorvix/Value.h"

namespace quorvix {

// The operating system's side of the description; a value the system cannot give is absent.
struct QRVSystemInfo {
  std::optional<std::string> machine;    // uname's machine field, e.g. "x86_64"
  std::optional<std::string> locale;     // the user's first preferred language, e.g. "de-AT"
  std::optional<std::string> timeZone;   // the local zone's abbreviation, e.g. "CET"
  std::optional<std::string> osVersion;  // e.g. "Debian GNU/Linux 12 (bookworm)"

  static QRVSystemInfo current();

  // The name of the system from an os-release file: PRETTY_NAME, else NAME and VERSION (or
  // VERSION_ID), else nothing.
  static std::optional<std::string> osVersionFromOSRelease(std::string_view text);
  // The first preferred language from LANGUAGE, LC_ALL, LC_MESSAGES or LANG, as a language
  // tag: "de_AT.UTF-8" gives "de-AT", "C" and "POSIX" give "en".
  static std::optional<std::string> localeFromEnvironment(
      const std::function<const char*(const char*)>& getenv);
};

struct QRVDeviceInfo {
  static constexpr const char* kPlatform = "linux";
  static constexpr const char* kSDKVersion = "3.13.2";
  // The MIME types of the two frame encoders, the H.264 stream's first.
  static constexpr const char* kH264MimeType = "video/avc";
  static constexpr const char* kJPEGMimeType = "image/jpeg";

  static std::string platform() { return kPlatform; }
  // Built anew at each call; absent values are sent as null.
  static Value::Map info();
  static Value::Map info(const QRVSystemInfo& system, const QRVBundle& bundle);
  // The host's "QRVBroadcastExtension" setting.
  static std::optional<Value> broadcastExtension();
};

}  // namespace quorvix

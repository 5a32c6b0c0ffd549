#include <sys/utsname.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>

#include "core/QRVDeviceInfo.h"

namespace quorvix {
namespace {

std::optional<std::string> readOSRelease() {
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(path);
    if (!in)
      continue;
    std::ostringstream text;
    text << in.rdbuf();
    return QRVSystemInfo::osVersionFromOSRelease(text.str());
  }
  return std::nullopt;
}

}  // namespace

QRVSystemInfo QRVSystemInfo::current() {
  QRVSystemInfo info;
  utsname names{};
  if (::uname(&names) == 0 && names.machine[0])
    info.machine = names.machine;
  info.locale = localeFromEnvironment([](const char* name) { return std::getenv(name); });
  std::time_t now = std::time(nullptr);
  std::tm local{};
  if (::localtime_r(&now, &local) && local.tm_zone && local.tm_zone[0])
    info.timeZone = local.tm_zone;
  info.osVersion = readOSRelease();
  return info;
}

}  // namespace quorvix

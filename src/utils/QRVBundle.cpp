#include "quorvix/QRVBundle.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <system_error>

namespace quorvix {
namespace {

std::string executableName() {
  std::error_code ec;
  auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec || path.filename().empty())
    return "quorvix-host";
  return path.filename().string();
}

QRVBundle defaults() {
  QRVBundle b;
  b.name = executableName();
  b.identifier = b.name;
  b.displayName = b.name;
  b.shortVersion = "1.0";
  b.version = "1";
  // An information dictionary would hold the method as a number; the environment only has text.
  if (const char* v = std::getenv("QRVWebSocketMethod")) {
    std::int64_t n = 0;
    const char* end = v + std::strlen(v);
    auto [p, ec] = std::from_chars(v, end, n);
    b.settings["QRVWebSocketMethod"] =
        (ec == std::errc() && p == end && p != v) ? Value(n) : Value(std::string(v));
  }
  if (const char* v = std::getenv("QRVBroadcastExtension"))
    b.settings["QRVBroadcastExtension"] = Value(std::string(v));
  return b;
}

std::mutex gMutex;
std::optional<QRVBundle> gBundle;

}  // namespace

QRVBundle QRVBundle::main() {
  std::lock_guard lock(gMutex);
  if (!gBundle)
    gBundle = defaults();
  return *gBundle;
}

void QRVBundle::setMain(QRVBundle bundle) {
  std::lock_guard lock(gMutex);
  gBundle = std::move(bundle);
}

void QRVBundle::resetMain() {
  std::lock_guard lock(gMutex);
  gBundle.reset();
}

std::optional<Value> QRVBundle::setting(std::string_view key) const {
  auto it = settings.find(key);
  if (it == settings.end())
    return std::nullopt;
  return it->second;
}

}  // namespace quorvix

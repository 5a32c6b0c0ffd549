// What the device and session layer read from outside: session answers (JSON), session dates,
// os-release files, keychain files and base64. The first byte picks the reader. Nothing may
// crash, and strict base64 must round-trip.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string_view>

#include "core/QRVDeviceInfo.h"
#include "core/QRVSessionResource.h"
#include "quorvix/Log.h"
#include "storage/KeychainStore.h"
#include "utils/Base64.h"
#include "utils/ISO8601.h"

namespace {

using namespace quorvix;

void readSession(std::string_view text) {
  auto value = Value::fromJson(text);
  auto session = std::make_shared<QRVSessionResource>();
  if (session->updateResource(value))
    return;
  (void)session->url();
  (void)session->agent();
  (void)session->requireConsent();
  (void)session->fullDevice();
  (void)session->remoteControl();
  (void)session->customData();
  (void)session->capabilities();
  (void)session->redactedSelectors();
  (void)session->unredactedSelectors();
  (void)session->webviewRedactedSelectors();
  (void)session->webviewUnredactedSelectors();
  (void)session->scale();
  (void)session->endedReason();
  (void)session->created();
  (void)session->expires();
  (void)session->activated();
  (void)session->updated();
  (void)session->ended();
}

void readKeychainFile(std::string_view text) {
  static const std::string dir = [] {
    char pattern[] = "/tmp/quorvix-fuzz-XXXXXX";
    return std::string(::mkdtemp(pattern) ? pattern : "/tmp");
  }();
  static auto store = makeFileStore(dir, [] { return std::string("T.app"); });
  {
    std::ofstream out(dir + "/keychain.json", std::ios::trunc | std::ios::binary);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
  }
  KeychainItem found;
  (void)store->copyMatching({"k", "k"}, true, found);
  (void)store->remove({"k", "k"});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (setStderrLogging(false), true);
  (void)quiet;
  if (size == 0)
    return 0;
  std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 5) {
    case 0:
      readSession(text);
      break;
    case 1:
      (void)parseISO8601FractionalDate(text);
      break;
    case 2:
      (void)QRVSystemInfo::osVersionFromOSRelease(text);
      break;
    case 3:
      readKeychainFile(text);
      break;
    case 4:
      if (auto decoded = base64Decode(text); decoded && base64Encode(*decoded) != text)
        std::abort();
      break;
  }
  return 0;
}

// Addresses and references: parsing and resolution never crash, and a parsed URL's text parses
// back to the same URL.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "utils/QRVURL.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using quorvix::QRVURL;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto split = text.find('\n');
  auto first = QRVURL::parse(text.substr(0, split));
  if (!first)
    return 0;
  auto reparsed = QRVURL::parse(first->toString());
  if (!reparsed || !(*reparsed == *first))
    std::abort();
  if (split != std::string_view::npos && first->isAbsolute()) {
    if (auto resolved = first->resolve(text.substr(split + 1)))
      (void)resolved->toString();
  }
  return 0;
}

// Selector text from the host or the service: parsing never crashes, and a parsed selector's
// text form parses back to an equal selector.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "redaction/QRVSelectorParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using quorvix::QRVSelectorParser;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  (void)QRVSelectorParser::parsePart(text);
  auto selector = QRVSelectorParser::parse(text);
  if (!selector)
    return 0;
  // Quotes are not restored in the text form, so only selectors without quoted spaces reprint
  // as valid selector text.
  std::string printed = selector->debugDescription();
  if (printed.find(' ') != std::string::npos && text.find('"') != std::string_view::npos)
    return 0;
  auto again = QRVSelectorParser::parse(printed);
  if (!again || !(*again == *selector))
    std::abort();
  return 0;
}

// The root window's resource database as another client may have set it: the font resolution
// read from it is a positive, finite number or nothing, and the scale drawn with stays in range.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "session-ui/linux/DisplayScale.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvix;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto dpi = xftDpi(text)) {
    if (!std::isfinite(*dpi) || *dpi <= 0)
      std::abort();
    const double scale = scaleForDpi(*dpi);
    if (!(scale >= 0.75 && scale <= 3))
      std::abort();
  }
  return 0;
}

// JSON text from the service: parsing never crashes, and whatever parses writes back to text
// that parses to an equal value.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "quorvix/QRVError.h"
#include "quorvix/Value.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using quorvix::Value;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto value = Value::fromJson(text);
  if (!value)
    return 0;
  auto written = value->toJson();
  if (!written)
    std::abort();
  auto again = Value::fromJson(*written);
  if (!again || !(*again == *value))
    std::abort();
  return 0;
}

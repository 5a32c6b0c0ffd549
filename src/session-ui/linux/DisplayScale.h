// How large the library draws its own windows on a screen: the desktop's font resolution when
// the user set one (Xft.dpi, as toolkits read it), else the screen's physical size, as a factor
// of the 96 dpi that the drawings are laid out for.
//
// Threads: pure functions, any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace quorvix {

// RESOURCE_MANAGER is read up to this many bytes; Xft.dpi sits near its start in practice.
inline constexpr std::size_t kMaxResourceBytes = 64 * 1024;

// The value of "Xft.dpi" (or "Xft*dpi") in an X resource database text, the last one winning as
// with the resource manager. Nothing when absent or not a positive number.
std::optional<double> xftDpi(std::string_view resources);

// The resolution a screen's reported physical width gives, to 24 dpi (a quarter of the scale);
// nothing when the server reports no size.
std::optional<double> physicalDpi(int widthPixels, int widthMillimetres);

// 96 dpi draws at 1; monitors that report nonsense sizes are held to 0.75..3.
double scaleForDpi(double dpi);

}  // namespace quorvix

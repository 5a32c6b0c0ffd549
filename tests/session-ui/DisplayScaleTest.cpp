// The drawing scale of the library's own windows, from the resource database or the screen.
#include "session-ui/linux/DisplayScale.h"

#include <string>

#include <gtest/gtest.h>

namespace quorvix {
namespace {

TEST(DisplayScaleTest, XftDpiFromTheResourceDatabase) {
  struct Case {
    const char* resources;
    std::optional<double> dpi;
  };
  const Case cases[] = {
      {"Xft.dpi:\t144\n", 144},
      {"Xft.antialias:\t1\nXft.dpi: 120.5 \r\nXft.hinting:\t1\n", 120.5},
      {"Xft*dpi:\t192", 192},
      {"Xft.dpi:\t96\nXft.dpi:\t192\n", 192},  // the last one wins
      {"Xft.dpi:\t144\nXft.dpi:\tlarge\n", 144},
      {"*dpi:\t144\n", std::nullopt},
      {"Xft.dpix:\t144\n", std::nullopt},
      {"Xft.dpi:\t-96\n", std::nullopt},
      {"Xft.dpi:\t0\n", std::nullopt},
      {"Xft.dpi:\t96dpi\n", std::nullopt},
      {"Xft.dpi:\tnan\n", std::nullopt},
      {"Xft.dpi:\tinf\n", std::nullopt},
      {"Xft.dpi\t144\n", std::nullopt},
      {"Xft.dpi:", std::nullopt},
      {"", std::nullopt},
  };
  for (const Case& c : cases)
    EXPECT_EQ(xftDpi(c.resources), c.dpi) << c.resources;

  // Only the first 64 KiB are read.
  std::string big(kMaxResourceBytes, '\n');
  EXPECT_EQ(xftDpi(big + "Xft.dpi:\t144\n"), std::nullopt);
  EXPECT_EQ(xftDpi("Xft.dpi:\t144\n" + big), 144);
}

TEST(DisplayScaleTest, ScaleFromDpiHeldToASaneRange) {
  EXPECT_DOUBLE_EQ(scaleForDpi(96), 1);
  EXPECT_DOUBLE_EQ(scaleForDpi(144), 1.5);
  EXPECT_DOUBLE_EQ(scaleForDpi(10), 0.75);
  EXPECT_DOUBLE_EQ(scaleForDpi(5000), 3);
  EXPECT_DOUBLE_EQ(scaleForDpi(std::numeric_limits<double>::quiet_NaN()), 1);

  EXPECT_EQ(physicalDpi(1920, 508), 96);
  EXPECT_EQ(physicalDpi(1920, 488), 96);  // Xvfb's 100 dpi
  EXPECT_EQ(physicalDpi(3840, 344), 288);
  EXPECT_EQ(physicalDpi(1920, 0), std::nullopt);
  EXPECT_EQ(physicalDpi(0, 300), std::nullopt);
}

}  // namespace
}  // namespace quorvix

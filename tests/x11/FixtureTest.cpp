// The private servers the x11 tests run on: each is a server of its own, never the user's, and
// offers what capture, injection and the overlay depend on.
#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include "support/X11TestDisplay.h"

namespace quorvix::test {
namespace {

using Connection = std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)>;

bool hasExtension(xcb_connection_t* c, const std::string& name) {
  auto cookie = xcb_query_extension(c, static_cast<uint16_t>(name.size()), name.c_str());
  std::unique_ptr<xcb_query_extension_reply_t, decltype(&free)> reply(
      xcb_query_extension_reply(c, cookie, nullptr), &free);
  return reply && reply->present;
}

TEST(X11FixtureTest, IsAPrivateServerWithTheExtensionsTheLibraryUses) {
  QRV_REQUIRE_TEST_DISPLAY();
  const std::string display = testDisplayName();
  if (const char* own = std::getenv("DISPLAY")) {
    EXPECT_NE(display, own);
  }

  Connection c(xcb_connect(display.c_str(), nullptr), &xcb_disconnect);
  ASSERT_EQ(xcb_connection_has_error(c.get()), 0) << display;
  for (const char* name :
       {"MIT-SHM", "XTEST", "DAMAGE", "Composite", "RANDR", "XFIXES", "SHAPE", "XKEYBOARD"}) {
    EXPECT_TRUE(hasExtension(c.get(), name)) << name;
  }
  const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c.get())).data;
  EXPECT_EQ(screen->width_in_pixels, 1920);
  EXPECT_EQ(screen->height_in_pixels, 1080);
}

}  // namespace
}  // namespace quorvix::test

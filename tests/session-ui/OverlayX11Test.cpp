// What the overlay puts on a real X screen: the border, the laser dot and the agent's drawings,
// with and without a compositing manager, and clicks passing through all of them.
#include <cairo.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include "annotations/QRVLinuxAnnotations.h"
#include "frameloop/WindowCapturer.h"
#include "session-ui/linux/X11Overlay.h"
#include "support/ManualExecutor.h"
#include "support/SolidPng.h"
#include "support/X11TestDisplay.h"

namespace quorvix {
namespace {

using test::solidPng;

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

// The screen as the user sees it, read back from the root window.
class Screen {
 public:
  explicit Screen(xcb_connection_t* c) : c_(c) {
    root_ = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
  }
  // 0xRRGGBB at (x, y).
  std::uint32_t pixel(int x, int y) const {
    Reply<xcb_get_image_reply_t> image(
        xcb_get_image_reply(
            c_,
            xcb_get_image(c_, XCB_IMAGE_FORMAT_Z_PIXMAP, root_, static_cast<std::int16_t>(x),
                          static_cast<std::int16_t>(y), 1, 1, ~0u),
            nullptr),
        &std::free);
    if (!image)
      return 0xDEADBEEF;
    std::uint32_t p;
    std::memcpy(&p, xcb_get_image_data(image.get()), 4);
    return p & 0xFFFFFF;
  }

 private:
  xcb_connection_t* c_;
  xcb_window_t root_;
};

class OverlayX11Test : public ::testing::Test {
 protected:
  void SetUp() override {
    QRV_REQUIRE_TEST_DISPLAY();
    display = X11Display::open(test::testDisplayName(), main.get());
    ASSERT_TRUE(display);
    probe.reset(xcb_connect(test::testDisplayName().c_str(), nullptr));
    ASSERT_EQ(xcb_connection_has_error(probe.get()), 0);
    screen = std::make_unique<Screen>(probe.get());
  }

  // Waits, with a bound, for the screen to show what the test expects: a compositor paints
  // in its own time.
  bool waitFor(const std::function<bool()>& shown) {
    return main->runUntil(shown, std::chrono::seconds(5));
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<X11Display> display;
  std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)> probe{nullptr, &xcb_disconnect};
  std::unique_ptr<Screen> screen;
  MainScreenFrame mainScreen = [] { return QRVRect{0, 0, 1920, 1080}; };
};

constexpr std::uint32_t kRed = 0xFF0000;
constexpr std::uint32_t kGreen = 0x00FF00;
constexpr std::uint32_t kBlue = 0x0000FF;

TEST_F(OverlayX11Test, TheBorderRunsRoundTheMainScreenAndNowhereElse) {
  const std::uint32_t background = screen->pixel(960, 540);
  const std::vector<std::pair<int, int>> border = {
      {0, 0}, {1919, 0}, {960, 4}, {0, 540}, {4, 540}, {1915, 540}, {960, 1075}, {1919, 1079}};
  const std::vector<std::pair<int, int>> inside = {{5, 5}, {960, 5}, {960, 540}, {1914, 1074}};
  auto showsBorder = [&] {
    for (auto [x, y] : border)
      if (screen->pixel(x, y) != kRed)
        return false;
    for (auto [x, y] : inside)
      if (screen->pixel(x, y) != background)
        return false;
    return true;
  };
  auto showsNothing = [&] {
    for (auto [x, y] : border)
      if (screen->pixel(x, y) != background)
        return false;
    return true;
  };
  {
    QRVLinuxSessionIndicator indicator(display, mainScreen);
    indicator.show();
    indicator.show();  // a second show moves, never duplicates
    EXPECT_TRUE(waitFor(showsBorder));
    for (auto [x, y] : border)
      EXPECT_EQ(screen->pixel(x, y), kRed) << x << "," << y;
    for (auto [x, y] : inside)
      EXPECT_EQ(screen->pixel(x, y), background) << x << "," << y;
    indicator.hide();
    EXPECT_TRUE(waitFor(showsNothing));
    indicator.show();
    EXPECT_TRUE(waitFor(showsBorder)) << "built again";
  }
  EXPECT_TRUE(waitFor(showsNothing)) << "gone with the indicator";
}

TEST_F(OverlayX11Test, DrawingsAndTheLaserShowWhereTheAgentPutThemThenGo) {
  const std::uint32_t background = screen->pixel(100, 100);
  auto canvas = std::make_shared<X11AnnotationCanvas>(display, mainScreen);
  {
    QRVLinuxAnnotations annotations(canvas, main.get());
    annotations.setActive(true);
    Value::Map drawing{{"type", "Drawing"},
                       {"id", "d"},
                       {"x", 0.25},
                       {"y", 0.5},
                       {"width", 0.25},
                       {"height", 0.25},
                       {"image", solidPng(480, 270, 0, 0, 1)},
                       {"disappears_in", 1000},
                       {"fade_duration", 200}};
    annotations.updateDrawnAnnotation(*QRVDrawing::from(drawing));
    // The rectangle (480, 540)–(960, 810).
    ASSERT_TRUE(waitFor([&] { return screen->pixel(480, 540) == kBlue; }));
    EXPECT_EQ(screen->pixel(959, 809), kBlue);
    EXPECT_EQ(screen->pixel(479, 540), background);
    EXPECT_EQ(screen->pixel(960, 809), background);

    annotations.updateLaserAnnotation(*QRVLaser::from(Value::Map{{"type", "Laser"},
                                                                 {"id", "l"},
                                                                 {"state", "touchmove"},
                                                                 {"x", 0.5},
                                                                 {"y", 0.25},
                                                                 {"colour", "00ff00"}}));
    ASSERT_TRUE(waitFor([&] { return screen->pixel(960, 270) == kGreen; }));
    EXPECT_EQ(screen->pixel(960 + 9, 270), background) << "a 14-pixel dot";
    annotations.updateLaserAnnotation(
        *QRVLaser::from(Value::Map{{"type", "Laser"}, {"id", "l"}, {"state", "touchend"}}));
    EXPECT_TRUE(waitFor([&] { return screen->pixel(960, 270) == background; }));

    main->advance(std::chrono::milliseconds(1000 + 200));
    EXPECT_TRUE(waitFor([&] { return screen->pixel(600, 600) == background; }))
        << "faded and removed after disappears_in + fade_duration";
    EXPECT_EQ(annotations.drawingManager().count(), 0u);
  }
}

TEST_F(OverlayX11Test, ClicksPassThroughTheOverlayToTheWindowBelow) {
  xcb_connection_t* c = probe.get();
  const xcb_screen_t* s = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
  const xcb_window_t target = xcb_generate_id(c);
  const std::uint32_t values[] = {s->white_pixel, 1, XCB_EVENT_MASK_BUTTON_PRESS};
  xcb_create_window(c, XCB_COPY_FROM_PARENT, target, s->root, 860, 440, 200, 200, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, s->root_visual,
                    XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
  xcb_map_window(c, target);
  xcb_flush(c);

  auto canvas = std::make_shared<X11AnnotationCanvas>(display, mainScreen);
  QRVLinuxAnnotations annotations(canvas, main.get());
  annotations.setActive(true);
  annotations.updateDrawnAnnotation(*QRVDrawing::from(
      Value::Map{{"type", "Drawing"}, {"id", "d"}, {"image", solidPng(192, 108, 1, 0, 0)}}));
  QRVLinuxSessionIndicator indicator(display, mainScreen);
  indicator.show();
  ASSERT_TRUE(waitFor([&] { return screen->pixel(960, 540) == kRed; })) << "covered by ink";

  xcb_test_fake_input(c, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, s->root, 960, 540, 0);
  xcb_test_fake_input(c, XCB_BUTTON_PRESS, 1, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  xcb_test_fake_input(c, XCB_BUTTON_RELEASE, 1, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  xcb_flush(c);
  bool pressed = false;
  for (int i = 0; i < 200 && !pressed; ++i) {
    Reply<xcb_generic_event_t> event(xcb_wait_for_event(c), &std::free);
    if (!event)
      break;
    if ((event->response_type & 0x7F) == XCB_BUTTON_PRESS) {
      auto* press = reinterpret_cast<xcb_button_press_event_t*>(event.get());
      EXPECT_EQ(press->event, target);
      EXPECT_EQ(press->event_x, 100);
      EXPECT_EQ(press->event_y, 100);
      pressed = true;
    }
  }
  EXPECT_TRUE(pressed);
  xcb_destroy_window(c, target);
  xcb_flush(c);
}

// The border, the ink and the laser are the host's own windows, yet the agent must never see
// them echoed back in the application's frames.
TEST_F(OverlayX11Test, TheWindowSourceLeavesTheLibrarysOwnWindowsOut) {
  xcb_connection_t* c = probe.get();
  const xcb_screen_t* s = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
  // A window of this process: the window source captures it.
  const xcb_window_t host = xcb_generate_id(c);
  const std::uint32_t values[] = {s->white_pixel, 1};
  xcb_create_window(c, XCB_COPY_FROM_PARENT, host, s->root, 400, 300, 400, 300, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, s->root_visual,
                    XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
  xcb_map_window(c, host);
  xcb_flush(c);

  auto canvas = std::make_shared<X11AnnotationCanvas>(display, mainScreen);
  QRVLinuxAnnotations annotations(canvas, main.get());
  annotations.setActive(true);
  // Ink over the middle of the host's window, and the border round the screen.
  annotations.updateDrawnAnnotation(
      *QRVDrawing::from(Value::Map{{"type", "Drawing"},
                                   {"id", "d"},
                                   {"x", 0.25},
                                   {"y", 0.3},
                                   {"width", 0.2},
                                   {"height", 0.3},
                                   {"image", solidPng(16, 16, 0, 0, 1)}}));
  QRVLinuxSessionIndicator indicator(display, mainScreen);
  indicator.show();
  ASSERT_TRUE(
      waitFor([&] { return screen->pixel(600, 450) == kBlue && screen->pixel(0, 0) == kRed; }));

  auto capturer =
      WindowCapturer::createX11(test::testDisplayName(), std::make_shared<QRVWindowRegistry>());
  ASSERT_TRUE(capturer);
  auto image = capturer->capture(nullptr, 1.0);
  ASSERT_TRUE(image);
  auto at = [&](int x, int y) {
    const std::uint8_t* p =
        image->bytes().data() + (static_cast<std::size_t>(y) * image->width() + x) * 4;
    return (std::uint32_t{p[2]} << 16) | (std::uint32_t{p[1]} << 8) | p[0];
  };
  EXPECT_EQ(at(600, 450), 0xFFFFFFu) << "the host's window, not the agent's ink";
  EXPECT_NE(at(0, 0), kRed) << "no border";
  EXPECT_NE(at(1919, 1079), kRed);
  xcb_destroy_window(c, host);
  xcb_flush(c);
}

}  // namespace
}  // namespace quorvix

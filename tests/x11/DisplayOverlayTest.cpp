// The whole-display source leaves the library's own overlays (the border, the laser dot, the
// agent's drawings) out of its frames: a frame taken while they are on screen equals one taken
// without them, pixel for pixel, over other windows, over the root background and over a window
// lying partly under the border; with and without a compositing manager.
#include <cairo.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include "annotations/QRVLinuxAnnotations.h"
#include "frameloop/linux/QRVX11DisplayFrameSource.h"
#include "frameloop/linux/XcbShm.h"
#include "session-ui/linux/X11Overlay.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"
#include "support/SolidPng.h"
#include "support/X11TestDisplay.h"
#include "x11/CaptureChecks.h"
#include "x11/X11TestClient.h"

namespace quorvix::test {
namespace {

constexpr int kMaxTicks = 30;
constexpr std::uint32_t kRed = 0xff0000;

// A picture no replication from its surroundings could guess.
std::uint32_t busyPattern(int x, int y) {
  return std::uint32_t((x * 7) & 0xff) << 16 | std::uint32_t((y * 5) & 0xff) << 8 |
         std::uint32_t((x ^ y) & 0xff);
}

struct Mismatch {
  int count = 0;
  std::string first;
};

Mismatch compare(const QRVFrame& a, const QRVFrame& b) {
  Mismatch m;
  if (a.width() != b.width() || a.height() != b.height()) {
    m.count = -1;
    return m;
  }
  for (int y = 0; y < a.height(); ++y)
    for (int x = 0; x < a.width(); ++x)
      if (pixelAt(a, x, y) != pixelAt(b, x, y) && m.count++ < 5)
        m.first += " (" + std::to_string(x) + "," + std::to_string(y) + ") " +
                   std::to_string(pixelAt(a, x, y)) + "≠" + std::to_string(pixelAt(b, x, y));
  return m;
}

class DisplayOverlayTest : public testing::Test {
 protected:
  void SetUp() override {
    QRV_REQUIRE_TEST_DISPLAY();
    client_ = std::make_unique<X11TestClient>(testDisplayName());
    ASSERT_TRUE(client_->ok());
    client_->movePointer(960, 1000);
    display_ = X11Display::open(testDisplayName(), main_.get());
    ASSERT_TRUE(display_);
  }

  void TearDown() override {
    annotations_.reset();
    canvas_.reset();
    indicator_.reset();
    for (xcb_window_t w : windows_)
      client_->destroy(w);
  }

  // Windows under where the overlays will be: one under the drawing's left half and the laser,
  // one lying partly under the left strip of the border, one off the bottom-right corner under two
  // strips. The rest of the drawing and a second laser position lie over the root background.
  void createWindows() {
    windows_.push_back(client_->createWindow(300, 400, 500, 300, busyPattern));
    windows_.push_back(client_->createWindow(-40, 100, 200, 150, busyPattern));
    windows_.push_back(client_->createWindow(1800, 1000, 300, 200, busyPattern));
  }

  xcb_atom_t atom(const char* name) {
    xcb_connection_t* c = client_->get();
    std::unique_ptr<xcb_intern_atom_reply_t, decltype(&free)> reply(
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, std::uint16_t(std::strlen(name)), name),
                              nullptr),
        &free);
    return reply ? reply->atom : XCB_NONE;
  }

  // The root window as a person sees it.
  std::uint32_t screenPixel(int x, int y) {
    xcb_connection_t* c = client_->get();
    std::unique_ptr<xcb_get_image_reply_t, decltype(&free)> image(
        xcb_get_image_reply(c,
                            xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, client_->root(),
                                          std::int16_t(x), std::int16_t(y), 1, 1, ~0u),
                            nullptr),
        &free);
    if (!image)
      return 0xdeadbeef;
    const std::uint8_t* p = xcb_get_image_data(image.get());
    return std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];
  }

  bool waitForScreen(const std::function<bool()>& shown) {
    return main_->runUntil(shown, std::chrono::seconds(5));
  }

  // The border, a drawing from (640, 432) to (1120, 756) half over the first window, and the laser.
  void showOverlays(QRVPoint laser = {0.5, 0.5}) {
    indicator_ = std::make_unique<QRVLinuxSessionIndicator>(display_, mainScreen_);
    indicator_->show();
    canvas_ = std::make_shared<X11AnnotationCanvas>(display_, mainScreen_);
    annotations_ = std::make_unique<QRVLinuxAnnotations>(canvas_, main_.get());
    annotations_->setActive(true);
    annotations_->updateDrawnAnnotation(
        *QRVDrawing::from(Value::Map{{"type", "Drawing"},
                                     {"id", "d"},
                                     {"x", 1.0 / 3},
                                     {"y", 0.4},
                                     {"width", 0.25},
                                     {"height", 0.3},
                                     {"image", solidPng(48, 32, 0, 0, 1)}}));
    moveLaser(laser);
    ASSERT_TRUE(waitForScreen([&] {
      return screenPixel(0, 0) == kRed && screenPixel(1919, 540) == kRed &&
             screenPixel(900, 600) == 0x0000ff && near(screenPixel(laserX_, laserY_), 0x00ff00, 8);
    })) << "the overlays never showed";
  }

  void moveLaser(QRVPoint at) {
    laserX_ = int(at.x * 1920);
    laserY_ = int(at.y * 1080);
    annotations_->updateLaserAnnotation(*QRVLaser::from(Value::Map{{"type", "Laser"},
                                                                   {"id", "l"},
                                                                   {"state", "touchmove"},
                                                                   {"x", at.x},
                                                                   {"y", at.y},
                                                                   {"colour", "00ff00"}}));
  }

  std::shared_ptr<QRVFrame> next(QRVX11DisplayFrameSource& source) {
    queue_->advance(QRVX11DisplayFrameSource::kMinCaptureInterval);
    return source.newFrame(1.0);
  }

  // A fresh source's first frame: a read of the screen as it is now.
  std::shared_ptr<QRVFrame> freshFrame() {
    QRVX11DisplayFrameSource source(queue_, testDisplayName());
    source.capturingWillStart();
    return next(source);
  }

  // Frames of a source until two in a row are one image: the screen has settled.
  std::shared_ptr<QRVFrame> settledFrame(QRVX11DisplayFrameSource& source) {
    std::shared_ptr<QRVFrame> previous = next(source);
    for (int i = 0; i < kMaxTicks; ++i) {
      auto frame = next(source);
      if (frame && previous && frame->image() == previous->image())
        return frame;
      previous = frame;
    }
    return nullptr;
  }

  LogCapture logs_;
  ScopedManualMainQueue main_;
  std::shared_ptr<ManualExecutor> queue_ = std::make_shared<ManualExecutor>();
  std::unique_ptr<X11TestClient> client_;
  std::shared_ptr<X11Display> display_;
  MainScreenFrame mainScreen_ = [] { return QRVRect{0, 0, 1920, 1080}; };
  std::unique_ptr<QRVLinuxSessionIndicator> indicator_;
  std::shared_ptr<X11AnnotationCanvas> canvas_;
  std::unique_ptr<QRVLinuxAnnotations> annotations_;
  std::vector<xcb_window_t> windows_;
  int laserX_ = 0;
  int laserY_ = 0;
};

TEST_F(DisplayOverlayTest, FramesWithTheOverlaysUpEqualFramesWithout) {
  createWindows();
  QRVX11DisplayFrameSource source(queue_, testDisplayName());
  source.capturingWillStart();
  auto without = settledFrame(source);
  ASSERT_NE(without, nullptr);
  ASSERT_EQ(pixelAt(*without, 300, 400), busyPattern(0, 0));

  // The laser over the first window, then over the root background.
  for (QRVPoint laser : {QRVPoint{0.25, 0.5}, QRVPoint{0.5, 0.2}}) {
    showOverlays(laser);
    auto with = freshFrame();
    ASSERT_NE(with, nullptr);
    const Mismatch m = compare(*without, *with);
    EXPECT_EQ(m.count, 0) << "first differences:" << m.first;
    EXPECT_NE(pixelAt(*with, 0, 0), kRed);
    EXPECT_TRUE(logs_.mentions("top-level windows redirected"));

    // The running source too, once the overlays' own drawing has been taken in.
    auto running = settledFrame(source);
    ASSERT_NE(running, nullptr);
    EXPECT_EQ(compare(*without, *running).count, 0);
    annotations_.reset();
    canvas_.reset();
    indicator_.reset();
  }
}

TEST_F(DisplayOverlayTest, WithoutSharedMemoryTheWindowsBeneathAreReadThroughTheSocket) {
  struct Reset {
    ~Reset() { x11::ShmSegment::setKindsForTesting(x11::ShmSegment::Kinds::all); }
  } reset;
  x11::ShmSegment::setKindsForTesting(x11::ShmSegment::Kinds::none);
  createWindows();
  QRVX11DisplayFrameSource source(queue_, testDisplayName());
  source.capturingWillStart();
  auto without = settledFrame(source);
  ASSERT_NE(without, nullptr);
  showOverlays({0.25, 0.5});
  auto with = freshFrame();
  ASSERT_NE(with, nullptr);
  const Mismatch m = compare(*without, *with);
  EXPECT_EQ(m.count, 0) << "first differences:" << m.first;
  EXPECT_TRUE(logs_.mentions("no shared memory with the X server"));
}

TEST_F(DisplayOverlayTest, TheRootBackgroundPictureFillsWhatNoWindowCovers) {
  // A published background as desktop programs set it: the property and the root's own
  // background. Stripes three pixels wide, which no copying from eight pixels away reproduces.
  xcb_connection_t* c = client_->get();
  const xcb_pixmap_t pixmap = client_->publishBackground(0x203040);
  for (int x = 0; x < 1920; x += 6)
    client_->fill(pixmap, 0xa0b0c0, x, 0, 3, 1080);
  const xcb_atom_t rootPixmap = atom("_XROOTPMAP_ID");
  const auto publish = [&] {
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, client_->root(), rootPixmap, XCB_ATOM_PIXMAP, 32,
                        1, &pixmap);
    xcb_change_window_attributes(c, client_->root(), XCB_CW_BACK_PIXMAP, &pixmap);
    xcb_clear_area(c, 0, client_->root(), 0, 0, 0, 0);
    client_->sync();
  };
  // Published again, for a compositing manager to take the new picture in.
  publish();
  struct Restore {
    X11TestClient& client;
    ~Restore() {
      xcb_connection_t* c = client.get();
      const std::uint32_t none = XCB_BACK_PIXMAP_NONE;
      xcb_change_window_attributes(c, client.root(), XCB_CW_BACK_PIXMAP, &none);
      static constexpr char kName[] = "_XROOTPMAP_ID";
      std::unique_ptr<xcb_intern_atom_reply_t, decltype(&free)> atom(
          xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, sizeof kName - 1, kName), nullptr), &free);
      if (atom)
        xcb_delete_property(c, client.root(), atom->atom);
      xcb_clear_area(c, 0, client.root(), 0, 0, 0, 0);
      client.sync();
    }
  } restore{*client_};
  // A busy compositing manager can miss taking the picture in: published again until it shows.
  bool shown = false;
  for (int attempt = 0; attempt < 15 && !shown; ++attempt) {
    if (attempt > 0)
      publish();
    shown =
        main_->runUntil([&] { return screenPixel(1, 700) == 0xa0b0c0; }, std::chrono::seconds(1));
  }
  ASSERT_TRUE(shown) << "the published background never showed";

  createWindows();
  QRVX11DisplayFrameSource source(queue_, testDisplayName());
  source.capturingWillStart();
  auto without = settledFrame(source);
  ASSERT_NE(without, nullptr);
  ASSERT_EQ(pixelAt(*without, 1000, 700), 0x203040u);
  showOverlays({0.5, 0.2});
  auto with = freshFrame();
  ASSERT_NE(with, nullptr);
  const Mismatch m = compare(*without, *with);
  EXPECT_EQ(m.count, 0) << "first differences:" << m.first;
}

TEST_F(DisplayOverlayTest, OverlayChangesKeepTheHeldPictureAndChangesBeneathThemShow) {
  createWindows();
  QRVX11DisplayFrameSource source(queue_, testDisplayName());
  source.capturingWillStart();
  ASSERT_NE(settledFrame(source), nullptr);
  showOverlays({0.25, 0.5});
  auto held = settledFrame(source);
  ASSERT_NE(held, nullptr);

  // The laser moving damages the screen, but only under the laser, before and after.
  logs_.clear();
  moveLaser({0.3, 0.55});
  ASSERT_TRUE(waitForScreen([&] { return near(screenPixel(laserX_, laserY_), 0x00ff00, 8); }));
  std::shared_ptr<QRVFrame> frame;
  for (int i = 0; i < kMaxTicks && !logs_.mentions("damage under own overlays only"); ++i)
    frame = next(source);
  EXPECT_TRUE(logs_.mentions("damage under own overlays only"));
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->image(), held->image()) << "the same picture, handed out again";

  // A change in the window under the drawing is a change, though only the drawing shows on
  // screen there.
  client_->fill(windows_[0], 0x123456, 400, 100, 40, 40);
  auto changed = settledFrame(source);
  ASSERT_NE(changed, nullptr);
  EXPECT_EQ(pixelAt(*changed, 710, 510), 0x123456u);
  EXPECT_EQ(compare(*changed, *freshFrame()).count, 0);
}

TEST_F(DisplayOverlayTest, AWindowGoneBetweenTheListAndItsReadIsLoggedAndLeftOut) {
  // Half under the drawing, half beside it, so that its going shows on screen.
  const xcb_window_t window =
      client_->createWindow(1000, 500, 200, 100, [](int, int) { return 0x10e020u; });
  showOverlays({0.5, 0.2});
  auto grabber = DisplayGrabber::createX11(testDisplayName());
  ASSERT_NE(grabber, nullptr);
  const QRVScreenRect screen{0, 0, 1920, 1080};
  for (int i = 0; i < 2; ++i) {
    grabber->takeDamage(screen);
    ASSERT_FALSE(grabber->read(screen).empty());
  }
  // The grabber has heard of the window for the last time: it is gone before the read.
  grabber->takeDamage(screen);
  client_->destroy(window);
  ASSERT_TRUE(waitForScreen([&] { return screenPixel(1150, 550) != 0x10e020u; }));
  const auto read = grabber->read(screen);
  ASSERT_FALSE(read.empty());
  EXPECT_TRUE(logs_.mentions("could not be read under an overlay"));
  auto fresh = freshFrame();
  ASSERT_NE(fresh, nullptr);
  int wrong = 0;
  for (int y = 500; y < 600; ++y)
    for (int x = 1000; x < 1120; ++x) {
      const std::uint8_t* p = read.data + (std::size_t(y) * 1920 + x) * 4;
      wrong +=
          (std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0]) != pixelAt(*fresh, x, y);
    }
  EXPECT_EQ(wrong, 0) << "what lies under the drawing where the window was";
}

TEST_F(DisplayOverlayTest, RedirectionLastsWhileOverlaysAreUp) {
  createWindows();
  QRVX11DisplayFrameSource source(queue_, testDisplayName());
  source.capturingWillStart();
  auto without = settledFrame(source);
  ASSERT_NE(without, nullptr);
  showOverlays();
  next(source);
  EXPECT_TRUE(logs_.mentions("top-level windows redirected"));
  annotations_.reset();
  canvas_.reset();
  indicator_.reset();
  ASSERT_TRUE(waitForScreen([&] { return screenPixel(0, 0) != kRed; }));
  for (int i = 0; i < kMaxTicks && !logs_.mentions("no longer redirected"); ++i)
    next(source);
  EXPECT_TRUE(logs_.mentions("no longer redirected"));
  auto after = settledFrame(source);
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(compare(*without, *after).count, 0);

  // Capture stopping ends it too.
  showOverlays();
  next(source);
  logs_.clear();
  source.capturingWillStop();
  EXPECT_TRUE(logs_.mentions("no longer redirected"));
}

}  // namespace
}  // namespace quorvix::test

namespace quorvix::test {
namespace {

// Compositing managers that draw into Composite's overlay window show the composited screen, the
// library's overlays included, in a window over the root that no redirection reaches: it must never
// be read as a window beneath. A server of its own, since that window, once made, stays over
// everything while its maker lives; the test plays the compositing manager.
TEST(DisplayOverlayCompositorWindowTest, TheCompositorsOutputWindowIsNeverReadAsAWindowBeneath) {
  ChildProcess server(
      {"Xvfb", "-displayfd", "1", "-screen", "0", "640x480x24", "-nolisten", "tcp", "-noreset"});
  ASSERT_TRUE(server.started());
  auto number = server.readLine();
  ASSERT_TRUE(number.has_value()) << "Xvfb did not start";
  const std::string display = ":" + *number;

  LogCapture logs;
  ScopedManualMainQueue main;
  X11TestClient client(display);
  ASSERT_TRUE(client.ok());
  constexpr std::uint32_t kDesk = 0x303030, kApp = 0x00aa00;
  // An application's window, partly under the left strip of the border.
  client.createWindow(0, 100, 200, 150, [](int, int) { return kApp; });
  auto overlays = X11Display::open(display, main.get());
  ASSERT_TRUE(overlays);
  QRVLinuxSessionIndicator indicator(overlays, [] { return QRVRect{0, 0, 640, 480}; });
  indicator.show();
  client.sync();

  // A compositing manager running before the capture, as usual, painting the desktop, the window
  // and the red border over it.
  xcb_connection_t* c = client.get();
  std::unique_ptr<xcb_composite_get_overlay_window_reply_t, decltype(&free)> cow(
      xcb_composite_get_overlay_window_reply(c, xcb_composite_get_overlay_window(c, client.root()),
                                             nullptr),
      &free);
  ASSERT_NE(cow, nullptr);
  client.fill(cow->overlay_win, kDesk, 0, 0, 640, 480);
  client.fill(cow->overlay_win, kApp, 0, 100, 200, 150);
  for (QRVScreenRect strip : {QRVScreenRect{0, 0, 640, 5}, QRVScreenRect{0, 475, 640, 5},
                              QRVScreenRect{0, 0, 5, 480}, QRVScreenRect{635, 0, 5, 480}})
    client.fill(cow->overlay_win, kRed, strip.x, strip.y, strip.width, strip.height);

  auto queue = std::make_shared<ManualExecutor>();
  QRVX11DisplayFrameSource source(queue, display);
  source.capturingWillStart();
  queue->advance(QRVX11DisplayFrameSource::kMinCaptureInterval);
  auto frame = source.newFrame(1.0);
  ASSERT_NE(frame, nullptr);
  EXPECT_TRUE(logs.mentions("top-level windows redirected"));
  EXPECT_EQ(pixelAt(*frame, 2, 150), kApp) << "the window under the border";
  EXPECT_EQ(pixelAt(*frame, 2, 300), kDesk);
  EXPECT_EQ(pixelAt(*frame, 320, 2), kDesk);
  int red = 0;
  for (int y = 0; y < 480; ++y)
    for (int x = 0; x < 640; ++x)
      red += pixelAt(*frame, x, y) == kRed;
  EXPECT_EQ(red, 0);
  source.capturingWillStop();
}

}  // namespace
}  // namespace quorvix::test

// What the library draws over the screen on X11: click-through override-redirect windows kept
// above every other window. With a compositing manager they are 32-bit and blend (fades
// included); without one they are opaque and cut to their drawn pixels with a bounding shape.
// Every window carries _QUORVIX_OWN_WINDOW, by which the frame sources leave it out.
//
// Threads: main queue only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "annotations/QRVLinuxAnnotations.h"
#include "session-ui/QRVSessionUIParts.h"
#include "session-ui/linux/X11Display.h"

namespace quorvix {

using MainScreenFrame = std::function<QRVRect()>;

class X11OverlayWindow {
 public:
  // A hidden window over `frame` (root coordinates). Solid windows show `rgb` and need no
  // pixels; others are painted.
  X11OverlayWindow(std::shared_ptr<X11Display> display,
                   const QRVRect& frame,
                   std::optional<std::uint32_t> solidRGB = std::nullopt);
  ~X11OverlayWindow();
  X11OverlayWindow(const X11OverlayWindow&) = delete;
  X11OverlayWindow& operator=(const X11OverlayWindow&) = delete;

  xcb_window_t id() const { return window_; }
  bool translucent() const { return depth_ == 32; }
  void setFrame(const QRVRect& frame);
  void show();
  void hide();
  void raise();
  // Premultiplied ARGB pixels of the window's size; the window keeps them (as its background)
  // and, where it cannot blend, is cut to the pixels that are not transparent.
  void paint(const std::uint32_t* pixels, int width, int height);
  // 0 (invisible) to 1; effective with a compositing manager only.
  void setOpacity(double opacity);

 private:
  std::shared_ptr<X11Display> display_;
  xcb_window_t window_ = XCB_NONE;
  xcb_colormap_t colormap_ = XCB_NONE;
  xcb_pixmap_t pixmap_ = XCB_NONE;
  std::uint8_t depth_ = 24;
  int width_ = 0;
  int height_ = 0;
};

// Raises the library's overlay windows again whenever another client maps or restacks a window
// of its own (a menu, a tooltip), so that the border and the agent's ink stay on top.
class X11KeepAbove {
 public:
  explicit X11KeepAbove(std::shared_ptr<X11Display> display);
  ~X11KeepAbove();
  void add(xcb_window_t window);
  void remove(xcb_window_t window);

 private:
  std::shared_ptr<X11Display> display_;
  int handler_ = 0;
  std::set<xcb_window_t> windows_;
};

// The red border round the main screen while a session is live: four solid strips.
class QRVLinuxSessionIndicator : public QRVSessionIndication {
 public:
  static constexpr int kBorderWidth = 5;
  QRVLinuxSessionIndicator(std::shared_ptr<X11Display> display, MainScreenFrame mainScreen);
  ~QRVLinuxSessionIndicator() override;
  void show() override;
  void hide() override;
  bool isShown() const { return !strips_.empty(); }

 private:
  std::shared_ptr<X11Display> display_;
  MainScreenFrame mainScreen_;
  std::unique_ptr<X11KeepAbove> keepAbove_;
  std::vector<std::unique_ptr<X11OverlayWindow>> strips_;
};

// The agent's drawings and laser dot, each a window of its own over the main screen.
class X11AnnotationCanvas : public QRVAnnotationCanvas,
                            public std::enable_shared_from_this<X11AnnotationCanvas> {
 public:
  static constexpr int kLaserSize = 14;
  X11AnnotationCanvas(std::shared_ptr<X11Display> display, MainScreenFrame mainScreen);
  ~X11AnnotationCanvas() override;

  QRVRect screenFrame() const override { return mainScreen_(); }
  void setVisible(bool visible, const QRVRect& frame) override;
  ViewId addView() override;
  void setPicture(ViewId view,
                  const QRVRect& rect,
                  const Value::Bytes& picture,
                  const std::string& mimeType) override;
  void fadeOut(ViewId view, Duration duration) override;
  void removeView(ViewId view) override;
  void showLaser(QRVPoint center, QRVColor color) override;
  void hideLaser() override;

 private:
  struct View {
    std::unique_ptr<X11OverlayWindow> window;
    bool painted = false;
    // Bumped by every new picture, so that the steps of an earlier fade stop.
    int fadeGeneration = 0;
  };
  void fadeStep(ViewId view, int generation, SteadyTime start, Duration duration);

  std::shared_ptr<X11Display> display_;
  MainScreenFrame mainScreen_;
  X11KeepAbove keepAbove_;
  bool visible_ = false;
  QRVRect frame_;
  std::map<ViewId, View> views_;
  ViewId nextView_ = 1;
  std::unique_ptr<X11OverlayWindow> laser_;
  bool laserShown_ = false;
};

}  // namespace quorvix

// Keeps the library's own overlay windows (the border, the agent's ink and laser: override-redirect
// top-level windows carrying _QUORVIX_OWN_WINDOW) out of reads of the root window. X11 has no way
// to leave a window out of a screen read, so while such a window is mapped the root's children
// are redirected (Composite, automatic: the server still paints them, but each keeps its own
// pixmap), and after a read the pixels under each overlay are rebuilt from the windows beneath,
// bottom to top, over the root background. The root's children are followed from the structure
// notifications of the owner's connection, which must select substructure and property changes on
// the root before this is made.
//
// Threads: its connection's thread only (the display grabber's).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <xcb/xcb.h>

#include "frameloop/OverlayRepair.h"
#include "frameloop/linux/XcbConnection.h"
#include "frameloop/linux/XcbShm.h"

namespace quorvix::x11 {

class X11OwnOverlays {
 public:
  // Captures in a row without an overlay before the redirection ends: a laser dot coming and going
  // must not remap every window each time.
  static constexpr int kIdleCapturesBeforeUnredirect = 10;
  // Bounds on what the server may hand over.
  static constexpr int kMaxTopLevels = 8192;
  // Reads of the windows beneath in one repair, in screens' worth of pixels.
  static constexpr std::size_t kMaxReadScreens = 4;

  // `c` must outlive this.
  explicit X11OwnOverlays(const XcbConnection& c);
  ~X11OwnOverlays();
  X11OwnOverlays(const X11OwnOverlays&) = delete;
  X11OwnOverlays& operator=(const X11OwnOverlays&) = delete;

  // Follows the root's children; call for every event read on the connection.
  void handleEvent(const xcb_generic_event_t& event);
  // Drawing in a window under an overlay shows nowhere on screen, so the root's damage misses it:
  // such windows are watched themselves (DAMAGE, when `damageEvent` is not 0). Returns the parts
  // of the overlays over windows drawn in since the last call.
  std::vector<QRVScreenRect> takeDamageBeneath();
  void setDamageEvent(std::uint8_t damageEvent) { damageEvent_ = damageEvent; }
  // Once per capture, before reading: learns which newly mapped windows are the library's and
  // redirects, or ends the redirection, as they come and go.
  void update();
  // Whether reads need repair: overlays are mapped and their windows beneath can be read.
  bool active() const { return redirected_ && !overlays_.empty(); }
  // The mapped overlays' rectangles (root coordinates) as of the last update().
  const std::vector<QRVScreenRect>& overlays() const { return overlays_; }
  // Rebuilds the pixels of `dst` under every overlay. `reference` is a read of the screen whose
  // pixels outside the overlays are current, for the root background; it may be `dst` itself.
  // Windows vanishing meanwhile are logged and skipped.
  void repair(PixelView dst, ConstPixelView reference);

 private:
  struct TopLevel {
    xcb_window_t id = XCB_NONE;
    QRVScreenRect rect;  // outer, border included
    int border = 0;
    bool mapped = false;
    bool overrideRedirect = false;
    std::optional<bool> own;  // looked up once mapped
    // Its class and depth, looked up once mapped: input-only windows show nothing, and a 24-bit
    // window hides whatever is below it.
    bool described = false;
    bool drawn = false;
    std::uint8_t depth = 0;
    std::uint32_t damage = XCB_NONE;  // while it lies under an overlay
    bool damaged = false;
  };
  struct RootPixmap {
    xcb_pixmap_t id = XCB_NONE;
    QRVScreenRect rect;
  };

  void scan();
  void add(const TopLevel& t);
  TopLevel* find(xcb_window_t id);
  void restack(xcb_window_t id, xcb_window_t sibling);
  void setRedirected(bool redirected);
  void watchBeneath();
  void unwatch(TopLevel& t);
  std::optional<RootPixmap> rootPixmap();

  const XcbConnection& c_;
  xcb_atom_t ownAtom_ = XCB_NONE;
  xcb_atom_t rootPixmapAtom_ = XCB_NONE;
  bool canRedirect_ = false;
  bool redirected_ = false;
  int idleCaptures_ = 0;
  bool warnedFull_ = false;
  bool warnedReads_ = false;
  std::uint8_t damageEvent_ = 0;
  std::vector<TopLevel> stack_;  // the root's children, bottom to top
  std::vector<QRVScreenRect> overlays_;
  bool useShm_ = false;
  std::unique_ptr<ShmSegment> scratch_;  // what the windows beneath are read into
  bool rootPixmapKnown_ = false;
  std::optional<RootPixmap> rootPixmap_;
};

}  // namespace quorvix::x11

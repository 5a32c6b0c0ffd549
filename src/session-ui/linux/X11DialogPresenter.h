// Consent dialogs as small managed X windows: a dialog-type window kept above the others and
// centred on the main screen, drawn with cairo and pango (bold title, wrapped message, the two
// buttons in order), operated with the mouse or the keyboard (Tab, Shift+Tab and the arrow keys
// move the focus, Enter or space presses the focused button, Escape and the window's close
// button deny).
//
// With a window manager the dialog asks to be kept above and the manager focuses it; without
// one the dialog focuses itself once mapped, and is on top when it appears (nothing raises it
// again over windows mapped later).
//
// The second button has the focus when a dialog opens: a keystroke meant for another window
// that lands in a freshly focused consent prompt must never grant anything.
//
// A dialog whose window vanishes, or whose X connection is lost, answers the second button:
// the user can no longer answer it, and leaving the question open would keep the request
// pending with nothing on screen; refusing is the only answer given without consent.
//
// Threads: main queue only (asserted). Answers run on the main queue from the display's event
// handlers, never after the dialog object is gone.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>

#include "annotations/QRVAnnotationRecords.h"
#include "session-ui/QRVLinuxConfirmPrompt.h"
#include "session-ui/linux/X11Display.h"

namespace quorvix {

class X11DialogPresenter : public QRVDialogPresenter {
 public:
  // The main screen's frame in root coordinates; an empty one centres on the whole root.
  using MainScreen = std::function<QRVRect()>;

  X11DialogPresenter(std::shared_ptr<X11Display> display, MainScreen mainScreen);

  std::unique_ptr<QRVDialog> present(const QRVDialogContent& content,
                                     std::function<void(int answer)> onAnswer) override;

  // What tests look at: a dialog's window, its buttons in window pixels, the focused button.
  struct Inspection {
    xcb_window_t window = XCB_NONE;
    std::array<QRVRect, 2> buttons;
    int focused = 0;
    double scale = 1;
  };
  // Nothing for a dialog this presenter did not make or whose window is closed.
  static std::optional<Inspection> inspect(const QRVDialog& dialog);

 private:
  const std::shared_ptr<X11Display> display_;
  const MainScreen mainScreen_;
};

}  // namespace quorvix

// Follows the main screen of the desktop and tells subscribers when it changes (a monitor added,
// removed, moved or resized, the primary one switched). Methods may be called from any thread;
// subscribers are called on the executor given at creation, never after unsubscribe() returned on
// that executor's thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "frameloop/QRVScreen.h"
#include "quorvix/Executor.h"

namespace quorvix {

class QRVScreenWatcher {
 public:
  using Callback = std::function<void(std::shared_ptr<const QRVScreen>)>;

  virtual ~QRVScreenWatcher() = default;
  // The main screen as last read; nullptr while the display cannot be reached.
  virtual std::shared_ptr<const QRVScreen> mainScreen() const = 0;
  virtual int subscribe(Callback callback) = 0;
  virtual void unsubscribe(int id) = 0;

  // The watcher of an X display ("" = $DISPLAY): the primary RandR monitor, else the whole root
  // window at 60 Hz. Always returns a watcher; one that lost or never had its display reports no
  // screen.
  static std::unique_ptr<QRVScreenWatcher> createX11(std::shared_ptr<Executor> executor,
                                                     const std::string& displayName);
};

}  // namespace quorvix

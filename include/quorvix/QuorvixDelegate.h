// The host application's delegate: told about the current session, and given the chance to take
// over the consent prompts and the session indicator, or to veto single input events.
//
// Threads: every method is called on the main queue (quorvix/Executor.h).
#pragma once

#include <memory>

#include "quorvix/QRVError.h"
#include "quorvix/QRVKeyPress.h"
#include "quorvix/QRVMouseEvent.h"
#include "quorvix/QRVSession.h"
#include "quorvix/QRVTouchEvent.h"

namespace quorvix {

class QuorvixDelegate {
 public:
  virtual ~QuorvixDelegate() = default;

  // The session was updated, and it ended. The only two a host must implement.
  virtual void quorviSessionDidUpdate(const std::shared_ptr<QRVSession>& session) = 0;
  virtual void quorviSessionDidEnd(const std::shared_ptr<QRVSession>& session) = 0;

  // A created or fetched session is ready (after a failed fetch: the session that failed to load).
  virtual void quorviSessionDidLoad(const std::shared_ptr<QRVSession>& /*session*/) {}
  virtual void quorviSessionMetricsDidUpdate(const std::shared_ptr<QRVSession>& /*session*/) {}

  // Taking over the built-in prompts and indicator: return true when the host handled it (and
  // answers through the session's setters); false leaves it to the library.
  virtual bool quorviHandleSessionRequest(const std::shared_ptr<QRVSession>& /*session*/) {
    return false;
  }
  virtual bool quorviHandleFullDeviceRequest(const std::shared_ptr<QRVSession>& /*session*/) {
    return false;
  }
  virtual bool quorviHandleRemoteControlRequest(const std::shared_ptr<QRVSession>& /*session*/) {
    return false;
  }
  virtual bool quorviShowSessionControls(const std::shared_ptr<QRVSession>& /*session*/) {
    return false;
  }
  // The library's own indicator is hidden whatever this returns.
  virtual bool quorviHideSessionControls(const std::shared_ptr<QRVSession>& /*session*/) {
    return false;
  }

  // Sharing the whole display failed; the session falls back to the application's windows.
  virtual void quorviScreenCaptureDidFail(const std::shared_ptr<QRVSession>& /*session*/,
                                          const QRVError& /*error*/) {}

  // Vetoes of single agent events that the session otherwise allows.
  virtual bool quorviShouldAllowKeyEvent(const QRVKeyPress& /*event*/,
                                         const std::shared_ptr<QRVSession>& /*session*/) {
    return true;
  }
  virtual bool quorviShouldAllowMouseEvent(const QRVMouseEvent& /*event*/,
                                           const std::shared_ptr<QRVSession>& /*session*/) {
    return true;
  }
  virtual bool quorviShouldAllowTouchEvent(const QRVTouchEvent& /*event*/,
                                           const std::shared_ptr<QRVSession>& /*session*/) {
    return true;
  }
};

}  // namespace quorvix

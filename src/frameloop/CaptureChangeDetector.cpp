#include "frameloop/CaptureChangeDetector.h"

namespace quorvix {

CaptureChangeDetector::Action CaptureChangeDetector::decide(SteadyTime now,
                                                            bool damaged,
                                                            const QRVPointerState& pointer,
                                                            bool havePicture) {
  pointerChanged_ = !pointer_ || *pointer_ != pointer;
  pointer_ = pointer;
  verifying_ = false;
  if (!havePicture || damaged) {
    lastFullRead_ = now;
    return Action::capture;
  }
  if (polling_) {
    lastFullRead_ = now;
    return Action::compare;
  }
  if (now - lastFullRead_ >= kVerifyInterval) {
    lastFullRead_ = now;
    verifying_ = true;
    return Action::compare;
  }
  return pointerChanged_ ? Action::recomposite : Action::reuse;
}

bool CaptureChangeDetector::compared(bool differs) {
  const bool missed = differs && verifying_ && !polling_;
  verifying_ = false;
  if (missed)
    polling_ = true;
  return missed;
}

void CaptureChangeDetector::reset() {
  pointer_.reset();
  verifying_ = false;
}

}  // namespace quorvix

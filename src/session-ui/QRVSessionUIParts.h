// What the session UI drives: the consent prompt, the session indicator and the annotations
// overlay. Each has a built-in platform implementation and a fake in the tests. Main queue only.
#pragma once

#include <memory>

#include "annotations/QRVAnnotationRecords.h"
#include "quorvix/QRVSession.h"
#include "quorvix/QRVTouchEvent.h"

namespace quorvix {

// Asks the user, without blocking the caller: the answer arrives later on the main queue and is
// applied to the session by the prompt itself. A cancel closes the question if it is still open.
class QRVConsentPrompt {
 public:
  virtual ~QRVConsentPrompt() = default;
  virtual void handleSessionRequest(const std::shared_ptr<QRVSession>& session) = 0;
  virtual void cancelSessionRequest() = 0;
  virtual void handleFullDeviceRequest(const std::shared_ptr<QRVSession>& session) = 0;
  virtual void cancelFullDeviceRequest() = 0;
  virtual void handleRemoteControlRequest(const std::shared_ptr<QRVSession>& session) = 0;
  virtual void cancelRemoteControlRequest() = 0;
  // A question is on screen. The agent's input is dropped meanwhile, so that an agent with
  // remote control cannot answer for the user.
  virtual bool isPrompting() const = 0;
};

// Shows the user that the screen is being shared.
class QRVSessionIndication {
 public:
  virtual ~QRVSessionIndication() = default;
  virtual void show() = 0;
  virtual void hide() = 0;
};

// The agent's drawings and laser dot over the main screen.
class QRVAnnotations {
 public:
  virtual ~QRVAnnotations() = default;
  virtual void updateDrawnAnnotation(const QRVDrawing& drawing) = 0;
  virtual void updateLaserAnnotation(const QRVLaser& laser) = 0;
  virtual void updateAgentTouches(const QRVTouchEvent& touch) = 0;
  // Shown over the main screen's current frame, or hidden with every drawing cleared.
  virtual void setActive(bool active) = 0;
  // Removes every drawing and hides the laser dot.
  virtual void clear() = 0;
};

}  // namespace quorvix

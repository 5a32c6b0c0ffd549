// The agent's annotations over the main screen: drawings filed by agent and drawing id, fading on
// the message's schedule, and the laser dot. The pixels are the canvas's business (X11 overlay
// windows in the library, a recorder in the tests); this is what to show where and when.
//
// Threads: main queue only (asserted); fade timers run there.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "annotations/QRVAnnotationRecords.h"
#include "quorvix/Executor.h"
#include "session-ui/QRVSessionUIParts.h"

namespace quorvix {

// The overlay's platform side: click-through, above everything, never in a captured frame.
// Rectangles and points are in pixels relative to the overlay's top-left corner.
class QRVAnnotationCanvas {
 public:
  using ViewId = std::uint64_t;
  virtual ~QRVAnnotationCanvas() = default;
  // The main screen's current frame in root coordinates.
  virtual QRVRect screenFrame() const = 0;
  // Moves the overlay onto `frame` and shows it, or hides it.
  virtual void setVisible(bool visible, const QRVRect& frame) = 0;
  virtual ViewId addView() = 0;
  // Shows the picture scaled into `rect`, fully opaque. A picture that does not decode leaves
  // the view empty.
  virtual void setPicture(ViewId view,
                          const QRVRect& rect,
                          const Value::Bytes& picture,
                          const std::string& mimeType) = 0;
  // Fades the view out over `duration` (at once where the display cannot blend). Unknown views
  // are ignored.
  virtual void fadeOut(ViewId view, Duration duration) = 0;
  virtual void removeView(ViewId view) = 0;
  // The laser dot centred on `center`, or hidden.
  virtual void showLaser(QRVPoint center, QRVColor color) = 0;
  virtual void hideLaser() = 0;
};

// Screen fractions (origin top left) to overlay pixels, for a frame of the given size.
QRVRect overlayRect(const QRVRect& fractions, const QRVRect& frame);
QRVPoint overlayPoint(QRVPoint fractions, const QRVRect& frame);

class QRVLinuxDrawingManager : public std::enable_shared_from_this<QRVLinuxDrawingManager> {
 public:
  static std::shared_ptr<QRVLinuxDrawingManager> create(std::shared_ptr<QRVAnnotationCanvas> canvas,
                                                        std::shared_ptr<Executor> mainQueue);

  // Shows the drawing in `rect`; a drawing with the same agent and id replaces the picture in
  // its view. Schedules the fade when the drawing asks for one.
  void addDrawing(const QRVDrawing& drawing, const QRVRect& rect);
  void removeDrawing(const std::string& agent, const std::string& id);
  void clearForAgent(const std::string& agent);
  void clear();
  std::size_t count() const;

 private:
  QRVLinuxDrawingManager(std::shared_ptr<QRVAnnotationCanvas> canvas,
                         std::shared_ptr<Executor> mainQueue);
  QRVAnnotationCanvas::ViewId viewFor(const std::string& agent, const std::string& id);
  void hideAnnotation(QRVAnnotationCanvas::ViewId view, const QRVDrawing& drawing);

  const std::shared_ptr<QRVAnnotationCanvas> canvas_;
  const std::shared_ptr<Executor> mainQueue_;
  std::map<std::string, std::map<std::string, QRVAnnotationCanvas::ViewId>> annotationsByAgent_;
};

class QRVLinuxAnnotations : public QRVAnnotations {
 public:
  QRVLinuxAnnotations(std::shared_ptr<QRVAnnotationCanvas> canvas,
                      std::shared_ptr<Executor> mainQueue);
  ~QRVLinuxAnnotations() override;

  void updateDrawnAnnotation(const QRVDrawing& drawing) override;
  void updateLaserAnnotation(const QRVLaser& laser) override;
  // The pointer tool draws nothing on this platform.
  void updateAgentTouches(const QRVTouchEvent& /*touch*/) override {}
  void setActive(bool active) override;
  void clear() override;

  QRVLinuxDrawingManager& drawingManager() { return *drawingManager_; }

 private:
  const std::shared_ptr<QRVAnnotationCanvas> canvas_;
  const std::shared_ptr<Executor> mainQueue_;
  const std::shared_ptr<QRVLinuxDrawingManager> drawingManager_;
  QRVRect frame_;
};

}  // namespace quorvix

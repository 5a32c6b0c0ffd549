#include "annotations/QRVLinuxAnnotations.h"

#include <cassert>
#include <chrono>

namespace quorvix {
namespace {

Duration milliseconds(std::optional<double> value) {
  // The message's integer value; negative or absent counts as none.
  const double ms = value ? *value : 0;
  return std::chrono::milliseconds(ms > 0 && ms < 1e12 ? static_cast<std::int64_t>(ms) : 0);
}

}  // namespace

QRVRect overlayRect(const QRVRect& fractions, const QRVRect& frame) {
  return {fractions.x * frame.width, fractions.y * frame.height, fractions.width * frame.width,
          fractions.height * frame.height};
}

QRVPoint overlayPoint(QRVPoint fractions, const QRVRect& frame) {
  return {fractions.x * frame.width, fractions.y * frame.height};
}

std::shared_ptr<QRVLinuxDrawingManager> QRVLinuxDrawingManager::create(
    std::shared_ptr<QRVAnnotationCanvas> canvas,
    std::shared_ptr<Executor> mainQueue) {
  return std::shared_ptr<QRVLinuxDrawingManager>(
      new QRVLinuxDrawingManager(std::move(canvas), std::move(mainQueue)));
}

QRVLinuxDrawingManager::QRVLinuxDrawingManager(std::shared_ptr<QRVAnnotationCanvas> canvas,
                                               std::shared_ptr<Executor> mainQueue)
    : canvas_(std::move(canvas)), mainQueue_(std::move(mainQueue)) {}

QRVAnnotationCanvas::ViewId QRVLinuxDrawingManager::viewFor(const std::string& agent,
                                                            const std::string& id) {
  auto& views = annotationsByAgent_[idOrDefault(agent)];
  auto [it, added] = views.try_emplace(idOrDefault(id), 0);
  if (added)
    it->second = canvas_->addView();
  return it->second;
}

void QRVLinuxDrawingManager::addDrawing(const QRVDrawing& drawing, const QRVRect& rect) {
  assert(mainQueue_->isCurrent());
  const auto view = viewFor(drawing.agent(), drawing.idKey());
  canvas_->setPicture(view, rect, drawing.image(), drawing.mimeType());
  hideAnnotation(view, drawing);
}

void QRVLinuxDrawingManager::hideAnnotation(QRVAnnotationCanvas::ViewId view,
                                            const QRVDrawing& drawing) {
  if (!drawing.disappearsIn())
    return;
  // Never cancelled: a timer of an earlier drawing removes whatever holds its key when it fires.
  std::weak_ptr<QRVLinuxDrawingManager> weak = weak_from_this();
  const Duration fade = milliseconds(drawing.fadeDuration());
  mainQueue_->postAfter(milliseconds(drawing.disappearsIn()),
                        [weak, view, fade, agent = drawing.agent(), id = drawing.idKey()] {
                          auto self = weak.lock();
                          if (!self)
                            return;
                          self->canvas_->fadeOut(view, fade);
                          self->mainQueue_->postAfter(fade, [weak, agent, id] {
                            if (auto manager = weak.lock())
                              manager->removeDrawing(agent, id);
                          });
                        });
}

void QRVLinuxDrawingManager::removeDrawing(const std::string& agent, const std::string& id) {
  auto views = annotationsByAgent_.find(idOrDefault(agent));
  if (views == annotationsByAgent_.end())
    return;
  auto view = views->second.find(idOrDefault(id));
  if (view == views->second.end())
    return;
  canvas_->removeView(view->second);
  views->second.erase(view);
  if (views->second.empty())
    annotationsByAgent_.erase(views);
}

void QRVLinuxDrawingManager::clearForAgent(const std::string& agent) {
  auto views = annotationsByAgent_.find(idOrDefault(agent));
  if (views == annotationsByAgent_.end())
    return;
  for (const auto& [id, view] : views->second)
    canvas_->removeView(view);
  annotationsByAgent_.erase(views);
}

void QRVLinuxDrawingManager::clear() {
  while (!annotationsByAgent_.empty())
    clearForAgent(annotationsByAgent_.begin()->first);
}

std::size_t QRVLinuxDrawingManager::count() const {
  std::size_t n = 0;
  for (const auto& [agent, views] : annotationsByAgent_)
    n += views.size();
  return n;
}

QRVLinuxAnnotations::QRVLinuxAnnotations(std::shared_ptr<QRVAnnotationCanvas> canvas,
                                         std::shared_ptr<Executor> mainQueue)
    : canvas_(std::move(canvas)),
      mainQueue_(mainQueue),
      drawingManager_(QRVLinuxDrawingManager::create(canvas_, std::move(mainQueue))),
      frame_(canvas_->screenFrame()) {}

QRVLinuxAnnotations::~QRVLinuxAnnotations() {
  drawingManager_->clear();
  canvas_->hideLaser();
  canvas_->setVisible(false, frame_);
}

void QRVLinuxAnnotations::updateDrawnAnnotation(const QRVDrawing& drawing) {
  assert(mainQueue_->isCurrent());
  if (drawing.image().empty()) {
    drawingManager_->clearForAgent(drawing.agent());
    return;
  }
  drawingManager_->addDrawing(drawing, overlayRect(drawing.bounds(), frame_));
}

void QRVLinuxAnnotations::updateLaserAnnotation(const QRVLaser& laser) {
  assert(mainQueue_->isCurrent());
  if (laser.isEnd()) {
    canvas_->hideLaser();
    return;
  }
  canvas_->showLaser(overlayPoint(laser.position(), frame_), colorFromHexString(laser.color()));
}

void QRVLinuxAnnotations::clear() {
  drawingManager_->clear();
  canvas_->hideLaser();
}

void QRVLinuxAnnotations::setActive(bool active) {
  assert(mainQueue_->isCurrent());
  if (active)
    frame_ = canvas_->screenFrame();
  else
    drawingManager_->clear();
  canvas_->setVisible(active, frame_);
}

}  // namespace quorvix

// Recorders standing in for the prompt, the indicator, the overlay and the service in the
// session UI tests.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "annotations/QRVLinuxAnnotations.h"
#include "session-ui/QRVSessionUIParts.h"
#include "support/RecordingURLSession.h"

namespace quorvix::test {

// Writes each call into a log shared by the fakes of a test.
struct CallLog {
  std::vector<std::string> calls;
  void add(std::string call) { calls.push_back(std::move(call)); }
  bool has(const std::string& call) const {
    for (const auto& c : calls)
      if (c == call)
        return true;
    return false;
  }
};

class FakePrompt : public QRVConsentPrompt {
 public:
  explicit FakePrompt(CallLog& log) : log_(log) {}
  void handleSessionRequest(const std::shared_ptr<QRVSession>&) override {
    log_.add("prompt session");
  }
  void cancelSessionRequest() override { log_.add("cancel session"); }
  void handleFullDeviceRequest(const std::shared_ptr<QRVSession>&) override {
    log_.add("prompt full device");
  }
  void cancelFullDeviceRequest() override { log_.add("cancel full device"); }
  void handleRemoteControlRequest(const std::shared_ptr<QRVSession>&) override {
    log_.add("prompt remote control");
  }
  void cancelRemoteControlRequest() override { log_.add("cancel remote control"); }
  bool isPrompting() const override { return false; }

 private:
  CallLog& log_;
};

class FakeIndicator : public QRVSessionIndication {
 public:
  explicit FakeIndicator(CallLog& log) : log_(log) {}
  void show() override { log_.add("indicator show"); }
  void hide() override { log_.add("indicator hide"); }

 private:
  CallLog& log_;
};

class FakeAnnotations : public QRVAnnotations {
 public:
  explicit FakeAnnotations(CallLog& log) : log_(log) {}
  void updateDrawnAnnotation(const QRVDrawing&) override { log_.add("drawing"); }
  void updateLaserAnnotation(const QRVLaser&) override { log_.add("laser"); }
  void updateAgentTouches(const QRVTouchEvent&) override { log_.add("touch"); }
  void setActive(bool active) override { log_.add(active ? "active" : "inactive"); }
  void clear() override { log_.add("clear annotations"); }

 private:
  CallLog& log_;
};

// Views as a list of what each one shows.
class RecordingCanvas : public QRVAnnotationCanvas {
 public:
  struct View {
    QRVRect rect;
    std::size_t pictureBytes = 0;
    int pictures = 0;
    std::optional<Duration> fading;
  };
  QRVRect frame{0, 0, 1920, 1080};
  bool visible = false;
  std::optional<QRVPoint> laser;
  QRVColor laserColor;
  std::map<ViewId, View> views;
  ViewId next = 1;

  QRVRect screenFrame() const override { return frame; }
  void setVisible(bool v, const QRVRect&) override { visible = v; }
  ViewId addView() override {
    views[next] = {};
    return next++;
  }
  void setPicture(ViewId id,
                  const QRVRect& rect,
                  const Value::Bytes& picture,
                  const std::string&) override {
    auto& view = views.at(id);
    view.rect = rect;
    view.pictureBytes = picture.size();
    view.pictures++;
    view.fading.reset();
  }
  void fadeOut(ViewId id, Duration duration) override {
    if (auto it = views.find(id); it != views.end())
      it->second.fading = duration;
  }
  void removeView(ViewId id) override { views.erase(id); }
  void showLaser(QRVPoint center, QRVColor color) override {
    laser = center;
    laserColor = color;
  }
  void hideLaser() override { laser.reset(); }
};

}  // namespace quorvix::test

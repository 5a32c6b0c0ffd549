#include "session/linux/QRVSessionContextLinux.h"

#include <cstdlib>

#include "annotations/QRVLinuxAnnotations.h"
#include "encoders/QRVH264Stream.h"
#include "encoders/QRVJPEGStream.h"
#include "frameloop/linux/QRVX11WindowFrameSource.h"
#include "remote-control/QRVXTestRemoteControl.h"
#include "remote-control/linux/XTestInjector.h"
#include "session-ui/QRVLinuxConfirmPrompt.h"
#include "session-ui/linux/X11DialogPresenter.h"
#include "session-ui/linux/X11Display.h"
#include "session-ui/linux/X11Overlay.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

std::shared_ptr<spdlog::logger> logger() {
  static const auto log = QRV_LOGGER_FOR("QRVSessionContextLinux");
  return log;
}

// The main screen's rectangle as the overlay draws on it; the root's size while unknown.
QRVRect frameOf(const std::shared_ptr<const QRVScreen>& screen) {
  if (!screen)
    return {};
  const auto& f = screen->frame();
  return {static_cast<double>(f.x), static_cast<double>(f.y), static_cast<double>(f.width),
          static_cast<double>(f.height)};
}

// Draws nothing: the session runs without the overlay when the display cannot be reached.
class NoAnnotations : public QRVAnnotations {
 public:
  void updateDrawnAnnotation(const QRVDrawing&) override {}
  void updateLaserAnnotation(const QRVLaser&) override {}
  void updateAgentTouches(const QRVTouchEvent&) override {}
  void setActive(bool) override {}
  void clear() override {}
};

class NoIndicator : public QRVSessionIndication {
 public:
  void show() override {}
  void hide() override {}
};

// Without a display there is nobody to ask: every question is answered "Deny", later, as a user
// would answer it.
class DenyingPresenter : public QRVDialogPresenter {
 public:
  explicit DenyingPresenter(std::shared_ptr<Executor> mainQueue)
      : mainQueue_(std::move(mainQueue)) {}
  std::unique_ptr<QRVDialog> present(const QRVDialogContent& content,
                                     std::function<void(int)> onAnswer) override {
    logger()->warn("No X display to ask \"{}\" on; denying", content.title);
    auto dialog = std::make_unique<Dialog>();
    std::weak_ptr<bool> open = dialog->open;
    mainQueue_->post([open, onAnswer = std::move(onAnswer)] {
      if (open.lock())
        onAnswer(1);
    });
    return dialog;
  }

 private:
  struct Dialog : QRVDialog {
    std::shared_ptr<bool> open = std::make_shared<bool>(true);
  };
  std::shared_ptr<Executor> mainQueue_;
};

}  // namespace

QRVSessionContextFactory platformSessionContextFactory() {
  return [](std::shared_ptr<QRVSessionResource> session,
            std::weak_ptr<QRVSessionContextDelegate> contextDelegate)
             -> std::shared_ptr<QRVSessionContext> {
    auto queue = mainQueue();
    auto parts = QRVSessionContextLinux::x11Parts(session, "", queue);
    return QRVSessionContextLinux::create(std::move(session), std::move(contextDelegate),
                                          std::move(parts), queue);
  };
}

QRVSessionContextLinux::Parts QRVSessionContextLinux::x11Parts(
    const std::shared_ptr<QRVSessionResource>& session,
    const std::string& displayName,
    const std::shared_ptr<Executor>& mainQueue) {
  Parts parts;
  auto display = std::make_shared<QRVX11DisplayFrameSource>(mainQueue, displayName);
  parts.systemCaptureSource = {display, display};
  std::weak_ptr<QRVX11DisplayFrameSource> weakDisplay = display;
  parts.setCaptureDelegate = [weakDisplay](std::weak_ptr<QRVX11DisplayFrameSourceDelegate> d) {
    if (auto source = weakDisplay.lock())
      source->setDelegate(std::move(d));
  };
  auto window = std::make_shared<QRVX11WindowFrameSource>(displayName);
  parts.windowSource = {window, window};
  parts.screens = QRVScreenWatcher::createX11(mainQueue, displayName);

  std::weak_ptr<QRVScreenWatcher> weakScreens = parts.screens;
  MainScreenFrame mainScreen = [weakScreens] {
    auto screens = weakScreens.lock();
    return screens ? frameOf(screens->mainScreen()) : QRVRect{};
  };
  auto x11 = X11Display::open(displayName, mainQueue);
  if (x11) {
    parts.annotations = std::make_shared<QRVLinuxAnnotations>(
        std::make_shared<X11AnnotationCanvas>(x11, mainScreen), mainQueue);
    parts.indicator = std::make_shared<QRVLinuxSessionIndicator>(x11, mainScreen);
  } else {
    parts.annotations = std::make_shared<NoAnnotations>();
    parts.indicator = std::make_shared<NoIndicator>();
  }
  auto injector = std::make_shared<XTestInjector>(displayName, mainQueue);
  QRVPromptPermissions permissions;
  permissions.canRecordScreen = [displayName] {
    return QRVX11DisplayFrameSource::canRecordScreen(displayName);
  };
  std::weak_ptr<XTestInjector> weakInjector = injector;
  permissions.canControl = [weakInjector] {
    auto injector = weakInjector.lock();
    return injector && injector->isAvailable();
  };
  // X11 asks no system permission for either; a backend that does opens its settings here.
  permissions.openSettings = [](QRVPromptPermissions::Settings) {
    logger()->info("This desktop has no settings that grant screen sharing or input control");
  };
  std::shared_ptr<QRVDialogPresenter> presenter;
  if (x11)
    presenter = std::make_shared<X11DialogPresenter>(x11, mainScreen);
  else
    presenter = std::make_shared<DenyingPresenter>(mainQueue);
  parts.prompt =
      QRVLinuxConfirmPrompt::create(std::move(presenter), std::move(permissions), mainQueue);
  parts.control = std::make_shared<QRVXTestRemoteControl>(session, injector, [weakScreens] {
    auto screens = weakScreens.lock();
    auto screen = screens ? screens->mainScreen() : nullptr;
    return screen ? screen->frame() : QRVScreenRect{};
  });

  parts.stream.makeEncoder =
      [mainQueue](QRVStreamProtocol::EncoderKind kind) -> std::shared_ptr<QRVStreamEncoder> {
    if (kind == QRVStreamProtocol::EncoderKind::jpeg)
      return std::make_shared<QRVJPEGStream>();
    QRVH264Stream::Environment environment;
    environment.mainQueue = mainQueue;
    return std::make_shared<QRVH264Stream>(environment);
  };
  parts.stream.displayCornerRadius = [] {
    return QRVScreen::mainScreenDisplayCornerRadiusOrZero();
  };
  if (auto screen = parts.screens->mainScreen())
    parts.frames.refreshRate = screen->refreshRate();
  return parts;
}

std::shared_ptr<QRVSessionContextLinux> QRVSessionContextLinux::create(
    std::shared_ptr<QRVSessionResource> session,
    std::weak_ptr<QRVSessionContextDelegate> contextDelegate,
    Parts parts,
    std::shared_ptr<Executor> mainQueue) {
  if (!mainQueue)
    mainQueue = quorvix::mainQueue();
  std::shared_ptr<QRVSessionContextLinux> context(
      new QRVSessionContextLinux(std::move(session), std::move(parts), std::move(mainQueue)));
  context->start(std::move(contextDelegate));
  return context;
}

QRVSessionContextLinux::QRVSessionContextLinux(std::shared_ptr<QRVSessionResource> session,
                                               Parts parts,
                                               std::shared_ptr<Executor> mainQueue)
    : QRVSessionContext(std::move(session), std::move(mainQueue)), parts_(std::move(parts)) {}

void QRVSessionContextLinux::start(std::weak_ptr<QRVSessionContextDelegate> contextDelegate) {
  assertOnMainQueue();
  attach(std::move(contextDelegate), parts_.stream, parts_.frames);
  auto self = std::static_pointer_cast<QRVSessionContextLinux>(shared_from_this());
  if (parts_.setCaptureDelegate)
    parts_.setCaptureDelegate(std::weak_ptr<QRVX11DisplayFrameSourceDelegate>(self));
  // Directly: no start or stop notifications for the first source.
  frames()->setSource(frameSource());
  setUI(QRVSessionUI::create(session(), parts_.annotations, parts_.prompt, parts_.indicator,
                             mainQueue()));
  setControl(parts_.control);
  std::weak_ptr<QRVSessionContextLinux> weak = self;
  if (parts_.screens) {
    screenSubscription_ = parts_.screens->subscribe([weak](std::shared_ptr<const QRVScreen>) {
      if (auto context = weak.lock()) {
        context->hasTarget_ = false;
        context->updateControls();
      }
    });
  }
  updateTimer_.start(mainQueue(), kScreenPollInterval, [weak] {
    if (auto context = weak.lock())
      context->updateControls();
  });
  logger()->debug("created Linux session context");
}

QRVSessionContextLinux::~QRVSessionContextLinux() {
  QRVSessionContextLinux::destroy();
}

void QRVSessionContextLinux::updateControls() {
  auto screen = parts_.screens ? parts_.screens->mainScreen() : nullptr;
  if (hasTarget_ && screen == targetScreen_)
    return;
  logger()->debug("updating Linux session controls");
  if (parts_.control)
    parts_.control->setScreen(screen ? std::optional<QRVScreenRect>(screen->frame())
                                     : std::nullopt);
  if (parts_.systemCaptureSource.screen)
    parts_.systemCaptureSource.screen->setScreen(screen);
  if (parts_.windowSource.screen)
    parts_.windowSource.screen->setScreen(screen);
  if (ui())
    ui()->updateSessionControls();
  targetScreen_ = std::move(screen);
  hasTarget_ = true;
}

std::shared_ptr<QRVFrameSource> QRVSessionContextLinux::frameSource() const {
  const bool full = session() && session()->fullDevice() == QRVConsentState::on;
  return full ? parts_.systemCaptureSource.frames : parts_.windowSource.frames;
}

void QRVSessionContextLinux::switchCurrentSource(const std::shared_ptr<QRVFrameSource>& source) {
  if (!frames() || frames()->source() == source)
    return;
  if (auto old = frames()->source())
    old->capturingWillStop();
  frames()->setSource(source);
  if (source)
    source->capturingWillStart();
}

void QRVSessionContextLinux::sessionDidUpdate(const std::shared_ptr<QRVSession>& session) {
  QRVSessionContext::sessionDidUpdate(session);
  if (this->session() && !this->session()->isEnded())
    switchCurrentSource(frameSource());
}

void QRVSessionContextLinux::screenCaptureDidStart() {
  if (session())
    session()->setFullDevice(QRVConsentState::on, nullptr);
}

void QRVSessionContextLinux::screenCaptureDidFailWithError(const QRVError& error) {
  logger()->debug("screen capture failed");
  if (session())
    session()->setFullDevice(QRVConsentState::rejected, nullptr);
  if (delegate() && session()) {
    logger()->debug("passing failure to delegate");
    delegate()->quorviScreenCaptureDidFail(session(), error);
  }
  switchCurrentSource(parts_.windowSource.frames);
}

void QRVSessionContextLinux::destroy() {
  logger()->debug("destroyed Linux session context");
  if (parts_.screens && screenSubscription_) {
    parts_.screens->unsubscribe(screenSubscription_);
    screenSubscription_ = 0;
  }
  updateTimer_.stop();
  QRVSessionContext::destroy();
}

}  // namespace quorvix

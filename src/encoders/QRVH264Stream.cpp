#include "encoders/QRVH264Stream.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <map>
#include <utility>

#include "encoders/I420Canvas.h"
#include "utils/Logging.h"
#include "utils/Signpost.h"

namespace quorvix {
namespace {

constexpr std::string_view kLogCategory = "QRVH264Stream";
constexpr int kMaxEncodedRepeats = 5;
constexpr double kMaxSoftwareWidth = 1920;
constexpr double kMaxSoftwareHeight = 1080;
constexpr auto kSlowEncoderDelay = std::chrono::milliseconds(300);
constexpr QRVTime kEverythingSoFar{std::numeric_limits<std::int64_t>::max(), 1, QRVTime::kValid, 0};

std::vector<H264PropertySetting> compressionProperties() {
  return {
      {H264Property::profileLevel, std::string("high/auto")},
      {H264Property::quality, 0.5},
      {H264Property::allowFrameReordering, false},
      {H264Property::averageBitRate, 524288.0},
      {H264Property::realTime, true},
      {H264Property::expectedFrameRate, std::int64_t(10)},
      {H264Property::maxKeyFrameInterval, std::int64_t(120)},
      {H264Property::maxKeyFrameIntervalDuration, 10.0},
      {H264Property::maxFrameDelayCount, std::int64_t(0)},
      {H264Property::fieldCount, std::int64_t(1)},
      {H264Property::enableHardwareAcceleration, true},
  };
}

}  // namespace

std::string_view propertyName(H264Property property) {
  switch (property) {
    case H264Property::profileLevel:
      return "ProfileLevel";
    case H264Property::quality:
      return "Quality";
    case H264Property::allowFrameReordering:
      return "AllowFrameReordering";
    case H264Property::averageBitRate:
      return "AverageBitRate";
    case H264Property::realTime:
      return "RealTime";
    case H264Property::expectedFrameRate:
      return "ExpectedFrameRate";
    case H264Property::maxKeyFrameInterval:
      return "MaxKeyFrameInterval";
    case H264Property::maxKeyFrameIntervalDuration:
      return "MaxKeyFrameIntervalDuration";
    case H264Property::maxFrameDelayCount:
      return "MaxFrameDelayCount";
    case H264Property::fieldCount:
      return "FieldCount";
    case H264Property::enableHardwareAcceleration:
      return "EnableHardwareAcceleratedVideoEncoder";
  }
  return "unknown";
}

double CalculateNewScale(int width, int height) {
  if (width == 0 || height == 0)
    return 0.0;
  return std::min({kMaxSoftwareWidth / width, kMaxSoftwareHeight / height, 1.0});
}

// Everything below runs on the worker unless its name says otherwise. The fields the public side
// reads (scale, running) are atomics; the rest belongs to the worker alone.
class QRVH264Stream::Core : public std::enable_shared_from_this<Core> {
 public:
  Core(std::shared_ptr<H264CodecBackend> backend,
       std::shared_ptr<Executor> worker,
       std::shared_ptr<Executor> mainQueue)
      : backend_(std::move(backend)),
        worker_(std::move(worker)),
        mainQueue_(std::move(mainQueue)),
        log_(QRV_LOGGER_FOR(kLogCategory)) {}

  // Any thread.
  void post(std::function<void(Core&)> work) {
    worker_->post([self = shared_from_this(), work = std::move(work)] { work(*self); });
  }

  void encode(const std::shared_ptr<QRVFrame>& frame, const Callback& callback);
  void reset();
  void destroy();
  void setScale(double scale);
  void setForceKeyframe(bool force) { forceKeyframe_ = force; }
  void completeFrames(QRVTime upTo) {
    if (session_)
      session_->completeFrames(upTo);
  }

  std::atomic<bool> closed{false};
  std::atomic<double> scale{1.0};
  std::atomic<bool> running{false};

 private:
  struct FrameContext {
    std::shared_ptr<QRVFrame> frame;
    Callback callback;
    double timestamp = 0;  // seconds since 1970 at submission
    std::atomic<bool> encoded{false};
  };

  void createEncoder();
  void destroyEncoder();
  void recreateEncoder() {
    destroyEncoder();
    createEncoder();
  }
  void didCompress(std::uint64_t frameId, int status, H264Sample sample);
  void watchSlowEncoder(const std::shared_ptr<FrameContext>& context, QRVTime presentation);

  const std::shared_ptr<H264CodecBackend> backend_;
  const std::shared_ptr<Executor> worker_;
  const std::shared_ptr<Executor> mainQueue_;
  const std::shared_ptr<spdlog::logger> log_;
  std::unique_ptr<H264EncoderSession> session_;
  std::shared_ptr<QRVFrame> lastFrame_;
  I420Canvas canvas_;
  int equalFrameCount_ = 0;
  int width_ = 0;
  int height_ = 0;
  bool forceKeyframe_ = false;
  bool loggedEncoderChoice_ = false;
  std::uint64_t nextFrameId_ = 1;
  std::map<std::uint64_t, std::shared_ptr<FrameContext>> pending_;
};

void QRVH264Stream::Core::encode(const std::shared_ptr<QRVFrame>& frame, const Callback& callback) {
  if (closed || !frame) {
    callback(std::nullopt);
    return;
  }
  if (!lastFrame_ || !lastFrame_->sameAs(*frame)) {
    equalFrameCount_ = 0;
  } else {
    const int repeats = equalFrameCount_++;
    // The encoder refines a still picture over a few repeats; after that they cost nothing.
    if (repeats >= kMaxEncodedRepeats) {
      callback(std::nullopt);
      return;
    }
  }
  if (!session_ || frame->width() != width_ || frame->height() != height_) {
    width_ = frame->width();
    height_ = frame->height();
    scale = 1.0;
    recreateEncoder();
  }
  const auto picture = canvas_.update(*frame);
  if (!session_ || !picture) {
    callback(std::nullopt);
    return;
  }
  auto context = std::make_shared<FrameContext>();
  context->frame = frame;
  context->callback = callback;
  context->timestamp =
      std::chrono::duration<double>(mainQueue_->clock().wallNow().time_since_epoch()).count();
  const std::uint64_t frameId = nextFrameId_++;
  pending_[frameId] = context;
  const QRVSampleTiming timing = frame->timing();
  bool dropped = false;
  QRV_LOGGER_FOR(kPerformanceCategory)->trace("begin encodeFrame {}", frameId);
  const H264EncodeStatus status =
      session_->encode(picture, timing, forceKeyframe_, frameId, dropped);
  if (status == H264EncodeStatus::ok) {
    if (dropped) {
      QRV_LOGGER_FOR(kPerformanceCategory)->trace("end encodeFrame {}", frameId);
      pending_.erase(frameId);
      callback(std::nullopt);
    } else if (!context->encoded) {
      watchSlowEncoder(context, timing.presentationTimeStamp);
    }
    return;
  }
  pending_.erase(frameId);
  if (status == H264EncodeStatus::invalidSession) {
    log_->error("encoder session became invalid");
    recreateEncoder();
  }
  callback(std::nullopt);
}

void QRVH264Stream::Core::watchSlowEncoder(const std::shared_ptr<FrameContext>& context,
                                           QRVTime presentation) {
  std::weak_ptr<Core> weak = weak_from_this();
  std::weak_ptr<FrameContext> weakContext = context;
  mainQueue_->postAfter(kSlowEncoderDelay, [weak, weakContext, presentation] {
    auto self = weak.lock();
    auto context = weakContext.lock();
    if (!self || !context || !self->running || context->encoded)
      return;
    self->log_->debug("encoder is slow, forcing output");
    // A frame without a time pushes out everything so far, without ending the session.
    const QRVTime upTo = presentation.isValid() ? presentation : kEverythingSoFar;
    self->post([upTo](Core& core) { core.completeFrames(upTo); });
  });
}

void QRVH264Stream::Core::didCompress(std::uint64_t frameId, int status, H264Sample sample) {
  auto found = pending_.find(frameId);
  if (found == pending_.end())
    return;
  auto context = std::move(found->second);
  pending_.erase(found);
  QRV_LOGGER_FOR(kPerformanceCategory)->trace("end encodeFrame {}", frameId);
  if (status != 0) {
    log_->error("H264: Failed to encode frame: {}", status);
    context->callback(std::nullopt);
    return;
  }
  Bytes bytes = toH264NALUAnnexB(sample);
  if (isKeyFrame(sample))
    forceKeyframe_ = false;
  lastFrame_ = context->frame;
  context->encoded = true;
  context->callback(std::move(bytes));
}

void QRVH264Stream::Core::createEncoder() {
  const int outputWidth = int(width_ * scale);
  const int outputHeight = int(height_ * scale);
  log_->debug("Encoding at {}x{} @ {} = {}x{}", width_, height_, scale.load(), outputWidth,
              outputHeight);
  const auto properties = compressionProperties();
  std::weak_ptr<Core> weak = weak_from_this();
  H264SessionResult result =
      backend_->createSession(outputWidth, outputHeight, properties,
                              [weak](std::uint64_t frameId, int status, H264Sample sample) {
                                // Sessions live and call back on the worker, and only while the
                                // core owns them.
                                if (auto self = weak.lock())
                                  self->didCompress(frameId, status, std::move(sample));
                              });
  if (!result.session) {
    log_->error("H264: Unable to create an H264 encoding session: {}", result.status);
    return;
  }
  for (std::size_t i = 0; i < properties.size(); ++i) {
    log_->debug("setting encoder property {}", propertyName(properties[i].key));
    if (i < result.propertyStatus.size() && result.propertyStatus[i] != 0)
      log_->error("Failed to set {}, error code {}", propertyName(properties[i].key),
                  result.propertyStatus[i]);
  }
  session_ = std::move(result.session);
  running = true;
  if (!loggedEncoderChoice_) {
    loggedEncoderChoice_ = true;
    log_->debug("H264 encoder: {}", session_->name());
  }
  if (!session_->isHardwareAccelerated()) {
    log_->debug("The encoder is not hardware accelerated");
    // Computed from the scaled size but applied to the frame size, so an earlier scale compounds.
    const double newScale = CalculateNewScale(outputWidth, outputHeight);
    if (newScale < scale) {
      setScale(newScale);
      recreateEncoder();
    }
  }
}

void QRVH264Stream::Core::destroyEncoder() {
  if (!session_)
    return;
  log_->debug("destroying H264 encoder");
  session_->completeFrames(QRVTime{});
  session_.reset();
  running = false;
  // Output that never came is reported as nothing, so that every callback runs once.
  auto orphans = std::exchange(pending_, {});
  for (auto& [id, context] : orphans)
    context->callback(std::nullopt);
  reset();
}

void QRVH264Stream::Core::reset() {
  log_->debug("resetting H264 encoder");
  lastFrame_.reset();
  canvas_.clear();
  forceKeyframe_ = true;
}

void QRVH264Stream::Core::setScale(double newScale) {
  if (newScale == scale)
    return;
  scale = newScale;
  if (session_)
    recreateEncoder();
}

void QRVH264Stream::Core::destroy() {
  destroyEncoder();
  lastFrame_.reset();
  canvas_.clear();
}

QRVH264Stream::QRVH264Stream(Environment environment) {
  auto backend = environment.backend ? environment.backend : makePlatformH264Backend();
  auto worker = environment.worker ? environment.worker : makeThreadExecutor("quorvix-h264");
  auto main = environment.mainQueue ? environment.mainQueue : mainQueue();
  core_ = std::make_shared<Core>(std::move(backend), std::move(worker), std::move(main));
  QRV_LOGGER_FOR(kLogCategory)->debug("created H264 stream");
}

QRVH264Stream::~QRVH264Stream() {
  destroy();
}

void QRVH264Stream::encode(std::shared_ptr<QRVFrame> frame, Callback callback) {
  if (!callback)
    callback = [](std::optional<Bytes>) {};
  if (core_->closed) {
    callback(std::nullopt);
    return;
  }
  core_->post([frame = std::move(frame), callback = std::move(callback)](Core& core) {
    core.encode(frame, callback);
  });
}

void QRVH264Stream::reset() {
  core_->post([](Core& core) { core.reset(); });
}

void QRVH264Stream::destroy() {
  if (core_->closed.exchange(true))
    return;
  // Frames already queued answer nothing; those inside the session are completed first.
  core_->post([](Core& core) { core.destroy(); });
}

void QRVH264Stream::setScale(double scale) {
  core_->post([scale](Core& core) { core.setScale(scale); });
}

double QRVH264Stream::scale() const {
  return core_->scale;
}

void QRVH264Stream::setForceKeyframe(bool force) {
  core_->post([force](Core& core) { core.setForceKeyframe(force); });
}

bool QRVH264Stream::isRunning() const {
  return core_->running;
}

}  // namespace quorvix

// The whole main screen (or the screen set with setScreen()) of an X display, read at most ten
// times a second, with the cursor and the click ring drawn in. It needs permission to read the
// screen, which it checks when capturing starts and reports to its delegate. An unchanged screen
// with a still pointer costs no read: the held picture is handed out again, the very same image.
//
// Every method runs on the main queue, which is also where the screen is read (one round trip,
// well under a frame; the read is handed on without a copy). The delegate is called synchronously
// from capturingWillStart().
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "frameloop/BufferLeases.h"
#include "frameloop/CaptureChangeDetector.h"
#include "frameloop/DisplayGrabber.h"
#include "frameloop/QRVFrameSource.h"
#include "frameloop/QRVFrameSourceScreenObserver.h"
#include "quorvix/Executor.h"
#include "quorvix/QRVError.h"

namespace quorvix {

class QRVX11DisplayFrameSourceDelegate {
 public:
  virtual ~QRVX11DisplayFrameSourceDelegate() = default;
  virtual void screenCaptureDidStart() {}
  virtual void screenCaptureDidFailWithError(const QRVError& /*error*/) {}
};

class QRVX11DisplayFrameSource final : public QRVFrameSource, public QRVFrameSourceScreenObserver {
 public:
  static constexpr Duration kMinCaptureInterval = std::chrono::milliseconds(100);
  static constexpr Duration kReconnectInterval = std::chrono::seconds(1);
  // Changes covering more than 1 / kMaxPartShare of the screen are read whole.
  static constexpr std::size_t kMaxPartShare = 3;
  static constexpr long kNoPermissionCode = 403;
  static constexpr const char* kErrorDomain = "ScreenCapture";

  // How the source reaches the display; the X11 one by default, a fake in tests.
  struct Platform {
    std::function<bool()> canRecordScreen;
    std::function<std::unique_ptr<DisplayGrabber>()> openGrabber;
  };

  // A source for the X display ("" = $DISPLAY).
  QRVX11DisplayFrameSource(std::shared_ptr<Executor> mainQueue, const std::string& displayName);
  QRVX11DisplayFrameSource(std::shared_ptr<Executor> mainQueue, Platform platform);
  ~QRVX11DisplayFrameSource() override;
  QRVX11DisplayFrameSource(const QRVX11DisplayFrameSource&) = delete;
  QRVX11DisplayFrameSource& operator=(const QRVX11DisplayFrameSource&) = delete;

  // Whether the display lets this process read its screen (a 1 × 1 read of the root window).
  static bool canRecordScreen(const std::string& displayName);

  void setDelegate(std::weak_ptr<QRVX11DisplayFrameSourceDelegate> delegate) {
    delegate_ = std::move(delegate);
  }

  void capturingWillStart() override;
  void capturingWillStop() override;
  bool isNewFrameAvailable() override { return true; }
  std::shared_ptr<QRVFrame> newFrame(double scale) override;
  std::shared_ptr<QRVFrame> lastFrame() override { return nullptr; }
  void setScreen(std::shared_ptr<const QRVScreen> screen) override;

  // Whether change notifications were found unreliable and every capture now compares.
  bool isPolling() const { return detector_.isPolling(); }

 private:
  void assertOnMainQueue() const;
  void createInput(double scale);
  void captureIfDue();
  void connectionLost();
  // What the cursor drawn into a picture covers, clean: with it the picture is the read it was
  // drawn into.
  struct CursorPatch {
    QRVScreenRect rect;  // in picture pixels
    std::vector<std::uint8_t> clean;
  };
  // Room for a picture, and which half-size picture of the pool it is, if one.
  struct Picture {
    GrabbedPixels pixels;
    std::optional<std::size_t> half;
  };
  // A picture of the read `of` to fill: from the pool at half its size, else on its own.
  Picture newPicture(const QRVScreenRect& of, int width, int height);
  Picture leaseHalf(std::size_t index);
  // A read of `rect` at width × height: the read itself at its own size, else a scaled copy;
  // empty when the size is not positive or scaling fails.
  Picture scaleRead(GrabbedPixels read, const QRVScreenRect& rect, int width, int height);
  // Reads and scales only what changed into a picture of the held one, when it is at half size
  // and the change is small; false when the whole screen has to be read.
  bool refreshParts(const QRVScreenRect& rect, const QRVPointerState& pointer);
  static void restorePatch(std::uint8_t* bgrx, int width, const CursorPatch& patch);
  // Draws the pointer into a clean read at the output scale, keeping what lies under it, and
  // hands it out as the new picture. `changed` is what changed since the held picture, in root
  // coordinates; nullptr for a whole read. `read` is false when the screen was not read again.
  void publish(Picture picture,
               int width,
               int height,
               const QRVPointerState& pointer,
               const std::vector<QRVScreenRect>* changed,
               bool read = true);
  // Adds what the last change notification says to what changed since latest_ was read.
  void noteDamage(bool damaged);
  // Where a new picture of that size differs from latest_: the unread changes at the output scale
  // and the cursor drawn in both; nullptr when that is not known.
  std::shared_ptr<QRVPictureChanges> changesSinceLatest(int width, int height) const;
  // The held picture with the pointer moved: a copy with the cursor taken out and drawn again.
  void recomposite(const QRVPointerState& pointer);
  // Whether a clean read at the output scale shows what the held picture shows under its cursor.
  bool sameAsLatest(const std::uint8_t* clean) const;
  const std::shared_ptr<Executor> mainQueue_;
  const Platform platform_;
  std::weak_ptr<QRVX11DisplayFrameSourceDelegate> delegate_;
  std::shared_ptr<const QRVScreen> targetScreen_;
  // The capture session: running between a permitted start and the stop; its connection is
  // dropped when lost and made again later.
  bool sessionRunning_ = false;
  std::unique_ptr<DisplayGrabber> grabber_;
  // The screen input: made by the first newFrame() for the target screen, with that call's scale.
  bool hasInput_ = false;
  double inputScale_ = 1.0;
  std::shared_ptr<const QRVImage> latest_;
  std::shared_ptr<const QRVPictureChanges> latestChanges_;
  // What changed on the screen since latest_ was read, in root coordinates, as the change
  // notifications tell; nothing once something changed that they cannot place.
  static constexpr std::size_t kMaxUnreadChanges = 64;
  std::optional<std::vector<QRVScreenRect>> unread_;
  SteadyTime lastUndescribed_{};
  CaptureChangeDetector detector_;
  // Reads are drawn on in place and handed on without a copy, so what the cursor covers in
  // latest_ is all that is kept apart: with it the held picture is the last read, which the next
  // read is compared with and a moved pointer is drawn over.
  CursorPatch patch_;
  // Half-size pictures, reused once nobody holds them: brought up to date with the parts that
  // changed since they were made instead of copied whole.
  struct HalfPicture {
    std::shared_ptr<std::uint8_t[]> pixels;
    int width = 0;
    int height = 0;
    std::uint64_t generation = 0;  // of the picture it holds
    CursorPatch patch;
  };
  static constexpr std::size_t kMaxHalfPictures = 4;
  static constexpr std::size_t kHistoryLength = 8;
  std::vector<HalfPicture> halves_;
  BufferLeases halfLeases_;
  // Each picture handed out is a generation; for those after historyStart_, what changed from
  // the one before (a whole read starts the history again).
  std::uint64_t generation_ = 0;
  std::uint64_t historyStart_ = 1;
  std::deque<std::pair<std::uint64_t, std::vector<QRVScreenRect>>> history_;
  QRVScreenRect lastReadRect_;
  SteadyTime nextCapture_{};
  SteadyTime nextReconnect_{};
};

}  // namespace quorvix

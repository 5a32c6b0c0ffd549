// One captured picture of the screen, held as a BGRX image or as an I420 pixel buffer, with the
// other form converted on first use. Frames are shared between the frame loop, the sources and
// the encoders and may be read from any thread: the pictures never change once made, the lazy fill
// happens at most once per frame, and the timing is read and written as one record under a lock.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace quorvix {

// A BGRX picture: bytes B, G, R, X per pixel, rows packed (stride = width × 4). Immutable.
class QRVImage {
 public:
  static constexpr int kBytesPerPixel = 4;

  // Takes ownership of the rows; nullptr when a side is not positive or the byte count does not
  // match the size.
  static std::shared_ptr<const QRVImage> create(int width,
                                                int height,
                                                std::vector<std::uint8_t> bgrx);
  // Rows of width × height × 4 bytes at `bgrx`, kept alive (and never written again) for as long
  // as `owner` is held: a capture's own memory handed on without a copy. nullptr for a null
  // pointer or an impossible size.
  static std::shared_ptr<const QRVImage> wrap(int width,
                                              int height,
                                              const std::uint8_t* bgrx,
                                              std::shared_ptr<const void> owner);
  // Room for the rows of a picture of this size, uninitialised, to fill and then wrap(); nullptr
  // for an impossible size.
  static std::shared_ptr<std::uint8_t[]> allocate(int width, int height);

  int width() const { return width_; }
  int height() const { return height_; }
  int stride() const { return width_ * kBytesPerPixel; }
  std::span<const std::uint8_t> bytes() const { return bytes_; }

 private:
  QRVImage(int width,
           int height,
           std::span<const std::uint8_t> bytes,
           std::shared_ptr<const void> owner)
      : width_(width), height_(height), bytes_(bytes), owner_(std::move(owner)) {}

  const int width_;
  const int height_;
  const std::span<const std::uint8_t> bytes_;
  const std::shared_ptr<const void> owner_;
};

// A planar YUV 4:2:0 (I420) picture as the video encoder takes it: a full-size Y plane followed by
// U and V planes of ceil(width / 2) × ceil(height / 2), each plane's rows packed. Immutable.
class QRVPixelBuffer {
 public:
  // Takes ownership of the three planes laid out one after another; nullptr when a side is not
  // positive or the byte count does not match the size.
  static std::shared_ptr<const QRVPixelBuffer> create(int width,
                                                      int height,
                                                      std::vector<std::uint8_t> planes);
  // Room for the planes of a picture of this size, uninitialised, to fill and then hand to
  // create(); nullptr for an impossible size.
  static std::shared_ptr<std::uint8_t[]> allocate(int width, int height);
  // Takes ownership of planes made by allocate() for the same size.
  static std::shared_ptr<const QRVPixelBuffer> create(int width,
                                                      int height,
                                                      std::shared_ptr<std::uint8_t[]> planes);
  // The number of bytes create() expects, or 0 for an impossible size.
  static std::size_t byteCount(int width, int height);

  int width() const { return width_; }
  int height() const { return height_; }
  int strideY() const { return width_; }
  int strideUV() const { return (width_ + 1) / 2; }
  int chromaHeight() const { return (height_ + 1) / 2; }
  const std::uint8_t* dataY() const { return bytes_.data(); }
  const std::uint8_t* dataU() const { return dataY() + std::size_t(strideY()) * height_; }
  const std::uint8_t* dataV() const { return dataU() + std::size_t(strideUV()) * chromaHeight(); }
  std::span<const std::uint8_t> bytes() const { return bytes_; }

 private:
  QRVPixelBuffer(int width,
                 int height,
                 std::span<const std::uint8_t> bytes,
                 std::shared_ptr<const void> owner)
      : width_(width), height_(height), bytes_(bytes), owner_(std::move(owner)) {}

  const int width_;
  const int height_;
  const std::span<const std::uint8_t> bytes_;
  const std::shared_ptr<const void> owner_;
};

// A point or span of media time: value / timescale seconds.
struct QRVTime {
  static constexpr std::uint32_t kValid = 1;

  std::int64_t value = 0;
  std::int32_t timescale = 0;
  std::uint32_t flags = 0;  // all zero: an invalid time
  std::int64_t epoch = 0;

  static constexpr QRVTime milliseconds(std::int64_t ms) { return {ms, 1000, kValid, 0}; }
  bool isValid() const { return (flags & kValid) != 0; }
  friend bool operator==(const QRVTime&, const QRVTime&) = default;
};

struct QRVSampleTiming {
  QRVTime duration;
  QRVTime presentationTimeStamp;
  QRVTime decodeTimeStamp;
  friend bool operator==(const QRVSampleTiming&, const QRVSampleTiming&) = default;
};

// A rectangle of a picture's pixels.
struct QRVPixelRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  friend bool operator==(const QRVPixelRect&, const QRVPixelRect&) = default;
};

// What a source knows of how a picture came about: outside `rects` it equals `base` pixel for
// pixel. An encoder still holding what it made of `base` then has only those rectangles to redo.
struct QRVPictureChanges {
  std::weak_ptr<const QRVImage> base;
  std::vector<QRVPixelRect> rects;

  // Whether `image` is the base: the same object, compared by identity, so that a base nobody holds
  // any more still compares.
  bool isBasedOn(const std::weak_ptr<const QRVImage>& image) const;
};

class QRVFrame {
 public:
  explicit QRVFrame(std::shared_ptr<const QRVImage> image,
                    std::shared_ptr<const QRVPictureChanges> changes = nullptr);
  explicit QRVFrame(std::shared_ptr<const QRVPixelBuffer> pixelBuffer);
  QRVFrame(const QRVFrame&) = delete;
  QRVFrame& operator=(const QRVFrame&) = delete;

  // The BGRX form, converted from the pixel buffer on the first call; nullptr for an empty frame.
  std::shared_ptr<const QRVImage> image() const;
  // The I420 form, converted from the image on the first call; nullptr for an empty frame.
  std::shared_ptr<const QRVPixelBuffer> pixelBuffer() const;
  // The BGRX form if the frame has it already; never converts.
  std::shared_ptr<const QRVImage> imageIfMade() const { return currentForms().image; }
  // How the image differs from an earlier one, when its source could tell; nullptr otherwise.
  const QRVPictureChanges* changes() const { return changes_.get(); }

  // Of the picture the frame was made from; 0 for an empty frame.
  int width() const { return width_; }
  int height() const { return height_; }

  // Picture equality: the same image or pixel buffer object, else the same size and bytes.
  bool sameAs(const QRVFrame& other) const;
  // A new frame with a copy of the image resized to width × factor by height × factor (each
  // truncated); an empty frame when that size is not positive.
  std::shared_ptr<QRVFrame> scale(double factor) const;

  QRVSampleTiming timing() const;
  void setTiming(const QRVSampleTiming& timing);

 private:
  struct Forms {
    std::shared_ptr<const QRVImage> image;
    std::shared_ptr<const QRVPixelBuffer> pixelBuffer;
  };
  // The forms filled so far, without converting.
  Forms currentForms() const;

  const int width_;
  const int height_;
  const std::shared_ptr<const QRVPictureChanges> changes_;
  // Guards both forms; a conversion runs under it, so that two threads asking at once share one.
  mutable std::mutex formsMutex_;
  mutable std::shared_ptr<const QRVImage> image_;
  mutable std::shared_ptr<const QRVPixelBuffer> pixelBuffer_;
  mutable std::mutex timingMutex_;
  QRVSampleTiming timing_;
};

}  // namespace quorvix

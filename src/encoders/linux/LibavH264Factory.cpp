#include "encoders/linux/LibavH264Factory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <optional>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
#include <libavutil/opt.h>
}

#include <libyuv/convert_from.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale.h>

#include "utils/Logging.h"

namespace quorvix {
namespace {

constexpr std::string_view kLogCategory = "LibavH264Factory";

struct CodecContextDeleter {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameDeleter {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketDeleter {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct BufferRefDeleter {
  void operator()(AVBufferRef* b) const { av_buffer_unref(&b); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using BufferRefPtr = std::unique_ptr<AVBufferRef, BufferRefDeleter>;

enum class Kind { nvenc, vaapi, qsv, x264 };

struct EncoderInfo {
  const char* name;
  Kind kind;
  bool hardware;
  AVPixelFormat inputFormat;  // of the pictures handed to the encoder (uploaded for VAAPI)
};

constexpr std::array<EncoderInfo, LibavH264Factory::kCandidateCount> kCandidates = {{
    {"h264_nvenc", Kind::nvenc, true, AV_PIX_FMT_YUV420P},
    {"h264_vaapi", Kind::vaapi, true, AV_PIX_FMT_NV12},
    {"h264_qsv", Kind::qsv, true, AV_PIX_FMT_NV12},
    {"libx264", Kind::x264, false, AV_PIX_FMT_YUV420P},
}};

// Quality up to 0.5 takes "ultrafast" with the 8x8 transform turned back on, which makes the stream
// High profile; CAVLC stays, since a browser decodes a text-heavy key frame about three times
// faster than with CABAC. On a recorded 1080p desktop at 512 kbit/s (bench/x264_preset_bench) it
// costs about 60% of the CPU of "superfast" (the fastest preset that writes High) for 0.3 dB more,
// and the same as plain "ultrafast", which writes Constrained Baseline. The deblocking filter stays
// off as ultrafast has it: it costs 12% more encoder instructions a frame for 0.2 to 1.1 dB on
// screen content; CABAC would give about 1 dB in 7% fewer bytes. Above 0.5, slower presets.
struct X264Setting {
  const char* preset;
  const char* params;  // x264-params
};
constexpr X264Setting kX264Fast = {"ultrafast", "8x8dct=1"};
constexpr const char* kX264SlowerPresets[] = {"superfast", "veryfast", "faster", "fast",
                                              "medium",    "slow",     "slower"};

X264Setting x264Setting(double quality) {
  if (quality <= 0.5)
    return kX264Fast;
  constexpr auto count = std::size(kX264SlowerPresets);
  const auto index = std::min(count - 1, std::size_t((quality - 0.5) * 2 * double(count)));
  return {kX264SlowerPresets[index], ""};
}

std::string errorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

// What the properties ask for beyond libavcodec's own options.
struct Settings {
  bool tryHardware = true;
  double maxKeyIntervalSeconds = 0;  // 0: no time limit
};

template <typename T>
std::optional<T> valueAs(const H264PropertySetting& setting) {
  if (auto v = std::get_if<T>(&setting.value))
    return *v;
  if constexpr (std::is_same_v<T, double>) {
    if (auto v = std::get_if<std::int64_t>(&setting.value))
      return double(*v);
  }
  if constexpr (std::is_same_v<T, std::int64_t>) {
    if (auto v = std::get_if<double>(&setting.value))
      return std::int64_t(*v);
  }
  return std::nullopt;
}

int setPrivate(AVCodecContext* ctx, const char* key, const std::string& value) {
  return av_opt_set(ctx->priv_data, key, value.c_str(), 0);
}

// Maps one property onto the context (before it opens); 0 or the refusing error code.
int applyProperty(AVCodecContext* ctx,
                  const EncoderInfo& c,
                  const H264PropertySetting& setting,
                  Settings& settings) {
  const int invalid = AVERROR(EINVAL);
  switch (setting.key) {
    case H264Property::profileLevel: {
      auto v = valueAs<std::string>(setting);
      if (!v || *v != "high/auto")
        return invalid;
      ctx->profile = FF_PROFILE_H264_HIGH;
      ctx->level = FF_LEVEL_UNKNOWN;
      return setPrivate(ctx, "profile", "high");
    }
    case H264Property::quality: {
      auto q = valueAs<double>(setting);
      if (!q || !(*q >= 0 && *q <= 1))
        return invalid;
      switch (c.kind) {
        case Kind::x264: {
          const X264Setting setting = x264Setting(*q);
          if (const int rc = setPrivate(ctx, "preset", setting.preset); rc < 0)
            return rc;
          return setPrivate(ctx, "x264-params", setting.params);
        }
        case Kind::nvenc:
          return setPrivate(ctx, "preset", "p" + std::to_string(1 + std::lround(*q * 6)));
        case Kind::qsv:
          return setPrivate(ctx, "preset", std::to_string(7 - std::lround(*q * 6)));
        case Kind::vaapi:
          ctx->compression_level = int(std::lround((1 - *q) * 7));
          return 0;
      }
      return invalid;
    }
    case H264Property::allowFrameReordering: {
      auto v = valueAs<bool>(setting);
      if (!v)
        return invalid;
      if (!*v)
        ctx->max_b_frames = 0;
      return 0;
    }
    case H264Property::averageBitRate: {
      auto v = valueAs<double>(setting);
      if (!v || !(*v > 0))
        return invalid;
      ctx->bit_rate = std::int64_t(*v);
      return 0;
    }
    case H264Property::realTime: {
      auto v = valueAs<bool>(setting);
      if (!v)
        return invalid;
      if (!*v)
        return 0;
      switch (c.kind) {
        case Kind::x264:
          return setPrivate(ctx, "tune", "zerolatency");
        case Kind::nvenc:
          return setPrivate(ctx, "zerolatency", "1");
        case Kind::qsv:
        case Kind::vaapi:
          return setPrivate(ctx, "async_depth", "1");
      }
      return invalid;
    }
    case H264Property::expectedFrameRate: {
      auto v = valueAs<std::int64_t>(setting);
      if (!v || *v <= 0 || *v > 1000)
        return invalid;
      ctx->framerate = AVRational{int(*v), 1};
      ctx->time_base = AVRational{1, int(*v)};
      return 0;
    }
    case H264Property::maxKeyFrameInterval: {
      auto v = valueAs<std::int64_t>(setting);
      if (!v || *v <= 0 || *v > 100000)
        return invalid;
      ctx->gop_size = int(*v);
      return 0;
    }
    case H264Property::maxKeyFrameIntervalDuration: {
      auto v = valueAs<double>(setting);
      if (!v || !(*v >= 0))
        return invalid;
      // libavcodec counts the interval in frames only; the session forces the time limit itself.
      settings.maxKeyIntervalSeconds = *v;
      return 0;
    }
    case H264Property::maxFrameDelayCount: {
      auto v = valueAs<std::int64_t>(setting);
      if (!v || *v != 0)
        return invalid;
      // Frame threads each hold a picture back; slices split one picture instead.
      ctx->thread_type = FF_THREAD_SLICE;
      switch (c.kind) {
        case Kind::x264:
          return setPrivate(ctx, "rc-lookahead", "0");
        case Kind::nvenc:
          return setPrivate(ctx, "delay", "0");
        case Kind::qsv:
          return setPrivate(ctx, "look_ahead", "0");
        case Kind::vaapi:
          return 0;
      }
      return invalid;
    }
    case H264Property::fieldCount: {
      auto v = valueAs<std::int64_t>(setting);
      if (!v || *v != 1)
        return invalid;
      ctx->field_order = AV_FIELD_PROGRESSIVE;
      return 0;
    }
    case H264Property::enableHardwareAcceleration: {
      auto v = valueAs<bool>(setting);
      if (!v)
        return invalid;
      settings.tryHardware = *v;
      return 0;
    }
  }
  return invalid;
}

std::optional<std::string> openableRenderNode() {
  for (int i = 128; i < 136; ++i) {
    const std::string path = "/dev/dri/renderD" + std::to_string(i);
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd >= 0) {
      ::close(fd);
      return path;
    }
  }
  return std::nullopt;
}

struct OpenedEncoder {
  CodecContextPtr context;
  BufferRefPtr hardwareFrames;
  std::vector<int> propertyStatus;
  Settings settings;
  int status = 0;
};

OpenedEncoder openEncoder(const EncoderInfo& c,
                          int width,
                          int height,
                          const std::vector<H264PropertySetting>& properties) {
  OpenedEncoder opened;
  const AVCodec* codec = avcodec_find_encoder_by_name(c.name);
  if (!codec) {
    opened.status = AVERROR_ENCODER_NOT_FOUND;
    return opened;
  }
  BufferRefPtr device;
  if (c.kind == Kind::vaapi) {
    auto node = openableRenderNode();
    if (!node) {
      opened.status = AVERROR(ENODEV);
      return opened;
    }
    AVBufferRef* created = nullptr;
    opened.status =
        av_hwdevice_ctx_create(&created, AV_HWDEVICE_TYPE_VAAPI, node->c_str(), nullptr, 0);
    device.reset(created);
    if (opened.status < 0)
      return opened;
  }
  opened.context.reset(avcodec_alloc_context3(codec));
  AVCodecContext* ctx = opened.context.get();
  if (!ctx) {
    opened.status = AVERROR(ENOMEM);
    return opened;
  }
  ctx->width = width;
  ctx->height = height;
  ctx->pix_fmt = c.inputFormat;
  ctx->time_base = AVRational{1, 10};
  ctx->framerate = AVRational{10, 1};
  // Parameter sets travel in-band before every IDR picture.
  ctx->flags &= ~AV_CODEC_FLAG_GLOBAL_HEADER;
  // libyuv's ARGBToI420, which makes the frames' I420 form, uses the BT.601 matrix at limited
  // range; screen pixels are sRGB, whose primaries are BT.709's.
  ctx->colorspace = AVCOL_SPC_SMPTE170M;
  ctx->color_range = AVCOL_RANGE_MPEG;
  ctx->color_primaries = AVCOL_PRI_BT709;
  ctx->color_trc = AVCOL_TRC_IEC61966_2_1;
  for (const auto& property : properties)
    opened.propertyStatus.push_back(applyProperty(ctx, c, property, opened.settings));
  // One thread for the software encoder: at ten frames a second a 1080p picture takes a few
  // milliseconds of one core, and every further thread costs memory (its own pictures and
  // allocator arena) and synchronisation, not time the session needs.
  if (c.kind == Kind::x264)
    ctx->thread_count = 1;
  // A requested key frame becomes an IDR picture, which a decoder can start from.
  setPrivate(ctx, c.kind == Kind::qsv ? "forced_idr" : "forced-idr", "1");
  if (c.kind == Kind::vaapi) {
    opened.hardwareFrames.reset(av_hwframe_ctx_alloc(device.get()));
    if (!opened.hardwareFrames) {
      opened.status = AVERROR(ENOMEM);
      return opened;
    }
    auto* frames = reinterpret_cast<AVHWFramesContext*>(opened.hardwareFrames->data);
    frames->format = AV_PIX_FMT_VAAPI;
    frames->sw_format = AV_PIX_FMT_NV12;
    frames->width = width;
    frames->height = height;
    frames->initial_pool_size = 8;
    opened.status = av_hwframe_ctx_init(opened.hardwareFrames.get());
    if (opened.status < 0)
      return opened;
    ctx->pix_fmt = AV_PIX_FMT_VAAPI;
    ctx->hw_frames_ctx = av_buffer_ref(opened.hardwareFrames.get());
  }
  opened.status = avcodec_open2(ctx, codec, nullptr);
  return opened;
}

class LibavH264Session final : public H264EncoderSession {
 public:
  LibavH264Session(const EncoderInfo& candidate,
                   OpenedEncoder opened,
                   int nominalWidth,
                   int nominalHeight,
                   OutputHandler output)
      : candidate_(candidate),
        context_(std::move(opened.context)),
        hardwareFrames_(std::move(opened.hardwareFrames)),
        settings_(opened.settings),
        nominalWidth_(nominalWidth),
        nominalHeight_(nominalHeight),
        output_(std::move(output)),
        ownFrame_(av_frame_alloc()),
        borrowed_(av_frame_alloc()),
        uploaded_(av_frame_alloc()),
        packet_(av_packet_alloc()) {}

  std::string name() const override { return candidate_.name; }
  bool isHardwareAccelerated() const override { return candidate_.hardware; }

  // The encoder's picture made from an I420 one; nullptr when it cannot be made. A picture at the
  // session's size is cropped to the encoder's even size, any other is scaled.
  AVFrame* fill(const std::shared_ptr<const QRVPixelBuffer>& picture) {
    const int w = context_->width;
    const int h = context_->height;
    const bool scale = picture->width() != nominalWidth_ || picture->height() != nominalHeight_ ||
                       picture->width() < w || picture->height() < h;
    if (!scale && candidate_.inputFormat == AV_PIX_FMT_YUV420P)
      return borrow(picture) ? borrowed_.get() : nullptr;
    if (!ownFrame_->buf[0]) {
      ownFrame_->format = candidate_.inputFormat;
      ownFrame_->width = w;
      ownFrame_->height = h;
      if (av_frame_get_buffer(ownFrame_.get(), 32) < 0)
        return nullptr;
    }
    if (av_frame_make_writable(ownFrame_.get()) < 0)
      return nullptr;
    AVFrame* f = ownFrame_.get();
    const std::uint8_t* y = picture->dataY();
    const std::uint8_t* u = picture->dataU();
    const std::uint8_t* v = picture->dataV();
    int strideY = picture->strideY();
    int strideUV = picture->strideUV();
    const auto scaleInto = [&](std::uint8_t* sy, int sStrideY, std::uint8_t* su, std::uint8_t* sv,
                               int sStrideUV) {
      return libyuv::I420Scale(y, strideY, u, strideUV, v, strideUV, picture->width(),
                               picture->height(), sy, sStrideY, su, sStrideUV, sv, sStrideUV, w, h,
                               libyuv::kFilterBox) == 0;
    };
    if (candidate_.inputFormat == AV_PIX_FMT_YUV420P)
      return scaleInto(f->data[0], f->linesize[0], f->data[1], f->data[2], f->linesize[1])
                 ? f
                 : nullptr;
    if (scale) {
      scaled_.resize(QRVPixelBuffer::byteCount(w, h));
      std::uint8_t* sy = scaled_.data();
      std::uint8_t* su = sy + std::size_t(w) * h;
      std::uint8_t* sv = su + std::size_t(w / 2) * (h / 2);
      if (!scaleInto(sy, w, su, sv, w / 2))
        return nullptr;
      y = sy;
      u = su;
      v = sv;
      strideY = w;
      strideUV = w / 2;
    }
    return libyuv::I420ToNV12(y, strideY, u, strideUV, v, strideUV, f->data[0], f->linesize[0],
                              f->data[1], f->linesize[1], w, h) == 0
               ? f
               : nullptr;
  }

  // Points borrowed_ at the picture's planes instead of copying them: the encoder copies the
  // picture into its own anyway. The buffer reference keeps the picture alive for as long as
  // libavcodec holds the frame.
  bool borrow(const std::shared_ptr<const QRVPixelBuffer>& picture) {
    using Owner = std::shared_ptr<const QRVPixelBuffer>;
    auto owner = std::make_unique<Owner>(picture);
    // libavcodec takes non-const planes; the buffer is marked read-only, so nothing writes them.
    const auto writable = [](const std::uint8_t* p) { return const_cast<std::uint8_t*>(p); };
    AVBufferRef* buffer = av_buffer_create(
        writable(picture->bytes().data()), picture->bytes().size(),
        [](void* opaque, std::uint8_t*) { std::unique_ptr<Owner>(static_cast<Owner*>(opaque)); },
        owner.get(), AV_BUFFER_FLAG_READONLY);
    if (!buffer)
      return false;
    owner.release();
    AVFrame* f = borrowed_.get();
    av_frame_unref(f);
    f->buf[0] = buffer;
    f->format = AV_PIX_FMT_YUV420P;
    f->width = context_->width;
    f->height = context_->height;
    f->data[0] = writable(picture->dataY());
    f->data[1] = writable(picture->dataU());
    f->data[2] = writable(picture->dataV());
    f->linesize[0] = picture->strideY();
    f->linesize[1] = picture->strideUV();
    f->linesize[2] = picture->strideUV();
    return true;
  }

  H264EncodeStatus encode(const std::shared_ptr<const QRVPixelBuffer>& picture,
                          const QRVSampleTiming& timing,
                          bool forceKeyFrame,
                          std::uint64_t frameId,
                          bool& dropped) override {
    dropped = false;
    if (ended_)
      return H264EncodeStatus::invalidSession;
    AVFrame* frame = picture && ownFrame_ && borrowed_ && uploaded_ ? fill(picture) : nullptr;
    if (!frame)
      return H264EncodeStatus::failed;
    const std::optional<double> seconds =
        timing.presentationTimeStamp.isValid() && timing.presentationTimeStamp.timescale > 0
            ? std::optional(double(timing.presentationTimeStamp.value) /
                            timing.presentationTimeStamp.timescale)
            : std::nullopt;
    if (seconds && lastKeySeconds_ && settings_.maxKeyIntervalSeconds > 0 &&
        *seconds - *lastKeySeconds_ >= settings_.maxKeyIntervalSeconds)
      forceKeyFrame = true;
    frame->pts = nextPts_++;
    frame->pict_type = forceKeyFrame ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    frameIds_[frame->pts] = {frameId, seconds};
    int rc;
    if (hardwareFrames_) {
      av_frame_unref(uploaded_.get());
      rc = av_hwframe_get_buffer(hardwareFrames_.get(), uploaded_.get(), 0);
      if (rc >= 0)
        rc = av_hwframe_transfer_data(uploaded_.get(), frame, 0);
      if (rc >= 0) {
        uploaded_->pts = frame->pts;
        uploaded_->pict_type = frame->pict_type;
        rc = avcodec_send_frame(context_.get(), uploaded_.get());
      }
      // The encoder holds its own reference; the surface goes back to the pool when it is done.
      av_frame_unref(uploaded_.get());
    } else {
      rc = avcodec_send_frame(context_.get(), frame);
    }
    // Likewise: a borrowed picture is not kept alive past the encoder's use of it.
    av_frame_unref(borrowed_.get());
    if (rc < 0) {
      frameIds_.erase(nextPts_ - 1);
      QRV_LOGGER_FOR(kLogCategory)
          ->error("{}: sending a picture failed: {}", name(), errorText(rc));
      return H264EncodeStatus::invalidSession;
    }
    return drain() ? H264EncodeStatus::ok : H264EncodeStatus::invalidSession;
  }

  // Up to a time, what is ready now: the encoders in use are asked to hold nothing back. All of
  // them: the encoder is drained to its end, and the session takes no picture afterwards.
  void completeFrames(QRVTime upTo) override {
    if (upTo.isValid() || ended_) {
      drain();
      return;
    }
    ended_ = true;
    if (avcodec_send_frame(context_.get(), nullptr) >= 0)
      drain();
  }

 private:
  bool drain() {
    for (;;) {
      const int rc = avcodec_receive_packet(context_.get(), packet_.get());
      if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
        return true;
      if (rc < 0) {
        QRV_LOGGER_FOR(kLogCategory)
            ->error("{}: receiving a picture failed: {}", name(), errorText(rc));
        return false;
      }
      const bool key = (packet_->flags & AV_PKT_FLAG_KEY) != 0;
      H264Sample sample = sampleFromAnnexB({packet_->data, std::size_t(packet_->size)}, key);
      if (key && sample.parameterSets.empty() && context_->extradata) {
        for (auto unit : splitAnnexB({context_->extradata, std::size_t(context_->extradata_size)}))
          sample.parameterSets.emplace_back(unit.begin(), unit.end());
      }
      std::uint64_t frameId = 0;
      auto found = frameIds_.find(packet_->pts);
      if (found != frameIds_.end()) {
        frameId = found->second.frameId;
        if (key && found->second.seconds)
          lastKeySeconds_ = found->second.seconds;
        frameIds_.erase(found);
      }
      av_packet_unref(packet_.get());
      output_(frameId, 0, std::move(sample));
    }
  }

  struct Submitted {
    std::uint64_t frameId;
    std::optional<double> seconds;
  };

  const EncoderInfo candidate_;
  CodecContextPtr context_;
  BufferRefPtr hardwareFrames_;
  const Settings settings_;
  const int nominalWidth_;
  const int nominalHeight_;
  const OutputHandler output_;
  // Scaled or NV12 pictures, made here; the buffer is reused from picture to picture.
  FramePtr ownFrame_;
  // Pictures the encoder takes as they are: a reference to the caller's planes, no copy.
  FramePtr borrowed_;
  // The hardware surface an NV12 picture is uploaded to.
  FramePtr uploaded_;
  PacketPtr packet_;
  std::vector<std::uint8_t> scaled_;  // a scaled I420 picture on its way to NV12
  std::int64_t nextPts_ = 0;
  std::map<std::int64_t, Submitted> frameIds_;
  std::optional<double> lastKeySeconds_;
  bool ended_ = false;
};

}  // namespace

std::vector<std::string> LibavH264Factory::availableEncoders() {
  std::vector<std::string> names;
  for (const auto& c : kCandidates)
    if (avcodec_find_encoder_by_name(c.name))
      names.emplace_back(c.name);
  return names;
}

const std::vector<H264EncoderFactory::Candidate>& LibavH264Factory::candidates() const {
  static const std::vector<Candidate> list = [] {
    std::vector<Candidate> out;
    for (const auto& c : kCandidates)
      out.push_back({c.name, c.hardware});
    return out;
  }();
  return list;
}

H264SessionResult LibavH264Factory::open(std::size_t index,
                                         int width,
                                         int height,
                                         const std::vector<H264PropertySetting>& properties,
                                         H264EncoderSession::OutputHandler output) {
  H264SessionResult result;
  // 4:2:0 needs even sides: the odd last column or row is cropped.
  const int evenWidth = width & ~1;
  const int evenHeight = height & ~1;
  if (index >= kCandidates.size() || evenWidth <= 0 || evenHeight <= 0) {
    result.status = AVERROR(EINVAL);
    return result;
  }
  const EncoderInfo& c = kCandidates[index];
  OpenedEncoder opened = openEncoder(c, evenWidth, evenHeight, properties);
  if (opened.status < 0) {
    QRV_LOGGER_FOR(kLogCategory)->debug("{} unavailable: {}", c.name, errorText(opened.status));
    result.status = opened.status;
    return result;
  }
  result.propertyStatus = opened.propertyStatus;
  result.session =
      std::make_unique<LibavH264Session>(c, std::move(opened), width, height, std::move(output));
  return result;
}

std::shared_ptr<H264CodecBackend> makePlatformH264Backend() {
  return std::make_shared<ChoosingH264Backend>(std::make_unique<LibavH264Factory>());
}

}  // namespace quorvix

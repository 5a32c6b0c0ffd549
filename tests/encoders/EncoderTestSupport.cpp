#include "encoders/EncoderTestSupport.h"

#include <bit>
#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
}
#include <libyuv/planar_functions.h>
#include <libyuv/scale.h>
#include <turbojpeg.h>

#include "encoders/H264Sample.h"

namespace quorvix::test {

std::shared_ptr<const QRVImage> desktopPicture(int width, int height, int step) {
  std::vector<std::uint8_t> bgrx(std::size_t(width) * height * 4);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = &bgrx[(std::size_t(y) * width + x) * 4];
      std::uint8_t b = 240, g = 238, r = 235;
      if (y < height / 12) {
        b = 160, g = 90, r = 40;  // title bar
      } else if ((y / 14) % 2 == 0 && (x / 7) % 9 != 8 && ((x * 7 + y * 3 + x / 7) % 5) < 2) {
        b = g = r = 30;  // glyph strokes on text lines
      }
      const int bx = (step * 13) % std::max(1, width - width / 8);
      if (x >= bx && x < bx + width / 8 && y >= height / 2 && y < height / 2 + height / 8)
        b = 40, g = 170, r = 210;
      p[0] = b, p[1] = g, p[2] = r, p[3] = 0xff;
    }
  }
  return QRVImage::create(width, height, std::move(bgrx));
}

std::shared_ptr<QRVFrame> desktopFrame(int width, int height, int step) {
  return std::make_shared<QRVFrame>(desktopPicture(width, height, step));
}

double psnr(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
  if (a.size() != b.size() || a.empty())
    return 0;
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const double d = double(a[i]) - double(b[i]);
    sum += d * d;
  }
  if (sum == 0)
    return 99;
  return 10 * std::log10(255.0 * 255.0 / (sum / a.size()));
}

DecodedVideo decodeH264(const std::vector<std::vector<std::uint8_t>>& accessUnits) {
  DecodedVideo video;
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  AVCodecContext* ctx = avcodec_alloc_context3(codec);
  ctx->thread_count = 1;
  if (avcodec_open2(ctx, codec, nullptr) < 0) {
    avcodec_free_context(&ctx);
    video.errors = -1;
    return video;
  }
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  auto receive = [&] {
    while (avcodec_receive_frame(ctx, frame) == 0) {
      DecodedPicture p;
      p.width = frame->width;
      p.height = frame->height;
      p.keyFrame = frame->key_frame != 0;
      p.colorspace = frame->colorspace;
      p.colorRange = frame->color_range;
      p.y.resize(std::size_t(p.width) * p.height);
      libyuv::CopyPlane(frame->data[0], frame->linesize[0], p.y.data(), p.width, p.width, p.height);
      video.pictures.push_back(std::move(p));
      av_frame_unref(frame);
    }
  };
  for (const auto& unit : accessUnits) {
    std::vector<std::uint8_t> padded(unit);
    padded.resize(unit.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    packet->data = padded.data();
    packet->size = int(unit.size());
    if (avcodec_send_packet(ctx, packet) < 0)
      ++video.errors;
    receive();
  }
  avcodec_send_packet(ctx, nullptr);
  receive();
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&ctx);
  return video;
}

std::vector<int> nalTypes(std::span<const std::uint8_t> b) {
  std::vector<int> types;
  for (std::size_t i = 0; i + 3 < b.size(); ++i)
    if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) {
      types.push_back(b[i + 3] & 0x1F);
      i += 2;
    }
  return types;
}

namespace {

// Reads an RBSP (emulation prevention bytes already removed) bit by bit; past the end, zeros.
class BitReader {
 public:
  explicit BitReader(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {}

  bool bit() {
    const std::size_t byte = at_ / 8;
    const bool value = byte < bytes_.size() && (bytes_[byte] >> (7 - at_ % 8) & 1);
    ++at_;
    return value;
  }
  std::uint32_t bits(int count) {
    std::uint32_t value = 0;
    for (int i = 0; i < count; ++i)
      value = value << 1 | std::uint32_t(bit());
    return value;
  }
  // Exp-Golomb; bounded so that a run of zeros cannot shift past 32 bits.
  std::uint32_t ue() {
    int zeros = 0;
    while (!bit() && zeros < 31)
      ++zeros;
    return (1u << zeros) - 1 + bits(zeros);
  }
  std::int32_t se() {
    const std::uint32_t k = ue();
    return k % 2 ? std::int32_t((k + 1) / 2) : -std::int32_t(k / 2);
  }
  // Whether data remains before the stop bit, the last 1 of the RBSP.
  bool moreData() const {
    for (std::size_t i = bytes_.size(); i-- > 0;)
      if (bytes_[i] != 0)
        return at_ < i * 8 + 7 - std::size_t(std::countr_zero(bytes_[i]));
    return false;
  }

 private:
  std::vector<std::uint8_t> bytes_;
  std::size_t at_ = 0;
};

}  // namespace

std::optional<PictureParameterTools> pictureParameterTools(std::span<const std::uint8_t> annexB) {
  constexpr int kPictureParameterSet = 8;
  for (auto unit : splitAnnexB(annexB)) {
    if ((unit[0] & 0x1F) != kPictureParameterSet)
      continue;
    std::vector<std::uint8_t> rbsp;
    for (std::size_t i = 1; i < unit.size(); ++i) {
      if (i >= 3 && unit[i] == 3 && unit[i - 1] == 0 && unit[i - 2] == 0)
        continue;
      rbsp.push_back(unit[i]);
    }
    BitReader r(std::move(rbsp));
    PictureParameterTools tools;
    r.ue();  // pic_parameter_set_id
    r.ue();  // seq_parameter_set_id
    tools.cabac = r.bit();
    r.bit();  // bottom_field_pic_order_in_frame_present_flag
    if (r.ue() != 0)
      return std::nullopt;  // slice groups
    r.ue();                 // num_ref_idx_l0_default_active_minus1
    r.ue();                 // num_ref_idx_l1_default_active_minus1
    r.bits(3);              // weighted_pred_flag, weighted_bipred_idc
    r.se();                 // pic_init_qp_minus26
    r.se();                 // pic_init_qs_minus26
    r.se();                 // chroma_qp_index_offset
    r.bits(3);  // deblocking_filter_control_present, constrained_intra_pred, redundant_pic_cnt
    tools.transform8x8 = r.moreData() && r.bit();
    return tools;
  }
  return std::nullopt;
}

std::optional<DecodedJPEG> decodeJPEG(std::span<const std::uint8_t> jpeg) {
  tjhandle handle = tjInitDecompress();
  DecodedJPEG out;
  int colorspace = 0;
  auto* data = const_cast<unsigned char*>(jpeg.data());
  if (tjDecompressHeader3(handle, data, jpeg.size(), &out.width, &out.height, &out.subsampling,
                          &colorspace) != 0) {
    tjDestroy(handle);
    return std::nullopt;
  }
  out.bgrx.resize(std::size_t(out.width) * out.height * 4);
  const int rc = tjDecompress2(handle, data, jpeg.size(), out.bgrx.data(), out.width, out.width * 4,
                               out.height, TJPF_BGRX, 0);
  tjDestroy(handle);
  if (rc != 0)
    return std::nullopt;
  return out;
}

std::vector<std::uint8_t> referenceLuma(const QRVFrame& frame, int width, int height) {
  auto buffer = frame.pixelBuffer();
  std::vector<std::uint8_t> y(std::size_t(width) * height);
  if (buffer->width() >= width && buffer->height() >= height && buffer->width() - width < 2 &&
      buffer->height() - height < 2)
    libyuv::CopyPlane(buffer->dataY(), buffer->strideY(), y.data(), width, width, height);
  else
    libyuv::ScalePlane(buffer->dataY(), buffer->strideY(), buffer->width(), buffer->height(),
                       y.data(), width, width, height, libyuv::kFilterBox);
  return y;
}

}  // namespace quorvix::test

// What each libx264 preset costs and gives at the stream's settings (High profile, 512 kbit/s,
// zerolatency, no B-frames, 10 frames a second), to choose the preset for quality 0.5.
// Usage: x264_preset_bench FILE WIDTH HEIGHT, FILE holding BGRX frames back to back (as
// bench/encoders.sh records them). Prints per preset: the profile written (profile_idc of the
// sequence parameter set), encoder CPU per frame, bytes per frame and luma PSNR, decoded by
// libavcodec's H.264 decoder.
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}
#include <libyuv/convert.h>
#include <libyuv/planar_functions.h>

namespace {

double processCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

struct Picture {
  std::vector<std::uint8_t> y, u, v;
};

int sequenceProfile(const AVPacket& packet) {
  for (int i = 0; i + 4 < packet.size; ++i)
    if (packet.data[i] == 0 && packet.data[i + 1] == 0 && packet.data[i + 2] == 1 &&
        (packet.data[i + 3] & 0x1F) == 7)
      return packet.data[i + 4];
  return -1;
}

void run(const char* preset, const std::vector<Picture>& pictures, int w, int h) {
  const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
  AVCodecContext* ctx = avcodec_alloc_context3(codec);
  ctx->width = w;
  ctx->height = h;
  ctx->pix_fmt = AV_PIX_FMT_YUV420P;
  ctx->time_base = {1, 10};
  ctx->framerate = {10, 1};
  ctx->bit_rate = 524288;
  ctx->gop_size = 120;
  ctx->max_b_frames = 0;
  ctx->thread_type = FF_THREAD_SLICE;
  ctx->profile = FF_PROFILE_H264_HIGH;
  av_opt_set(ctx->priv_data, "preset", preset, 0);
  av_opt_set(ctx->priv_data, "tune", "zerolatency", 0);
  av_opt_set(ctx->priv_data, "profile", "high", 0);
  if (avcodec_open2(ctx, codec, nullptr) < 0) {
    std::printf("%-10s does not open\n", preset);
    avcodec_free_context(&ctx);
    return;
  }
  const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_H264);
  AVCodecContext* dctx = avcodec_alloc_context3(decoder);
  avcodec_open2(dctx, decoder, nullptr);
  AVFrame* frame = av_frame_alloc();
  frame->format = ctx->pix_fmt;
  frame->width = w;
  frame->height = h;
  av_frame_get_buffer(frame, 32);
  AVFrame* decoded = av_frame_alloc();
  AVPacket* packet = av_packet_alloc();
  double cpu = 0;
  double bytes = 0;
  double psnrSum = 0;
  int profile = -1;
  std::size_t shown = 0;
  for (std::size_t i = 0; i < pictures.size(); ++i) {
    av_frame_make_writable(frame);
    const Picture& p = pictures[i];
    libyuv::I420Copy(p.y.data(), w, p.u.data(), w / 2, p.v.data(), w / 2, frame->data[0],
                     frame->linesize[0], frame->data[1], frame->linesize[1], frame->data[2],
                     frame->linesize[2], w, h);
    frame->pts = std::int64_t(i);
    const double start = processCpuSeconds();
    avcodec_send_frame(ctx, frame);
    const int rc = avcodec_receive_packet(ctx, packet);
    cpu += processCpuSeconds() - start;
    if (rc < 0)
      continue;
    bytes += packet->size;
    if (profile < 0)
      profile = sequenceProfile(*packet);
    avcodec_send_packet(dctx, packet);
    av_packet_unref(packet);
    while (avcodec_receive_frame(dctx, decoded) == 0) {
      const Picture& source = pictures[shown++];
      double squares = 0;
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          const double d = double(decoded->data[0][y * decoded->linesize[0] + x]) -
                           double(source.y[std::size_t(y) * w + x]);
          squares += d * d;
        }
      psnrSum += squares == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * w * h / squares);
      av_frame_unref(decoded);
    }
  }
  const double n = double(pictures.size());
  std::printf("%-10s %11d %8.2f %10.0f %8.2f\n", preset, profile, cpu * 1000 / n, bytes / n,
              shown ? psnrSum / double(shown) : 0);
  av_packet_free(&packet);
  av_frame_free(&decoded);
  av_frame_free(&frame);
  avcodec_free_context(&dctx);
  avcodec_free_context(&ctx);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s FILE WIDTH HEIGHT\n", argv[0]);
    return 2;
  }
  const int w = std::stoi(argv[2]) & ~1;
  const int h = std::stoi(argv[3]) & ~1;
  const int stride = std::stoi(argv[2]) * 4;
  std::ifstream in(argv[1], std::ios::binary);
  std::vector<Picture> pictures;
  std::vector<std::uint8_t> bgrx(std::size_t(stride) * std::stoi(argv[3]));
  while (in.read(reinterpret_cast<char*>(bgrx.data()), std::streamsize(bgrx.size()))) {
    Picture p{std::vector<std::uint8_t>(std::size_t(w) * h),
              std::vector<std::uint8_t>(std::size_t(w / 2) * (h / 2)),
              std::vector<std::uint8_t>(std::size_t(w / 2) * (h / 2))};
    libyuv::ARGBToI420(bgrx.data(), stride, p.y.data(), w, p.u.data(), w / 2, p.v.data(), w / 2, w,
                       h);
    pictures.push_back(std::move(p));
  }
  if (pictures.empty()) {
    std::fprintf(stderr, "no frames in %s\n", argv[1]);
    return 1;
  }
  av_log_set_level(AV_LOG_ERROR);
  std::printf("%-10s %11s %8s %10s %8s\n", "preset", "profile_idc", "CPU ms", "bytes", "PSNR-Y");
  for (const char* preset : {"ultrafast", "superfast", "veryfast", "faster", "fast", "medium"})
    run(preset, pictures, w, h);
  return 0;
}

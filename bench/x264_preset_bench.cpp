// What each libx264 setting costs and gives at the stream's settings (High profile asked for,
// 512 kbit/s, zerolatency, no B-frames, 10 frames a second), to choose the one for quality 0.5:
// the presets, and "ultrafast" with the High tools turned back on one at a time.
// Usage: x264_preset_bench FILE WIDTH HEIGHT, FILE holding BGRX frames back to back (as
// bench/encoders.sh records them). Prints the CPU per frame of the BGRX to I420 conversion, then
// per setting: the profile written (profile_idc of the sequence parameter set), the entropy coder
// (of the picture parameter set), encoder CPU per frame, bytes per frame and luma PSNR, decoded by
// libavcodec's H.264 decoder.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <span>
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

// The first unit of that type in an Annex B packet, after its header byte; empty when none.
std::span<const std::uint8_t> unitOfType(const AVPacket& packet, int type) {
  const std::span<const std::uint8_t> bytes(packet.data, std::size_t(packet.size));
  for (std::size_t i = 0; i + 4 < bytes.size(); ++i)
    if (bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1 && (bytes[i + 3] & 0x1F) == type)
      return bytes.subspan(i + 4);
  return {};
}

int sequenceProfile(const AVPacket& packet) {
  const auto sps = unitOfType(packet, 7);
  return sps.empty() ? -1 : sps[0];
}

// entropy_coding_mode_flag: the third field of the picture parameter set, after two Exp-Golomb
// ids. The ids x264 writes are small, so the bits sit in the first two bytes.
const char* entropyCoder(const AVPacket& packet) {
  const auto pps = unitOfType(packet, 8);
  if (pps.size() < 2)
    return "?";
  const unsigned bits = unsigned(pps[0]) << 8 | pps[1];
  int at = 15;
  for (int field = 0; field < 2; ++field) {
    int zeros = 0;
    while (at >= 0 && !(bits >> at & 1)) {
      ++zeros;
      --at;
    }
    at -= zeros + 1;
  }
  if (at < 0)
    return "?";
  return bits >> at & 1 ? "CABAC" : "CAVLC";
}

struct Variant {
  const char* name;
  const char* preset;
  const char* params;  // x264-params on top of the preset
};

struct Result {
  bool opened = false;
  int profile = -1;
  const char* entropy = "?";
  double cpuMs = 0;  // per frame
  double bytes = 0;  // per frame
  double psnr = 0;
};

Result run(const Variant& variant, const std::vector<Picture>& pictures, int w, int h) {
  Result result;
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
  ctx->thread_count = 1;  // as the stream runs it
  ctx->profile = FF_PROFILE_H264_HIGH;
  av_opt_set(ctx->priv_data, "preset", variant.preset, 0);
  av_opt_set(ctx->priv_data, "tune", "zerolatency", 0);
  av_opt_set(ctx->priv_data, "profile", "high", 0);
  av_opt_set(ctx->priv_data, "rc-lookahead", "0", 0);
  if (*variant.params)
    av_opt_set(ctx->priv_data, "x264-params", variant.params, 0);
  if (avcodec_open2(ctx, codec, nullptr) < 0) {
    avcodec_free_context(&ctx);
    return result;
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
    if (result.profile < 0) {
      result.profile = sequenceProfile(*packet);
      result.entropy = entropyCoder(*packet);
    }
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
  result.opened = true;
  result.cpuMs = cpu * 1000 / n;
  result.bytes = bytes / n;
  result.psnr = shown ? psnrSum / double(shown) : 0;
  av_packet_free(&packet);
  av_frame_free(&decoded);
  av_frame_free(&frame);
  avcodec_free_context(&dctx);
  avcodec_free_context(&ctx);
  return result;
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
  double convertCpu = 0;
  while (in.read(reinterpret_cast<char*>(bgrx.data()), std::streamsize(bgrx.size()))) {
    Picture p{std::vector<std::uint8_t>(std::size_t(w) * h),
              std::vector<std::uint8_t>(std::size_t(w / 2) * (h / 2)),
              std::vector<std::uint8_t>(std::size_t(w / 2) * (h / 2))};
    const double start = processCpuSeconds();
    libyuv::ARGBToI420(bgrx.data(), stride, p.y.data(), w, p.u.data(), w / 2, p.v.data(), w / 2, w,
                       h);
    convertCpu += processCpuSeconds() - start;
    pictures.push_back(std::move(p));
  }
  if (pictures.empty()) {
    std::fprintf(stderr, "no frames in %s\n", argv[1]);
    return 1;
  }
  std::printf("BGRX to I420 (libyuv ARGBToI420): %.2f ms CPU per frame\n",
              convertCpu * 1000 / double(pictures.size()));
  av_log_set_level(AV_LOG_ERROR);
  std::printf("%-28s %7s %7s %8s %10s %8s\n", "setting", "profile", "entropy", "CPU ms", "bytes",
              "PSNR-Y");
  const Variant variants[] = {
      {"ultrafast", "ultrafast", ""},
      {"ultrafast+8x8dct", "ultrafast", "8x8dct=1"},
      {"ultrafast+8x8dct+i8x8", "ultrafast", "8x8dct=1:partitions=i8x8"},
      {"ultrafast+8x8dct+deblock", "ultrafast", "8x8dct=1:deblock=0,0"},
      {"ultrafast+8x8dct+i8x8+deblock", "ultrafast", "8x8dct=1:partitions=i8x8:deblock=0,0"},
      {"ultrafast+8x8dct+subme1", "ultrafast", "8x8dct=1:subme=1"},
      {"ultrafast+8x8dct+i8x8+subme1", "ultrafast", "8x8dct=1:partitions=i8x8:subme=1"},
      {"ultrafast+8x8dct+hex", "ultrafast", "8x8dct=1:me=hex"},
      {"ultrafast+8x8dct+deblock+cabac", "ultrafast", "8x8dct=1:deblock=0,0:cabac=1"},
      {"ultrafast+8x8dct+cabac", "ultrafast", "8x8dct=1:cabac=1"},
      {"ultrafast+8x8dct+i8x8+cabac", "ultrafast", "8x8dct=1:partitions=i8x8:cabac=1"},
      {"superfast", "superfast", ""},
      {"superfast+cavlc", "superfast", "cabac=0"},
      {"veryfast", "veryfast", ""},
      {"faster", "faster", ""},
  };
  // The encoder runs on one thread and is deterministic, so the runs differ in CPU time only: the
  // least of them is the one the least disturbed by the rest of the machine.
  constexpr int kRuns = 3;
  for (const Variant& variant : variants) {
    Result best = run(variant, pictures, w, h);
    for (int i = 1; i < kRuns && best.opened; ++i)
      best.cpuMs = std::min(best.cpuMs, run(variant, pictures, w, h).cpuMs);
    if (!best.opened)
      std::printf("%-28s does not open\n", variant.name);
    else
      std::printf("%-28s %7d %7s %8.2f %10.0f %8.2f\n", variant.name, best.profile, best.entropy,
                  best.cpuMs, best.bytes, best.psnr);
  }
  return 0;
}

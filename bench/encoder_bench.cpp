// The two frame encoders on recorded screen frames: CPU time, bytes and picture quality per frame.
// Usage: encoder_bench FILE WIDTH HEIGHT, where FILE holds BGRX frames back to back (as
// `ffmpeg -f x11grab ... -f rawvideo -pix_fmt bgr0` writes them). Quality is measured by decoding
// the output with decoders the encoders share no code with (TurboJPEG's decompressor, libavcodec's
// H.264 decoder) and comparing with the frame: PSNR over B, G, R for JPEG and over luma for H.264.
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}
#include <libyuv/scale.h>
#include <turbojpeg.h>

#include "encoders/QRVH264Stream.h"
#include "encoders/QRVJPEGStream.h"
#include "quorvix/Log.h"

namespace {

using namespace quorvix;
using Bytes = QRVStreamEncoder::Bytes;

double processCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

double psnr(const std::uint8_t* a, const std::uint8_t* b, std::size_t n) {
  double sum = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double d = double(a[i]) - double(b[i]);
    sum += d * d;
  }
  return sum == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * double(n) / sum);
}

struct Row {
  std::string name;
  double cpuMs = 0;
  double bytes = 0;
  double psnr = 0;
  int encoded = 0;
};

void print(const Row& row, int frames) {
  std::printf("%-22s %8.2f %10.0f %8.2f %5d/%d\n", row.name.c_str(), row.cpuMs, row.bytes, row.psnr,
              row.encoded, frames);
}

Row benchJPEG(const std::vector<std::shared_ptr<QRVFrame>>& frames) {
  Row row{"QRVJPEGStream q60"};
  QRVJPEGStream stream;
  std::vector<Bytes> out(frames.size());
  const double start = processCpuSeconds();
  for (std::size_t i = 0; i < frames.size(); ++i)
    stream.encode(frames[i], [&](std::optional<Bytes> b) { out[i] = b.value_or(Bytes{}); });
  row.cpuMs = (processCpuSeconds() - start) * 1000 / double(frames.size());
  tjhandle handle = tjInitDecompress();
  double psnrSum = 0;
  double bytes = 0;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    bytes += double(out[i].size());
    if (out[i].empty())
      continue;
    const auto& image = *frames[i]->image();
    std::vector<std::uint8_t> decoded(image.bytes().size());
    tjDecompress2(handle, out[i].data(), out[i].size(), decoded.data(), image.width(),
                  image.stride(), image.height(), TJPF_BGRX, 0);
    // Every fourth byte is padding: B, G and R together.
    double squares = 0;
    for (std::size_t k = 0; k < decoded.size(); ++k) {
      const double d = k % 4 == 3 ? 0 : double(decoded[k]) - double(image.bytes()[k]);
      squares += d * d;
    }
    const double samples = double(decoded.size()) * 3 / 4;
    psnrSum += squares == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * samples / squares);
    ++row.encoded;
  }
  tjDestroy(handle);
  row.bytes = bytes / double(frames.size());
  row.psnr = row.encoded ? psnrSum / row.encoded : 0;
  return row;
}

Row benchH264(const std::vector<std::shared_ptr<QRVFrame>>& frames, double scale) {
  Row row{"QRVH264Stream x" + std::to_string(scale).substr(0, 3)};
  QRVH264Stream stream;
  std::mutex mutex;
  std::condition_variable done;
  std::vector<Bytes> out(frames.size());
  std::size_t answered = 0;
  // The first frame opens the session at full size; the scale applies from the second on.
  const double start = processCpuSeconds();
  for (std::size_t i = 0; i < frames.size(); ++i) {
    if (i == 1 && scale != 1.0)
      stream.setScale(scale);
    stream.encode(frames[i], [&, i](std::optional<Bytes> b) {
      std::lock_guard lock(mutex);
      out[i] = b.value_or(Bytes{});
      ++answered;
      done.notify_all();
    });
  }
  {
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return answered == frames.size(); });
  }
  row.cpuMs = (processCpuSeconds() - start) * 1000 / double(frames.size());
  stream.destroy();

  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  AVCodecContext* ctx = avcodec_alloc_context3(codec);
  avcodec_open2(ctx, codec, nullptr);
  AVPacket* packet = av_packet_alloc();
  AVFrame* picture = av_frame_alloc();
  double psnrSum = 0;
  double bytes = 0;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    bytes += double(out[i].size());
    if (out[i].empty())
      continue;
    Bytes padded = out[i];
    padded.resize(out[i].size() + AV_INPUT_BUFFER_PADDING_SIZE);
    packet->data = padded.data();
    packet->size = int(out[i].size());
    avcodec_send_packet(ctx, packet);
    while (avcodec_receive_frame(ctx, picture) == 0) {
      const auto source = frames[i]->pixelBuffer();
      std::vector<std::uint8_t> reference(std::size_t(picture->width) * picture->height);
      libyuv::ScalePlane(source->dataY(), source->strideY(), source->width() & ~1,
                         source->height() & ~1, reference.data(), picture->width, picture->width,
                         picture->height, libyuv::kFilterBox);
      std::vector<std::uint8_t> luma(reference.size());
      for (int y = 0; y < picture->height; ++y)
        std::copy_n(picture->data[0] + std::size_t(y) * picture->linesize[0], picture->width,
                    luma.data() + std::size_t(y) * picture->width);
      psnrSum += psnr(luma.data(), reference.data(), luma.size());
      ++row.encoded;
      av_frame_unref(picture);
    }
  }
  av_frame_free(&picture);
  av_packet_free(&packet);
  avcodec_free_context(&ctx);
  row.bytes = bytes / double(frames.size());
  row.psnr = row.encoded ? psnrSum / row.encoded : 0;
  return row;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s FILE WIDTH HEIGHT\n", argv[0]);
    return 2;
  }
  setStderrLogging(false);
  const int width = std::stoi(argv[2]);
  const int height = std::stoi(argv[3]);
  std::ifstream in(argv[1], std::ios::binary);
  std::vector<std::shared_ptr<QRVFrame>> frames;
  const std::size_t frameBytes = std::size_t(width) * height * 4;
  for (;;) {
    std::vector<std::uint8_t> bgrx(frameBytes);
    if (!in.read(reinterpret_cast<char*>(bgrx.data()), std::streamsize(frameBytes)))
      break;
    frames.push_back(std::make_shared<QRVFrame>(QRVImage::create(width, height, std::move(bgrx))));
  }
  if (frames.empty()) {
    std::fprintf(stderr, "no frames in %s\n", argv[1]);
    return 1;
  }
  std::printf("%-22s %8s %10s %8s %s\n", "encoder", "CPU ms", "bytes", "PSNR dB", "decoded");
  print(benchJPEG(frames), int(frames.size()));
  print(benchH264(frames, 1.0), int(frames.size()));
  print(benchH264(frames, 0.5), int(frames.size()));
  return 0;
}

#include "annotations/linux/PictureDecoder.h"

#include <cairo.h>
#include <turbojpeg.h>

#include <cstring>
#include <memory>

#include "utils/Logging.h"

namespace quorvix {
namespace {

std::shared_ptr<spdlog::logger> logger() {
  static const auto log = QRV_LOGGER_FOR("QRVPicture");
  return log;
}

bool withinLimits(std::int64_t width, std::int64_t height) {
  if (width <= 0 || height <= 0 || width > kMaxPictureSide || height > kMaxPictureSide ||
      width * height > kMaxPicturePixels) {
    logger()->warn("Ignored a {}x{} picture: larger than drawings can be", width, height);
    return false;
  }
  return true;
}

std::uint32_t bigEndian32(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         std::uint32_t{p[3]};
}

struct PNGReader {
  const std::uint8_t* data;
  std::size_t size;
  std::size_t offset = 0;
};

cairo_status_t readPNG(void* closure, unsigned char* out, unsigned int length) {
  auto* reader = static_cast<PNGReader*>(closure);
  if (length > reader->size - reader->offset)
    return CAIRO_STATUS_READ_ERROR;
  std::memcpy(out, reader->data + reader->offset, length);
  reader->offset += length;
  return CAIRO_STATUS_SUCCESS;
}

std::optional<QRVPicture> decodePNG(const std::uint8_t* bytes, std::size_t size) {
  // The header chunk comes first; its size is checked before libpng allocates anything.
  if (size < 24 || std::memcmp(bytes + 12, "IHDR", 4) != 0) {
    logger()->warn("Ignored a PNG picture without its header");
    return std::nullopt;
  }
  if (!withinLimits(bigEndian32(bytes + 16), bigEndian32(bytes + 20)))
    return std::nullopt;
  PNGReader reader{bytes, size};
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface(
      cairo_image_surface_create_from_png_stream(&readPNG, &reader), &cairo_surface_destroy);
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
    logger()->warn("Could not decode a PNG picture: {}",
                   cairo_status_to_string(cairo_surface_status(surface.get())));
    return std::nullopt;
  }
  cairo_surface_flush(surface.get());
  QRVPicture picture;
  picture.width = cairo_image_surface_get_width(surface.get());
  picture.height = cairo_image_surface_get_height(surface.get());
  if (!withinLimits(picture.width, picture.height))
    return std::nullopt;
  const int stride = cairo_image_surface_get_stride(surface.get());
  const unsigned char* data = cairo_image_surface_get_data(surface.get());
  const cairo_format_t format = cairo_image_surface_get_format(surface.get());
  picture.pixels.resize(static_cast<std::size_t>(picture.width) * picture.height);
  for (int y = 0; y < picture.height; ++y) {
    const unsigned char* row = data + static_cast<std::ptrdiff_t>(y) * stride;
    std::uint32_t* out = picture.pixels.data() + static_cast<std::size_t>(y) * picture.width;
    if (format == CAIRO_FORMAT_ARGB32 || format == CAIRO_FORMAT_RGB24) {
      std::memcpy(out, row, static_cast<std::size_t>(picture.width) * 4);
      if (format == CAIRO_FORMAT_RGB24) {
        for (int x = 0; x < picture.width; ++x)
          out[x] |= 0xFF000000u;
      }
    } else {
      // Grey or alpha-only pictures: cairo gives A8 (or A1) masks; show them as black ink.
      for (int x = 0; x < picture.width; ++x) {
        const std::uint32_t a =
            format == CAIRO_FORMAT_A8 ? row[x] : ((row[x / 8] >> (x % 8)) & 1u) * 255u;
        out[x] = a << 24;
      }
    }
  }
  return picture;
}

std::optional<QRVPicture> decodeJPEG(const std::uint8_t* bytes, std::size_t size) {
  std::unique_ptr<void, decltype(&tjDestroy)> handle(tjInitDecompress(), &tjDestroy);
  if (!handle)
    return std::nullopt;
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(handle.get(), bytes, static_cast<unsigned long>(size), &width, &height,
                          &subsampling, &colorspace) != 0) {
    logger()->warn("Could not read a JPEG picture: {}", tjGetErrorStr2(handle.get()));
    return std::nullopt;
  }
  if (!withinLimits(width, height))
    return std::nullopt;
  QRVPicture picture{width, height, {}};
  picture.pixels.resize(static_cast<std::size_t>(width) * height);
  // Progressive pictures with thousands of scans cost minutes of CPU: refuse them.
  if (tjDecompress2(handle.get(), bytes, static_cast<unsigned long>(size),
                    reinterpret_cast<unsigned char*>(picture.pixels.data()), width, width * 4,
                    height, TJPF_BGRA, TJFLAG_LIMITSCANS | TJFLAG_STOPONWARNING) != 0) {
    logger()->warn("Could not decode a JPEG picture: {}", tjGetErrorStr2(handle.get()));
    return std::nullopt;
  }
  return picture;
}

}  // namespace

std::optional<QRVPicture> decodePicture(const std::uint8_t* bytes, std::size_t size) {
  if (size > kMaxPictureBytes) {
    logger()->warn("Ignored a picture of {} bytes", size);
    return std::nullopt;
  }
  static constexpr std::uint8_t kPNG[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (size >= sizeof kPNG && std::memcmp(bytes, kPNG, sizeof kPNG) == 0)
    return decodePNG(bytes, size);
  if (size >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF)
    return decodeJPEG(bytes, size);
  logger()->warn("Ignored a picture that is neither PNG nor JPEG");
  return std::nullopt;
}

}  // namespace quorvix

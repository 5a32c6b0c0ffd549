// Drawings' pictures: decoded when they are what they claim and within the limits; refused with
// a reason otherwise, before any large allocation.
#include "annotations/linux/PictureDecoder.h"

#include <cairo.h>
#include <turbojpeg.h>

#include <memory>

#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace quorvix {
namespace {

std::vector<std::uint8_t> png(int width, int height) {
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface(
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height), &cairo_surface_destroy);
  {
    std::unique_ptr<cairo_t, decltype(&cairo_destroy)> cr(cairo_create(surface.get()),
                                                          &cairo_destroy);
    cairo_set_source_rgba(cr.get(), 0, 0, 1, 0.5);
    cairo_rectangle(cr.get(), 0, 0, width / 2.0, height);
    cairo_fill(cr.get());
  }
  std::vector<std::uint8_t> out;
  cairo_surface_write_to_png_stream(
      surface.get(),
      [](void* closure, const unsigned char* data, unsigned int length) {
        auto* bytes = static_cast<std::vector<std::uint8_t>*>(closure);
        bytes->insert(bytes->end(), data, data + length);
        return CAIRO_STATUS_SUCCESS;
      },
      &out);
  return out;
}

std::vector<std::uint8_t> jpeg(int width, int height) {
  std::vector<std::uint8_t> bgrx(static_cast<std::size_t>(width) * height * 4, 0x80);
  std::unique_ptr<void, decltype(&tjDestroy)> handle(tjInitCompress(), &tjDestroy);
  unsigned char* out = nullptr;
  unsigned long size = 0;
  tjCompress2(handle.get(), bgrx.data(), width, width * 4, height, TJPF_BGRX, &out, &size,
              TJSAMP_420, 90, 0);
  std::vector<std::uint8_t> bytes(out, out + size);
  tjFree(out);
  return bytes;
}

TEST(PictureDecoderTest, DecodesPNGAndJPEG) {
  auto fromPNG = [](const std::vector<std::uint8_t>& b) {
    return decodePicture(b.data(), b.size());
  };
  auto picture = fromPNG(png(10, 4));
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture->width, 10);
  EXPECT_EQ(picture->height, 4);
  ASSERT_EQ(picture->pixels.size(), 40u);
  EXPECT_EQ(picture->pixels[0] >> 24, 0x80u) << "half-transparent blue keeps its alpha";
  EXPECT_EQ(picture->pixels[9], 0u) << "the right half is transparent";

  auto photo = jpeg(16, 8);
  auto decoded = decodePicture(photo.data(), photo.size());
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->width, 16);
  EXPECT_EQ(decoded->pixels[0] >> 24, 0xFFu) << "JPEG pictures are opaque";
}

TEST(PictureDecoderTest, RefusesBombsTruncationAndOtherFormats) {
  test::LogCapture logs;
  // A PNG header claiming 100000 x 100000 pixels.
  auto bomb = png(1, 1);
  const std::uint8_t huge[] = {0x00, 0x01, 0x86, 0xA0};
  std::copy(std::begin(huge), std::end(huge), bomb.begin() + 16);
  std::copy(std::begin(huge), std::end(huge), bomb.begin() + 20);
  EXPECT_FALSE(decodePicture(bomb.data(), bomb.size()));
  EXPECT_TRUE(logs.mentions("100000x100000"));

  // A JPEG frame header claiming 60000 x 60000: refused from the header alone.
  auto photo = jpeg(8, 8);
  for (std::size_t i = 0; i + 8 < photo.size(); ++i) {
    if (photo[i] == 0xFF && photo[i + 1] == 0xC0) {
      photo[i + 5] = 0xEA, photo[i + 6] = 0x60, photo[i + 7] = 0xEA, photo[i + 8] = 0x60;
      break;
    }
  }
  EXPECT_FALSE(decodePicture(photo.data(), photo.size()));
  EXPECT_TRUE(logs.mentions("60000x60000"));

  auto whole = png(8, 8);
  EXPECT_FALSE(decodePicture(whole.data(), whole.size() / 2));
  auto good = jpeg(8, 8);
  EXPECT_FALSE(decodePicture(good.data(), 100));
  const std::uint8_t gif[] = {'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0};
  EXPECT_FALSE(decodePicture(gif, sizeof gif));
  EXPECT_FALSE(decodePicture(nullptr, 0));
}

}  // namespace
}  // namespace quorvix

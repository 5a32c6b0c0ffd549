// A PNG of one colour, as an agent's drawing arrives: for the tests of the overlay and of the
// capture that must leave it out.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <cairo.h>

namespace quorvix::test {

inline std::vector<std::uint8_t> solidPng(int width, int height, double r, double g, double b) {
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface(
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height), &cairo_surface_destroy);
  {
    std::unique_ptr<cairo_t, decltype(&cairo_destroy)> cr(cairo_create(surface.get()),
                                                          &cairo_destroy);
    cairo_set_source_rgb(cr.get(), r, g, b);
    cairo_paint(cr.get());
  }
  std::vector<std::uint8_t> png;
  cairo_surface_write_to_png_stream(
      surface.get(),
      [](void* closure, const unsigned char* data, unsigned int length) {
        auto* out = static_cast<std::vector<std::uint8_t>*>(closure);
        out->insert(out->end(), data, data + length);
        return CAIRO_STATUS_SUCCESS;
      },
      &png);
  return png;
}

}  // namespace quorvix::test

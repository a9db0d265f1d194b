// SPDX-License-Identifier: Apache-2.0
#include "tools/image/draw.h"

#include <cairo-pdf.h>
#include <cairo-svg.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace kelm::tools {
namespace {

constexpr std::array<Colour, 9> kViridis = {{{68, 1, 84},
                                             {71, 45, 123},
                                             {59, 82, 139},
                                             {44, 114, 142},
                                             {33, 145, 140},
                                             {40, 174, 128},
                                             {94, 201, 98},
                                             {173, 220, 48},
                                             {253, 231, 37}}};
constexpr std::array<Colour, 6> kPlasma = {
    {{13, 8, 135}, {84, 2, 163}, {139, 10, 165}, {185, 50, 137}, {219, 92, 104}, {244, 136, 73}}};

uint8_t mixed(int from, int to, double share) {
  return static_cast<uint8_t>(from + static_cast<int>(std::lround((to - from) * share)));
}

template <size_t n>
Colour scaleColour(const std::array<Colour, n> &scale, double value) {
  const double place = std::clamp(value, 0.0, 1.0) * (n - 1);
  const size_t step = std::min(static_cast<size_t>(place), n - 2);
  const Colour &from = scale[step], &to = scale[step + 1];
  const double share = place - static_cast<double>(step);
  return {mixed(from.red, to.red, share), mixed(from.green, to.green, share), mixed(from.blue, to.blue, share)};
}

uint8_t sRgb(double linear) {
  const double light = std::clamp(linear, 0.0, 1.0);
  const double shown = light <= 0.0031308 ? 12.92 * light : 1.055 * std::pow(light, 1 / 2.4) - 0.055;
  return static_cast<uint8_t>(std::lround(255 * shown));
}

cairo_status_t append(void *bytes, const unsigned char *data, unsigned int length) {
  auto &out = *static_cast<std::vector<uint8_t> *>(bytes);
  out.insert(out.end(), data, data + length);
  return CAIRO_STATUS_SUCCESS;
}

void require(cairo_status_t status) {
  if (status == CAIRO_STATUS_NO_MEMORY) throw std::bad_alloc();
  if (status != CAIRO_STATUS_SUCCESS) {
    throw PictureError(std::string("the picture could not be drawn (") + cairo_status_to_string(status) + ")");
  }
}

struct Unreferencer {
  void operator()(void *object) const { g_object_unref(object); }
};
using Layout = std::unique_ptr<PangoLayout, Unreferencer>;

Layout layoutOf(cairo_t *cairo, const std::string &text, const TextStyle &style) {
  Layout layout(pango_cairo_create_layout(cairo));
  PangoFontDescription *font = pango_font_description_from_string("DejaVu Sans, sans-serif");
  pango_font_description_set_absolute_size(font, style.size * PANGO_SCALE);
  if (style.bold) pango_font_description_set_weight(font, PANGO_WEIGHT_BOLD);
  pango_layout_set_font_description(layout.get(), font);
  pango_font_description_free(font);
  char *sound = g_utf8_make_valid(text.c_str(), static_cast<gssize>(text.size()));
  pango_layout_set_text(layout.get(), sound, -1);
  g_free(sound);
  pango_layout_set_single_paragraph_mode(layout.get(), TRUE);
  if (style.room > 0) {
    pango_layout_set_width(layout.get(), static_cast<int>(style.room * PANGO_SCALE));
    pango_layout_set_ellipsize(layout.get(), PANGO_ELLIPSIZE_END);
  }
  return layout;
}

double widthOf(PangoLayout *layout) {
  PangoRectangle extents;
  pango_layout_get_extents(layout, nullptr, &extents);
  return static_cast<double>(extents.width) / PANGO_SCALE;
}

}  // namespace

Colour viridis(double value) { return scaleColour(kViridis, value); }
Colour plasma(double value) { return scaleColour(kPlasma, value); }

// A circle around grey in the colour space Oklab (Ottosson, A perceptual color space for image processing, 2020).
Colour cyclic(double value) {
  constexpr double kLightness = 0.7, kChroma = 0.125;
  const double hue = 2 * 3.14159265358979323846 * value;
  const double a = kChroma * std::cos(hue), b = kChroma * std::sin(hue);
  const double l = std::pow(kLightness + 0.3963377774 * a + 0.2158037573 * b, 3);
  const double m = std::pow(kLightness - 0.1055613458 * a - 0.0638541728 * b, 3);
  const double s = std::pow(kLightness - 0.0894841775 * a - 1.2914855480 * b, 3);
  return {sRgb(4.0767416621 * l - 3.3077115913 * m + 0.2309699292 * s),
          sRgb(-1.2684380046 * l + 2.6097574011 * m - 0.3413193965 * s),
          sRgb(-0.0041960863 * l - 0.7034186147 * m + 1.7076147010 * s)};
}

std::vector<uint8_t> drawn(Format format, double width, double height, double scale,
                           const std::function<void(cairo_t *)> &draw) {
  std::vector<uint8_t> bytes;
  Surface surface(format == Format::Svg ? cairo_svg_surface_create_for_stream(append, &bytes, width, height)
                  : format == Format::Pdf
                      ? cairo_pdf_surface_create_for_stream(append, &bytes, width, height)
                      : cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(std::ceil(width * scale)),
                                                   static_cast<int>(std::ceil(height * scale))));
  require(cairo_surface_status(surface.get()));
  if (format == Format::Svg) cairo_svg_surface_set_document_unit(surface.get(), CAIRO_SVG_UNIT_PX);
  const std::unique_ptr<cairo_t, decltype(&cairo_destroy)> cairo(cairo_create(surface.get()), &cairo_destroy);
  if (format == Format::Png) cairo_scale(cairo.get(), scale, scale);
  draw(cairo.get());
  require(cairo_status(cairo.get()));
  if (format == Format::Png) {
    require(cairo_surface_write_to_png_stream(surface.get(), append, &bytes));
  } else {
    cairo_surface_finish(surface.get());
    require(cairo_surface_status(surface.get()));
  }
  return bytes;
}

void setColour(cairo_t *cairo, Colour colour) {
  cairo_set_source_rgba(cairo, colour.red / 255.0, colour.green / 255.0, colour.blue / 255.0, colour.alpha / 255.0);
}

void fillBox(cairo_t *cairo, double x, double y, double width, double height, Colour colour) {
  setColour(cairo, colour);
  cairo_rectangle(cairo, x, y, width, height);
  cairo_fill(cairo);
}

void strokeLine(cairo_t *cairo, double x0, double y0, double x1, double y1, double thickness, Colour colour) {
  setColour(cairo, colour);
  cairo_set_line_width(cairo, thickness);
  cairo_move_to(cairo, x0, y0);
  cairo_line_to(cairo, x1, y1);
  cairo_stroke(cairo);
}

Surface cellsOf(int cols, int rows, const std::function<Colour(int column, int row)> &colourAt) {
  Surface surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, cols, rows));
  require(cairo_surface_status(surface.get()));
  unsigned char *data = cairo_image_surface_get_data(surface.get());
  const auto stride = static_cast<size_t>(cairo_image_surface_get_stride(surface.get()));
  for (int row = 0; row < rows; ++row) {
    auto *line = reinterpret_cast<uint32_t *>(data + static_cast<size_t>(row) * stride);
    for (int column = 0; column < cols; ++column) {
      const Colour colour = colourAt(column, row);
      const uint32_t alpha = colour.alpha;
      // Colours are kept multiplied by their opacity.
      line[column] =
          alpha << 24 | colour.red * alpha / 255 << 16 | colour.green * alpha / 255 << 8 | colour.blue * alpha / 255;
    }
  }
  cairo_surface_mark_dirty(surface.get());
  return surface;
}

Surface surfaceOf(const Picture &picture, double fade) {
  std::array<Colour, 256> greys;
  for (int i = 0; i < 256; ++i) {
    const auto grey = static_cast<uint8_t>(i + static_cast<int>((255 - i) * fade));
    greys[static_cast<size_t>(i)] = {grey, grey, grey};
  }
  return cellsOf(picture.width, picture.height, [&](int x, int y) { return greys[picture.at(x, y)]; });
}

void paintSurface(cairo_t *cairo, cairo_surface_t *surface, double edge, bool smooth) {
  cairo_save(cairo);
  cairo_scale(cairo, edge, edge);
  cairo_set_source_surface(cairo, surface, 0, 0);
  cairo_pattern_set_filter(cairo_get_source(cairo), smooth ? CAIRO_FILTER_GOOD : CAIRO_FILTER_NEAREST);
  cairo_paint(cairo);
  cairo_restore(cairo);
}

double drawText(cairo_t *cairo, double x, double y, const std::string &text, const TextStyle &style) {
  const Layout layout = layoutOf(cairo, text, style);
  const double width = widthOf(layout.get());
  setColour(cairo, style.colour);
  cairo_move_to(cairo, x - style.anchor * width, y);
  pango_cairo_show_layout(cairo, layout.get());
  return width;
}

double textWidth(cairo_t *cairo, const std::string &text, const TextStyle &style) {
  return widthOf(layoutOf(cairo, text, style).get());
}

std::string fixedNumber(double value, int digits) {
  char text[64];
  snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

}  // namespace kelm::tools

// SPDX-License-Identifier: Apache-2.0
#include "tools/image/canvas.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "tools/image/font.h"

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

Colour mixed(const Colour &from, const Colour &to, double share) {
  return {mixed(from.red, to.red, share), mixed(from.green, to.green, share), mixed(from.blue, to.blue, share),
          mixed(from.alpha, to.alpha, share)};
}

template <size_t n>
Colour scaleColour(const std::array<Colour, n> &scale, double value) {
  const double place = std::clamp(value, 0.0, 1.0) * (n - 1);
  const size_t step = std::min(static_cast<size_t>(place), n - 2);
  return mixed(scale[step], scale[step + 1], place - static_cast<double>(step));
}

// The first and the last column of a glyph that hold a dot.
std::array<int, 2> inkOf(const std::array<uint8_t, kGlyphWidth> &glyph) {
  int first = 0;
  int last = kGlyphWidth - 1;
  while (first < last && glyph[static_cast<size_t>(first)] == 0) ++first;
  while (last > first && glyph[static_cast<size_t>(last)] == 0) --last;
  // A space is three dots wide.
  return first == last && glyph[static_cast<size_t>(first)] == 0 ? std::array<int, 2>{0, 2}
                                                                 : std::array<int, 2>{first, last};
}

}  // namespace

Colour viridis(double value) { return scaleColour(kViridis, value); }
Colour plasma(double value) { return scaleColour(kPlasma, value); }

void blend(ColourPicture &canvas, int x, int y, Colour colour, double coverage) {
  if (x < 0 || y < 0 || x >= canvas.width || y >= canvas.height) return;
  Colour &pixel = canvas.at(x, y);
  const double share = std::clamp(coverage, 0.0, 1.0) * colour.alpha / 255;
  if (pixel.alpha == 0) {
    pixel = colour;
    pixel.alpha = static_cast<uint8_t>(std::lround(share * 255));
    return;
  }
  const double alpha = pixel.alpha + (255 - pixel.alpha) * share;
  colour.alpha = static_cast<uint8_t>(std::lround(alpha));
  const uint8_t result = colour.alpha;
  pixel = mixed(pixel, colour, share);
  pixel.alpha = result;
}

void fillRectangle(ColourPicture &canvas, int x, int y, int width, int height, Colour colour) {
  const int right = std::min(x + width, canvas.width);
  const int bottom = std::min(y + height, canvas.height);
  for (int row = std::max(y, 0); row < bottom; ++row) {
    for (int column = std::max(x, 0); column < right; ++column) canvas.at(column, row) = colour;
  }
}

void drawLine(ColourPicture &canvas, double x0, double y0, double x1, double y1, double thickness, Colour colour) {
  const double reach = thickness / 2 + 0.5;
  const double dx = x1 - x0;
  const double dy = y1 - y0;
  const double length2 = std::max(dx * dx + dy * dy, 1e-12);
  const int left = static_cast<int>(std::floor(std::min(x0, x1) - reach));
  const int right = static_cast<int>(std::ceil(std::max(x0, x1) + reach));
  const int top = static_cast<int>(std::floor(std::min(y0, y1) - reach));
  const int bottom = static_cast<int>(std::ceil(std::max(y0, y1) + reach));
  for (int y = std::max(top, 0); y < std::min(bottom, canvas.height); ++y) {
    for (int x = std::max(left, 0); x < std::min(right, canvas.width); ++x) {
      const double px = x + 0.5 - x0;
      const double py = y + 0.5 - y0;
      const double along = std::clamp((px * dx + py * dy) / length2, 0.0, 1.0);
      const double ox = px - along * dx;
      const double oy = py - along * dy;
      const double distance2 = ox * ox + oy * oy;
      if (distance2 < reach * reach) blend(canvas, x, y, colour, reach - std::sqrt(distance2));
    }
  }
}

int drawText(ColourPicture &canvas, int x, int y, const std::string &text, int scale, Colour colour) {
  const int start = x;
  for (const char character : text) {
    const auto &glyph = glyphOf(character);
    const auto [first, last] = inkOf(glyph);
    for (int column = first; column <= last; ++column) {
      for (int row = 0; row < kGlyphHeight; ++row) {
        if (glyph[static_cast<size_t>(column)] >> row & 1) {
          fillRectangle(canvas, x + (column - first) * scale, y + row * scale, scale, scale, colour);
        }
      }
    }
    x += (last - first + 2) * scale;
  }
  return x - start;
}

int textWidth(const std::string &text, int scale) {
  int width = 0;
  for (const char character : text) {
    const auto [first, last] = inkOf(glyphOf(character));
    width += (last - first + 2) * scale;
  }
  return width;
}

void overlay(ColourPicture &canvas, int x, int y, const ColourPicture &picture) {
  for (int row = 0; row < picture.height; ++row) {
    for (int column = 0; column < picture.width; ++column) {
      const Colour &colour = picture.at(column, row);
      if (colour.alpha > 0) blend(canvas, x + column, y + row, colour);
    }
  }
}

}  // namespace kelm::tools

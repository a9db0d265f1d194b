// SPDX-License-Identifier: Apache-2.0
// Drawing with Cairo and Pango: surfaces that end as files, scales of colour, text.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/image/picture.h"
#include "tools/image/toolkit.h"

namespace kelm::tools {

struct Colour {
  uint8_t red = 0, green = 0, blue = 0, alpha = 255;
};

inline constexpr Colour kBlack{17, 17, 17, 255};
inline constexpr Colour kQuiet{100, 100, 100, 255};   // legends, axes
inline constexpr Colour kPale{205, 205, 205, 255};    // frames, bars
inline constexpr Colour kClear{255, 255, 255, 0};     // shows what lies below
inline constexpr Colour kVermilion{213, 94, 0, 255};  // vermilion and blue of Okabe and Ito's palette, which
inline constexpr Colour kBlue{0, 114, 178, 255};      // colour-blind readers tell apart

// Colours for a value from 0 to 1, after the scales viridis (dark blue to yellow) and plasma (blue to orange) of Smith
// and van der Walt, which are in the public domain (CC0): evenly rising lightness, safe for colour-blind readers.
Colour viridis(double value);
Colour plasma(double value);
// Hues of one lightness, in which 0 and 1 are the same colour.
Colour cyclic(double value);

struct SurfaceDestroyer {
  void operator()(cairo_surface_t *surface) const { cairo_surface_destroy(surface); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceDestroyer>;

enum class Format { Png, Svg, Pdf };

// A picture of the given size in points, drawn by the function given, as the bytes of a file. A PNG has `scale` pixels
// to a point; its background is clear, like that of the others. Throws PictureError.
std::vector<uint8_t> drawn(Format format, double width, double height, double scale,
                           const std::function<void(cairo_t *)> &draw);

void setColour(cairo_t *cairo, Colour colour);
void fillBox(cairo_t *cairo, double x, double y, double width, double height, Colour colour);
void strokeLine(cairo_t *cairo, double x0, double y0, double x1, double y1, double thickness, Colour colour);

// A surface of one pixel for each cell of a grid, and one for each pixel of a picture whose greys move towards white by
// the share `fade`.
Surface cellsOf(int cols, int rows, const std::function<Colour(int column, int row)> &colourAt);
Surface surfaceOf(const Picture &picture, double fade);

// Paints a surface at (0, 0), each pixel as a square of the given edge.
void paintSurface(cairo_t *cairo, cairo_surface_t *surface, double edge, bool smooth);

struct TextStyle {
  double size = 13;  // points
  bool bold = false;
  Colour colour = kBlack;
  // Where x lies: 0 at the text's left end, 0.5 in its middle, 1 at its right end.
  double anchor = 0;
  double room = 0;  // an end that does not fit into so many points is left out; 0 for no limit
};

// Text with its upper edge at y, in any script; its width. Bytes that are not UTF-8 show as a replacement character.
double drawText(cairo_t *cairo, double x, double y, const std::string &text, const TextStyle &style);
double textWidth(cairo_t *cairo, const std::string &text, const TextStyle &style);

// A number with so many digits after the point.
std::string fixedNumber(double value, int digits);

}  // namespace kelm::tools

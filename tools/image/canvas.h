// SPDX-License-Identifier: Apache-2.0
// Drawing on colour pictures: scales of colour, lines, text.
#pragma once

#include <string>

#include "tools/image/picture.h"

namespace kelm::tools {

inline constexpr Colour kWhite{255, 255, 255, 255};
inline constexpr Colour kBlack{17, 17, 17, 255};
inline constexpr Colour kQuiet{110, 110, 110, 255};  // legends, axes
inline constexpr Colour kClear{255, 255, 255, 0};    // shows what lies below
inline constexpr Colour kOutline{213, 94, 0, 255};   // vermilion and blue of Okabe and Ito's palette, which
inline constexpr Colour kSecond{0, 114, 178, 255};   // colour-blind readers tell apart

// Colours for a value from 0 to 1, after the scales viridis (dark blue to yellow) and plasma (blue to orange) of
// Smith and van der Walt: evenly rising lightness, safe for colour-blind readers.
Colour viridis(double value);
Colour plasma(double value);

// Mixes a colour into a pixel; coverage 1 replaces it. Pixels outside the picture are left out.
void blend(ColourPicture &canvas, int x, int y, Colour colour, double coverage = 1);
void fillRectangle(ColourPicture &canvas, int x, int y, int width, int height, Colour colour);

// A line with smooth edges between two points; pixel (x, y) covers x to x + 1 and y to y + 1.
void drawLine(ColourPicture &canvas, double x0, double y0, double x1, double y1, double thickness, Colour colour);

// Text with its upper left corner at (x, y), each dot scale x scale pixels; the width in pixels.
int drawText(ColourPicture &canvas, int x, int y, const std::string &text, int scale, Colour colour);
int textWidth(const std::string &text, int scale);

// Lays a picture with opacity over the canvas.
void overlay(ColourPicture &canvas, int x, int y, const ColourPicture &picture);

}  // namespace kelm::tools

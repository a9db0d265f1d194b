// SPDX-License-Identifier: Apache-2.0
// The pictures of a report, for the contact sheet and the HTML page.
#pragma once

#include <string>
#include <vector>

#include "tools/image/analysis.h"
#include "tools/image/canvas.h"

namespace kelm::tools {

// How large a print is shown: the pixels of the report for one of the print.
double zoomFor(const Picture &print, int wantedWidth);

// The print itself; fade 0 leaves it as it is, 1 leaves white paper.
ColourPicture paintPrint(const Picture &print, double zoom, double fade);

// These draw on a picture of the print's size times zoom, which may be clear.
void paintOutline(ColourPicture &canvas, const Analysis &analysis, double zoom);
void paintDirections(ColourPicture &canvas, const Analysis &analysis, const Grid<int16_t> &directions, double zoom);
void paintPeriods(ColourPicture &canvas, const Analysis &analysis, double zoom, uint8_t opacity);
void paintGrades(ColourPicture &canvas, const Analysis &analysis, double zoom, uint8_t opacity);

// The histogram of the gradient picture: counted (grey bars), smoothed (line), and both thresholds.
ColourPicture paintHistogram(const Analysis &analysis, int width, int height, int textScale);

// A scale of colours with numbers below it.
struct Legend {
  Colour (*colour)(double);
  double low, high;
  std::vector<int> marks;
  std::string unit;
};
extern const Legend kTurnLegend, kGradeLegend;
// For periods in pixels of a picture that was enlarged by `scale` for the analysis.
Legend periodLegend(int scale);

// At most `width` pixels wide, kLegendLines lines of text high.
inline constexpr int kLegendLines = 3;
void paintLegend(ColourPicture &canvas, int x, int y, int width, int textScale, const Legend &legend);

// A number with so many digits after the point.
std::string fixedNumber(double value, int digits);

}  // namespace kelm::tools

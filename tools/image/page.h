// SPDX-License-Identifier: Apache-2.0
// The page about a print: one description, from which the sheets (.png, .svg, .pdf) and the HTML page are made.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/image/analysis.h"
#include "tools/image/draw.h"

namespace kelm::tools {

// A scale of colours with numbers below it.
struct Legend {
  Colour (*colour)(double share);  // 0 at `low`, 1 at `high`
  double low, high;
  std::vector<double> marks;
  std::string unit;

  Colour at(double value) const { return colour((value - low) / (high - low)); }
};

Legend changeLegend();
Legend directionLegend();
Legend gradeLegend();
Legend clarityLegend();
// Around the print's own median.
Legend periodLegend(double median);

// Something drawn over the print; one unit is one of its pixels.
struct Panel {
  std::string id, title;
  double fade;   // of the print below: 0 as it is, 1 white paper
  bool lines;    // drawn with lines, not with filled cells
  bool onSheet;  // or on the HTML page only
  std::function<void(cairo_t *)> draw;
  std::optional<Legend> legend;
};

struct Page {
  const Analysis *analysis;
  std::string title, summary;
  std::vector<Panel> panels;
  std::vector<std::pair<std::string, std::string>> numbers, timings;
};

// Points into the analysis.
Page describe(const Analysis &analysis, const std::string &name);

void drawLegend(cairo_t *cairo, double width, const Legend &legend);
inline constexpr double kLegendHeight = 46;

// The histogram of the gradients: counted (bars), smoothed (line), and the thresholds that the toolkit proposes.
void drawHistogram(cairo_t *cairo, const Analysis &analysis, double width, double height);
// Bars for counters, so high that the few tallest, of paper for instance, do not flatten the rest: those are cut.
void drawBars(cairo_t *cairo, const std::vector<uint32_t> &counters, double width, double height, Colour colour);

// The page as one sheet, and with a switchable overlay.
std::vector<uint8_t> pageAsSheet(const Page &page, Format format);
std::string pageAsHtml(const Page &page);

}  // namespace kelm::tools

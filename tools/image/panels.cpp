// SPDX-License-Identifier: Apache-2.0
#include "tools/image/panels.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tools/image/font.h"

namespace kelm::tools {

const Legend kTurnLegend{plasma, 0, 20, {0, 5, 10, 15, 20}, "turn, degrees from block to block"};
const Legend kGradeLegend{viridis, 0, 255, {0, 50, 100, 150, 200, 255}, "grade of the block"};

namespace {

constexpr double kRadian = 0.017453292519943295;

int scaled(double value, double zoom) { return static_cast<int>(std::lround(value * zoom)); }

// Fills the cell (column, row) of a grid.
template <typename Sample>
void paintCell(ColourPicture &canvas, const Grid<Sample> &grid, int column, int row, double zoom, Colour colour) {
  const int left = scaled(column * grid.cell, zoom);
  const int top = scaled(row * grid.cell, zoom);
  fillRectangle(canvas, left, top, scaled((column + 1) * grid.cell, zoom) - left,
                scaled((row + 1) * grid.cell, zoom) - top, colour);
}

// Lays a colour with the opacity given over the cells of the foreground; `colourOf` answers a clear one for no value.
template <typename Sample, typename ColourOf>
void paintGrid(ColourPicture &canvas, const Analysis &analysis, const Grid<Sample> &grid, double zoom, uint8_t opacity,
               ColourOf colourOf) {
  for (int row = 0; row < grid.rows; ++row) {
    for (int column = 0; column < grid.cols; ++column) {
      if (!analysis.inForeground(column * grid.cell, row * grid.cell, grid.cell)) continue;
      Colour colour = colourOf(grid.at(column, row));
      if (colour.alpha == 0) continue;
      colour.alpha = opacity;
      paintCell(canvas, grid, column, row, zoom, colour);
    }
  }
}

double shareOf(const Legend &legend, double value) { return (value - legend.low) / (legend.high - legend.low); }

}  // namespace

Legend periodLegend(int scale) {
  if (scale == 2) return {viridis, 2, 7, {2, 3, 4, 5, 6, 7}, "ridge period, pixels"};
  return {viridis, 4, 14, {4, 6, 8, 10, 12, 14}, "ridge period, pixels"};
}

std::string fixedNumber(double value, int digits) {
  char text[64];
  snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

double zoomFor(const Picture &print, int wantedWidth) {
  const double ratio = 1.5 * wantedWidth / print.width;
  return ratio >= 1 ? std::floor(ratio) : 1 / std::ceil(1 / ratio);
}

ColourPicture paintPrint(const Picture &print, double zoom, double fade) {
  ColourPicture canvas(scaled(print.width, zoom), scaled(print.height, zoom), kWhite);
  const int step = zoom < 1 ? static_cast<int>(std::lround(1 / zoom)) : 1;
  uint8_t greys[256];
  for (int i = 0; i < 256; ++i) greys[i] = static_cast<uint8_t>(i + static_cast<int>((255 - i) * fade));
  for (int y = 0; y < canvas.height; ++y) {
    for (int x = 0; x < canvas.width; ++x) {
      // The mean of the print's pixels below one of the report, or the one it lies in.
      const int left = std::min(static_cast<int>(x / zoom), print.width - step);
      const int top = std::min(static_cast<int>(y / zoom), print.height - step);
      int sum = 0;
      for (int dy = 0; dy < step; ++dy) {
        for (int dx = 0; dx < step; ++dx) sum += print.at(left + dx, top + dy);
      }
      const uint8_t grey = greys[sum / (step * step)];
      canvas.at(x, y) = {grey, grey, grey};
    }
  }
  return canvas;
}

void paintOutline(ColourPicture &canvas, const Analysis &analysis, double zoom) {
  const Picture &mask = analysis.segmentation.mask;
  const double thickness = std::max(2.0, 2.0 * zoom);
  const auto inside = [&](int x, int y) {
    return x >= 0 && y >= 0 && x < mask.width && y < mask.height && mask.at(x, y) != 0;
  };
  const auto edge = [&](int x0, int y0, int x1, int y1) {
    drawLine(canvas, 2 * x0 * zoom, 2 * y0 * zoom, 2 * x1 * zoom, 2 * y1 * zoom, thickness, kOutline);
  };
  for (int y = 0; y <= mask.height; ++y) {
    for (int x = 0; x <= mask.width; ++x) {
      if (inside(x, y) != inside(x - 1, y)) edge(x, y, x, y + 1);
      if (inside(x, y) != inside(x, y - 1)) edge(x, y, x + 1, y);
    }
  }
}

void paintDirections(ColourPicture &canvas, const Analysis &analysis, const Grid<int16_t> &directions, double zoom) {
  const Grid<int16_t> &change = analysis.orientation.change;
  const int cell = directions.cell;
  const double reach = 0.42 * cell * zoom;
  for (int row = 0; row < directions.rows; ++row) {
    for (int column = 0; column < directions.cols; ++column) {
      if (!analysis.inForeground(column * cell, row * cell, cell)) continue;
      const int turn = change.at(std::min(column * cell / change.cell, change.cols - 1),
                                 std::min(row * cell / change.cell, change.rows - 1));
      const double x = (column + 0.5) * cell * zoom;
      const double y = (row + 0.5) * cell * zoom;
      // Counter-clockwise as seen: upward is towards smaller rows.
      const double dx = reach * std::cos(directions.at(column, row) * kRadian);
      const double dy = -reach * std::sin(directions.at(column, row) * kRadian);
      drawLine(canvas, x - dx, y - dy, x + dx, y + dy, std::max(1.6, 1.2 * zoom),
               kTurnLegend.colour(shareOf(kTurnLegend, turn)));
    }
  }
}

void paintPeriods(ColourPicture &canvas, const Analysis &analysis, double zoom, uint8_t opacity) {
  const Legend legend = periodLegend(analysis.scale);
  paintGrid(canvas, analysis, analysis.periods, zoom, opacity, [&](uint8_t period) {
    return period == kNoPeriod ? kClear : legend.colour(shareOf(legend, period / 8.0 / analysis.scale));
  });
}

void paintGrades(ColourPicture &canvas, const Analysis &analysis, double zoom, uint8_t opacity) {
  paintGrid(canvas, analysis, analysis.grades, zoom, opacity,
            [](uint8_t grade) { return kGradeLegend.colour(shareOf(kGradeLegend, grade)); });
}

ColourPicture paintHistogram(const Analysis &analysis, int width, int height, int textScale) {
  ColourPicture canvas(width, height, kWhite);
  const int line = (kGlyphHeight + 3) * textScale;
  const int bottom = height - line;
  const int top = 3 * line;
  const Counters &counted = analysis.gradientHistogram;
  // Paper fills the first few grey levels many times over; their bars are cut so that the rest can be seen.
  Counters sorted = counted;
  std::sort(sorted.begin(), sorted.end());
  const double tallest = std::max<double>(1, sorted[sorted.size() - 7]) * 1.15;
  const auto xOf = [&](double level) { return level * (width - 1) / 256.0; };
  const auto yOf = [&](double count) { return bottom - std::min(1.0, count / tallest) * (bottom - top); };
  for (int level = 0; level < 256; ++level) {
    const int left = static_cast<int>(xOf(level));
    const int upper = static_cast<int>(yOf(counted[static_cast<size_t>(level)]));
    fillRectangle(canvas, left, upper, static_cast<int>(xOf(level + 1)) - left, bottom - upper, {200, 200, 200, 255});
  }
  for (size_t bin = 0; bin + 1 < 128; ++bin) {
    const double level = 2.0 * static_cast<double>(bin);
    drawLine(canvas, xOf(level + 1), yOf(analysis.smoothed[bin] / 2.0), xOf(level + 3),
             yOf(analysis.smoothed[bin + 1] / 2.0), textScale, kBlack);
  }
  fillRectangle(canvas, 0, bottom, width, 1, kQuiet);
  for (const int level : {0, 64, 128, 192, 255}) {
    const std::string text = std::to_string(level);
    const int x = std::clamp(static_cast<int>(xOf(level)) - textWidth(text, textScale) / 2, 0,
                             width - textWidth(text, textScale));
    drawText(canvas, x, bottom + 2 * textScale, text, textScale, kQuiet);
  }
  const Segmentation &segmentation = analysis.segmentation;
  const auto threshold = [&](int row, int level, bool used, const char *name, Colour colour) {
    const int x = static_cast<int>(xOf(level + 1));
    const int upper = row * line;
    fillRectangle(canvas, x - textScale / 2, upper, textScale, bottom - upper, colour);
    const std::string text = std::string(name) + " " + std::to_string(level) + (used ? ", used" : "");
    const int after = x + 4 * textScale;
    const int before = x - 4 * textScale - textWidth(text, textScale);
    drawText(canvas, after + textWidth(text, textScale) < width ? after : before, upper, text, textScale, colour);
  };
  threshold(0, segmentation.shapeThreshold, !segmentation.modeChosen, "silhouette", kOutline);
  threshold(1, segmentation.modeThreshold, segmentation.modeChosen, "mode", kSecond);
  return canvas;
}

void paintLegend(ColourPicture &canvas, int x, int y, int width, int textScale, const Legend &legend) {
  const int line = (kGlyphHeight + 2) * textScale;
  for (int i = 0; i < width; ++i) {
    fillRectangle(canvas, x + i, y, 1, line - 4 * textScale, legend.colour(static_cast<double>(i) / (width - 1)));
  }
  for (const int mark : legend.marks) {
    const std::string text = std::to_string(mark);
    const int place = x + static_cast<int>(shareOf(legend, mark) * (width - 1));
    fillRectangle(canvas, place, y + line - 4 * textScale, 1, 2 * textScale, kQuiet);
    drawText(canvas, std::clamp(place - textWidth(text, textScale) / 2, x, x + width - textWidth(text, textScale)),
             y + line - textScale, text, textScale, kQuiet);
  }
  drawText(canvas, x, y + 2 * line - textScale, legend.unit, textScale, kQuiet);
}

}  // namespace kelm::tools

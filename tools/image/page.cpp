// SPDX-License-Identifier: Apache-2.0
#include "tools/image/page.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace kelm::tools {
namespace {

constexpr double kRadian = 0.017453292519943295;

// A colour for each cell of the foreground, painted over the print.
template <typename Sample, typename ColourOf>
void paintGrid(cairo_t *cairo, const Analysis &analysis, const Grid<Sample> &grid, ColourOf colourOf) {
  std::vector<Colour> cells;
  for (int row = 0; row < grid.rows; ++row) {
    for (int column = 0; column < grid.cols; ++column) {
      cells.push_back(analysis.inForeground(column, row, grid.cell) ? colourOf(grid.at(column, row)) : kClear);
    }
  }
  const Surface surface = cellsOf(analysis.picture.width, analysis.picture.height, [&](int x, int y) {
    return cells[static_cast<size_t>(y / grid.cell) * static_cast<size_t>(grid.cols) +
                 static_cast<size_t>(x / grid.cell)];
  });
  paintSurface(cairo, surface.get(), 1, false);
}

// The paper behind a veil, and a line around the finger.
void drawForeground(cairo_t *cairo, const Analysis &analysis) {
  const Picture &mask = analysis.mask;
  const Surface veil = cellsOf(mask.width, mask.height, [&](int x, int y) {
    return Colour{255, 255, 255, mask.at(x, y) ? uint8_t{0} : uint8_t{190}};
  });
  paintSurface(cairo, veil.get(), 1, false);
  const auto inside = [&](int x, int y) {
    return x >= 0 && y >= 0 && x < mask.width && y < mask.height && mask.at(x, y) != 0;
  };
  // Edges of one direction that follow one another are one line.
  const auto edges = [&](int lines, int length, auto isEdge, auto add) {
    for (int line = 0; line <= lines; ++line) {
      for (int start = 0; start < length; ++start) {
        int end = start;
        while (end < length && isEdge(line, end)) ++end;
        if (end > start) add(line, start, end);
        start = end;
      }
    }
  };
  edges(
      mask.height, mask.width, [&](int y, int x) { return inside(x, y) != inside(x, y - 1); },
      [&](int y, int from, int to) {
        cairo_move_to(cairo, from, y);
        cairo_line_to(cairo, to, y);
      });
  edges(
      mask.width, mask.height, [&](int x, int y) { return inside(x, y) != inside(x - 1, y); },
      [&](int x, int from, int to) {
        cairo_move_to(cairo, x, from);
        cairo_line_to(cairo, x, to);
      });
  setColour(cairo, kVermilion);
  cairo_set_line_width(cairo, std::max(1.0, mask.width / 220.0));
  cairo_set_line_cap(cairo, CAIRO_LINE_CAP_ROUND);
  cairo_stroke(cairo);
}

void drawDirections(cairo_t *cairo, const Analysis &analysis, const Grid<int16_t> &directions) {
  const Legend legend = changeLegend();
  const Grid<int16_t> &change = analysis.change;
  const int cell = directions.cell;
  cairo_set_line_cap(cairo, CAIRO_LINE_CAP_ROUND);
  for (int row = 0; row < directions.rows; ++row) {
    for (int column = 0; column < directions.cols; ++column) {
      if (!analysis.inForeground(column, row, cell)) continue;
      const int turn = change.at(std::min(column * cell / change.cell, change.cols - 1),
                                 std::min(row * cell / change.cell, change.rows - 1));
      const double x = (column + 0.5) * cell, y = (row + 0.5) * cell;
      // Counter-clockwise as seen: upward is towards smaller rows.
      const double dx = 0.42 * cell * std::cos(directions.at(column, row) * kRadian);
      const double dy = -0.42 * cell * std::sin(directions.at(column, row) * kRadian);
      strokeLine(cairo, x - dx, y - dy, x + dx, y + dy, 0.18 * cell, legend.at(turn));
    }
  }
}

std::string sizeOf(const Analysis &analysis) {
  return std::to_string(analysis.picture.width) + " × " + std::to_string(analysis.picture.height) + " pixels";
}

std::string summaryOf(const Analysis &analysis) {
  const Numbers &numbers = analysis.numbers;
  if (!numbers.finger) return sizeOf(analysis) + "   no finger found   clarity " + fixedNumber(numbers.clarity, 0);
  return sizeOf(analysis) + "   clarity " + fixedNumber(numbers.clarity, 0) + " of 100   quality " +
         fixedNumber(numbers.quality, 0) + " of 255   foreground " + fixedNumber(100 * numbers.foreground, 0) +
         " %   ridge period " + fixedNumber(numbers.period, 1) + " pixels" +
         (numbers.continuous ? "" : "   broken up by light gaps");
}

std::vector<std::pair<std::string, std::string>> numbersOf(const Analysis &analysis) {
  const Numbers &numbers = analysis.numbers;
  const int resolution = analysis.picture.resolution;
  return {
      {"Size", sizeOf(analysis)},
      {"Resolution", resolution > 0 ? std::to_string(resolution) + " pixels per inch" : "not given"},
      {"Finger", numbers.finger ? "yes" : "none found"},
      {"Ridge clarity", fixedNumber(numbers.clarity, 1) + " of 100"},
      {"Mean quality", fixedNumber(numbers.quality, 1) + " of 255"},
      {"Spread of the quality", fixedNumber(numbers.qualitySpread, 1)},
      {"Share of foreground", fixedNumber(100 * numbers.foreground, 1) + " %"},
      {"Median ridge period", numbers.period > 0 ? fixedNumber(numbers.period, 2) + " pixels" : "none found"},
      {"Continuity", numbers.continuous ? "continuous" : "broken up by light gaps"},
      {"Analysed at", analysis.scale == 1 ? "its own size" : "double size"},
      {"Threshold, silhouette", std::to_string(analysis.thresholds.shape)},
      {"Threshold, mode", std::to_string(analysis.thresholds.mode)},
      {"Complexity of the outline", fixedNumber(analysis.complexity, 1)},
      {"Mean grey level", std::to_string(numbers.meanGrey)},
  };
}

}  // namespace

Legend changeLegend() {
  return {plasma, 0, 20, {0, 5, 10, 15, 20}, "change of direction, degrees from block to block"};
}
Legend directionLegend() { return {cyclic, -90, 90, {-90, -45, 0, 45, 90}, "direction, degrees counter-clockwise"}; }
Legend gradeLegend() { return {viridis, 0, 255, {0, 50, 100, 150, 200, 255}, "grade of the block"}; }
Legend clarityLegend() { return {viridis, 0, 100, {0, 20, 40, 60, 80, 100}, "clarity of the ridges"}; }

Legend periodLegend(double median) {
  const double middle = median > 0 ? median : 9;
  const double step = middle < 6 ? 0.5 : middle < 14 ? 1 : 2;
  Legend legend{viridis,
                step * std::floor(0.7 * middle / step),
                step * std::ceil(1.3 * middle / step),
                {},
                "ridge period, pixels"};
  for (double mark = legend.low; mark < legend.high + step / 2; mark += step) legend.marks.push_back(mark);
  return legend;
}

Page describe(const Analysis &analysis, const std::string &name) {
  const Analysis *of = &analysis;
  const Legend period = periodLegend(analysis.numbers.period);
  Page page{of, std::filesystem::path(name).filename().string(), summaryOf(analysis), {}, numbersOf(analysis), {}};
  page.panels = {
      {"foreground", "Foreground", 0, true, true, [of](cairo_t *cairo) { drawForeground(cairo, *of); }, {}},
      {"orientation8", "Orientation", 0.65, true, true,
       [of](cairo_t *cairo) { drawDirections(cairo, *of, of->direction8); }, changeLegend()},
      {"orientation16", "Orientation, large blocks", 0.65, true, false,
       [of](cairo_t *cairo) { drawDirections(cairo, *of, of->direction16); }, changeLegend()},
      {"direction", "Direction", 0.8, false, false,
       [of](cairo_t *cairo) {
         paintGrid(cairo, *of, of->direction8, [](int16_t degrees) { return directionLegend().at(degrees); });
       },
       directionLegend()},
      {"period", "Ridge period", 0.8, false, true,
       [of, period](cairo_t *cairo) {
         paintGrid(cairo, *of, of->periods, [&](float value) { return value > 0 ? period.at(value) : kClear; });
       },
       period},
      {"clarity", "Ridge clarity", 0.8, false, true,
       [of](cairo_t *cairo) {
         paintGrid(cairo, *of, of->clarity, [](uint8_t value) { return clarityLegend().at(value); });
       },
       clarityLegend()},
      {"quality", "Block quality", 0.8, false, true,
       [of](cairo_t *cairo) {
         paintGrid(cairo, *of, of->grades, [](uint8_t value) { return gradeLegend().at(value); });
       },
       gradeLegend()},
  };
  double total = 0;
  for (const auto &[step, milliseconds] : analysis.timings) {
    page.timings.emplace_back(step, fixedNumber(milliseconds, 2) + " ms");
    total += milliseconds;
  }
  page.timings.emplace_back("all steps", fixedNumber(total, 2) + " ms");
  return page;
}

void drawLegend(cairo_t *cairo, double width, const Legend &legend) {
  constexpr double kBar = 12;
  const Surface bar = cellsOf(256, 1, [&](int x, int) { return legend.colour(x / 255.0); });
  cairo_save(cairo);
  cairo_scale(cairo, width / 256, kBar);
  paintSurface(cairo, bar.get(), 1, false);
  cairo_restore(cairo);
  for (const double mark : legend.marks) {
    const double share = (mark - legend.low) / (legend.high - legend.low);
    fillBox(cairo, share * (width - 1), kBar, 1, 3, kQuiet);
    // The first and the last number stay below the bar.
    drawText(cairo, share * width, kBar + 2, fixedNumber(mark, mark == std::floor(mark) ? 0 : 1),
             {.size = 11,
              .colour = kQuiet,
              .anchor = share < 0.02   ? 0
                        : share > 0.98 ? 1
                                       : 0.5});
  }
  drawText(cairo, 0, kBar + 16, legend.unit, {.size = 11, .colour = kQuiet, .room = width});
}

void drawBars(cairo_t *cairo, const std::vector<uint32_t> &counters, double width, double height, Colour colour) {
  std::vector<uint32_t> sorted = counters;
  std::sort(sorted.begin(), sorted.end());
  const double tallest = std::max(1.0, 1.15 * sorted[sorted.size() - 1 - sorted.size() / 40]);
  const double bar = width / static_cast<double>(counters.size());
  cairo_save(cairo);
  cairo_set_antialias(cairo, CAIRO_ANTIALIAS_NONE);  // no seams between the bars
  for (size_t i = 0; i < counters.size(); ++i) {
    const double tall = std::min(1.0, counters[i] / tallest) * height;
    fillBox(cairo, static_cast<double>(i) * bar, height - tall, bar, tall, colour);
  }
  cairo_restore(cairo);
}

void drawHistogram(cairo_t *cairo, const Analysis &analysis, double width, double height) {
  constexpr double kLine = 18;
  const double bottom = height - kLine, top = 3 * kLine;
  const std::vector<uint32_t> counted(analysis.gradientHistogram.begin(), analysis.gradientHistogram.end());
  std::vector<uint32_t> sorted = counted;
  std::sort(sorted.begin(), sorted.end());
  cairo_save(cairo);
  cairo_translate(cairo, 0, top);
  drawBars(cairo, counted, width, bottom - top, kPale);
  cairo_restore(cairo);
  const double tallest = std::max(1.0, 1.15 * sorted[sorted.size() - 1 - sorted.size() / 40]);
  const auto xOf = [&](double level) { return level * width / 256; };
  const auto yOf = [&](double count) { return bottom - std::min(1.0, count / tallest) * (bottom - top); };
  for (size_t bin = 0; bin < 128; ++bin) {
    const double x = xOf(2.0 * static_cast<double>(bin) + 1), y = yOf(analysis.smoothed[bin] / 2.0);
    bin == 0 ? cairo_move_to(cairo, x, y) : cairo_line_to(cairo, x, y);
  }
  setColour(cairo, kBlack);
  cairo_set_line_width(cairo, 1.5);
  cairo_stroke(cairo);
  fillBox(cairo, 0, bottom, width, 1, kQuiet);
  for (const int level : {0, 64, 128, 192, 255}) {
    drawText(cairo, xOf(level), bottom + 2, std::to_string(level),
             {.size = 11,
              .colour = kQuiet,
              .anchor = level == 0     ? 0
                        : level == 255 ? 1
                                       : 0.5});
  }
  const auto threshold = [&](int row, int level, const char *name, Colour colour) {
    const double x = xOf(level + 1);
    fillBox(cairo, x - 0.75, row * kLine, 1.5, bottom - row * kLine, colour);
    const bool left = x > 0.6 * width;
    const std::string text = std::string(name) + " " + std::to_string(level);
    const TextStyle style{.size = 12, .colour = colour, .anchor = left ? 1.0 : 0.0};
    const double room = textWidth(cairo, text, style) + 4;
    fillBox(cairo, left ? x - 4 - room : x + 4, row * kLine, room, kLine - 1, {255, 255, 255});
    drawText(cairo, left ? x - 6 : x + 6, row * kLine, text, style);
  };
  threshold(0, analysis.thresholds.shape, "silhouette", kVermilion);
  threshold(1, analysis.thresholds.mode, "mode", kBlue);
}

}  // namespace kelm::tools

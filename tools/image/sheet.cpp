// SPDX-License-Identifier: Apache-2.0
#include "tools/image/sheet.h"

#include <algorithm>
#include <filesystem>
#include <functional>

#include "tools/image/font.h"
#include "tools/image/panels.h"

namespace kelm::tools {
namespace {

constexpr int kPanelWidth = 420;  // about; prints are enlarged or reduced by whole factors
constexpr int kText = 2;
constexpr int kLine = (kGlyphHeight + 3) * kText;
constexpr int kGap = 28;
constexpr int kHeader = 2 * kGap + 2 * kLine;

struct Panel {
  const char *title;
  std::function<ColourPicture()> paint;
  const Legend *legend;
};

std::string summary(const Analysis &analysis) {
  const Numbers &numbers = analysis.numbers;
  return std::to_string(analysis.width) + " x " + std::to_string(analysis.height) +
         (analysis.scale == 1 ? " pixels   quality " : " pixels, doubled   quality ") +
         fixedNumber(numbers.quality, 0) + " +- " + fixedNumber(numbers.qualitySpread, 0) + "   foreground " +
         fixedNumber(100 * numbers.foreground, 0) + " %   ridge period " +
         (numbers.period > 0 ? fixedNumber(numbers.period, 1) + " pixels" : "unknown") +
         (numbers.continuous ? "   continuous" : "   not continuous");
}

// The text, with its end left out where it would not fit.
std::string fitted(std::string text, int scale, int width) {
  if (textWidth(text, scale) <= width) return text;
  while (!text.empty() && textWidth(text + "...", scale) > width) text.pop_back();
  return text + "...";
}

}  // namespace

ColourPicture paintSheet(const Analysis &analysis, const std::string &name) {
  const double zoom = zoomFor(analysis.print, kPanelWidth);
  const auto withPrint = [&](double fade, const std::function<void(ColourPicture &)> &draw) {
    return [&analysis, zoom, fade, draw] {
      ColourPicture canvas = paintPrint(analysis.print, zoom, fade);
      draw(canvas);
      return canvas;
    };
  };
  const ColourPicture plain = paintPrint(analysis.print, zoom, 0);
  const int width = std::max(plain.width, 360);
  const int height = plain.height;
  const Legend period = periodLegend(analysis.scale);
  const Panel panels[] = {
      {"Print", [&] { return plain; }, nullptr},
      {"Foreground", withPrint(0.35, [&](ColourPicture &canvas) { paintOutline(canvas, analysis, zoom); }), nullptr},
      {"Orientation",
       withPrint(
           0.65,
           [&](ColourPicture &canvas) { paintDirections(canvas, analysis, analysis.orientation.direction8, zoom); }),
       &kTurnLegend},
      {"Ridge period", withPrint(0.8, [&](ColourPicture &canvas) { paintPeriods(canvas, analysis, zoom, 255); }),
       &period},
      {"Block quality", withPrint(0.8, [&](ColourPicture &canvas) { paintGrades(canvas, analysis, zoom, 255); }),
       &kGradeLegend},
      {"Gradients and thresholds", [&] { return paintHistogram(analysis, width, height, kText); }, nullptr},
  };
  const int panelHeight = kLine + height + kLegendLines * kLine;
  ColourPicture sheet(3 * width + 4 * kGap, kHeader + 2 * (panelHeight + kGap / 2), kWhite);
  const int room = sheet.width - 2 * kGap;
  drawText(sheet, kGap, kGap, fitted(std::filesystem::path(name).filename().string(), kText + 1, room), kText + 1,
           kBlack);
  drawText(sheet, kGap, kGap + kLine + 14, fitted(summary(analysis), kText, room), kText, kBlack);
  for (size_t i = 0; i < std::size(panels); ++i) {
    const int x = kGap + static_cast<int>(i % 3) * (width + kGap);
    const int y = kHeader + static_cast<int>(i / 3) * (panelHeight + kGap / 2);
    drawText(sheet, x, y, panels[i].title, kText, kBlack);
    const ColourPicture picture = panels[i].paint();
    for (int row = 0; row < picture.height; ++row) {
      std::copy_n(&picture.at(0, row), picture.width, &sheet.at(x, y + kLine + row));
    }
    if (panels[i].legend) paintLegend(sheet, x, y + kLine + height + 6, width, kText, *panels[i].legend);
  }
  return sheet;
}

}  // namespace kelm::tools

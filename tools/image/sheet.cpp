// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "tools/image/page.h"

namespace kelm::tools {
namespace {

constexpr double kColumn = 400;   // points
constexpr double kTallest = 640;  // a panel at most
constexpr double kGap = 28;
constexpr double kTitle = 24;
constexpr double kHeader = 92;
constexpr double kScale = 1.25;  // pixels of a PNG to a point
constexpr int kColumns = 4;

// Draws something with its upper left corner at (x, y) and leaves the state as it was.
template <typename Draw>
void at(cairo_t *cairo, double x, double y, Draw draw) {
  cairo_save(cairo);
  cairo_translate(cairo, x, y);
  draw();
  cairo_restore(cairo);
}

void drawNumbers(cairo_t *cairo, const Page &page) {
  double y = 0;
  for (const auto &[what, value] : page.numbers) {
    fillBox(cairo, 0, y, kColumn, 0.75, kPale);
    drawText(cairo, 0, y + 4, what, {.colour = kQuiet});
    drawText(cairo, kColumn, y + 4, value, {.anchor = 1});
    y += kTitle;
  }
}

}  // namespace

std::vector<uint8_t> pageAsSheet(const Page &page, Format format) {
  const Picture &picture = page.analysis->picture;
  const double zoom = std::min(kColumn / picture.width, kTallest / picture.height);
  const double shownWidth = zoom * picture.width, shownHeight = zoom * picture.height;
  const double numbersHeight = kTitle * static_cast<double>(page.numbers.size());
  const double row = std::max(kTitle + std::max(shownHeight, 240.0) + 8 + kLegendHeight, numbersHeight + kTitle) + 16;
  const double width = kColumns * kColumn + (kColumns + 1) * kGap;
  const double height = kHeader + 2 * row + kGap;
  int place = 0;
  const auto panel = [&](cairo_t *cairo, const std::string &title, const auto &draw) {
    at(cairo, kGap + (place % kColumns) * (kColumn + kGap), kHeader + (place / kColumns) * row, [&] {
      drawText(cairo, 0, 0, title, {.size = 14, .bold = true});
      at(cairo, 0, kTitle, draw);
    });
    ++place;
  };
  const auto overPrint = [&](cairo_t *cairo, double fade, const auto &draw) {
    cairo_save(cairo);
    cairo_scale(cairo, zoom, zoom);
    cairo_rectangle(cairo, 0, 0, picture.width, picture.height);
    cairo_clip(cairo);
    paintSurface(cairo, surfaceOf(picture, fade).get(), 1, true);
    draw();
    cairo_restore(cairo);
    // A frame shows where white paper ends.
    setColour(cairo, kPale);
    cairo_set_line_width(cairo, 1);
    cairo_rectangle(cairo, 0.5, 0.5, shownWidth - 1, shownHeight - 1);
    cairo_stroke(cairo);
  };
  return drawn(format, width, height, kScale, [&](cairo_t *cairo) {
    fillBox(cairo, 0, 0, width, height, {255, 255, 255});
    drawText(cairo, kGap, kGap - 4, page.title, {.size = 20, .bold = true, .room = width - 2 * kGap});
    drawText(cairo, kGap, kGap + 26, page.summary, {.size = 14, .room = width - 2 * kGap});
    panel(cairo, "Print", [&] { overPrint(cairo, 0, [] {}); });
    for (const Panel &shown : page.panels) {
      if (!shown.onSheet) continue;
      panel(cairo, shown.title, [&] {
        overPrint(cairo, shown.fade, [&] { shown.draw(cairo); });
        if (!shown.legend) return;
        at(cairo, 0, shownHeight + 8, [&] { drawLegend(cairo, shownWidth, *shown.legend); });
      });
    }
    panel(cairo, "Gradients and thresholds",
          [&] { drawHistogram(cairo, *page.analysis, kColumn, std::clamp(shownHeight, 240.0, kColumn)); });
    panel(cairo, "Numbers", [&] { drawNumbers(cairo, page); });
  });
}

}  // namespace kelm::tools

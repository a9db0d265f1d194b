// SPDX-License-Identifier: Apache-2.0
#include "page_files.h"
#include "tools/image/page.h"

namespace kelm::tools {
namespace {

std::string base64(const std::vector<uint8_t> &bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve(bytes.size() / 3 * 4 + 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t word = uint32_t{bytes[i]} << 16;
    if (i + 1 < bytes.size()) word |= uint32_t{bytes[i + 1]} << 8;
    if (i + 2 < bytes.size()) word |= bytes[i + 2];
    out += kDigits[word >> 18];
    out += kDigits[word >> 12 & 63];
    out += i + 1 < bytes.size() ? kDigits[word >> 6 & 63] : '=';
    out += i + 2 < bytes.size() ? kDigits[word & 63] : '=';
  }
  return out;
}

std::string dataUri(Format format, const std::vector<uint8_t> &bytes) {
  return std::string("data:image/").append(format == Format::Svg ? "svg+xml" : "png").append(";base64,") +
         base64(bytes);
}

std::string escaped(const std::string &text) {
  std::string out;
  for (const char character : text) {
    switch (character) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += character;
    }
  }
  return out;
}

std::string image(const std::string &attributes, Format format, const std::vector<uint8_t> &bytes) {
  return "<img " + attributes + " src=\"" + dataUri(format, bytes) + "\">";
}

// Lines stay sharp as vectors; cells have a pixel for each of the print's.
std::string panelAsHtml(const Panel &panel, const Picture &picture) {
  const Format format = panel.lines ? Format::Svg : Format::Png;
  const std::string alt = "alt=\"" + panel.title + "\"" + (panel.lines ? "" : " class=cells");
  std::string out = "<figure id=panel-" + panel.id + " style=\"--fade:" + fixedNumber(panel.fade, 2) +
                    "\"><figcaption>" + panel.title + "</figcaption><div class=print>" +
                    image(alt, format, drawn(format, picture.width, picture.height, 1, panel.draw)) + "</div>";
  if (panel.legend) {
    constexpr double kWidth = 420;
    const auto legend =
        drawn(Format::Svg, kWidth, kLegendHeight, 1, [&](cairo_t *cairo) { drawLegend(cairo, kWidth, *panel.legend); });
    out += image("class=legend alt=\"" + panel.legend->unit + "\"", Format::Svg, legend);
  }
  return out + "</figure>\n";
}

std::string tableAsHtml(const char *caption, const std::vector<std::pair<std::string, std::string>> &rows) {
  std::string out = std::string("<table><caption>") + caption + "</caption>";
  for (const auto &[what, value] : rows) out += "<tr><th>" + what + "</th><td>" + value + "</td></tr>";
  return out + "</table>";
}

}  // namespace

std::string pageAsHtml(const Page &page) {
  const Picture &picture = page.analysis->picture;
  const std::string title = escaped(page.title);
  constexpr double kChart = 420;
  std::string out = "<!DOCTYPE html>\n<html lang=en><head><meta charset=utf-8><title>" + title +
                    "</title><meta name=viewport content=\"width=device-width\"><style>" + kPageStyle +
                    ".print { background-image: url(" + dataUri(Format::Png, encodePng(picture)) +
                    ") }</style></head>\n<body><h1>" + title + "</h1><p>" + page.summary +
                    "</p>\n<div class=top><div class=stage><div class=switch>";
  const auto choice = [&](const std::string &value, const std::string &label) {
    out += "<label><input type=radio name=overlay value=" + value + "> " + label + "</label>";
  };
  choice("none", "Print alone");
  for (const Panel &panel : page.panels) choice(panel.id, panel.title);
  const auto clear = drawn(Format::Png, picture.width, picture.height, 1, [](cairo_t *) {});
  const auto histogram = drawn(Format::Svg, kChart, kChart, 1,
                               [&](cairo_t *cairo) { drawHistogram(cairo, *page.analysis, kChart, kChart); });
  out += "<label>Opacity <input type=range min=0 max=100 value=80></label></div>\n<div class=print>" +
         image("alt=overlay style=\"opacity:.8\"", Format::Png, clear) + "</div><div class=note></div></div>\n<div>" +
         tableAsHtml("Numbers", page.numbers) + tableAsHtml("Time taken", page.timings) + "</div></div>\n" +
         "<div class=panels>\n<figure><figcaption>Print</figcaption>" +
         image("alt=Print", Format::Png, encodePng(picture)) + "</figure>\n";
  for (const Panel &panel : page.panels) out += panelAsHtml(panel, picture);
  return out + "<figure><figcaption>Gradients and thresholds</figcaption>" +
         image("alt=\"Histogram of the gradients\"", Format::Svg, histogram) + "</figure>\n</div>\n<script>" +
         kPageScript + "</script></body></html>\n";
}

}  // namespace kelm::tools

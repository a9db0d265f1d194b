// SPDX-License-Identifier: Apache-2.0
#include "tools/image/html.h"

#include <filesystem>

#include "tools/image/panels.h"

namespace kelm::tools {
namespace {

constexpr int kWidth = 840;  // of the pictures, about

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

template <typename AnyPicture>
std::string dataUri(const AnyPicture &picture) {
  return std::string("data:image/png;base64,").append(base64(encodePng(picture)));
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

std::string cssColour(const Colour &colour) {
  return std::string("rgb(") + std::to_string(colour.red) + " " + std::to_string(colour.green) + " " +
         std::to_string(colour.blue) + ")";
}

std::string legendAsHtml(const Legend &legend) {
  std::string out = "<div class=legend><div class=scale style=\"background:linear-gradient(to right";
  for (int i = 0; i <= 12; ++i) out.append(",").append(cssColour(legend.colour(i / 12.0)));
  out += ")\"></div><div class=marks>";
  for (const int mark : legend.marks) {
    out += "<span style=\"left:" + fixedNumber(100 * (mark - legend.low) / (legend.high - legend.low), 1) + "%\">" +
           std::to_string(mark) + "</span>";
  }
  return out + "</div><p>" + escaped(legend.unit) + "</p></div>";
}

// A panel whose picture lies over the print, and which the switch can lay over the large one.
std::string overlayPanel(const char *id, const char *title, const ColourPicture &picture, const Legend *legend) {
  return std::string("<figure class=overlay id=panel-") + id + " data-name=" + id + "><figcaption>" + title +
         "</figcaption><div class=print><img alt=\"" + title + "\" src=\"" + dataUri(picture) + "\"></div>" +
         (legend ? legendAsHtml(*legend) : "") + "</figure>\n";
}

template <typename AnyPicture>
std::string plainPanel(const char *title, const AnyPicture &picture) {
  return std::string("<figure><figcaption>") + title + "</figcaption><img alt=\"" + title + "\" src=\"" +
         dataUri(picture) + "\"></figure>\n";
}

std::string overlayPanels(const Analysis &analysis) {
  const double zoom = zoomFor(analysis.print, kWidth);
  const ColourPicture plain = paintPrint(analysis.print, zoom, 0);
  const ColourPicture clear(plain.width, plain.height, kClear);
  ColourPicture outline = clear, directions8 = clear, directions16 = clear, periods = clear, grades = clear;
  paintOutline(outline, analysis, zoom);
  paintDirections(directions8, analysis, analysis.orientation.direction8, zoom);
  paintDirections(directions16, analysis, analysis.orientation.direction16, zoom);
  paintPeriods(periods, analysis, zoom, 255);
  paintGrades(grades, analysis, zoom, 255);
  const Legend period = periodLegend(analysis.scale);
  return overlayPanel("foreground", "Foreground", outline, nullptr) +
         overlayPanel("orientation8", "Orientation, blocks of 8", directions8, &kTurnLegend) +
         overlayPanel("orientation16", "Orientation, blocks of 16", directions16, &kTurnLegend) +
         overlayPanel("period", "Ridge period", periods, &period) +
         overlayPanel("quality", "Block quality", grades, &kGradeLegend);
}

std::string tableAsHtml(const Analysis &analysis) {
  const Numbers &numbers = analysis.numbers;
  const Segmentation &segmentation = analysis.segmentation;
  const auto used = [&](bool mode) { return mode == segmentation.modeChosen ? ", used" : ""; };
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"Size", std::to_string(analysis.width) + " x " + std::to_string(analysis.height) + " pixels"},
      {"Analysed at", analysis.scale == 1 ? "its own size" : "double size"},
      {"Mean quality", fixedNumber(numbers.quality, 1) + " of 255"},
      {"Spread of the quality", fixedNumber(numbers.qualitySpread, 1)},
      {"Share of foreground", fixedNumber(100 * numbers.foreground, 1) + " %"},
      {"Median ridge period", numbers.period > 0 ? fixedNumber(numbers.period, 2) + " pixels" : "none found"},
      {"Continuity", numbers.continuous ? "continuous" : "broken up by light gaps"},
      {"Threshold from the silhouette", std::to_string(segmentation.shapeThreshold) + used(false)},
      {"Threshold from the mode", std::to_string(segmentation.modeThreshold) + used(true)},
      {"Complexity of the foreground", fixedNumber(segmentation.complexity, 2)},
      {"Mean grey level", std::to_string(numbers.meanGrey)},
  };
  std::string out = "<table><caption>Numbers</caption>";
  for (const auto &[what, value] : rows) out += "<tr><th>" + what + "</th><td>" + value + "</td></tr>";
  out += "</table><table><caption>Time taken</caption>";
  double total = 0;
  for (const auto &[step, milliseconds] : analysis.timings) {
    out += "<tr><th>" + step + "</th><td>" + fixedNumber(milliseconds, 2) + " ms</td></tr>";
    total += milliseconds;
  }
  return out + "<tr><th>all steps</th><td>" + fixedNumber(total, 2) + " ms</td></tr></table>";
}

constexpr char kStyle[] = R"(
body{font:16px/1.45 system-ui,sans-serif;color:#111;background:#fff;margin:2rem auto;max-width:86rem;padding:0 1.5rem}
h1{font-size:1.5rem;margin:0 0 1rem}
.top{display:flex;gap:2rem;align-items:flex-start;flex-wrap:wrap}
.stage{flex:0 1 34rem;min-width:18rem}
.print{position:relative;background-size:100% 100%;background-color:#fff;border:1px solid #ccc}
figure .print::before{content:"";position:absolute;inset:0;background:#fff;opacity:.6}
#panel-foreground .print::before{opacity:.3}
.print img{position:relative;display:block;width:100%}
.switch{display:flex;flex-wrap:wrap;gap:.3rem 1.1rem;margin-bottom:.7rem}
table{border-collapse:collapse;margin:0 0 1.5rem}
caption{text-align:left;font-weight:600;padding-bottom:.3rem}
th{font-weight:400;text-align:left;padding:.12rem 2rem .12rem 0;color:#444}
td{text-align:right;font-variant-numeric:tabular-nums}
tr{border-top:1px solid #e4e4e4}
.panels{display:grid;grid-template-columns:repeat(auto-fill,minmax(24rem,1fr));gap:2rem;margin-top:2rem}
figure{margin:0}figure>img{width:100%;display:block;border:1px solid #ccc;box-sizing:border-box}
figcaption{font-weight:600;margin-bottom:.4rem}
.legend{margin:.5rem 0;font-size:.85rem;color:#444}.scale{height:.8rem}.marks{position:relative;height:1.3rem}
.marks span{position:absolute;transform:translateX(-50%)}
.marks span:first-child{transform:none}.marks span:last-child{transform:translateX(-100%)}
.legend p{margin:0}
)";

// Which overlay shows is kept in the address, so that a view can be passed on: report.html#period.
constexpr char kScript[] = R"(
const stage = document.querySelector('.stage');
const shown = stage.querySelector('img'), note = stage.querySelector('.note');
const none = shown.src;
function show(name) {
  const panel = document.getElementById('panel-' + name);
  const legend = panel && panel.querySelector('.legend');
  shown.src = panel ? panel.querySelector('img').src : none;
  note.innerHTML = legend ? legend.outerHTML : '';
  document.documentElement.dataset.overlay = panel ? name : 'none';
  for (const input of stage.querySelectorAll('[name=overlay]')) input.checked = input.value === (panel ? name : 'none');
}
stage.addEventListener('change', event => {
  if (event.target.name === 'overlay') location.hash = event.target.value;
  else shown.style.opacity = event.target.value / 100;
});
addEventListener('hashchange', () => show(location.hash.slice(1)));
show(location.hash.slice(1));
addEventListener('load', () => {
  const pictures = [...document.querySelectorAll('figure img')];
  document.documentElement.dataset.pictures = pictures.filter(picture => picture.naturalWidth > 1).length;
});
)";

}  // namespace

std::string reportAsHtml(const Analysis &analysis, const std::string &name) {
  const std::string title = escaped(std::filesystem::path(name).filename().string());
  const ColourPicture clear(analysis.print.width, analysis.print.height, kClear);
  std::string out = "<!DOCTYPE html>\n<html lang=en><head><meta charset=utf-8><title>" + title +
                    "</title><meta name=viewport content=\"width=device-width\"><style>" + kStyle +
                    ".print{background-image:url(" + dataUri(analysis.print) + ")}</style></head>\n<body><h1>" + title +
                    "</h1>\n<div class=top><div class=stage><div class=switch>";
  const std::pair<const char *, const char *> choices[] = {
      {"none", "Print alone"},           {"foreground", "Foreground"},
      {"orientation8", "Orientation 8"}, {"orientation16", "Orientation 16"},
      {"period", "Ridge period"},        {"quality", "Quality"}};
  for (const auto &[value, label] : choices) {
    out += std::string("<label><input type=radio name=overlay value=") + value + "> " + label + "</label>";
  }
  out +=
      "<label>Opacity <input type=range min=0 max=100 value=80></label></div>\n<div class=print><img alt=overlay "
      "style=\"opacity:.8\" src=\"" +
      dataUri(clear) + "\"></div><div class=note></div></div>\n<div>" + tableAsHtml(analysis) + "</div></div>\n" +
      "<div class=panels>\n" + plainPanel("Print", analysis.print) + overlayPanels(analysis) +
      plainPanel("Gradients, half size", analysis.gradient) +
      plainPanel("Histogram of the gradients", paintHistogram(analysis, kWidth, kWidth * 3 / 4, 2)) +
      "</div>\n<script>" + kScript + "</script></body></html>\n";
  return out;
}

}  // namespace kelm::tools

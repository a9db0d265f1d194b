// SPDX-License-Identifier: Apache-2.0
#include "tools/image/maps.h"

#include <algorithm>
#include <filesystem>

#include "tools/image/npy.h"
#include "tools/image/page.h"
#include "tools/output.h"

namespace kelm::tools {
namespace {

template <typename Sample>
Bytes npyOf(const std::vector<Sample> &samples, int rows, int cols, size_t planes = 0) {
  return encodeNpy(samples, planes, static_cast<size_t>(rows), static_cast<size_t>(cols));
}

// A map whose cells show in colours, all of them: outside the finger too.
template <typename Sample, typename ColourOf>
Map colouredMap(const char *name, const char *unit, const Analysis &analysis, const Grid<Sample> &grid,
                ColourOf colourOf) {
  const auto png = [&analysis, &grid, colourOf] {
    const int width = analysis.picture.width, height = analysis.picture.height;
    const Surface surface =
        cellsOf(width, height, [&](int x, int y) { return colourOf(grid.at(x / grid.cell, y / grid.cell)); });
    return drawn(Format::Png, width, height, 1, [&](cairo_t *cairo) { paintSurface(cairo, surface.get(), 1, false); });
  };
  return {name, unit, grid.cell, grid.rows, grid.cols, [&grid] { return npyOf(grid.data, grid.rows, grid.cols); }, png};
}

}  // namespace

Map greyMap(const std::string &name, const Picture &picture) {
  return {name,
          "grey levels",
          1,
          picture.height,
          picture.width,
          [picture] { return npyOf(picture.samples, picture.height, picture.width); },
          [picture] { return encodePng(picture); },
          [picture] { return encodePgm(picture); }};
}

Map foregroundMap(const Analysis &analysis) {
  Map map = greyMap("foreground", analysis.mask);
  map.unit = "255 in the finger, 0 elsewhere";
  return map;
}

Map orientationMap(const Analysis &analysis, bool largeBlocks) {
  return colouredMap(largeBlocks ? "orientation16" : "orientation8", "degrees counter-clockwise, -90 to 90", analysis,
                     largeBlocks ? analysis.direction16 : analysis.direction8,
                     [legend = directionLegend()](int16_t degrees) { return legend.at(degrees); });
}

Map changeMap(const Analysis &analysis) {
  return colouredMap("change", "degrees from block to block", analysis, analysis.change,
                     [legend = changeLegend()](int16_t degrees) { return legend.at(degrees); });
}

Map periodMap(const Analysis &analysis) {
  return colouredMap("period", "pixels, 0 for none", analysis, analysis.periods,
                     [legend = periodLegend(analysis.numbers.period)](float period) {
                       return period > 0 ? legend.at(period) : Colour{255, 255, 255};
                     });
}

Map clarityMap(const Analysis &analysis) {
  return colouredMap("clarity", "0 to 100", analysis, analysis.clarity,
                     [legend = clarityLegend()](uint8_t clarity) { return legend.at(clarity); });
}

Map qualityMap(const Analysis &analysis) {
  return colouredMap("quality", "grade, 0 to 255; 0 in blocks that are not whole", analysis, analysis.grades,
                     [legend = gradeLegend()](uint8_t grade) { return legend.at(grade); });
}

Map gradientMap(const Analysis &analysis) {
  const Grid<uint8_t> &gradient = analysis.gradient;
  const auto picture = [&analysis, &gradient] {
    Picture out(analysis.picture.width, analysis.picture.height);
    for (int y = 0; y < out.height; ++y) {
      for (int x = 0; x < out.width; ++x) out.at(x, y) = gradient.at(x / gradient.cell, y / gradient.cell);
    }
    return out;
  };
  return {"gradient",
          "strength, 0 to 255",
          gradient.cell,
          gradient.rows,
          gradient.cols,
          [&gradient] { return npyOf(gradient.data, gradient.rows, gradient.cols); },
          [picture] { return encodePng(picture()); },
          [picture] { return encodePgm(picture()); }};
}

Map fourGradientsMap(const Analysis &analysis) {
  Map map = gradientMap(analysis);
  const int cell = 4 / analysis.scale;
  map.name = "gradients";
  map.unit = "sums of differences of grey levels in four directions, 0 to 1530";
  map.cell = cell;
  map.rows = (analysis.picture.height + cell - 1) / cell;
  map.cols = (analysis.picture.width + cell - 1) / cell;
  map.npy = [&analysis, rows = map.rows, cols = map.cols] {
    std::vector<uint16_t> all;
    for (const Grid<uint16_t> &grid :
         fourGradientsOf(analysis.scale == 2 ? enlarged(analysis.picture) : analysis.picture)) {
      for (int row = 0; row < rows; ++row) {
        for (int col = 0; col < cols; ++col) {
          all.push_back(grid.at(std::min(col, grid.cols - 1), std::min(row, grid.rows - 1)));
        }
      }
    }
    return npyOf(all, rows, cols, 4);
  };
  return map;
}

void writeMaps(const Analysis &analysis, const std::string &name, const std::string &folder) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) throw FileFailure(folder + ": " + error.message());
  nlohmann::ordered_json list = {{"path", name}};
  list.update(mainNumbers(analysis));
  for (const Map &map :
       {foregroundMap(analysis), orientationMap(analysis, false), orientationMap(analysis, true), changeMap(analysis),
        periodMap(analysis), clarityMap(analysis), qualityMap(analysis), gradientMap(analysis)}) {
    writeFile((fs::path(folder) / (map.name + ".npy")).string(), map.npy());
    writeFile((fs::path(folder) / (map.name + ".png")).string(), map.png());
    list["maps"].push_back({{"name", map.name},
                            {"numbers", map.name + ".npy"},
                            {"picture", map.name + ".png"},
                            {"cell", map.cell},
                            {"rows", map.rows},
                            {"cols", map.cols},
                            {"unit", map.unit}});
  }
  writeFile((fs::path(folder) / "maps.json").string(), jsonText(list) + '\n');
}

}  // namespace kelm::tools

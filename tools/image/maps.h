// SPDX-License-Identifier: Apache-2.0
// The maps of an analysis as files: raw numbers and pictures, with what the numbers mean.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/image/analysis.h"

namespace kelm::tools {

using Bytes = std::vector<uint8_t>;

struct Map {
  std::string name;  // of its files, without an ending
  std::string unit;
  int cell;        // pixels of the picture
  int rows, cols;  // which cover the picture; the last ones may reach beyond its edge
  // The file in .npy; the picture as .png, one pixel for each pixel of the print; .pgm of grey pictures only.
  std::function<Bytes()> npy, png, pgm = {};
};

// These point into the analysis.
Map foregroundMap(const Analysis &analysis);
Map orientationMap(const Analysis &analysis, bool largeBlocks);
Map changeMap(const Analysis &analysis);
Map periodMap(const Analysis &analysis);
Map clarityMap(const Analysis &analysis);
Map qualityMap(const Analysis &analysis);
// The gradient strength, and the toolkit's maps of four directions: horizontal, rising, vertical and falling.
Map gradientMap(const Analysis &analysis);
Map fourGradientsMap(const Analysis &analysis);

// A grey picture as a map: the step "reduce" and its like.
Map greyMap(const std::string &name, const Picture &picture);

// Writes all maps as NAME.npy and NAME.png into a folder, which is made, and maps.json, which lists them with cell
// size, rows, columns and unit.
void writeMaps(const Analysis &analysis, const std::string &name, const std::string &folder);

}  // namespace kelm::tools

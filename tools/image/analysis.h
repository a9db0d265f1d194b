// SPDX-License-Identifier: Apache-2.0
// Everything that the toolkit says about a print, in its natural order. The page, the numbers and the single steps show
// parts of the same analysis.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tools/image/ridges.h"
#include "tools/image/toolkit.h"

namespace kelm::tools {

struct Numbers {
  bool finger = false;       // whether there is a print at all
  double clarity = 0;        // mean clarity of the ridges in the foreground, 0 to 100; of the picture without a finger
  double quality = 0;        // mean grade of the whole blocks in the foreground, 0 to 255
  double qualitySpread = 0;  // their standard deviation
  double foreground = 0;     // share of the picture, 0 to 1
  double period = 0;         // median ridge period in the foreground, pixels; 0 when no cell has one
  int meanGrey = 0;
  bool continuous = false;
  int lightLevel = 0;  // the grey level from which a row or column counts as a gap
};

// Milliseconds taken by each step, in order.
using Timings = std::vector<std::pair<std::string, double>>;

struct AnalysisSettings {
  int window = kGradientWindow;  // of the gradient products, pixels of the half-size picture
  bool maps = true;              // false where mainNumbers() is all that is wanted: what only pictures show stays empty
};

// All cells are counted in pixels of the picture as it was read, and all grids cover it: the last row and column of
// cells may reach beyond its edge.
struct Analysis {
  Picture picture;
  // 2 when the ridges lie so close together that the picture was doubled first, which makes all cells half as large.
  int scale = 1;
  Picture mask;               // the foreground: 0 and 255, as large as the picture
  Grid<int16_t> direction8;   // degrees, cells of 8 pixels / scale
  Grid<int16_t> direction16;  // cells of 16 / scale
  Grid<int16_t> change;       // degrees from block to block, cells of 8 / scale
  Grid<float> periods;        // pixels, 0 for none; cells of 4 / scale
  Grid<uint8_t> grades;       // cells of 16 / scale, 0 in those that are not whole
  Grid<uint8_t> clarity;      // 0 to 100, cells of 8 / scale
  Grid<uint8_t> gradient;     // cells of 2 / scale
  Thresholds thresholds;      // that the toolkit proposes for the gradients
  float complexity = 0;       // of the foreground
  Counters printHistogram{};
  Counters gradientHistogram{};
  Counters smoothed{};  // of the gradients; the first 128 entries, two grey levels each
  Numbers numbers;
  Timings timings;

  // Whether most of the cell of a grid belongs to the finger.
  bool inForeground(int column, int row, int cell) const;
};

// Throws PictureError when the picture is too small; `name` is for the message.
Analysis analyse(const Picture &picture, const std::string &name, const AnalysisSettings &settings = {});

// What is said about a picture in lines for programs, in this order: width, height, resolution, scale, finger, clarity,
// quality, qualitySpread, foreground, period, continuous.
nlohmann::ordered_json mainNumbers(const Analysis &analysis);

// The numbers of the report as JSON, thresholds included, and on request how long each step took.
std::string numbersAsJson(const Analysis &analysis, const std::string &name, bool timings);

}  // namespace kelm::tools

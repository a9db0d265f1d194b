// SPDX-License-Identifier: Apache-2.0
// Everything that the toolkit says about a print, in its natural order.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/image/toolkit.h"

namespace kelm::tools {

struct Numbers {
  double quality = 0;        // mean grade of the blocks in the foreground, 0 to 255
  double qualitySpread = 0;  // their standard deviation
  double foreground = 0;     // share of the picture, 0 to 1
  double period = 0;         // median ridge period in the foreground, pixels; 0 when no cell has one
  int meanGrey = 0;
  bool continuous = false;
  int lightLevel = 0;  // the grey level from which a row or column counts as a gap
};

// Milliseconds taken by each step, in order.
using Timings = std::vector<std::pair<std::string, double>>;

struct Analysis {
  int width = 0;  // of the picture as it was read
  int height = 0;
  // 2 when the ridges lay so close together that the picture was doubled first; everything below is then of the
  // doubled one, but the numbers are not.
  int scale = 1;
  Picture print;
  Picture half;
  Orientation orientation;
  Picture gradient;
  Segmentation segmentation;
  Grid<uint8_t> periods;
  Grid<uint8_t> grades;
  Counters printHistogram;
  Counters gradientHistogram;
  Counters smoothed;  // of the gradients; the first 128 entries, two grey levels each
  Numbers numbers;
  Timings timings;

  // Whether most of the square of the given edge at (x, y), in pixels of the print, belongs to the finger.
  bool inForeground(int x, int y, int edge) const;
};

// Throws PictureError when the picture is too small; `name` is for the message.
Analysis analyse(const Picture &print, const std::string &name);

// The numbers of the report as JSON, the timings included.
std::string numbersAsJson(const Analysis &analysis, const std::string &name);

}  // namespace kelm::tools

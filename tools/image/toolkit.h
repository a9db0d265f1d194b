// SPDX-License-Identifier: Apache-2.0
// The image toolkit for pictures: what the library hands back becomes a vector, what it refuses an exception.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "tools/image/picture.h"

namespace kelm::tools {

// Numbers for the cells of a grid that lies over a picture, the first row on top.
template <typename Sample>
struct Grid {
  int cell = 1;  // edge of a cell in pixels of the full picture
  int rows = 0;
  int cols = 0;
  std::vector<Sample> data;

  Sample at(int column, int row) const {
    return data[static_cast<size_t>(row) * static_cast<size_t>(cols) + static_cast<size_t>(column)];
  }
};

// Pictures below this edge have too few blocks for the fields.
inline constexpr int kSmallestEdge = 64;

// The toolkit's results: 1 is exhausted memory (std::bad_alloc), 2 an argument it refuses (PictureError).
void check(uint32_t result, const char *step);

// Throws PictureError when the picture is too small for the functions below.
void requireAnalysable(const Picture &picture, const std::string &name);

Picture reduced(const Picture &picture);
Picture enlarged(const Picture &picture);
// The picture in a frame of its outermost pixels, repeated; a rectangle of a picture, which must lie inside.
Picture framed(const Picture &picture, int frame);
Picture part(const Picture &picture, int left, int top, int width, int height);

struct Orientation {
  Grid<int32_t> products;     // smoothed 2 gx gy of the half-size picture
  Grid<int32_t> differences;  // smoothed gy^2 - gx^2
  Grid<int16_t> direction8;   // degrees counter-clockwise, -90 to 90
  Grid<int16_t> change;       // degrees from block to block
  Grid<int16_t> direction16;
};

// Window of the gradient products in pixels of the half-size picture: two ridges of a 500 dpi print.
inline constexpr int kGradientWindow = 9;

Orientation orientationOf(const Picture &half, int fullWidth, int fullHeight, int window = kGradientWindow);

// The products and differences of single pixels.
struct Products {
  Grid<int32_t> products, differences;
};
Products productsOf(const Picture &half);

// Gradient strength, 0 to 255: the root of the length of (products, differences), for each pixel of the half-size
// picture, stretched for faint prints. Unlike single gradients it is weak where directions contradict one another, as
// in noise and on paper.
Picture gradientOf(const Orientation &orientation, int window = kGradientWindow);

// Ridge period in eighths of a pixel for cells of 4 x 4 pixels; 255 where there is none.
inline constexpr uint8_t kNoPeriod = 255;
Grid<uint8_t> periodsOf(const Picture &print, const Grid<int16_t> &direction8);

// Grades of blocks of 16 x 16 pixels; 0 in those at the right and lower edge that are not whole.
Grid<uint8_t> gradesOf(const Picture &print);

// Direction maps 0, 45, 90 and 135 degrees, sampled every 4 pixels.
std::array<Grid<uint16_t>, 4> fourGradientsOf(const Picture &print);

using Counters = std::array<uint32_t, 256>;
Counters histogramOf(const Picture &picture);
// The library's smoothing: 128 bins of two grey levels in the first half.
Counters smoothedHistogram(const Counters &counters);

// The thresholds that the toolkit proposes for a picture of gradients.
struct Thresholds {
  int shape = 0;  // from the histogram's cleaned silhouette
  int mode = 0;   // from the width of the foreground's mode
};
Thresholds thresholdsOf(const Picture &gradient);

// How ragged the outline of a mask is; 0 without any foreground.
float complexityOf(const Picture &mask);

// Whether the print is free of light bands and gaps. Rows and columns lighter than the given grey level are gaps.
bool continuous(const Picture &print, int level);

}  // namespace kelm::tools

// SPDX-License-Identifier: Apache-2.0
#include "tools/image/steps.h"

#include <kelmtrova/image.h>

#include <algorithm>
#include <cmath>

#include "tools/image/npy.h"
#include "tools/image/panels.h"
#include "tools/image/toolkit.h"

namespace kelm::tools {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes greyOut(const Picture &picture, bool raw) {
  return raw ? encodeNpy(picture.samples, 0, static_cast<size_t>(picture.height), static_cast<size_t>(picture.width))
             : encodePng(picture);
}

template <typename Sample>
Bytes gridOut(const Grid<Sample> &grid) {
  return encodeNpy(grid.data, 0, static_cast<size_t>(grid.rows), static_cast<size_t>(grid.cols));
}

// Each cell in the colour of its value, as large as in the picture.
template <typename Sample, typename ColourOf>
Bytes gridPicture(const Grid<Sample> &grid, ColourOf colourOf) {
  ColourPicture canvas(grid.cols * grid.cell, grid.rows * grid.cell, kWhite);
  for (int row = 0; row < grid.rows; ++row) {
    for (int column = 0; column < grid.cols; ++column) {
      fillRectangle(canvas, column * grid.cell, row * grid.cell, grid.cell, grid.cell, colourOf(grid.at(column, row)));
    }
  }
  return encodePng(canvas);
}

Colour scaleColour(const Legend &legend, double value) {
  return legend.colour((value - legend.low) / (legend.high - legend.low));
}

Orientation orientationWith(const Picture &picture, const StepSettings &settings) {
  return orientationOf(picture, reduced(picture), settings.window);
}

Bytes runSegment(const Picture &picture, const StepSettings &settings, bool raw) {
  const Picture gradient = gradientOf(orientationWith(picture, settings), settings.window);
  const Picture mask = enlarged(segment(gradient).mask);
  return greyOut(mask, raw);
}

// As numbers: degrees. As a picture: 0 degrees is black, 90 or -90 is white.
Bytes runOrientation(const Picture &picture, const StepSettings &settings, bool raw) {
  const Orientation orientation = orientationWith(picture, settings);
  const Grid<int16_t> &field = settings.blockSize == 8 ? orientation.direction8 : orientation.direction16;
  if (raw) return gridOut(field);
  return gridPicture(field, [](int16_t degrees) {
    const auto grey = static_cast<uint8_t>(std::min(std::abs(degrees) * 255 / 90, 255));
    return Colour{grey, grey, grey};
  });
}

// As numbers: pixels, 0 where there is no period.
Bytes runFrequency(const Picture &picture, const StepSettings &settings, bool raw) {
  const Grid<uint8_t> periods = periodsOf(picture, orientationWith(picture, settings).direction8);
  if (!raw) {
    return gridPicture(periods, [](uint8_t period) {
      return period == kNoPeriod ? kWhite : scaleColour(periodLegend(1), period / 8.0);
    });
  }
  Grid<float> pixels{periods.cell, periods.rows, periods.cols, {}};
  for (const uint8_t period : periods.data) {
    pixels.data.push_back(period == kNoPeriod ? 0 : static_cast<float>(period) / 8);
  }
  return gridOut(pixels);
}

Bytes runQualityMap(const Picture &picture, const StepSettings &, bool raw) {
  const Grid<uint8_t> grades = gradesOf(picture);
  return raw ? gridOut(grades) : gridPicture(grades, [](uint8_t grade) { return scaleColour(kGradeLegend, grade); });
}

// As numbers: the four direction maps. As a picture: the gradient strength that the segmentation works on.
Bytes runGradients(const Picture &picture, const StepSettings &settings, bool raw) {
  if (!raw) return encodePng(gradientOf(orientationWith(picture, settings), settings.window));
  const std::array<Grid<uint16_t>, 4> maps = fourGradientsOf(picture);
  std::vector<uint16_t> all;
  for (const Grid<uint16_t> &map : maps) all.insert(all.end(), map.data.begin(), map.data.end());
  return encodeNpy(all, maps.size(), static_cast<size_t>(maps[0].rows), static_cast<size_t>(maps[0].cols));
}

// As numbers: one row of counters, 256 or, smoothed, 128. As a picture: bars.
Bytes runHistogram(const Picture &picture, const StepSettings &settings, bool raw) {
  const Counters counted = histogramOf(picture);
  const Counters counters = settings.smooth ? smoothedHistogram(counted) : counted;
  const size_t bins = settings.smooth ? 128 : 256;
  const std::vector<uint32_t> kept(counters.begin(), counters.begin() + static_cast<ptrdiff_t>(bins));
  if (raw) return encodeNpy(kept, 0, 1, bins);
  constexpr int kBars = 512;
  constexpr int kTall = 256;
  const double tallest = std::max<double>(1, *std::max_element(kept.begin(), kept.end()));
  Picture bars(kBars, kTall, 255);
  for (int x = 0; x < kBars; ++x) {
    const uint32_t count = kept[static_cast<size_t>(x) * bins / kBars];
    for (int y = kTall - static_cast<int>(count / tallest * kTall); y < kTall; ++y) bars.at(x, y) = 60;
  }
  return encodePng(bars);
}

Bytes runNormalize(const Picture &picture, const StepSettings &settings, bool raw) {
  Picture out = picture;
  ImageNormalize(out.samples.data(), static_cast<uint16_t>(out.height), static_cast<uint16_t>(out.width),
                 static_cast<uint8_t>(settings.targetMean), static_cast<uint32_t>(settings.targetVariance));
  return greyOut(out, raw);
}

Bytes runReduce(const Picture &picture, const StepSettings &, bool raw) { return greyOut(reduced(picture), raw); }

Bytes runEnlarge(const Picture &picture, const StepSettings &, bool raw) {
  if (picture.samples.size() > kLargestArea / 4 || picture.width > int{kLongestEdge} / 2 ||
      picture.height > int{kLongestEdge} / 2) {
    throw PictureError("the enlarged picture would be too large");
  }
  return greyOut(enlarged(picture), raw);
}

}  // namespace

const std::vector<Step> &steps() {
  static const std::vector<Step> all = {
      {"segment", "The foreground: 255 where the finger is, 0 elsewhere", runSegment, false},
      {"orientation", "The direction of the ridges in degrees, block by block", runOrientation, false},
      {"frequency", "The ridge period in pixels, in cells of 4 x 4 pixels", runFrequency, false},
      {"quality-map", "The grades of the blocks of 16 x 16 pixels", runQualityMap, false},
      {"gradients", "Gradient strength (PNG) or the four direction maps (.npy)", runGradients, false},
      {"histogram", "How often each grey level occurs", runHistogram, true},
      {"normalize", "The picture with a given mean and variance", runNormalize, true},
      {"reduce", "The picture at half size, smoothed", runReduce, true},
      {"enlarge", "The picture at double size", runEnlarge, true},
  };
  return all;
}

}  // namespace kelm::tools

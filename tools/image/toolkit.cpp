// SPDX-License-Identifier: Apache-2.0
#include "tools/image/toolkit.h"

#include <kelmtrova/image.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

namespace kelm::tools {
namespace {

struct Freer {
  void operator()(void *memory) const { free(memory); }
};
template <typename Sample>
using Owned = std::unique_ptr<Sample[], Freer>;

uint16_t u16(int value) { return static_cast<uint16_t>(value); }
int16_t s16(int value) { return static_cast<int16_t>(value); }

template <typename Sample>
Grid<Sample> gridOf(const Sample *data, int cell, int rows, int cols) {
  return {cell, rows, cols, std::vector<Sample>(data, data + static_cast<size_t>(rows) * static_cast<size_t>(cols))};
}

Picture pictureOf(const uint8_t *samples, int width, int height) {
  if (!samples) throw std::bad_alloc();
  Picture picture(width, height);
  std::copy_n(samples, picture.samples.size(), picture.samples.begin());
  return picture;
}

Picture upsideDown(const Picture &picture, int rows) {
  Picture out(picture.width, rows);
  for (int y = 0; y < rows; ++y) {
    std::copy_n(&picture.samples[static_cast<size_t>(rows - 1 - y) * static_cast<size_t>(picture.width)], picture.width,
                &out.samples[static_cast<size_t>(y) * static_cast<size_t>(picture.width)]);
  }
  return out;
}

}  // namespace

void check(uint32_t result, const char *step) {
  if (result == 1) throw std::bad_alloc();
  if (result != 0) throw PictureError(std::string(step) + ": the toolkit refuses this picture");
}

Picture framed(const Picture &picture, int frame) {
  Picture out(picture.width + 2 * frame, picture.height + 2 * frame);
  for (int y = 0; y < out.height; ++y) {
    const uint8_t *from = &picture.samples[static_cast<size_t>(std::clamp(y - frame, 0, picture.height - 1)) *
                                           static_cast<size_t>(picture.width)];
    uint8_t *to = &out.samples[static_cast<size_t>(y) * static_cast<size_t>(out.width)];
    std::fill_n(to, frame, from[0]);
    std::copy_n(from, picture.width, to + frame);
    std::fill_n(to + frame + picture.width, frame, from[picture.width - 1]);
  }
  return out;
}

Picture part(const Picture &picture, int left, int top, int width, int height) {
  Picture out(width, height);
  for (int y = 0; y < height; ++y) {
    std::copy_n(
        &picture.samples[static_cast<size_t>(top + y) * static_cast<size_t>(picture.width) + static_cast<size_t>(left)],
        width, &out.samples[static_cast<size_t>(y) * static_cast<size_t>(width)]);
  }
  return out;
}

void requireAnalysable(const Picture &picture, const std::string &name) {
  if (picture.width >= kSmallestEdge && picture.height >= kSmallestEdge) return;
  throw PictureError(name + ": the picture is too small to analyse (" + std::to_string(picture.width) + " x " +
                     std::to_string(picture.height) + " pixels; at least " + std::to_string(kSmallestEdge) +
                     " along an edge)");
}

Picture reduced(const Picture &picture) {
  const int width = picture.width / 2;
  const int height = picture.height / 2;
  if (width == 0 || height == 0) throw PictureError("a picture of one row or column cannot be halved");
  const Owned<uint8_t> out(
      ImageReduce(picture.samples.data(), u16(picture.height), u16(picture.width), u16(height), u16(width)));
  return pictureOf(out.get(), width, height);
}

Picture enlarged(const Picture &picture) {
  const int width = picture.width * 2;
  const int height = picture.height * 2;
  const Owned<uint8_t> out(
      ImageEnlarge(picture.samples.data(), u16(picture.height), u16(picture.width), u16(height), u16(width)));
  return pictureOf(out.get(), width, height);
}

Orientation orientationOf(const Picture &half, int fullWidth, int fullHeight, int window) {
  int32_t *products = nullptr;
  int32_t *differences = nullptr;
  FingerprintBlockField direction8{}, change{}, direction16{};
  const int32_t result = FingerprintGetDirectionFloat(half.samples.data(), u16(half.height), u16(half.width),
                                                      u16(fullHeight), u16(fullWidth), static_cast<uint8_t>(window), 0,
                                                      &products, &differences, &direction8, &change, &direction16);
  const Owned<int32_t> ownedProducts(products), ownedDifferences(differences);
  const Owned<int16_t> owned8(direction8.data), ownedChange(change.data), owned16(direction16.data);
  check(static_cast<uint32_t>(result), "orientation");
  const auto fieldOf = [](const FingerprintBlockField &field) {
    return gridOf(field.data, field.blockSize, field.rows, field.cols);
  };
  return {gridOf(products, 2, half.height, half.width), gridOf(differences, 2, half.height, half.width),
          fieldOf(direction8), fieldOf(change), fieldOf(direction16)};
}

Products productsOf(const Picture &half) {
  Orientation orientation = orientationOf(half, u16(2 * half.width), u16(2 * half.height), 1);
  return {std::move(orientation.products), std::move(orientation.differences)};
}

Picture gradientOf(const Orientation &orientation, int window) {
  constexpr float kStrong = 200;
  constexpr float kLargestGain = 8;
  const Grid<int32_t> &products = orientation.products;
  const int side = 2 * (window / 2) + 1;
  std::vector<float> strengths(products.data.size());
  for (size_t i = 0; i < strengths.size(); ++i) {
    const double p = products.data[i];
    const double d = orientation.differences.data[i];
    // Per pixel, the Sobel weights (8 in all for a slope over two pixels) brought back to grey levels.
    strengths[i] = static_cast<float>(std::sqrt(std::sqrt(p * p + d * d)) / (side * 4.0));
  }
  // Faint prints are stretched, so that the thresholds find their histogram spread out.
  std::vector<float> sorted = strengths;
  const auto strong = sorted.begin() + static_cast<ptrdiff_t>(sorted.size() * 99 / 100);
  std::nth_element(sorted.begin(), strong, sorted.end());
  const float gain = std::clamp(kStrong / std::max(*strong, 1.0f), 1.0f, kLargestGain);
  Picture gradient(products.cols, products.rows);
  for (size_t i = 0; i < strengths.size(); ++i) {
    gradient.samples[i] = static_cast<uint8_t>(std::min(strengths[i] * gain, 255.0f));
  }
  return gradient;
}

// FpGetFrequency reads the field's rows from the lower edge upward and its angles clockwise: it wants the picture
// upside down, and only as many rows as the field has blocks for. Its map comes upside down too.
Grid<uint8_t> periodsOf(const Picture &print, const Grid<int16_t> &direction8) {
  Picture flipped = upsideDown(print, direction8.rows * direction8.cell);
  // Pores and specks would count as ridges of their own.
  check(static_cast<uint32_t>(
            MeanSmooth(flipped.samples.data(), flipped.samples.data(), s16(flipped.height), s16(flipped.width))),
        "smoothing");
  // The same contrast for all: a faint copy then has the periods of its original. Little of it, so that ripples that
  // are no ridges are rounded away.
  ImageNormalize(flipped.samples.data(), u16(flipped.height), u16(flipped.width), 128, 400);
  std::vector<int16_t> directions = direction8.data;
  const FingerprintBlockField field{u16(direction8.cell), u16(direction8.rows), u16(direction8.cols),
                                    directions.data()};
  uint8_t *map = nullptr;
  const int32_t result = FpGetFrequency(flipped.samples.data(), s16(flipped.height), s16(flipped.width), &field, &map);
  const Owned<uint8_t> owned(map);
  check(static_cast<uint32_t>(result), "ridge period");
  const int columns = flipped.width / 4;
  Picture upright = upsideDown(pictureOf(map, columns, flipped.height / 4), flipped.height / 4);
  // Whole pixels come from counting the gaps between ridges in windows three pixels wide, of which the last one wins:
  // equal gaps answer one pixel too many, gaps that differ by one answer the larger. Half a pixel too much on average.
  for (uint8_t &period : upright.samples) {
    if (period != kNoPeriod && period % 8 == 0) period = static_cast<uint8_t>(period - 4);
  }
  return {4, upright.height, columns, upright.samples};
}

Grid<uint8_t> gradesOf(const Picture &print) {
  BlockQualityMap map{};
  const uint32_t result = ImageBlkQuality(&map, print.samples.data(), s16(print.height), s16(print.width), 0);
  const Owned<uint8_t> owned(map.grades);
  check(result, "block quality");
  return gridOf(map.grades, 16, map.rows, map.cols);
}

std::array<Grid<uint16_t>, 4> fourGradientsOf(const Picture &print) {
  constexpr int kStep = 4;
  const Owned<uint16_t *> maps(
      FpGetImg4DirectionGradsEx(print.samples.data(), s16(print.height), s16(print.width), kStep));
  if (!maps) throw std::bad_alloc();
  std::array<Grid<uint16_t>, 4> out;
  for (size_t d = 0; d < out.size(); ++d) {
    const Owned<uint16_t> map(maps[d]);
    out[d] = gridOf(map.get(), kStep, print.height / kStep, print.width / kStep);
  }
  return out;
}

Counters histogramOf(const Picture &picture) {
  const std::unique_ptr<Histogram, decltype(&HistogramDestroy)> histogram(
      HistogramCompute(picture.samples.data(), u16(picture.height), u16(picture.width)), &HistogramDestroy);
  if (!histogram) throw std::bad_alloc();
  Counters counters;
  std::copy_n(histogram->counter, counters.size(), counters.begin());
  return counters;
}

Counters smoothedHistogram(const Counters &counters) {
  Histogram histogram;
  std::copy(counters.begin(), counters.end(), histogram.counter);
  HistogramSmooth(&histogram);
  Counters out;
  std::copy_n(histogram.counter, out.size(), out.begin());
  return out;
}

Thresholds thresholdsOf(const Picture &gradient) {
  Picture shape = gradient;
  Picture mode = gradient;
  return {FpThresholdingGradsImage(shape.samples.data(), s16(shape.height), s16(shape.width)),
          FpThresholdingGradsImageEx(mode.samples.data(), s16(mode.height), s16(mode.width))};
}

float complexityOf(const Picture &mask) {
  const float complexity = Complexity(mask.samples.data(), s16(mask.height), s16(mask.width), 255);
  return std::isfinite(complexity) ? complexity : 0;
}

bool continuous(const Picture &print, int level) {
  return NotContinue(print.samples.data(), print.height, print.width, level) == 0;
}

}  // namespace kelm::tools

// SPDX-License-Identifier: Apache-2.0
// Four-direction gradients for the library's own use.
#ifndef KELMTROVA_IMAGE_QUALITY_GRADIENTS_H
#define KELMTROVA_IMAGE_QUALITY_GRADIENTS_H

#include <cstddef>
#include <cstdint>

#include "image/support/buffer.h"

namespace kelm::image {

inline constexpr int kGradientDirections = 4;

// A picture with a sample point every `step` pixels; the points of a row of the grid lie on one row of pixels.
struct GradientGrid {
  const std::uint8_t *image;
  std::size_t width;  // of the picture, in pixels
  std::size_t step;
  std::size_t rows;
  std::size_t cols;
};

GradientGrid gradientGrid(const std::uint8_t *image, std::int32_t height, std::int32_t width, std::int32_t step);

// Pixels along the edge of a cell, whose first pixel is a point of a grid of step 4.
inline constexpr std::size_t kCell = 4;

// Points of a row of the grid that are worked on at a time: those of a picture of 1024 columns.
inline constexpr std::size_t kMaxStretch = 256;

// The length of the equal stretches that a row of `n` points, or of blocks of `size` points, is cut into; the last one
// overlaps the one before.
constexpr std::size_t stretchLength(std::size_t n, std::size_t size = 1) {
  const std::size_t stretches = (n * size + kMaxStretch - 1) / kMaxStretch;
  return stretches == 0 ? 0 : (n + stretches - 1) / stretches;
}

// The samples of a stretch of cells, sorted by row and column within the cell.
struct alignas(kCacheLine) CellRow {
  static constexpr std::size_t kFirst = 32;  // index of the first cell; the one before it is there too
  using Column = std::uint16_t[kFirst + kMaxStretch];
  Column samples[kCell][kCell];
};

// The gradients along all directions at a stretch of a row of the grid, 0 at the border of the grid. A stretch starts
// at point 0 or is at least half of kMaxStretch long. Its rows are computed one after the other from row 0 on: two
// `cells` keep what the next one needs.
void gradientStretch(std::uint16_t *const (&out)[kGradientDirections], CellRow *cells, const GradientGrid &grid,
                     std::size_t row, std::size_t first, std::size_t points);

}  // namespace kelm::image

#endif

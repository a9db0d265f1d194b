// Four-direction gradients for the library's own use.
#ifndef KELMTROVA_IMAGE_QUALITY_GRADIENTS_H
#define KELMTROVA_IMAGE_QUALITY_GRADIENTS_H

#include <cstddef>
#include <cstdint>

namespace kelm::image {

inline constexpr int kDirections = 4;

// A picture with a sample point every `step` pixels; the points of a row of the grid lie on one row of pixels.
struct GradientGrid {
  const std::uint8_t *image;
  std::size_t width;  // of the picture, in pixels
  std::size_t step;
  std::size_t rows;
  std::size_t cols;
};

GradientGrid gradientGrid(const std::uint8_t *image, std::int32_t height, std::int32_t width, std::int32_t step);

// The gradients along `direction` at points first to last - 1 of a row of the grid, to out[0] and on. Every
// neighbour of these points must lie inside the picture.
void gradientRow(std::uint16_t *out, const GradientGrid &grid, std::size_t row, std::size_t first, std::size_t last,
                 int direction);

}  // namespace kelm::image

#endif

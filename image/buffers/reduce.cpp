// SPDX-License-Identifier: Apache-2.0
// Reducing by two, with smoothing.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "image/support/blocks.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "image/support/words.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr float kCentre = 0.4015F;
constexpr float kNeighbour = 0.2992F;

// Output columns that are computed together: 16 lanes of each of the widest vectors of bytes.
constexpr std::size_t kBlock = 64;

// The filter along a row, about the first sample of pair x + 1. What 16 bits can hold is done with 16 bits: twice the
// lanes.
KELM_INLINE void filterBlock(float *__restrict out, const std::uint8_t *__restrict in, std::size_t count) {
  std::uint16_t centres[kBlock];
  std::uint16_t neighbours[kBlock];
  for (std::size_t x = 0; x < count; ++x) {
    const unsigned left = loadWord<std::uint16_t>(in + 2 * x);
    const unsigned right = loadWord<std::uint16_t>(in + 2 * x + 2);
    centres[x] = static_cast<std::uint16_t>(right & 255);
    neighbours[x] = static_cast<std::uint16_t>((left >> 8) + (right >> 8));
  }
  for (std::size_t x = 0; x < count; ++x) {
    out[x] = kCentre * static_cast<float>(centres[x]) + kNeighbour * static_cast<float>(neighbours[x]);
  }
}

KELM_INLINE void filterRowBody(float *out, const std::uint8_t *in, std::size_t count) {
  inBlocks<kBlock, kBlock / 2>(count, [=](std::size_t x, std::size_t n) KELM_INLINE_LAMBDA {
    float filtered[kBlock];
    filterBlock(filtered, in + 2 * x, n);
    std::memcpy(out + x, filtered, n * sizeof(float));
  });
}
constexpr auto filterRow = kernel<filterRowBody>;

// One output row from the filtered row above its centre; leaves the one below, which is above the next row's centre.
KELM_INLINE void reduceRowBody(std::uint8_t *out, const float *filteredAbove, float *filteredBelow,
                               const std::uint8_t *centre, const std::uint8_t *below, std::size_t count) {
  inBlocks<kBlock, kBlock / 2>(count, [=](std::size_t x, std::size_t n) KELM_INLINE_LAMBDA {
    float filteredCentre[kBlock];
    float filtered[kBlock];
    std::uint8_t reduced[kBlock];
    filterBlock(filteredCentre, centre + 2 * x, n);
    filterBlock(filtered, below + 2 * x, n);
    for (std::size_t i = 0; i < n; ++i) {
      const float value = kCentre * filteredCentre[i] + kNeighbour * (filteredAbove[x + i] + filtered[i]);
      reduced[i] = static_cast<std::uint8_t>(static_cast<int>(value));
    }
    std::memcpy(filteredBelow + x, filtered, n * sizeof(float));
    std::memcpy(out + x, reduced, n);
  });
}
constexpr auto reduceRow = kernel<reduceRowBody>;

// The smoothed part of a reduced image (rows and columns from 1 on), in strips of columns whose filtered rows stay on
// the stack.
void reduceInterior(std::uint8_t *out, const std::uint8_t *source, std::size_t sourceWidth, std::size_t height,
                    std::size_t width) {
  constexpr std::size_t kWidest = 256;
  float filtered[2][kWidest];
  const std::size_t strips = (width - 1 + kWidest - 1) / kWidest;
  const std::size_t strip = (width - 1 + strips - 1) / strips;  // as wide as the others
  for (std::size_t x = 1; x < width; x += strip) {
    const std::size_t count = std::min(strip, width - x);
    float *above = filtered[0];
    float *below = filtered[1];
    const std::uint8_t *row = source + sourceWidth + 2 * (x - 1);  // row 2y - 1
    filterRow(above, row, count);
    for (std::size_t y = 1; y < height; ++y, row += 2 * sourceWidth) {
      reduceRow(out + y * width + x, above, below, row + sourceWidth, row + 2 * sourceWidth, count);
      std::swap(above, below);
    }
  }
}

}  // namespace
}  // namespace kelm::image

using namespace kelm::image;

uint8_t *ImageReduce(const uint8_t *source, uint16_t sourceHeight, uint16_t sourceWidth, uint16_t outHeight,
                     uint16_t outWidth) {
  const std::size_t height = outHeight;
  const std::size_t width = outWidth;
  const bool empty = height == 0 || width == 0;
  // A single output row or column is sampled without neighbours, so its last source row or column is 2 * extent - 2.
  const std::size_t unread = height >= 2 && width >= 2 ? 0 : 1;
  const bool tooLow = sourceHeight != 0 && 2 * height - unread > sourceHeight;
  if (source == nullptr || (!empty && (tooLow || 2 * width - unread > sourceWidth))) {
    return nullptr;
  }
  Buffer<std::uint8_t> out = allocate<std::uint8_t>(height * width);
  if (out == nullptr || empty) {
    return out.release();
  }
  for (std::size_t x = 0; x < width; ++x) {
    out[x] = source[2 * x];
  }
  for (std::size_t y = 1; y < height; ++y) {
    out[y * width] = source[2 * y * sourceWidth];
  }
  if (height >= 2 && width >= 2) {
    reduceInterior(out.get(), source, sourceWidth, height, width);
  }
  return out.release();
}

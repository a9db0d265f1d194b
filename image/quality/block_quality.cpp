// SPDX-License-Identifier: Apache-2.0
// Block quality.
#include <algorithm>
#include <cstring>

#include "image/quality/gradients.h"
#include "image/ridge/mean_smoothing.h"
#include "image/support/arguments.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::size_t kBlockCells = 4;  // cells along the edge of a block

// A column of cells over the rows of one block.
struct Columns {
  std::uint16_t means[kMaxStretch];   // sums of the cell means
  std::uint16_t counts[kMaxStretch];  // cells per dominant direction: 4 bits each, direction 0 lowest
};

KELM_INLINE void addCellsBody(Columns &columns, const std::uint16_t *const (&values)[kGradientDirections],
                              std::size_t cells) {
  const std::int16_t *rows[kGradientDirections];
  for (int d = 0; d < kGradientDirections; ++d) {
    rows[d] = reinterpret_cast<const std::int16_t *>(values[d]);
  }
  const auto [g0, g1, g2, g3] = rows;
  for (std::size_t i = 0; i < cells; ++i) {
    const std::int32_t mean = (g0[i] + g1[i] + g2[i] + g3[i]) >> 2;
    columns.means[i] = static_cast<std::uint16_t>(columns.means[i] + ((mean < 255 ? mean : 255) & 255));
    std::int16_t least = g0[i];
    std::uint16_t count = 0x0001;
    count = g1[i] < least ? 0x0010 : count;
    least = g1[i] < least ? g1[i] : least;
    count = g2[i] < least ? 0x0100 : count;
    least = g2[i] < least ? g2[i] : least;
    count = g3[i] < least ? 0x1000 : count;
    columns.counts[i] = static_cast<std::uint16_t>(columns.counts[i] + count);
  }
}
constexpr auto addCells = kernel<addCellsBody>;

// The grade is the mean of the 16 cells times the coherence, the largest count / 16, in single precision; the product
// of a mean below 256 and a count of at most 16 is exact there, so integers give the same.
void gradeBlocks(std::uint8_t *grades, const Columns &columns, std::size_t blocks) {
  for (std::size_t b = 0; b < blocks; ++b) {
    unsigned even = 0;  // directions 0 and 2, a byte each
    unsigned odd = 0;   // directions 1 and 3
    unsigned sum = 0;
    for (std::size_t i = b * kBlockCells; i < (b + 1) * kBlockCells; ++i) {
      even += columns.counts[i] & 0x0F0FU;
      odd += columns.counts[i] >> 4 & 0x0F0FU;
      sum += columns.means[i];
    }
    const unsigned largest = std::max({even & 0xFF, even >> 8, odd & 0xFF, odd >> 8});
    grades[b] = static_cast<std::uint8_t>(sum / 16 * largest / 16);
  }
}

// Where the direction maps come from: the caller's, or, when there are none, the picture itself by way of two cells.
struct CellSource {
  GradientGrid grid;
  CellRow *cells;
  const std::uint16_t *const *maps;
};

// The blocks of a stretch of columns, from top to bottom; `stride`: blocks from a row of grades to the next.
void gradeStretch(std::uint8_t *grades, const CellSource &source, std::size_t rows, std::size_t stride,
                  std::size_t first, std::size_t blocks) {
  const std::size_t points = blocks * kBlockCells;
  const GradientGrid &grid = source.grid;
  alignas(kCacheLine) std::uint16_t strips[kGradientDirections][kMaxStretch];
  for (std::size_t blockRow = 0; blockRow < rows; ++blockRow) {
    alignas(kCacheLine) Columns columns = {};
    for (std::size_t row = blockRow * kBlockCells; row < (blockRow + 1) * kBlockCells; ++row) {
      const std::uint16_t *values[kGradientDirections] = {strips[0], strips[1], strips[2], strips[3]};
      if (source.maps == nullptr) {
        gradientStretch({strips[0], strips[1], strips[2], strips[3]}, source.cells, grid, row, first * kBlockCells,
                        points);
      } else {
        for (int d = 0; d < kGradientDirections; ++d) {
          values[d] = source.maps[d] + row * grid.cols + first * kBlockCells;
        }
      }
      addCells(columns, values, points);
    }
    gradeBlocks(grades + blockRow * stride + first, columns, blocks);
  }
}

std::uint32_t blockQuality(BlockQualityMap *map, const std::uint8_t *image, std::int16_t height, std::int16_t width,
                           const std::uint16_t *const *maps) {
  constexpr auto kBlock = static_cast<std::int32_t>(kCell * kBlockCells);
  const auto rows = static_cast<std::size_t>((height - 1) / kBlock + 1);
  const auto cols = static_cast<std::size_t>((width - 1) / kBlock + 1);
  *map = {kBlock, kBlock, static_cast<std::uint16_t>(rows), static_cast<std::uint16_t>(cols),
          allocateZeroed<std::uint8_t>(rows * cols).release()};
  if (map->grades == nullptr) {
    return KELM_IMAGE_NO_MEMORY;
  }
  const AlignedBuffer<CellRow> cells = allocateAligned<CellRow>(maps == nullptr ? 2 : 0);
  const CellSource source{gradientGrid(image, height, width, static_cast<std::int32_t>(kCell)), cells.samples, maps};
  const std::size_t gradedRows = source.grid.rows / kBlockCells;
  const std::size_t gradedCols = source.grid.cols / kBlockCells;
  const Buffer<std::uint8_t> quality = allocate<std::uint8_t>(gradedRows * gradedCols);
  if (!cells || !quality) {
    return KELM_IMAGE_NO_MEMORY;
  }
  const std::size_t blocks = stretchLength(gradedCols, kBlockCells);
  for (std::size_t done = 0; done < gradedCols; done += blocks) {
    gradeStretch(quality.get(), source, gradedRows, gradedCols, std::min(done, gradedCols - blocks), blocks);
  }
  const std::int32_t smoothed = meanSmooth(quality.get(), quality.get(), static_cast<std::int32_t>(gradedRows),
                                           static_cast<std::int32_t>(gradedCols));
  if (smoothed != KELM_IMAGE_OK) {
    return static_cast<std::uint32_t>(smoothed);
  }
  for (std::size_t row = 0; row < gradedRows; ++row) {
    std::memcpy(map->grades + row * cols, quality.get() + row * gradedCols, gradedCols);
  }
  return KELM_IMAGE_OK;
}

}  // namespace
}  // namespace kelm::image

std::uint32_t ImageBlkQuality(BlockQualityMap *map, const std::uint8_t *image, std::int16_t height, std::int16_t width,
                              std::uint64_t /*reserved*/) {
  using namespace kelm::image;
  if (map == nullptr || !isImage(image, height, width)) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  return blockQuality(map, image, height, width, nullptr);
}

std::uint32_t ImageBlkQualityEx(BlockQualityMap *map, const std::uint8_t *image, std::int16_t height,
                                std::int16_t width, std::uint64_t /*reserved*/, std::uint16_t *const *grads) {
  using namespace kelm::image;
  if (map == nullptr || !isImage(image, height, width) || grads == nullptr ||
      std::any_of(grads, grads + kGradientDirections, [](const std::uint16_t *values) { return values == nullptr; })) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  return blockQuality(map, image, height, width, grads);
}

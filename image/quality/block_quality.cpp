// Block quality.
#include <algorithm>
#include <cstring>

#include "image/quality/gradients.h"
#include "image/ridge/smoothing.h"
#include "image/support/dispatch.h"
#include "image/support/memory.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::int32_t kCell = 4;         // pixels along the edge of a cell
constexpr std::size_t kBlockCells = 4;    // cells along the edge of a block
constexpr std::size_t kStripCells = 256;  // columns of cells worked on at a time

// A column of cells over the rows of one block.
struct Columns {
  std::uint16_t means[kStripCells];   // sums of the cell means
  std::uint16_t counts[kStripCells];  // cells per dominant direction: 4 bits each, direction 0 lowest
};

KELM_INLINE void addCellsBody(Columns &columns, const std::int16_t *g0, const std::int16_t *g1, const std::int16_t *g2,
                              const std::int16_t *g3, std::size_t cells) {
  for (std::size_t i = 0; i < cells; ++i) {
    const std::int32_t sum = g0[i] + g1[i] + g2[i] + g3[i];
    columns.means[i] = static_cast<std::uint16_t>(columns.means[i] + (std::min(sum >> 2, 255) & 255));
    std::int16_t least = g0[i];
    std::uint16_t count = 0x0001;
    count = g1[i] < least ? 0x0010 : count;
    least = std::min(least, g1[i]);
    count = g2[i] < least ? 0x0100 : count;
    least = std::min(least, g2[i]);
    count = g3[i] < least ? 0x1000 : count;
    columns.counts[i] = static_cast<std::uint16_t>(columns.counts[i] + count);
  }
}
KELM_KERNEL(void, addCells,
            (Columns & columns, const std::int16_t *g0, const std::int16_t *g1, const std::int16_t *g2,
             const std::int16_t *g3, std::size_t cells),
            (columns, g0, g1, g2, g3, cells), addCellsBody)

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

// Where the direction maps come from: the caller's, or, when there are none, the picture itself.
struct CellSource {
  GradientGrid grid;
  const std::uint16_t *const *maps;
};

using StripRows = std::uint16_t[kDirections][kStripCells];

// Cells first to first + cells - 1 of a row of cells; the cells at the border of the grid are 0 in the picture's maps.
void addCellRow(Columns &columns, const CellSource &source, StripRows &strip, std::size_t row, std::size_t first,
                std::size_t cells) {
  const GradientGrid &grid = source.grid;
  const std::int16_t *rows[kDirections];
  for (int d = 0; d < kDirections; ++d) {
    const std::uint16_t *values = strip[d];
    if (source.maps != nullptr) {
      values = source.maps[d] + row * grid.cols + first;
    } else {
      std::memset(strip[d], 0, sizeof(strip[d]));
      const std::size_t from = std::max<std::size_t>(first, 1);
      const std::size_t to = std::min(first + cells, grid.cols - 1);
      if (row > 0 && row + 1 < grid.rows) {
        gradientRow(strip[d] + (from - first), grid, row, from, to, d);
      }
    }
    rows[d] = reinterpret_cast<const std::int16_t *>(values);
  }
  addCells(columns, rows[0], rows[1], rows[2], rows[3], cells);
}

void gradeRow(std::uint8_t *grades, const CellSource &source, std::size_t blockRow, std::size_t blocks) {
  constexpr std::size_t kStripBlocks = kStripCells / kBlockCells;
  StripRows strip;
  for (std::size_t block = 0; block < blocks; block += kStripBlocks) {
    const std::size_t count = std::min(kStripBlocks, blocks - block);
    Columns columns = {};
    for (std::size_t i = 0; i < kBlockCells; ++i) {
      addCellRow(columns, source, strip, blockRow * kBlockCells + i, block * kBlockCells, count * kBlockCells);
    }
    gradeBlocks(grades + block, columns, count);
  }
}

bool bad(const BlockQualityMap *map, const std::uint8_t *image, std::int16_t height, std::int16_t width) {
  return map == nullptr || image == nullptr || height < 1 || width < 1;
}

std::uint32_t blockQuality(BlockQualityMap *map, const std::uint8_t *image, std::int16_t height, std::int16_t width,
                           const std::uint16_t *const *maps) {
  constexpr std::int32_t kBlock = kCell * static_cast<std::int32_t>(kBlockCells);
  const auto rows = static_cast<std::size_t>((height - 1) / kBlock + 1);
  const auto cols = static_cast<std::size_t>((width - 1) / kBlock + 1);
  *map = {kBlock, kBlock, static_cast<std::uint16_t>(rows), static_cast<std::uint16_t>(cols),
          allocateZeroed<std::uint8_t>(rows * cols).release()};
  if (map->grades == nullptr) {
    return 1;
  }
  const CellSource source{gradientGrid(image, height, width, kCell), maps};
  const std::size_t gradedRows = source.grid.rows / kBlockCells;
  const std::size_t gradedCols = source.grid.cols / kBlockCells;
  const Block<std::uint8_t> quality = allocate<std::uint8_t>(gradedRows * gradedCols);
  if (!quality) {
    return 1;
  }
  for (std::size_t row = 0; row < gradedRows; ++row) {
    gradeRow(quality.get() + row * gradedCols, source, row, gradedCols);
  }
  const std::int32_t smoothed = meanSmooth(quality.get(), quality.get(), static_cast<std::int32_t>(gradedRows),
                                           static_cast<std::int32_t>(gradedCols));
  if (smoothed != 0) {
    return static_cast<std::uint32_t>(smoothed);
  }
  for (std::size_t row = 0; row < gradedRows; ++row) {
    std::memcpy(map->grades + row * cols, quality.get() + row * gradedCols, gradedCols);
  }
  return 0;
}

}  // namespace
}  // namespace kelm::image

std::uint32_t ImageBlkQuality(BlockQualityMap *map, const std::uint8_t *image, std::int16_t height, std::int16_t width,
                              std::uint64_t /*reserved*/) {
  using namespace kelm::image;
  return bad(map, image, height, width) ? 2 : blockQuality(map, image, height, width, nullptr);
}

std::uint32_t ImageBlkQualityEx(BlockQualityMap *map, const std::uint8_t *image, std::int16_t height,
                                std::int16_t width, std::uint64_t /*reserved*/, std::uint16_t *const *grads) {
  using namespace kelm::image;
  if (bad(map, image, height, width) || grads == nullptr ||
      std::any_of(grads, grads + kDirections, [](const std::uint16_t *values) { return values == nullptr; })) {
    return 2;
  }
  return blockQuality(map, image, height, width, grads);
}

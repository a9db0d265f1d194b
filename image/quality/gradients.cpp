// SPDX-License-Identifier: Apache-2.0
// Four-direction gradients.
#include "image/quality/gradients.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "image/support/arguments.h"
#include "image/support/blocks.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "image/support/sse2.h"
#include "image/support/words.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr int kSamples = 7;  // of a point: itself and three neighbours on either side

// The step from one neighbour to the next; those on the other side lie opposite.
struct Direction {
  std::ptrdiff_t x;
  std::ptrdiff_t y;
};
constexpr Direction kSteps[kGradientDirections] = {{1, 0}, {1, -1}, {0, 1}, {1, 1}};

// sum / 7 for every sum of seven samples: 9363 is 65536 / 7 rounded up.
constexpr std::uint32_t seventh(std::uint32_t sum) { return sum * 9363 >> 16; }

constexpr bool seventhIsExact() {
  for (std::uint32_t sum = 0; sum <= 7 * 255; ++sum) {
    if (seventh(sum) != sum / 7) {
      return false;
    }
  }
  return true;
}
static_assert(seventhIsExact());

constexpr std::size_t kChunk = 32;  // points worked on at a time

// The samples at in[0], in[4], ... in[4 * (kChunk - 1)]. Reads the three bytes before in[0] too.
KELM_INLINE void gatherFourth(std::uint8_t *__restrict out, const std::uint8_t *__restrict in) {
  for (std::size_t i = 0; i < kChunk; i += 16) {
    __m128i words[4];
    for (std::size_t j = 0; j < 4; ++j) {
      words[j] = _mm_srli_epi32(load16(in - 3 + 4 * i + 16 * j), 24);
    }
    const __m128i low = _mm_packs_epi32(words[0], words[1]);
    const __m128i high = _mm_packs_epi32(words[2], words[3]);
    store16(out + i, _mm_packus_epi16(low, high));
  }
}

// Any samples. Four at a time, since a loop of single ones takes twice as long where its code happens to lie badly.
KELM_INLINE void gather(std::uint8_t *__restrict out, const std::uint8_t *__restrict in, std::size_t step,
                        std::size_t count) {
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4, in += 4 * step) {
    out[i] = in[0];
    out[i + 1] = in[step];
    out[i + 2] = in[2 * step];
    out[i + 3] = in[3 * step];
  }
  for (; i < count; ++i, in += step) {
    out[i] = in[0];
  }
}

KELM_INLINE void gradientsOf(std::uint16_t *__restrict out, const std::uint8_t (&planes)[kSamples][kChunk],
                             std::size_t points) {
  for (std::size_t i = 0; i < points; ++i) {
    std::uint16_t sum = 0;
    for (int k = 0; k < kSamples; ++k) {
      sum = static_cast<std::uint16_t>(sum + planes[k][i]);
    }
    const auto mean = static_cast<std::int16_t>(seventh(sum));
    std::uint16_t total = 0;
    for (int k = 0; k < kSamples; ++k) {
      if (k != kSamples / 2) {
        const auto difference = static_cast<std::int16_t>(planes[k][i] - mean);
        total = static_cast<std::uint16_t>(total + (difference < 0 ? -difference : difference));
      }
    }
    out[i] = total;
  }
}

// `center`: the first of the points, which lie `step` pixels apart; `offset`: from a neighbour to the next one.
KELM_INLINE void gradientsBody(std::uint16_t *out, const std::uint8_t *center, std::size_t step, std::size_t points,
                               std::ptrdiff_t offset) {
  inBlocks<kChunk>(points, [=](std::size_t first, std::size_t count) KELM_INLINE_LAMBDA {
    alignas(kChunk) std::uint8_t planes[kSamples][kChunk];
    for (int k = 0; k < kSamples; ++k) {
      const std::uint8_t *const samples = center + first * step + (k - kSamples / 2) * offset;
      if (step == 4 && count == kChunk) {
        gatherFourth(planes[k], samples);
      } else {
        gather(planes[k], samples, step, std::min(points - first, kChunk));  // `count`, but a constant is no help here
      }
    }
    gradientsOf(out + first, planes, count);
  });
}
constexpr auto gradients = kernel<gradientsBody>;

// The gradients along `direction` at points first to last - 1 of a row of the grid, to out[0] and on. Every neighbour
// of these points must lie inside the picture.
void gradientRow(std::uint16_t *out, const GradientGrid &grid, std::size_t row, std::size_t first, std::size_t last,
                 int direction) {
  if (first >= last) {
    return;
  }
  const Direction toNext = kSteps[direction];
  const std::ptrdiff_t offset = toNext.x + toNext.y * static_cast<std::ptrdiff_t>(grid.width);
  const std::uint8_t *const line = grid.image + row * grid.step * grid.width;
  gradients(out, line + first * grid.step, grid.step, last - first, offset);
}

// A row of pixels of cells; a bit of `kNeeded` for each column to be kept. Sorting halves of cells before they are
// split into their samples takes the compiler half the shuffles.
template <unsigned kNeeded>
KELM_INLINE void splitLine(CellRow::Column (&columns)[kCell], std::size_t to, const std::uint8_t *__restrict line,
                           std::size_t cells) {
  for (std::size_t i = 0; i < cells; ++i) {
    const auto left = loadWord<std::uint16_t>(line + kCell * i);
    const auto right = loadWord<std::uint16_t>(line + kCell * i + 2);
    const std::uint16_t samples[kCell] = {
        static_cast<std::uint16_t>(left & 0xFF), static_cast<std::uint16_t>(left >> 8),
        static_cast<std::uint16_t>(right & 0xFF), static_cast<std::uint16_t>(right >> 8)};
    for (std::size_t x = 0; x < kCell; ++x) {
      if ((kNeeded >> x & 1) != 0) {
        columns[x][to + i] = samples[x];
      }
    }
  }
}

// Column 2 of the odd rows and the odd columns of row 2 are no neighbours of any point.
KELM_INLINE void splitCells(CellRow &row, std::size_t to, const std::uint8_t *pixels, std::size_t width,
                            std::size_t cells) {
  splitLine<0b1111>(row.samples[0], to, pixels, cells);
  splitLine<0b1011>(row.samples[1], to, pixels + width, cells);
  splitLine<0b0101>(row.samples[2], to, pixels + 2 * width, cells);
  splitLine<0b1011>(row.samples[3], to, pixels + 3 * width, cells);
}

// `before`: the cell to the left of the first one.
KELM_INLINE void splitRowBody(CellRow &row, const std::uint8_t *pixels, const std::uint8_t *before, std::size_t width,
                              std::size_t cells) {
  splitCells(row, CellRow::kFirst - 1, before, width, 1);
  inWholeBlocks<kChunk>(cells, [&row, pixels, width](std::size_t first, std::size_t count) KELM_INLINE_LAMBDA {
    splitCells(row, CellRow::kFirst + first, pixels + kCell * first, width, count);
  });
}
constexpr auto splitRow = kernel<splitRowBody>;

// Not std::max: clang calls it where a function may be replaced when the library is loaded.
KELM_INLINE std::int16_t larger(std::uint16_t sample, std::int16_t mean) {
  const auto value = static_cast<std::int16_t>(sample);
  return value > mean ? value : mean;
}

// |sample - mean| is 2 max(sample, mean) - sample - mean: one maximum for each sample, the rest once for all six.
KELM_INLINE void chunkGradients(std::uint16_t *__restrict out, const std::uint16_t *__restrict center,
                                const std::uint16_t *const (&neighbours)[kSamples - 1]) {
  const auto [a, b, c, d, e, f] = neighbours;
  for (std::size_t i = 0; i < kChunk; ++i) {
    const auto around = static_cast<std::uint16_t>(a[i] + b[i] + c[i] + d[i] + e[i] + f[i]);
    const auto mean = static_cast<std::int16_t>(seventh(static_cast<std::uint16_t>(around + center[i])));
    const auto sum = static_cast<std::int16_t>(larger(a[i], mean) + larger(b[i], mean) + larger(c[i], mean) +
                                               larger(d[i], mean) + larger(e[i], mean) + larger(f[i], mean));
    out[i] = static_cast<std::uint16_t>(2 * (sum - 3 * mean) - around);
  }
}

// The three samples on the way from a point to the next one are neighbours of both. Those to the right, below and below
// on the right lie in the point's own cell, those below on the left in the cell to its left.
KELM_INLINE void cellGradientsBody(std::uint16_t *const (&out)[kGradientDirections], const CellRow &above,
                                   const CellRow &own, std::size_t points) {
  const auto &u = above.samples;
  const auto &o = own.samples;
  inWholeBlocks<kChunk>(points, [&](std::size_t to, std::size_t) KELM_INLINE_LAMBDA {
    const std::size_t at = CellRow::kFirst + to;
    const std::size_t left = at - 1;
    const std::uint16_t *const center = o[0][0] + at;
    chunkGradients(out[0] + to, center,
                   {o[0][1] + left, o[0][2] + left, o[0][3] + left, o[0][1] + at, o[0][2] + at, o[0][3] + at});
    chunkGradients(out[1] + to, center,
                   {u[1][3] + at, u[2][2] + at, u[3][1] + at, o[1][3] + left, o[2][2] + left, o[3][1] + left});
    chunkGradients(out[2] + to, center,
                   {u[1][0] + at, u[2][0] + at, u[3][0] + at, o[1][0] + at, o[2][0] + at, o[3][0] + at});
    chunkGradients(out[3] + to, center,
                   {u[1][1] + left, u[2][2] + left, u[3][3] + left, o[1][1] + at, o[2][2] + at, o[3][3] + at});
  });
}
constexpr auto cellGradients = kernel<cellGradientsBody>;

// The kernels take rows of at least a chunk; one of fewer points gets room for one.
void readCells(CellRow &cells, const GradientGrid &grid, std::size_t row, std::size_t first, std::size_t points) {
  const std::uint8_t *const pixels = grid.image + (row * grid.width + first) * kCell;
  if (points >= kChunk) {
    splitRow(cells, pixels, first == 0 ? pixels : pixels - kCell, grid.width, points);
    return;
  }
  std::uint8_t padded[kCell][kChunk * kCell] = {};
  for (std::size_t y = 0; y < kCell; ++y) {
    std::memcpy(padded[y], pixels + y * grid.width, points * kCell);
  }
  splitRow(cells, padded[0], padded[0], sizeof(padded[0]), kChunk);
}

// Those of the first and the last point of a row of the grid mean nothing.
void gradientsOfCells(std::uint16_t *const (&out)[kGradientDirections], const CellRow &above, const CellRow &own,
                      std::size_t points) {
  if (points >= kChunk) {
    cellGradients(out, above, own, points);
    return;
  }
  std::uint16_t padded[kGradientDirections][kChunk];
  cellGradients({padded[0], padded[1], padded[2], padded[3]}, above, own, kChunk);
  for (int d = 0; d < kGradientDirections; ++d) {
    std::copy_n(padded[d], points, out[d]);
  }
}

}  // namespace

GradientGrid gradientGrid(const std::uint8_t *image, std::int32_t height, std::int32_t width, std::int32_t step) {
  return {image, static_cast<std::size_t>(width), static_cast<std::size_t>(step),
          static_cast<std::size_t>(height / step), static_cast<std::size_t>(width / step)};
}

void gradientStretch(std::uint16_t *const (&out)[kGradientDirections], CellRow *cells, const GradientGrid &grid,
                     std::size_t row, std::size_t first, std::size_t points) {
  const bool inside = row > 0 && row + 1 < grid.rows;
  if (grid.step == kCell) {
    readCells(cells[row % 2], grid, row, first, points);
    if (inside) {
      gradientsOfCells(out, cells[(row + 1) % 2], cells[row % 2], points);
    }
  }
  const std::size_t from = std::max<std::size_t>(first, 1);
  const std::size_t to = std::min(first + points, grid.cols - 1);
  for (int d = 0; d < kGradientDirections; ++d) {
    if (!inside) {
      std::fill_n(out[d], points, 0);
      continue;
    }
    if (grid.step != kCell) {
      gradientRow(out[d] + (from - first), grid, row, from, to, d);
    }
    if (from > first) {
      out[d][0] = 0;
    }
    if (to < first + points) {
      out[d][points - 1] = 0;
    }
  }
}

}  // namespace kelm::image

std::uint32_t FpGetImg4DirectionGrads(const std::uint8_t *image, std::int16_t height, std::int16_t width,
                                      std::uint16_t **map, std::uint8_t direction, std::uint8_t step) {
  using namespace kelm::image;
  // The last point of a row or column may lie as close as `step` pixels to the far edge, the neighbours reach 3
  // further.
  constexpr int kLeastStep = 4;
  if (!isImage(image, height, width) || map == nullptr || step < kLeastStep || direction >= kGradientDirections) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const GradientGrid grid = gradientGrid(image, height, width, step);
  Buffer<std::uint16_t> values = allocateZeroed<std::uint16_t>(grid.rows * grid.cols);
  for (std::size_t row = 1; values && row < grid.rows; ++row) {
    gradientRow(values.get() + row * grid.cols + 1, grid, row, 1, grid.cols, direction);
  }
  *map = values.release();
  return *map == nullptr ? KELM_IMAGE_NO_MEMORY : KELM_IMAGE_OK;
}

std::uint16_t **FpGetImg4DirectionGradsEx(const std::uint8_t *image, std::int16_t height, std::int16_t width,
                                          std::uint8_t step) {
  using namespace kelm::image;
  constexpr int kLeastStep = 3;
  if (!isImage(image, height, width) || step < kLeastStep) {
    return nullptr;
  }
  const GradientGrid grid = gradientGrid(image, height, width, step);
  Buffer<std::uint16_t *> maps = allocate<std::uint16_t *>(kGradientDirections);
  const AlignedBuffer<CellRow> cells = allocateAligned<CellRow>(2);
  Buffer<std::uint16_t> owned[kGradientDirections];
  for (Buffer<std::uint16_t> &values : owned) {
    values = allocate<std::uint16_t>(grid.rows * grid.cols);
    if (!maps || !cells || !values) {
      return nullptr;
    }
  }
  const std::size_t points = stretchLength(grid.cols);
  for (std::size_t done = 0; done < grid.cols; done += points) {
    const std::size_t first = std::min(done, grid.cols - points);
    for (std::size_t row = 0; row < grid.rows; ++row) {
      const std::size_t at = row * grid.cols + first;
      gradientStretch({owned[0].get() + at, owned[1].get() + at, owned[2].get() + at, owned[3].get() + at},
                      cells.samples, grid, row, first, points);
    }
  }
  for (int d = 0; d < kGradientDirections; ++d) {
    maps[static_cast<std::size_t>(d)] = owned[d].release();
  }
  return maps.release();
}

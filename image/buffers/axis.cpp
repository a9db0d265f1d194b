// SPDX-License-Identifier: Apache-2.0
// Tables of rotated window offsets.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "image/support/angles.h"
#include "image/support/blocks.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "image/support/words.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::size_t kLongest = 255;  // width or height of a window
constexpr std::size_t kBlock = 16;

// To the nearest integer, halves away from zero; at most 361 in magnitude here. With the number just below a half in
// place of the half, the sum does not reach the next integer when a value just below a half is rounded.
KELM_INLINE std::int32_t rounded(float value) {
  return static_cast<std::int32_t>(value + __builtin_copysignf(0x1.fffffep-2F, value));
}

// A point as a word, x in its low half.
KELM_INLINE std::uint32_t packed(std::int32_t x, std::int32_t y) {
  return (static_cast<std::uint32_t>(x) & 0xFFFF) | static_cast<std::uint32_t>(y) << 16;
}

// The points of a row are those of its offsets along the row, the same for every row, moved by (rowX, rowY).
KELM_INLINE void fillRow(AxisPoint *row, const float *alongX, const float *alongY, float rowX, float rowY,
                         std::size_t width) {
  inBlocks<kBlock>(width, [=](std::size_t first, std::size_t count) KELM_INLINE_LAMBDA {
    std::uint32_t points[kBlock];
    for (std::size_t i = 0; i < count; ++i) {
      points[i] = packed(rounded(alongX[first + i] + rowX), rounded(rowY - alongY[first + i]));
    }
    std::memcpy(row + first, points, count * sizeof(AxisPoint));
  });
}

KELM_INLINE void fillTableBody(AxisPoint *table, int width, int height, float sn, float cs) {
  float alongX[kLongest];
  float alongY[kLongest];
  for (int j = 0; j < width; ++j) {
    const auto dj = static_cast<float>(j - width / 2);
    alongX[j] = dj * cs;
    alongY[j] = dj * sn;
  }
  for (int i = 0; i < height; ++i, table += width) {
    const auto di = static_cast<float>(i - height / 2);
    fillRow(table, alongX, alongY, di * sn, di * cs, static_cast<std::size_t>(width));
  }
}
constexpr auto fillTable = kernel<fillTableBody>;

// Releases the first `count` tables, then the array.
void destroyTables(AxisPoint **tables, std::size_t count) {
  for (std::size_t r = 0; r < count; ++r) {
    std::free(tables[r]);
  }
  std::free(tables);
}

}  // namespace
}  // namespace kelm::image

using namespace kelm::image;

AxisPoint **AxisTransform(uint8_t n, uint8_t width, uint8_t height) {
  if (n == 0 || width == 0 || height == 0) {
    return nullptr;
  }
  const std::size_t count = std::size_t{n} + 1;
  Buffer<AxisPoint *> tables = allocate<AxisPoint *>(count);
  if (tables == nullptr) {
    return nullptr;
  }
  const auto step = static_cast<float>(3.1415926535898 / n);
  for (std::size_t r = 0; r < count; ++r) {
    tables[r] = allocate<AxisPoint>(std::size_t{width} * height).release();
    if (tables[r] == nullptr) {
      destroyTables(tables.release(), r);
      return nullptr;
    }
    const float turn = static_cast<float>(r) * step;
    const auto phi = static_cast<float>(static_cast<double>(turn) - 1.5707963267949);
    float cosine = 0.0F;
    float sine = 0.0F;
    cosinesAndSines(&cosine, &sine, &phi, 1);
    fillTable(tables[r], width, height, -sine, cosine);
  }
  return tables.release();
}

void AxisDestroy(AxisPoint **tables, uint8_t n) {
  if (tables != nullptr) {
    destroyTables(tables, std::size_t{n} + 1);
  }
}

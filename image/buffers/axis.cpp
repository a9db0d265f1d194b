// SPDX-License-Identifier: Apache-2.0
// Tables of rotated window offsets.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "image/support/memory.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

// To the nearest integer, halves away from zero. At most 361 in magnitude here.
std::int16_t roundedOffset(float value) {
  const double shifted = value > 0 ? static_cast<double>(value) + 0.5 : static_cast<double>(value) - 0.5;
  return static_cast<std::int16_t>(shifted);
}

void fillTable(AxisPoint *table, int width, int height, float phi) {
  const auto sn = static_cast<float>(-std::sin(static_cast<double>(phi)));
  const auto cs = static_cast<float>(std::cos(static_cast<double>(phi)));
  for (int i = 0; i < height; ++i) {
    const auto di = static_cast<float>(i - height / 2);
    for (int j = 0; j < width; ++j) {
      const auto dj = static_cast<float>(j - width / 2);
      *table++ = {roundedOffset(dj * cs + di * sn), roundedOffset(di * cs - dj * sn)};
    }
  }
}

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
  Block<AxisPoint *> tables = allocate<AxisPoint *>(count);
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
    fillTable(tables[r], width, height, static_cast<float>(static_cast<double>(turn) - 1.5707963267949));
  }
  return tables.release();
}

void AxisDestroy(AxisPoint **tables, uint8_t n) {
  if (tables != nullptr) {
    destroyTables(tables, std::size_t{n} + 1);
  }
}

// SPDX-License-Identifier: Apache-2.0
#include "image/ridge/gradient_products.h"

#include <cstring>

#include "image/support/kernel.h"

namespace kelm::image {
namespace {

KELM_INLINE void productRowBody(std::int32_t *__restrict products, std::int32_t *__restrict differences,
                                const std::uint8_t *above, const std::uint8_t *row, const std::uint8_t *below,
                                std::size_t width) {
  products[0] = differences[0] = 0;
  for (std::size_t c = 1; c + 1 < width; ++c) {
    const std::int16_t falling = static_cast<std::int16_t>(below[c + 1] - above[c - 1]);
    const std::int16_t rising = static_cast<std::int16_t>(above[c + 1] - below[c - 1]);
    const std::int16_t gx = static_cast<std::int16_t>(2 * (row[c + 1] - row[c - 1]) + rising + falling);
    const std::int16_t gy = static_cast<std::int16_t>(2 * (below[c] - above[c]) + falling - rising);
    products[c] = 2 * gx * gy;
    differences[c] = gy * gy - gx * gx;
  }
  products[width - 1] = differences[width - 1] = 0;
}
constexpr auto productRow = kernel<productRowBody>;

}  // namespace

void gradientProducts(std::int32_t *products, std::int32_t *differences, const std::uint8_t *image, std::size_t height,
                      std::size_t width) {
  for (std::size_t r = 0; r < height; ++r) {
    if (r == 0 || r + 1 == height) {
      std::memset(products + r * width, 0, width * sizeof *products);
      std::memset(differences + r * width, 0, width * sizeof *differences);
    } else {
      const std::uint8_t *row = image + r * width;
      productRow(products + r * width, differences + r * width, row - width, row, row + width, width);
    }
  }
}

}  // namespace kelm::image

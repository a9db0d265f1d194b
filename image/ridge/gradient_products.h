// SPDX-License-Identifier: Apache-2.0
// Products of the grey-level gradients, from which the ridge direction is taken.
#ifndef KELMTROVA_IMAGE_RIDGE_GRADIENT_PRODUCTS_H
#define KELMTROVA_IMAGE_RIDGE_GRADIENT_PRODUCTS_H

#include <cstddef>
#include <cstdint>

namespace kelm::image {

// Sobel derivatives gx and gy of every pixel; products receives 2 gx gy, differences gy^2 - gx^2, both 0 on the border.
void gradientProducts(std::int32_t *products, std::int32_t *differences, const std::uint8_t *image, std::size_t height,
                      std::size_t width);

}  // namespace kelm::image

#endif

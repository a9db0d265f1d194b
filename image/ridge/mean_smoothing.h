// SPDX-License-Identifier: Apache-2.0
// Mean smoothing for the library's own use.
#ifndef KELMTROVA_IMAGE_RIDGE_MEAN_SMOOTHING_H
#define KELMTROVA_IMAGE_RIDGE_MEAN_SMOOTHING_H

#include <cstdint>

namespace kelm::image {

// The exported MeanSmooth.
std::int32_t meanSmooth(const std::uint8_t *source, std::uint8_t *destination, std::int32_t height, std::int32_t width);

}  // namespace kelm::image

#endif

// SPDX-License-Identifier: Apache-2.0
// Box sums of images, for the rest of the library. Window sizes, results and borders are those of the exported
// functions (include/kelmtrova/image.h); arguments are checked in the same way.
#ifndef KELMTROVA_IMAGE_FILTERS_LOCAL_SUMS_H
#define KELMTROVA_IMAGE_FILTERS_LOCAL_SUMS_H

#include <cstdint>

namespace kelm::image {

// `out` may be `in` where the sample types are equal. 0 success, 1 out of memory, 2 bad argument.
std::int32_t imageLocalSum(std::uint8_t *out, const std::uint8_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY);
std::int32_t imageLocalSum(std::uint16_t *out, const std::uint8_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY);
std::int32_t imageLocalSum(std::uint16_t *out, const std::uint16_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY);
std::int32_t imageLocalSum(std::int32_t *out, const std::int32_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY);
std::int32_t imageLocalSum(float *out, const float *in, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY);

}  // namespace kelm::image

#endif

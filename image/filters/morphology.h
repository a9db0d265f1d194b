// SPDX-License-Identifier: Apache-2.0
// Dilation and erosion of masks, for the rest of the library; see the exported functions of the same meaning
// (include/kelmtrova/image.h). All work in place: 0 success, 1 out of memory, 2 bad argument, mask unchanged unless 0.
#ifndef KELMTROVA_IMAGE_FILTERS_MORPHOLOGY_H
#define KELMTROVA_IMAGE_FILTERS_MORPHOLOGY_H

#include <cstdint>

namespace kelm::image {

// 3 x 3, any non-zero value is foreground, 255 is written.
std::int32_t dilate3x3(std::uint8_t *mask, int height, int width);
std::int32_t erode3x3(std::uint8_t *mask, int height, int width);

// By the count of foreground pixels in the window; any non-zero value is foreground, every pixel becomes 0 or 255.
std::int32_t dilateByCount(std::uint8_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY);
std::int32_t erodeByCount(std::uint8_t *mask, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY);

}  // namespace kelm::image

#endif

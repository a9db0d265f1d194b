// Region growing and small-area removal for the library's own use.
#ifndef KELMTROVA_IMAGE_FILTERS_REGION_H
#define KELMTROVA_IMAGE_FILTERS_REGION_H

#include <cstdint>

namespace kelm::image {

// The exported RemoveSmallArea.
std::int32_t removeSmallArea(std::uint8_t *image, std::int32_t height, std::int32_t width, std::uint8_t value,
                             std::uint8_t replacement, std::int16_t largest);

}  // namespace kelm::image

#endif

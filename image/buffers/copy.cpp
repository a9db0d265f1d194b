// SPDX-License-Identifier: Apache-2.0
// Copying and filling images.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kelmtrova/image.h"

namespace {

constexpr std::int32_t kNullImage = 1;  // of these functions alone

std::int32_t fill(std::uint8_t *image, std::uint8_t value, std::uint16_t height, std::uint16_t width) {
  if (image == nullptr) {
    return kNullImage;
  }
  std::memset(image, value, std::size_t{height} * width);
  return KELM_IMAGE_OK;
}

}  // namespace

int32_t ImageCopy(uint8_t *destination, const uint8_t *source, uint16_t height, uint16_t width) {
  if (destination == nullptr || source == nullptr) {
    return kNullImage;
  }
  std::memmove(destination, source, std::size_t{height} * width);
  return KELM_IMAGE_OK;
}

int32_t ImageFlood(uint8_t *image, uint8_t value, uint16_t height, uint16_t width) {
  return fill(image, value, height, width);
}

int32_t ImageClear(uint8_t *image, uint16_t height, uint16_t width) { return fill(image, 0, height, width); }

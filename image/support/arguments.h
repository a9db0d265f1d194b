// SPDX-License-Identifier: Apache-2.0
// What every function that is handed a picture checks first.
//
//   if (!isImage(image, height, width)) {
//     return KELM_IMAGE_BAD_ARGUMENT;
//   }
//   const std::size_t pixels = sampleCount(height, width);
#ifndef KELMTROVA_IMAGE_SUPPORT_ARGUMENTS_H
#define KELMTROVA_IMAGE_SUPPORT_ARGUMENTS_H

#include <cstddef>
#include <cstdint>

namespace kelm::image {

// Samples to point to, and at least one of them.
inline bool isImage(const void *samples, std::int32_t height, std::int32_t width) {
  return samples != nullptr && height >= 1 && width >= 1;
}

// Of an image, as checked above.
inline std::size_t sampleCount(std::int32_t height, std::int32_t width) {
  return static_cast<std::size_t>(height) * static_cast<std::size_t>(width);
}

}  // namespace kelm::image

#endif

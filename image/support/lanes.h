// SPDX-License-Identifier: Apache-2.0
// Conditions in byte lanes, as 0 or 255, and choices by them without a branch: loops over lanes vectorise.
#ifndef KELMTROVA_IMAGE_SUPPORT_LANES_H
#define KELMTROVA_IMAGE_SUPPORT_LANES_H

#include <cstdint>

#include "image/support/kernel.h"

namespace kelm::image {

KELM_INLINE std::uint8_t mask(bool condition) { return static_cast<std::uint8_t>(-static_cast<int>(condition)); }

KELM_INLINE std::uint8_t choose(std::uint8_t condition, std::uint8_t yes, std::uint8_t no) {
  return static_cast<std::uint8_t>((condition & yes) | (~condition & no));
}

}  // namespace kelm::image

#endif

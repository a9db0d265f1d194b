// SPDX-License-Identifier: Apache-2.0
// Neighbouring samples as one word, the first of them in its lowest bits.
#ifndef KELMTROVA_IMAGE_SUPPORT_WORDS_H
#define KELMTROVA_IMAGE_SUPPORT_WORDS_H

#include <bit>
#include <cstdint>
#include <cstring>

#include "image/support/kernel.h"

namespace kelm::image {

static_assert(std::endian::native == std::endian::little);

template <typename Word>
KELM_INLINE Word loadWord(const std::uint8_t *samples) {
  Word word;
  std::memcpy(&word, samples, sizeof word);
  return word;
}

template <typename Word>
KELM_INLINE void storeWord(std::uint8_t *samples, Word word) {
  std::memcpy(samples, &word, sizeof word);
}

}  // namespace kelm::image

#endif

// SPDX-License-Identifier: Apache-2.0
// SSE2 intrinsics, for the few kernels that a compiler does not make of a plain loop. SIMDe maps them to the
// instructions of other processors.
#ifndef KELMTROVA_IMAGE_SUPPORT_SSE2_H
#define KELMTROVA_IMAGE_SUPPORT_SSE2_H

#define SIMDE_ENABLE_NATIVE_ALIASES
#include <simde/x86/sse2.h>

#include <cstdint>

#include "image/support/kernel.h"

namespace kelm::image {

// 16 samples, from and to any address.
KELM_INLINE __m128i load16(const std::uint8_t *samples) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i *>(samples));
}

KELM_INLINE void store16(std::uint8_t *samples, __m128i lanes) {
  _mm_storeu_si128(reinterpret_cast<__m128i *>(samples), lanes);
}

}  // namespace kelm::image

#endif

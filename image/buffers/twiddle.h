// SPDX-License-Identifier: Apache-2.0
// The factors of the Fourier transform's butterflies.
//
// The angle of factor j is a running single-precision sum that starts at 0, and the factors are the cosine and sine of
// that angle, computed in double precision and rounded to single. The step of the 2^k factors of a stage is
// fl(2 pi) / 2^(k + 1) whatever the length of the transform, because halving and doubling are exact. So for transforms
// of up to 16384 samples there are 16383 angles in all, each below 3.2. Polynomials give the same
// single-precision numbers as the C library for every one of them, several at a time; the tests go through them all.
#ifndef KELMTROVA_IMAGE_BUFFERS_TWIDDLE_H
#define KELMTROVA_IMAGE_BUFFERS_TWIDDLE_H

#include <cstdint>

#include "image/support/dispatch.h"
#include "image/support/trigonometry.h"

namespace kelm::image {

// Appends `count` angles from `angle` on; returns the one after the last.
KELM_INLINE float sumAngles(float *angles, std::uint32_t count, float angle, float step) {
  for (std::uint32_t j = 0; j < count; ++j) {
    angles[j] = angle;
    angle += step;
  }
  return angle;
}

// c = cos(angle), s = sin(angle) for angles from 0 to 5 pi / 4.
KELM_INLINE void computeTwiddles(float *__restrict c, float *__restrict s, const float *__restrict angles,
                                 std::uint32_t count) {
  for (std::uint32_t j = 0; j < count; ++j) {
    const CosineAndSine factor = cosineAndSine(static_cast<double>(angles[j]));
    c[j] = static_cast<float>(factor.cosine);
    s[j] = static_cast<float>(factor.sine);
  }
}

}  // namespace kelm::image

#endif

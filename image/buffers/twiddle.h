// SPDX-License-Identifier: Apache-2.0
// The factors of the Fourier transform's butterflies.
//
// The angle of factor j is a running single-precision sum that starts at 0, and the factors are the cosine and sine of
// that angle, computed in double precision and rounded to single. The step of the 2^k factors of a stage is
// fl(2 pi) / 2^(k + 1) whatever the length of the transform, because halving and doubling are exact. So for transforms
// of up to 16384 samples there are 16383 angles in all, each below 3.2. Polynomials give the same
// single-precision numbers as the C library for every one of them, several at a time; the tests go through them all.
//
// Neither has the sum to be run through. Between two powers of two every addition of the step is rounded alike, so that
// the sum grows by equal increments; and the angles of a later stage, whose step is 2^k times that of the first, are
// 2^k times those of the first, exactly.
#ifndef KELMTROVA_IMAGE_BUFFERS_TWIDDLE_H
#define KELMTROVA_IMAGE_BUFFERS_TWIDDLE_H

#include <algorithm>
#include <bit>
#include <cstdint>

#include "image/support/kernel.h"
#include "image/support/trigonometry.h"

namespace kelm::image {

// The angles of a first stage from index `first` on: equally spaced until the next run begins.
struct AngleRun {
  std::uint32_t first;
  float angle;
  float increment;
};

// Up to kSingles runs of one angle each, where the step is still large against the sum and additions may be rounded to
// either side; then one run for each power of two up to 8192 angles; then the end.
struct AngleRuns {
  static constexpr std::uint32_t kSingles = 8;
  AngleRun runs[kSingles + 13 + 1];
};

// The runs of a first stage of `half` factors.
KELM_INLINE void findAngleRuns(AngleRuns &found, std::uint32_t half, float step) {
  AngleRun *run = found.runs;
  float angle = 0;
  for (std::uint32_t j = 0; j < half;) {
    const float increment = (angle + step) - angle;
    *run++ = {j, angle, increment};
    std::uint32_t increments = 0;  // to the last angle below the next power of two
    if (j >= AngleRuns::kSingles) {
      const float power = std::bit_cast<float>((std::bit_cast<std::uint32_t>(angle) & 0x7F800000U) + 0x00800000U);
      increments = static_cast<std::uint32_t>((power - angle) / increment);
      increments -= angle + static_cast<float>(increments) * increment >= power ? 1 : 0;
    }
    angle = (angle + static_cast<float>(increments) * increment) + step;
    j += increments + 1;
  }
  *run = {half, 0, 0};
}

// Angles `first` to `first + count - 1` of a stage whose step is `scale`, a power of two, times that of the first
// stage.
KELM_INLINE void fillAngles(float *angles, const AngleRuns &runs, std::uint32_t first, std::uint32_t count,
                            float scale) {
  const AngleRun *run = runs.runs;
  while (run[1].first <= first) {
    ++run;
  }
  for (std::uint32_t i = 0; i < count; ++run) {
    const std::uint32_t end = std::min(count, run[1].first - first);
    const float angle = run->angle * scale;
    const float increment = run->increment * scale;
    const auto before = static_cast<std::int32_t>(first - run->first);
    for (; i < end; ++i) {
      angles[i] = angle + static_cast<float>(before + static_cast<std::int32_t>(i)) * increment;
    }
  }
}

// Takes the angles, 0 to 5 pi / 4, in c: c = cos(angle), s = sin(angle).
KELM_INLINE void computeTwiddles(float *__restrict c, float *__restrict s, std::uint32_t count) {
  for (std::uint32_t j = 0; j < count; ++j) {
    const CosineAndSine factor = cosineAndSine(static_cast<double>(c[j]));
    c[j] = static_cast<float>(factor.cosine);
    s[j] = static_cast<float>(factor.sine);
  }
}

// The same for angles within little more than pi / 4 of kQuadrant times pi / 2: two thirds of the time.
template <int kQuadrant>
KELM_INLINE void computeTwiddlesOf(float *__restrict c, float *__restrict s, std::uint32_t count) {
  for (std::uint32_t j = 0; j < count; ++j) {
    const auto [cosine, sine] = cosineAndSineFrom(kQuadrant, static_cast<double>(c[j]));
    c[j] = static_cast<float>(kQuadrant == 0 ? cosine : kQuadrant == 1 ? -sine : -cosine);
    s[j] = static_cast<float>(kQuadrant == 0 ? sine : kQuadrant == 1 ? cosine : -sine);
  }
}

// Factors `first` to `first + count - 1` of a stage of `half`, all in one quadrant: between two of the indices
// 0, half / 4, 3 / 4 half and half.
KELM_INLINE void stageTwiddles(float *c, float *s, const AngleRuns &runs, std::uint32_t half, std::uint32_t first,
                               std::uint32_t count, float scale) {
  fillAngles(c, runs, first, count, scale);
  if (first < half / 4) {
    computeTwiddlesOf<0>(c, s, count);
  } else if (first < half / 4 * 3) {
    computeTwiddlesOf<1>(c, s, count);
  } else {
    computeTwiddlesOf<2>(c, s, count);
  }
}

}  // namespace kelm::image

#endif

// SPDX-License-Identifier: Apache-2.0
// Each loop computes estimates that are within kAmbiguity of the true values, relatively, and rounds both ends of that
// range. Where the two agree, the true value rounds to the same. Where they do not, which about one value in 500,000
// is, the value is ambiguous and recomputed precisely.
#include "image/support/angles.h"

#include <algorithm>

#include "image/support/kernel.h"
#include "image/support/precise_trigonometry.h"
#include "image/support/trigonometry.h"

namespace kelm::image {
namespace {

constexpr double kAmbiguity = 0x1p-44;
constexpr double kDegreesPerRadian = 57.295779513;  // these digits are part of the results
constexpr std::size_t kStrip = 64;                  // values that are recomputed together

KELM_INLINE double halfDegrees(double angle) { return angle * kDegreesPerRadian / 2.0; }

// Writes the rounded value; true where the other end of its range rounds to something else.
KELM_INLINE bool roundTo(float *out, double value) {
  const auto other = static_cast<float>(value - value * kAmbiguity);
  *out = static_cast<float>(value + value * kAmbiguity);
  return *out != other;
}

KELM_INLINE bool truncateTo(std::int16_t *out, double value) {
  const auto other = static_cast<std::int32_t>(value - value * kAmbiguity);
  const auto rounded = static_cast<std::int32_t>(value + value * kAmbiguity);
  *out = static_cast<std::int16_t>(rounded);
  return rounded != other;
}

// These return how many of the values are ambiguous.

KELM_INLINE std::int32_t pointAnglesBody(float *__restrict angles, const std::int32_t *__restrict y,
                                         const std::int32_t *__restrict x, std::size_t n) {
  std::int32_t ambiguous = 0;
  for (std::size_t i = 0; i < n; ++i) {
    ambiguous += roundTo(&angles[i], arcTangent(y[i], x[i]));
  }
  return ambiguous;
}
constexpr auto estimatePointAngles = kernel<pointAnglesBody>;

KELM_INLINE std::int32_t cosinesAndSinesBody(float *__restrict cosines, float *__restrict sines,
                                             const float *__restrict angles, std::size_t n) {
  std::int32_t ambiguous = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double angle = static_cast<double>(angles[i]);
    const CosineAndSine values = cosineAndSine(__builtin_fabs(angle));
    ambiguous += roundTo(&cosines[i], values.cosine);
    ambiguous += roundTo(&sines[i], __builtin_copysign(1.0, angle) * values.sine);
  }
  return ambiguous;
}
constexpr auto estimateCosinesAndSines = kernel<cosinesAndSinesBody>;

KELM_INLINE std::int32_t halfPointAnglesBody(std::int16_t *__restrict degrees, const float *__restrict y,
                                             const float *__restrict x, std::size_t n) {
  std::int32_t ambiguous = 0;
  for (std::size_t i = 0; i < n; ++i) {
    ambiguous += truncateTo(&degrees[i], halfDegrees(arcTangent(static_cast<double>(y[i]), static_cast<double>(x[i]))));
  }
  return ambiguous;
}
constexpr auto estimateHalfPointAngles = kernel<halfPointAnglesBody>;

KELM_INLINE void halfAnglesBody(std::int16_t *__restrict degrees, const float *__restrict angles, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    degrees[i] = static_cast<std::int16_t>(halfDegrees(static_cast<double>(angles[i])));
  }
}

// Estimates strip after strip, and recomputes the values of a strip in which any is ambiguous.
template <typename Estimate, typename Recompute>
void inStrips(std::size_t n, Estimate estimateStrip, Recompute recompute) {
  for (std::size_t first = 0; first < n; first += kStrip) {
    const std::size_t end = std::min(first + kStrip, n);
    if (estimateStrip(first, end - first) != 0) {
      for (std::size_t i = first; i < end; ++i) {
        recompute(i);
      }
    }
  }
}

}  // namespace

void pointAngles(float *angles, const std::int32_t *y, const std::int32_t *x, std::size_t n) {
  inStrips(
      n,
      [=](std::size_t first, std::size_t count) {
        return estimatePointAngles(angles + first, y + first, x + first, count);
      },
      [=](std::size_t i) {
        angles[i] = static_cast<float>(preciseArcTangent(static_cast<double>(y[i]), static_cast<double>(x[i])));
      });
}

void cosinesAndSines(float *cosines, float *sines, const float *angles, std::size_t n) {
  inStrips(
      n,
      [=](std::size_t first, std::size_t count) {
        return estimateCosinesAndSines(cosines + first, sines + first, angles + first, count);
      },
      [=](std::size_t i) {
        const CosineAndSine values = preciseCosineAndSine(static_cast<double>(angles[i]));
        cosines[i] = static_cast<float>(values.cosine);
        sines[i] = static_cast<float>(values.sine);
      });
}

void halfPointAngles(std::int16_t *degrees, const float *y, const float *x, std::size_t n) {
  inStrips(
      n,
      [=](std::size_t first, std::size_t count) {
        return estimateHalfPointAngles(degrees + first, y + first, x + first, count);
      },
      [=](std::size_t i) {
        degrees[i] = static_cast<std::int16_t>(
            halfDegrees(preciseArcTangent(static_cast<double>(y[i]), static_cast<double>(x[i]))));
      });
}

void halfAngles(std::int16_t *degrees, const float *angles, std::size_t n) {
  constexpr auto halve = kernel<halfAnglesBody>;
  halve(degrees, angles, n);
}

}  // namespace kelm::image

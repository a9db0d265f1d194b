// SPDX-License-Identifier: Apache-2.0
// Each loop computes estimates that are within kDoubt of the true values, relatively, and rounds both ends of that
// range. Where the two agree, the C library's value, which is much closer to the true one, rounds to the same. Where
// they do not (about one value in 40,000), the C library is asked.
#include "image/ridge/angles.h"

#include <algorithm>
#include <cmath>

#include "image/support/dispatch.h"
#include "image/support/trigonometry.h"

namespace kelm::image {
namespace {

constexpr double kDoubt = 0x1p-40;
constexpr double kDegreesPerRadian = 57.295779513;  // these digits are part of the results
constexpr std::size_t kStrip = 64;                  // values that are asked for together

KELM_INLINE double halfDegrees(double angle) { return angle * kDegreesPerRadian / 2.0; }

// Writes the rounded value; true where the other end of its range rounds to something else.
KELM_INLINE bool roundTo(float *out, double value) {
  const auto other = static_cast<float>(value - value * kDoubt);
  *out = static_cast<float>(value + value * kDoubt);
  return *out != other;
}

KELM_INLINE bool truncateTo(std::int16_t *out, double value) {
  const auto other = static_cast<std::int32_t>(value - value * kDoubt);
  const auto rounded = static_cast<std::int32_t>(value + value * kDoubt);
  *out = static_cast<std::int16_t>(rounded);
  return rounded != other;
}

// How many of the values are in doubt.
KELM_INLINE std::int32_t pointAnglesBody(float *__restrict angles, const std::int32_t *__restrict y,
                                         const std::int32_t *__restrict x, std::size_t n) {
  std::int32_t doubts = 0;
  for (std::size_t i = 0; i < n; ++i) {
    doubts += roundTo(&angles[i], arcTangent(y[i], x[i]));
  }
  return doubts;
}
KELM_KERNEL(std::int32_t, estimate, (float *angles, const std::int32_t *y, const std::int32_t *x, std::size_t n),
            (angles, y, x, n), pointAnglesBody)

KELM_INLINE std::int32_t cosinesAndSinesBody(float *__restrict cosines, float *__restrict sines,
                                             const float *__restrict angles, std::size_t n) {
  std::int32_t doubts = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double angle = static_cast<double>(angles[i]);
    const CosineAndSine values = cosineAndSine(__builtin_fabs(angle));
    doubts += roundTo(&cosines[i], values.cosine);
    doubts += roundTo(&sines[i], __builtin_copysign(1.0, angle) * values.sine);
  }
  return doubts;
}
KELM_KERNEL(std::int32_t, estimate, (float *cosines, float *sines, const float *angles, std::size_t n),
            (cosines, sines, angles, n), cosinesAndSinesBody)

KELM_INLINE std::int32_t halfPointAnglesBody(std::int16_t *__restrict degrees, const float *__restrict y,
                                             const float *__restrict x, std::size_t n) {
  std::int32_t doubts = 0;
  for (std::size_t i = 0; i < n; ++i) {
    doubts += truncateTo(&degrees[i], halfDegrees(arcTangent(static_cast<double>(y[i]), static_cast<double>(x[i]))));
  }
  return doubts;
}
KELM_KERNEL(std::int32_t, estimate, (std::int16_t * degrees, const float *y, const float *x, std::size_t n),
            (degrees, y, x, n), halfPointAnglesBody)

KELM_INLINE void halfAnglesBody(std::int16_t *__restrict degrees, const float *__restrict angles, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    degrees[i] = static_cast<std::int16_t>(halfDegrees(static_cast<double>(angles[i])));
  }
}
KELM_KERNEL(void, halve, (std::int16_t * degrees, const float *angles, std::size_t n), (degrees, angles, n),
            halfAnglesBody)

// Estimates strip after strip; the values of a strip with any in doubt are asked for one by one.
template <typename Estimate, typename Ask>
void inStrips(std::size_t n, Estimate estimateStrip, Ask ask) {
  for (std::size_t first = 0; first < n; first += kStrip) {
    const std::size_t end = std::min(first + kStrip, n);
    if (estimateStrip(first, end - first) != 0) {
      for (std::size_t i = first; i < end; ++i) {
        ask(i);
      }
    }
  }
}

}  // namespace

void pointAngles(float *angles, const std::int32_t *y, const std::int32_t *x, std::size_t n) {
  inStrips(
      n, [=](std::size_t first, std::size_t count) { return estimate(angles + first, y + first, x + first, count); },
      [=](std::size_t i) {
        angles[i] = static_cast<float>(std::atan2(static_cast<double>(y[i]), static_cast<double>(x[i])));
      });
}

void cosinesAndSines(float *cosines, float *sines, const float *angles, std::size_t n) {
  inStrips(
      n,
      [=](std::size_t first, std::size_t count) {
        return estimate(cosines + first, sines + first, angles + first, count);
      },
      [=](std::size_t i) {
        cosines[i] = static_cast<float>(std::cos(static_cast<double>(angles[i])));
        sines[i] = static_cast<float>(std::sin(static_cast<double>(angles[i])));
      });
}

void halfPointAngles(std::int16_t *degrees, const float *y, const float *x, std::size_t n) {
  inStrips(
      n, [=](std::size_t first, std::size_t count) { return estimate(degrees + first, y + first, x + first, count); },
      [=](std::size_t i) {
        degrees[i] =
            static_cast<std::int16_t>(halfDegrees(std::atan2(static_cast<double>(y[i]), static_cast<double>(x[i]))));
      });
}

void halfAngles(std::int16_t *degrees, const float *angles, std::size_t n) { halve(degrees, angles, n); }

}  // namespace kelm::image

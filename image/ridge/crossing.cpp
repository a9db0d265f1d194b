// SPDX-License-Identifier: Apache-2.0
#include "image/ridge/crossing.h"

#include <algorithm>

#include "image/support/trigonometry.h"

namespace kelm::image {
namespace {

struct FixedPoint {
  int cosine, sine;  // in 1/256
};

// The angle is rounded to single precision, so that the sine of 90 degrees comes out as 255 and not as 256.
FixedPoint fixedPoint(int degrees) {
  const float angle = static_cast<float>(degrees * 3.141592653589793 / 180.0);
  const CosineAndSine unit = cosineAndSine(static_cast<double>(angle));
  return {static_cast<std::int16_t>(256.0 * unit.cosine), static_cast<std::int16_t>(256.0 * unit.sine)};
}

std::int8_t steps(int count, int fixedStep) { return static_cast<std::int8_t>((count * fixedStep) >> 8); }

// Opposite points stand for the same pair, so the one with positive coordinates is chosen; v, from the sine of 0 to 180
// degrees, is never negative.
std::int8_t oriented(std::int8_t u, std::int8_t v) { return static_cast<std::int8_t>(v == 0 && u < 0 ? -u : u); }

}  // namespace

void makeCrossing(Crossing *crossing, int direction) {
  const FixedPoint t = fixedPoint(direction);
  crossing->span = {steps(1, t.cosine), steps(1, t.sine), steps(2, t.cosine), steps(2, t.sine)};
  crossing->span.u1 = oriented(crossing->span.u1, crossing->span.v1);
  crossing->span.u2 = oriented(crossing->span.u2, crossing->span.v2);
  for (int i = 0; i < kProfileSamples; ++i) {
    crossing->dx[i] = static_cast<std::int8_t>(-steps(i - kProfileReach, t.sine));
    crossing->dy[i] = steps(i - kProfileReach, t.cosine);
  }
  const auto [minX, maxX] = std::minmax_element(crossing->dx, crossing->dx + kProfileSamples);
  const auto [minY, maxY] = std::minmax_element(crossing->dy, crossing->dy + kProfileSamples);
  crossing->minX = *minX;
  crossing->maxX = *maxX;
  crossing->minY = *minY;
  crossing->maxY = *maxY;
  crossing->known = true;
}

int foldDirection(std::int16_t direction) {
  const int inRange = direction < -180 || direction > 180 ? direction % 180 : direction;
  return inRange < 0 ? inRange + 180 : inRange;
}

}  // namespace kelm::image

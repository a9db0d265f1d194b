// SPDX-License-Identifier: Apache-2.0
// Where a profile across the ridges is sampled: fixed-point steps along and across a ridge direction.
#ifndef KELMTROVA_IMAGE_RIDGE_CROSSING_H
#define KELMTROVA_IMAGE_RIDGE_CROSSING_H

#include <cstdint>

namespace kelm::image {

constexpr int kProfileReach = 16;                       // samples on either side of the cell
constexpr int kProfileSamples = 2 * kProfileReach + 1;  // about one pixel apart
constexpr int kWholeDegrees = 181;                      // from 0 to 180

// The two pairs of points beside a sample that are averaged with it, along the ridge: (u1, v1) and (u2, v2), and the
// points opposite. Steps are fixed-point products rounded down, so only a handful of spans occur over all directions.
struct RidgeSpan {
  std::int8_t u1, v1, u2, v2;
  bool operator==(const RidgeSpan &) const = default;
};

// The profile of one direction, relative to the cell's first pixel.
struct Crossing {
  bool known;
  RidgeSpan span;
  std::int8_t minX, maxX, minY, maxY;
  std::int8_t dx[kProfileSamples];
  std::int8_t dy[kProfileSamples];
};

// The crossing of ridges that run in `direction`, 0 to 180 degrees, rows counted downward.
void makeCrossing(Crossing *crossing, int direction);

// A direction of a field as one from 0 to 180: negative ones have 180 added, those beyond -180 to 180 are taken modulo
// 180 first.
int foldDirection(std::int16_t direction);

}  // namespace kelm::image

#endif

// SPDX-License-Identifier: Apache-2.0
// Thresholds between background and foreground from the shape of a histogram of gradient strengths.
#ifndef KELMTROVA_IMAGE_RIDGE_HISTOGRAM_SHAPE_H
#define KELMTROVA_IMAGE_RIDGE_HISTOGRAM_SHAPE_H

#include <cstdint>

namespace kelm::image {

constexpr int kShapeLevels = 256;

// Positions in the order found.
struct Positions {
  std::int16_t at[kShapeLevels];
  int count;
};

struct Extrema {
  Positions valleys;
  Positions peaks;
};

// The local minima and maxima of a table of 256 heights from index `start` to index `end`; a flat stretch counts once,
// at its middle. Heights outside the table are 0.
void scanExtrema(Extrema *extrema, const std::uint32_t *heights, int start, int end);

// The height at an index that may lie outside the table.
inline std::uint32_t heightAt(const std::uint32_t *heights, int index) {
  return index >= 0 && index < kShapeLevels ? heights[index] : 0;
}

// From the silhouette of the histogram, cleaned with morphology: 0 to 255. The counters are changed.
int silhouetteThreshold(std::uint32_t *counters);

// From the place and the width of the foreground's mode in the smoothed histogram. The counters are changed. The
// threshold may lie below 0.
int modeThreshold(std::uint32_t *counters);

}  // namespace kelm::image

#endif

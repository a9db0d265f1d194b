// SPDX-License-Identifier: Apache-2.0
// The threshold from the foreground's mode in the smoothed histogram. Positions and thresholds are bins of two grey
// levels until the last step.
#include <cstring>

#include "image/buffers/histogram_smoothing.h"
#include "image/ridge/histogram_shape.h"

namespace kelm::image {
namespace {

constexpr int kBins = 128;
constexpr double kHalfHeightWidths = 2.3545700244418297;  // of a normal mode, in standard deviations, as used here
constexpr int kNotFound = -1;

std::uint32_t sumOf(const std::uint32_t *h, int from, int end) {
  std::uint32_t sum = 0;
  for (int i = from; i < end; ++i) {
    sum += h[i];
  }
  return sum;
}

void subtractMean(std::uint32_t *h) {
  const std::uint32_t mean = sumOf(h, 0, kBins) >> 7;
  for (int i = 0; i < kBins; ++i) {
    h[i] = h[i] > mean ? h[i] - mean : 0;
  }
}

void removeAt(Positions *positions, int index) {
  if (index < positions->count) {
    --positions->count;
    std::memmove(positions->at + index, positions->at + index + 1,
                 static_cast<std::size_t>(positions->count - index) * sizeof positions->at[0]);
  }
}

// Drops the peaks whose valley of the same index lies above 70 % of their height; a valley that is missing has height
// 0.
void pruneWeakPeaks(Extrema *extrema, const std::uint32_t *h) {
  Positions *peaks = &extrema->peaks;
  Positions *valleys = &extrema->valleys;
  for (int p = 0; p < peaks->count;) {
    const std::uint32_t height = h[peaks->at[p]];
    const bool bare = p + 1 == peaks->count || p >= valleys->count;
    const std::uint32_t rise = bare ? height : height - h[valleys->at[p]];
    if (0.3 * static_cast<std::int32_t>(height) > static_cast<std::int32_t>(rise)) {
      removeAt(peaks, p);
      removeAt(valleys, p);
    } else {
      ++p;
    }
  }
}

// Half-way from the foot on the left to the peak.
int risingHalf(const std::uint32_t *h, int peak) {
  int foot = peak;
  while (foot > 0 && h[foot] != 0) {
    --foot;
  }
  return (peak + foot) >> 1;
}

int highestPeak(const Positions &peaks, const std::uint32_t *h) {
  int highest = 0;
  for (int i = 1; i < peaks.count; ++i) {
    highest = h[peaks.at[i]] > h[peaks.at[highest]] ? i : highest;
  }
  return highest;
}

// A histogram without a peak has its threshold at 0.
int initialThreshold(const Extrema &extrema, const std::uint32_t *h) {
  const Positions &peaks = extrema.peaks;
  const Positions &valleys = extrema.valleys;
  const int firstPeak = peaks.count > 0 ? peaks.at[0] : 0;
  const int firstValley = valleys.count > 0 ? valleys.at[0] : 0;
  if (peaks.count <= 1) {
    return risingHalf(h, firstPeak);
  }
  if (peaks.count == 2) {
    const std::uint32_t low = sumOf(h, 0, firstValley);
    const std::uint32_t high = sumOf(h, firstValley, kBins);
    return high * 8 < low && firstPeak > 10 ? risingHalf(h, firstPeak) : firstValley;
  }
  const int q = highestPeak(peaks, h);
  return q > 1 && q <= valleys.count ? valleys.at[q - 1] : firstValley;
}

// The first position from `peak` on, going by `step` until `limit`, where the height is below half the peak's.
int halfHeight(const std::uint32_t *h, int peak, int limit, int step) {
  for (int i = peak; step < 0 ? i > limit : i < limit; i += step) {
    if (h[i] < 0.5 * h[peak]) {
      return i;
    }
  }
  return kNotFound;
}

// Moves the threshold to 2.5 standard deviations below the foreground's peak, the first one above the threshold.
int belowForeground(const Extrema &extrema, const std::uint32_t *h, int threshold) {
  const Positions &peaks = extrema.peaks;
  const Positions &valleys = extrema.valleys;
  int p = 0;
  while (p < peaks.count && peaks.at[p] <= threshold) {
    ++p;
  }
  if (p == peaks.count) {
    return threshold;
  }
  const int peak = peaks.at[p];
  const int low = halfHeight(h, peak, p > 0 && p <= valleys.count ? valleys.at[p - 1] : 0, -1);
  const int high = halfHeight(h, peak, p < valleys.count ? valleys.at[p] : kBins, 1);
  if (low <= 0 || high <= 0) {
    return threshold;
  }
  const float sigma = static_cast<float>((high - low) / kHalfHeightWidths);
  return static_cast<std::int16_t>(0.8 * (peak - 2.5 * static_cast<double>(sigma)) + 0.2 * threshold);
}

}  // namespace

int modeThreshold(std::uint32_t *counters) {
  smoothHistogram(counters);
  counters[0] = 0;
  subtractMean(counters);
  Extrema extrema;
  scanExtrema(&extrema, counters, 1, kShapeLevels - 2);
  pruneWeakPeaks(&extrema, counters);
  const int bin = belowForeground(extrema, counters, initialThreshold(extrema, counters));
  return static_cast<std::int16_t>(0.8 * (2 * bin));
}

}  // namespace kelm::image

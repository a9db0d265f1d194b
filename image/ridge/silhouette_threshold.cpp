// SPDX-License-Identifier: Apache-2.0
// The threshold from the histogram's silhouette.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "image/ridge/histogram_shape.h"
#include "image/ridge/silhouette_cleaning.h"

namespace kelm::image {
namespace {

constexpr float kBeyondPeak = 1.5F;
constexpr int kVisibleBar = 10;  // higher bars mark the range of grey levels that occur

struct Silhouette {
  std::uint8_t bars[kShapeLevels];
  int first, last;  // visible bars; -1 when there is none
};

// The choice of a threshold reads the cleaned heights h, their extrema, and the range of visible bars.
struct Shape {
  const std::uint32_t *h;
  int first, last;
  int peak0, peak1, valley;
};

void smoothCounters(std::uint32_t *h) {
  std::uint32_t smooth[kShapeLevels];
  smooth[0] = (h[0] + h[1]) >> 1;
  for (int i = 1; i < kShapeLevels - 1; ++i) {
    smooth[i] = (h[i - 1] + h[i] + h[i + 1]) / 3;
  }
  smooth[kShapeLevels - 1] = (h[kShapeLevels - 1] + h[kShapeLevels - 2]) >> 1;
  std::memcpy(h, smooth, sizeof smooth);
}

// With so few counts that the scale is infinite, every level that occurs has a full bar.
std::uint8_t barHeight(std::uint32_t count, float scale) {
  const float height = static_cast<float>(count) * scale;
  return static_cast<std::uint8_t>(height >= 255.0F ? 255.0F : height > 0.0F ? height : 0.0F);
}

Silhouette silhouetteOf(const std::uint32_t *h) {
  std::uint32_t highest = 0;
  std::uint32_t sum = 0;
  for (int i = 0; i < kShapeLevels; ++i) {
    highest = h[i] > highest ? h[i] : highest;
    sum += h[i];
  }
  if (static_cast<double>(highest) > 0.05 * sum) {
    highest = static_cast<std::uint32_t>(0.05 * sum);
  }
  const float scale = highest == 0 ? HUGE_VALF : static_cast<float>(255.0 / highest);
  Silhouette silhouette = {{}, -1, -1};
  for (int i = 0; i < kShapeLevels; ++i) {
    silhouette.bars[i] = barHeight(h[i], scale);
    if (silhouette.bars[i] > kVisibleBar) {
      silhouette.first = silhouette.first < 0 ? i : silhouette.first;
      silhouette.last = i;
    }
  }
  return silhouette;
}

int lowByte(double value) { return static_cast<std::uint8_t>(static_cast<std::int32_t>(value)); }

// The peak hardly stands out above the valley: by at most 34, and by less than 3 for each grey level between them.
bool isWeak(const Shape &s, int peak) {
  const std::uint32_t rise = heightAt(s.h, peak) - heightAt(s.h, s.valley);  // very large below the valley
  const int distance = std::abs(peak - s.valley);
  return rise <= 34 && distance != 0 && static_cast<float>(rise) / static_cast<float>(distance) < 3.0F;
}

int beyond(const Shape &s, int peak) {
  return lowByte(static_cast<float>(peak - s.first) * kBeyondPeak + static_cast<float>(peak));
}

int halfWay(const Shape &s, int peak) { return (s.first + peak) / 2; }

bool reachesHigh(const Shape &s, int peak, int times) { return s.last - peak < times * (peak - s.first); }

int towardValley(const Shape &s, int threshold) { return lowByte(0.6 * threshold + 0.4 * s.valley); }

int unlessAtSecondPeak(const Shape &s, int threshold) { return threshold >= s.peak1 ? s.valley : threshold; }

int thresholdOfTwo(const Shape &s) {
  if (isWeak(s, s.peak0)) {
    return reachesHigh(s, s.peak1, 3) ? halfWay(s, s.peak1) : towardValley(s, beyond(s, s.peak1));
  }
  if (isWeak(s, s.peak1)) {
    return reachesHigh(s, s.peak0, 3) ? halfWay(s, s.peak0)
                                      : unlessAtSecondPeak(s, towardValley(s, beyond(s, s.peak0)));
  }
  return s.valley;
}

int thresholdOf(const Shape &s, int peaks) {
  switch (peaks) {
    case 0:
      return 0;
    case 1:
      return reachesHigh(s, s.peak0, 5) ? halfWay(s, s.peak0) : beyond(s, s.peak0);
    case 2:
      return thresholdOfTwo(s);
    default:
      return heightAt(s.h, s.peak0) - heightAt(s.h, s.peak0 + 5) > 30U ? unlessAtSecondPeak(s, beyond(s, s.peak0))
                                                                       : s.valley;
  }
}

// The valley to the right of the first peak.
int valleyAfter(const Positions &valleys, int peak) {
  if (valleys.count == 0) {
    return 0;
  }
  return valleys.at[0] > peak || valleys.count == 1 ? valleys.at[0] : valleys.at[1];
}

}  // namespace

int silhouetteThreshold(std::uint32_t *counters) {
  smoothCounters(counters);
  const Silhouette silhouette = silhouetteOf(counters);
  std::uint8_t tops[kShapeLevels];
  cleanSilhouette(tops, silhouette.bars);
  for (int i = 0; i < kShapeLevels; ++i) {
    counters[i] = tops[i];
  }
  Extrema extrema = {};
  if (silhouette.first >= 0) {
    scanExtrema(&extrema, counters, silhouette.first, silhouette.last);
  }
  const int peak0 = extrema.peaks.at[0];
  const Shape shape = {counters, silhouette.first,    silhouette.last,
                       peak0,    extrema.peaks.at[1], valleyAfter(extrema.valleys, peak0)};
  return thresholdOf(shape, extrema.peaks.count);
}

}  // namespace kelm::image

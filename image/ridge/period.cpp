// SPDX-License-Identifier: Apache-2.0
// The profiles of 64 cells lie side by side, one per byte lane, and every step is done to all of them without
// branching, so a loop over the lanes becomes a few vector instructions.
#include "image/ridge/period.h"

#include <cstring>

#include "image/support/kernel.h"
#include "image/support/lanes.h"

namespace kelm::image {
namespace {

using Lanes = std::uint8_t[kPeriodLanes];

// A profile of 33 samples has at most 15 gaps; a gap lies in the slot of the pair of samples where it ends.
constexpr int kSlots = kProfileSamples / 2;

// The peaks of the profiles, or the valleys.
struct Extrema {
  Lanes count;
  Lanes last;   // position of the last one; 0 when there is none yet
  Lanes range;  // from the first to the last
  Lanes gap[kSlots];
};

KELM_INLINE void note(Extrema *extrema, int slot, int lane, std::uint8_t found, std::uint8_t position) {
  const std::uint8_t last = extrema->last[lane];
  const std::uint8_t gap = static_cast<std::uint8_t>((position - last) & found & mask(last != 0));
  extrema->gap[slot][lane] = static_cast<std::uint8_t>(extrema->gap[slot][lane] | gap);
  extrema->range[lane] = static_cast<std::uint8_t>(extrema->range[lane] + gap);
  extrema->last[lane] = choose(found, position, last);
  extrema->count[lane] = static_cast<std::uint8_t>(extrema->count[lane] - found);
}

// A peak is a stretch of equal samples, entered by a rise and left by a fall; its position is the stretch's middle.
KELM_INLINE void findExtrema(Extrema *peaks, Extrema *valleys, const ProfileBatch *profiles) {
  const auto &p = profiles->samples;
  Lanes start;
  Lanes climbed;
  Lanes sunk;
  for (int l = 0; l < kPeriodLanes; ++l) {
    start[l] = 1;
    climbed[l] = mask(p[1][l] > p[0][l]);
    sunk[l] = mask(p[1][l] < p[0][l]);
  }
  for (int i = 1; i + 1 < kProfileSamples; ++i) {
    const std::uint8_t next = static_cast<std::uint8_t>(i + 1);
    for (int l = 0; l < kPeriodLanes; ++l) {
      const std::uint8_t up = mask(p[i + 1][l] > p[i][l]);
      const std::uint8_t down = mask(p[i + 1][l] < p[i][l]);
      const std::uint8_t level = static_cast<std::uint8_t>(~(up | down));
      const std::uint8_t middle = static_cast<std::uint8_t>(static_cast<std::uint8_t>(start[l] + i) >> 1);
      note(peaks, i / 2, l, climbed[l] & down, middle);
      note(valleys, i / 2, l, sunk[l] & up, middle);
      climbed[l] = static_cast<std::uint8_t>(up | (climbed[l] & level));
      sunk[l] = static_cast<std::uint8_t>(down | (sunk[l] & level));
      start[l] = choose(level, start[l], next);
    }
  }
}

// The gaps that the period is taken from: those of the peaks if there are more than two, else those of the valleys.
KELM_INLINE void chooseGaps(Lanes *gaps, const Extrema *peaks, const Extrema *valleys, int *smallest, int *largest) {
  Lanes low;
  Lanes high;
  std::memset(low, 255, sizeof low);
  std::memset(high, 0, sizeof high);
  for (int s = 0; s < kSlots; ++s) {
    for (int l = 0; l < kPeriodLanes; ++l) {
      const std::uint8_t gap = choose(mask(peaks->count[l] > 2), peaks->gap[s][l], valleys->gap[s][l]);
      gaps[s][l] = gap;
      high[l] = high[l] > gap ? high[l] : gap;
      const std::uint8_t present = static_cast<std::uint8_t>(gap - 1);  // none becomes 255
      low[l] = low[l] < present ? low[l] : present;
    }
  }
  *smallest = 255;
  *largest = 0;
  for (int l = 0; l < kPeriodLanes; ++l) {
    *smallest = low[l] + 1 < *smallest ? low[l] + 1 : *smallest;
    *largest = high[l] > *largest ? high[l] : *largest;
  }
}

// The centre of the three neighbouring gap lengths that hold the most gaps, the longest of equals. Only windows that
// begin between the smallest and the largest gap can win: any other holds no more than one of them and is shorter, or
// holds nothing.
KELM_INLINE void commonGap(std::uint8_t *common, const Lanes *gaps, int smallest, int largest) {
  Lanes best;
  std::memset(best, 0, sizeof best);
  for (int g = smallest; g <= largest; ++g) {
    Lanes held;
    std::memset(held, 0, sizeof held);
    for (int s = 0; s < kSlots; ++s) {
      for (int l = 0; l < kPeriodLanes; ++l) {
        held[l] = static_cast<std::uint8_t>(held[l] - mask(static_cast<std::uint8_t>(gaps[s][l] - g) <= 2));
      }
    }
    for (int l = 0; l < kPeriodLanes; ++l) {
      const std::uint8_t wins = mask(held[l] >= best[l]);
      best[l] = choose(wins, held[l], best[l]);
      common[l] = choose(wins, static_cast<std::uint8_t>(g + 1), common[l]);
    }
  }
}

// Positions stay below 32, so neither 8 x period nor 2 x (8 x span / 3) reaches 255.
KELM_INLINE void ridgePeriodsBody(std::uint8_t *values, const ProfileBatch *profiles) {
  Extrema peaks;
  Extrema valleys;
  std::memset(&peaks, 0, sizeof peaks);
  std::memset(&valleys, 0, sizeof valleys);
  findExtrema(&peaks, &valleys, profiles);

  Lanes gaps[kSlots];
  Lanes common;
  std::memset(common, 0, sizeof common);
  int smallest = 0;
  int largest = 0;
  chooseGaps(gaps, &peaks, &valleys, &smallest, &largest);
  commonGap(common, gaps, smallest, largest);

  for (int l = 0; l < kPeriodLanes; ++l) {
    const std::uint8_t many = mask(peaks.count[l] > 2) | mask(valleys.count[l] > 2);
    const std::uint8_t two = mask(peaks.count[l] == 2) & mask(valleys.count[l] == 2);
    const std::uint8_t firstPeak = static_cast<std::uint8_t>(peaks.last[l] - peaks.range[l]);
    const std::uint8_t firstValley = static_cast<std::uint8_t>(valleys.last[l] - valleys.range[l]);
    // Three half-periods: from the first valley to the second peak, or the other way round.
    const std::uint8_t span =
        choose(mask(firstPeak > firstValley), static_cast<std::uint8_t>(peaks.last[l] - firstValley),
               static_cast<std::uint8_t>(valleys.last[l] - firstPeak));
    const std::uint8_t fromSpan =
        static_cast<std::uint8_t>(2 * static_cast<std::uint8_t>(static_cast<std::uint8_t>(8 * span) / 3));
    const std::uint8_t fromGaps = static_cast<std::uint8_t>(8 * common[l]);
    values[l] = choose(many, fromGaps, choose(two, fromSpan, kNoPeriod));
  }
}

}  // namespace

void ridgePeriods(std::uint8_t *values, const ProfileBatch *profiles) { kernel<ridgePeriodsBody>(values, profiles); }

}  // namespace kelm::image

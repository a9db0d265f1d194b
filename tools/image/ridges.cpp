// SPDX-License-Identifier: Apache-2.0
#include "tools/image/ridges.h"

#include <kelmtrova/image.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>
#include <utility>

namespace kelm::tools {
namespace {

constexpr int kCoherenceWindow = 13;  // three ridges of a 500 dpi print at half size
constexpr int kStrengthWindow = 5;

Grid<int32_t> boxSum(Grid<int32_t> grid, int window) {
  check(static_cast<uint32_t>(fvs_ImageLocalSumInt2Int(grid.data.data(), grid.data.data(),
                                                       static_cast<int16_t>(grid.rows), static_cast<int16_t>(grid.cols),
                                                       static_cast<uint8_t>(window), static_cast<uint8_t>(window))),
        "local sums");
  return grid;
}

float lengthOf(int32_t x, int32_t y) {
  const auto fx = static_cast<float>(x), fy = static_cast<float>(y);
  return std::sqrt(fx * fx + fy * fy);
}

// Morphology on a canvas whose outermost pixels are the mask's, repeated, so that a print that fills its picture is not
// eaten from outside and one that does not is not joined to the edge.
class Canvas {
 public:
  explicit Canvas(const Picture &mask) : canvas(framed(mask, kFrame)) {}

  void erode(int size) {
    check(static_cast<uint32_t>(MY_BWErodeFastUint16(canvas.samples.data(), height(), width(),
                                                     static_cast<uint8_t>(size), static_cast<uint8_t>(size))),
          "erosion");
  }
  void dilate(int size) {
    invert();
    erode(size);
    invert();
  }
  void close(int size) {
    dilate(size);
    erode(size);
  }
  void open(int size) {
    erode(size);
    dilate(size);
  }
  void removeAreas(uint8_t value, size_t largest) {
    const auto limit = static_cast<int16_t>(std::min<size_t>(largest, 32000));
    check(static_cast<uint32_t>(RemoveSmallArea(canvas.samples.data(), height(), width(), value,
                                                static_cast<uint8_t>(255 - value), limit)),
          "small areas");
  }
  Picture mask() const { return part(canvas, kFrame, kFrame, canvas.width - 2 * kFrame, canvas.height - 2 * kFrame); }

 private:
  static constexpr int kFrame = 24;  // more than the largest window reaches
  void invert() {
    for (uint8_t &sample : canvas.samples) sample = static_cast<uint8_t>(255 - sample);
  }
  int16_t height() const { return static_cast<int16_t>(canvas.height); }
  int16_t width() const { return static_cast<int16_t>(canvas.width); }

  Picture canvas;
};

// The mean slope of a picture, without its border. Squares would let a few hard edges, of a frame or of the paper,
// outweigh the ridges.
double slopeOf(const Picture &picture) {
  uint64_t sum = 0;
  for (int y = 1; y + 1 < picture.height; ++y) {
    const uint8_t *row = &picture.samples[static_cast<size_t>(y) * static_cast<size_t>(picture.width)];
    uint32_t rowSum = 0;
    for (int x = 1; x + 1 < picture.width; ++x) {
      rowSum += static_cast<uint32_t>(std::abs(row[x + 1] - row[x - 1]) +
                                      std::abs(row[x + picture.width] - row[x - picture.width]));
    }
    sum += rowSum;
  }
  return static_cast<double>(sum) / (static_cast<double>(picture.width - 2) * (picture.height - 2));
}

// The mean root of the length of the summed products: slopes in which noise hardly counts.
double directedSlopeOf(const Picture &half) {
  Products products = productsOf(half);
  const Grid<int32_t> p = boxSum(std::move(products.products), kCoherenceWindow);
  const Grid<int32_t> d = boxSum(std::move(products.differences), kCoherenceWindow);
  double sum = 0;
  for (size_t i = 0; i < p.data.size(); ++i) sum += std::sqrt(lengthOf(p.data[i], d.data[i]));
  return sum / static_cast<double>(p.data.size());
}

// The strength that a ridge has at least: a twentieth of the energy of the stronger ones, a quarter of their contrast.
int32_t weakestRidges(const Coherence &coherence, float coherent) {
  constexpr double kWeak = 0.05;
  // Where gradients of one grey level in a direction add up over the window: less than that is the sensor's rounding.
  constexpr int32_t kFloor = kStrengthWindow * kStrengthWindow * 8 * 8 * 8;
  const std::vector<float> &share = coherence.share.data;
  const std::vector<int32_t> &strength = coherence.strength.data;
  std::vector<int32_t> strengths;
  for (size_t i = 0; i < share.size(); i += std::max<size_t>(1, share.size() / 8192)) {
    if (share[i] > coherent && strength[i] > kFloor) strengths.push_back(strength[i]);
  }
  if (strengths.empty()) return std::numeric_limits<int32_t>::max();
  const auto strong = strengths.begin() + static_cast<ptrdiff_t>(strengths.size() * 3 / 4);
  std::nth_element(strengths.begin(), strong, strengths.end());
  return std::max(static_cast<int32_t>(kWeak * *strong), kFloor);
}

// Clears what does not satisfy the condition, a function of the sample's index. The samples are bytes, which may lie
// anywhere as far as the compiler knows; told that they do not, it takes 16 at a time.
template <typename Condition>
void keepWhere(Picture &mask, Condition condition) {
  uint8_t *const __restrict samples = mask.samples.data();
  const size_t count = mask.samples.size();
  for (size_t i = 0; i < count; ++i) samples[i] &= static_cast<uint8_t>(-static_cast<int>(condition(i)));
}

// Bands and patches without ink that closing has filled. The window that measures strength reaches three pixels into
// them from the ink around. What is near the outline is left alone.
Picture blankBands(const Picture &inked, const Picture &finger) {
  Canvas inner(finger);
  inner.erode(13);
  Picture blank = inner.mask();
  keepWhere(blank, [ink = inked.samples.data()](size_t i) { return ink[i] == 0; });
  Canvas bands(blank);
  bands.open(5);
  bands.removeAreas(255, blank.samples.size() / 100);
  bands.dilate(5);
  return bands.mask();
}

// The mask without areas in which no ridges can be told from noise, such as the lines of a form around the print; the
// whole mask where there are ridges nowhere.
Picture withoutRidgelessAreas(const Picture &mask, const Grid<uint8_t> &clarity) {
  constexpr uint8_t kMostAreas = 64;  // the others stay
  Picture areas = mask;
  uint8_t count = 0;
  for (auto at = areas.samples.begin(); count < kMostAreas; ++count) {
    at = std::find(at, areas.samples.end(), 255);
    if (at == areas.samples.end()) break;
    const auto i = static_cast<int>(at - areas.samples.begin());
    uint32_t size = 0;
    RegionGrow(areas.samples.data(), static_cast<int16_t>(mask.height), static_cast<int16_t>(mask.width),
               static_cast<int16_t>(i / mask.width), static_cast<int16_t>(i % mask.width), &size, nullptr, nullptr,
               nullptr, nullptr, 255, static_cast<uint8_t>(count + 1), 1);
    if (size == 0) throw std::bad_alloc();
  }
  if (count < 2) return mask;
  std::array<double, 256> sums{}, sizes{};
  for (int y = 0; y < mask.height; ++y) {
    for (int x = 0; x < mask.width; ++x) {
      sums[areas.at(x, y)] += clarity.at(std::min(x / 4, clarity.cols - 1), std::min(y / 4, clarity.rows - 1));
      ++sizes[areas.at(x, y)];
    }
  }
  const auto ridged = [&](size_t area) { return area > count || sums[area] >= kLeastClarity * sizes[area]; };
  bool any = false;
  for (size_t area = 1; area <= count; ++area) any |= ridged(area);
  if (!any) return mask;
  for (uint8_t &sample : areas.samples) sample = sample != 0 && ridged(sample) ? 255 : 0;
  return areas;
}

}  // namespace

Coherence coherenceOf(const Picture &half) {
  Products raw = productsOf(half);
  Grid<int32_t> lengths = raw.products;
  for (size_t i = 0; i < lengths.data.size(); ++i) {
    lengths.data[i] = static_cast<int32_t>(lengthOf(raw.products.data[i], raw.differences.data[i]));
  }
  const Grid<int32_t> products = boxSum(std::move(raw.products), kCoherenceWindow);
  const Grid<int32_t> differences = boxSum(std::move(raw.differences), kCoherenceWindow);
  const Grid<int32_t> all = boxSum(lengths, kCoherenceWindow);
  Coherence out{{2, half.height, half.width, std::vector<float>(all.data.size())},
                boxSum(std::move(lengths), kStrengthWindow)};
  for (size_t i = 0; i < all.data.size(); ++i) {
    out.share.data[i] = lengthOf(products.data[i], differences.data[i]) / static_cast<float>(all.data[i] + 1);
  }
  return out;
}

namespace {

// The finger: where gradients agree and are not weak beside those of the rest. 0 and 255, half size; closed, smoothed,
// without specks and holes.
Picture foregroundOf(const Coherence &coherence) {
  constexpr float kCoherent = 0.33f;  // exceeded by one window in a hundred of white noise
  const int32_t weakest = weakestRidges(coherence, kCoherent);
  Picture inked(coherence.share.cols, coherence.share.rows, 255);
  keepWhere(inked, [=, strength = coherence.strength.data.data()](size_t i) { return strength[i] > weakest; });
  Canvas closed(inked);
  closed.close(9);
  Picture mask = closed.mask();
  keepWhere(mask, [share = coherence.share.data.data()](size_t i) { return share[i] > kCoherent; });
  Canvas finger(mask);
  finger.close(13);
  finger.erode(3);
  finger.open(13);
  finger.removeAreas(255, mask.samples.size() / 40);
  finger.removeAreas(0, mask.samples.size() / 40);
  mask = finger.mask();
  const Picture blank = blankBands(inked, mask);
  keepWhere(mask, [blanks = blank.samples.data()](size_t i) { return blanks[i] == 0; });
  return mask;
}

}  // namespace

uint8_t medianPeriod(const Grid<uint8_t> &periods) {
  std::array<size_t, 256> counts{};
  for (const uint8_t period : periods.data) ++counts[period];
  size_t left = (periods.data.size() - counts[kNoPeriod]) / 2;
  if (counts[kNoPeriod] == periods.data.size()) return kNoPeriod;
  uint8_t period = 0;
  while (left >= counts[period]) left -= counts[period++];
  return period;
}

namespace {

Periods smoothedPeriods(const Grid<uint8_t> &periods, const Picture &mask) {
  constexpr int kWindow = 7;
  Grid<uint8_t> map = periods;
  Grid<int32_t> inside{map.cell, map.rows, map.cols, std::vector<int32_t>(map.data.size())};
  for (int row = 0, i = 0; row < map.rows; ++row) {
    for (int col = 0; col < map.cols; ++col, ++i) {
      // The cell's middle, in pixels of the half-size picture.
      const auto cell = static_cast<size_t>(i);
      inside.data[cell] = mask.at(std::min(2 * col + 1, mask.width - 1), std::min(2 * row + 1, mask.height - 1)) & 1;
      if (inside.data[cell] == 0) map.data[cell] = kNoPeriod;
    }
  }
  Periods out{{map.cell, map.rows, map.cols, std::vector<uint8_t>(map.data.size(), kNoPeriod)},
              {map.cell, map.rows, map.cols, std::vector<float>(map.data.size())}};
  const uint8_t median = medianPeriod(map);
  if (median == kNoPeriod) return out;
  // First what is of the order of the print's median, then what is near the mean of its surroundings.
  std::vector<float> expected(map.data.size(), median);
  Grid<int32_t> counts = inside, sums = inside;
  for (const float tolerance : {0.6f, 0.25f, 0.25f}) {
    for (size_t i = 0; i < expected.size(); ++i) {
      const int32_t period = map.data[i];
      const bool agrees =
          (period != kNoPeriod) & (std::abs(static_cast<float>(period) - expected[i]) <= tolerance * expected[i]);
      counts.data[i] = agrees;
      sums.data[i] = agrees ? period : 0;
    }
    counts = boxSum(std::move(counts), kWindow);
    sums = boxSum(std::move(sums), kWindow);
    for (size_t i = 0; i < expected.size(); ++i) {
      const float mean = static_cast<float>(sums.data[i]) / static_cast<float>(std::max(counts.data[i], 1));
      expected[i] = counts.data[i] > 0 ? mean : expected[i];
    }
  }
  const Grid<int32_t> cells = boxSum(inside, kWindow);
  for (size_t i = 0; i < expected.size(); ++i) {
    if (inside.data[i] == 0 || counts.data[i] == 0) continue;
    out.smoothed.data[i] = static_cast<uint8_t>(std::min(expected[i], 254.0f) + 0.5f);
    out.agreement.data[i] = static_cast<float>(counts.data[i]) / static_cast<float>(cells.data[i]);
  }
  return out;
}

// How clear the ridges are in blocks of 8 x 8 pixels, from 0 (noise, paper) to 100: coherence of the direction times
// agreement of the period.
Grid<uint8_t> clarityOf(const Coherence &coherence, const Periods &periods) {
  // The coherence and agreement of noise count as nothing; those of the best prints as all.
  constexpr float kNoise = 0.2f, kClear = 0.9f;
  constexpr float kChance = 0.3f, kAgreed = 0.9f;
  Grid<uint8_t> out{8, coherence.share.rows / 4, coherence.share.cols / 4, {}};
  for (int row = 0; row < out.rows; ++row) {
    for (int col = 0; col < out.cols; ++col) {
      const float direction = (coherence.share.at(4 * col + 2, 4 * row + 2) - kNoise) / (kClear - kNoise);
      const float period = (periods.agreement.at(2 * col + 1, 2 * row + 1) - kChance) / (kAgreed - kChance);
      const float clarity = 100 * std::clamp(direction, 0.0f, 1.0f) * std::clamp(period, 0.0f, 1.0f);
      out.data.push_back(static_cast<uint8_t>(std::lround(clarity)));
    }
  }
  return out;
}

}  // namespace

Finger fingerOf(const Coherence &coherence, const Grid<uint8_t> &periods) {
  const auto measured = [&](Picture mask) {
    Periods smoothed = smoothedPeriods(periods, mask);
    Grid<uint8_t> clarity = clarityOf(coherence, smoothed);
    return Finger{std::move(mask), std::move(smoothed), std::move(clarity)};
  };
  Finger finger = measured(foregroundOf(coherence));
  Picture ridged = withoutRidgelessAreas(finger.mask, finger.clarity);
  return ridged.samples == finger.mask.samples ? finger : measured(std::move(ridged));
}

void straightenDirections(Grid<int16_t> &directions, double period) {
  constexpr double kDegree = 0.017453292519943295;
  constexpr double kShortest = 3.2;  // the formula has a pole at 2
  // Sobel's derivatives of a wave of k per pixel are to each other as the tangents of half its components.
  const double k = 360 * kDegree / std::max(period, kShortest);
  const auto seen = [&](double angle) {
    return std::atan2(std::tan(k / 2 * std::sin(angle)), std::tan(k / 2 * std::cos(angle)));
  };
  std::array<int16_t, 181> straight;
  for (int degrees = -90; degrees <= 90; ++degrees) {
    // The toolkit cuts fractions off.
    const double measured = (degrees + (degrees > 0) * 0.5 - (degrees < 0) * 0.5) * kDegree;
    double angle = measured;
    for (int i = 0; i < 8; ++i) angle += measured - seen(angle);
    straight[static_cast<size_t>(degrees + 90)] =
        static_cast<int16_t>(std::clamp<long>(std::lround(angle / kDegree), -90, 90));
  }
  for (int16_t &direction : directions.data) direction = straight[static_cast<size_t>(direction + 90)];
}

bool narrowRidges(const Picture &picture, const Picture &half) {
  // Slopes double when a picture is halved, unless the ridges are lost: 2 for wide ridges, 1 at 7 pixels, near 0 at 4.
  // Noise, which halving weakens as well, is left out by the second look.
  constexpr double kSure = 1.0;
  constexpr double kNarrow = 0.84;
  if (slopeOf(half) > kSure * slopeOf(picture)) return false;
  return directedSlopeOf(half) < kNarrow * directedSlopeOf(picture);
}

}  // namespace kelm::tools

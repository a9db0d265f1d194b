// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <utility>

#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace {

using namespace kelm::test;
using Heights = std::vector<std::uint32_t>;

struct Extremes {
  std::vector<int> valleys, peaks;
};

Extremes scan(Heights h, int start, int end) {
  h.insert(h.begin(), 0);  // one missing neighbour on the left, some on the right
  h.resize(h.size() + 8, 0);
  const auto at = [&h](int i) { return h[static_cast<std::size_t>(i + 1)]; };
  Extremes found;
  for (int i = start; i <= end; ++i) {
    for (const int sign : {1, -1}) {  // valleys, then peaks
      const auto less = [sign](std::uint32_t a, std::uint32_t b) { return sign > 0 ? a < b : a > b; };
      std::vector<int> &list = sign > 0 ? found.valleys : found.peaks;
      if (less(at(i), at(i - 1)) && less(at(i), at(i + 1))) {
        list.push_back(i);
      } else if (less(at(i), at(i - 1)) && at(i) == at(i + 1)) {
        int j = i + 1;
        while (j <= 254 && at(j) == at(j - 1)) {
          ++j;
        }
        if (less(at(j - 1), at(j))) {
          list.push_back((i + j) >> 1);
        }
        i = j - 1;
      }
    }
  }
  return found;
}

Heights silhouetteHeights(const Heights &counts, int *first, int *last) {
  Heights h(256);
  h[0] = (counts[0] + counts[1]) >> 1;
  h[255] = (counts[255] + counts[254]) >> 1;
  std::uint32_t sum = h[0] + h[255];
  for (std::size_t i = 1; i < 255; ++i) {
    h[i] = (counts[i - 1] + counts[i] + counts[i + 1]) / 3;
    sum += h[i];
  }
  std::uint32_t highest = *std::max_element(h.begin(), h.end());
  if (highest > 0.05 * sum) {
    highest = static_cast<std::uint32_t>(0.05 * sum);
  }
  const float scale = static_cast<float>(255.0 / highest);
  *first = *last = -1;
  std::vector<int> bars;
  for (std::size_t i = 0; i < 256; ++i) {
    bars.push_back(h[i] == 0 ? 0 : static_cast<int>(std::min(255.0F, static_cast<float>(h[i]) * scale)));
    *last = bars[i] > 10 ? static_cast<int>(i) : *last;
    *first = *first < 0 ? *last : *first;
  }
  Bytes canvas = picture(256, 256, [&](int i, int j) { return j < bars[static_cast<std::size_t>(i)] ? 255 : 0; });
  MY_BWDilateFastUint16(canvas.data(), 256, 256, 9, 9);
  MY_BWErodeFastUint16(canvas.data(), 256, 256, 9, 9);
  BErode(canvas.data(), 256, 256);
  BDilate(canvas.data(), 256, 256);
  for (std::size_t i = 0; i < 256; ++i) {
    h[i] = 255;
    while (h[i] > 0 && canvas[h[i] * 256 + i] == 0) {
      --h[i];
    }
  }
  return h;
}

// The ways to a threshold that were taken so far.
std::set<std::string> ways;
int via(const std::string &way, int threshold) {
  ways.insert(way);
  return threshold;
}

int silhouetteThreshold(const Heights &counts) {
  int F = 0;
  int L = 0;
  Heights h = silhouetteHeights(counts, &F, &L);
  if (F < 0) {
    return via("silhouette, no bar", 0);
  }
  const Extremes e = scan(h, F, L);
  h.resize(261, 0);
  if (e.peaks.empty()) {
    return via("silhouette, no peak", 0);
  }
  const int P0 = e.peaks[0];
  const auto kept = [](double v) { return static_cast<int>(v) & 255; };
  const auto beyond = [&](int p) {
    return kept(static_cast<double>(static_cast<float>(p - F) * 1.5F + static_cast<float>(p)));
  };
  if (e.peaks.size() == 1) {
    return L - P0 < 5 * (P0 - F) ? via("silhouette, 1: half", (F + P0) / 2) : via("silhouette, 1: beyond", beyond(P0));
  }
  const int P1 = e.peaks[1];
  const int V = e.valleys[0] > P0 ? e.valleys[0] : e.valleys[1];
  const auto height = [&h](int i) { return h[static_cast<std::size_t>(i)]; };
  const auto limited = [&](const std::string &way, int t) { return t >= P1 ? via(way + " P1", V) : via(way, t); };
  if (e.peaks.size() > 2) {
    return height(P0) - height(P0 + 5) > 30 ? limited("silhouette, 3: beyond", beyond(P0)) : via("silhouette, 3", V);
  }
  const auto weak = [&](int p) {
    const std::uint32_t rise = height(p) - height(V);
    const float slope = static_cast<float>(rise) / static_cast<float>(std::abs(p - V));
    return rise <= 34 && p != V && slope < 3.0F;
  };
  const auto mixed = [&](int p) { return kept(0.6 * beyond(p) + 0.4 * V); };
  if (weak(P0)) {
    return L - P1 < 3 * (P1 - F) ? via("silhouette, 2, first weak: half", (F + P1) / 2)
                                 : via("silhouette, 2, first weak: mixed", mixed(P1));
  }
  if (weak(P1)) {
    return L - P0 < 3 * (P0 - F) ? via("silhouette, 2, second weak: half", (F + P0) / 2)
                                 : limited("silhouette, 2, second weak: mixed", mixed(P0));
  }
  return via("silhouette, 2", V);
}

int modeThreshold(const Heights &counts) {
  Histogram smoothed;
  std::copy(counts.begin(), counts.end(), smoothed.counter);
  HistogramSmooth(&smoothed);
  Heights h(smoothed.counter, smoothed.counter + 256);
  h[0] = 0;
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < 128; ++i) {
    sum += h[i];
  }
  for (std::size_t i = 0; i < 128; ++i) {
    h[i] = h[i] > (sum >> 7) ? h[i] - (sum >> 7) : 0;
  }
  const auto at = [&h](int i) { return static_cast<int>(h[static_cast<std::size_t>(i)]); };
  Extremes e = scan(h, 1, 254);
  for (std::size_t p = 0; p + 1 < e.peaks.size();) {
    if (0.3 * at(e.peaks[p]) > at(e.peaks[p]) - at(e.valleys[p])) {
      e.peaks.erase(e.peaks.begin() + static_cast<std::ptrdiff_t>(p));
      e.valleys.erase(e.valleys.begin() + static_cast<std::ptrdiff_t>(p));
      ways.insert("mode, pruned");
    } else {
      ++p;
    }
  }
  if (e.peaks.empty()) {
    return via("mode, no peak", 0);
  }
  ways.insert("mode, " + std::to_string(std::min<std::size_t>(e.peaks.size(), 3)));
  int T = e.peaks[0];
  while (T > 0 && at(T) != 0) {
    --T;
  }
  T = (e.peaks[0] + T) >> 1;
  if (e.peaks.size() == 2) {
    std::uint32_t low = 0;
    std::uint32_t high = 0;
    for (int i = 0; i < 128; ++i) {
      (i < e.valleys[0] ? low : high) += h[static_cast<std::size_t>(i)];
    }
    const bool faint = high * 8 < low;
    T = faint && e.peaks[0] > 10 ? via("mode, 2: as one", T) : via(faint ? "mode, 2: low" : "mode, 2", e.valleys[0]);
  } else if (e.peaks.size() > 2) {
    std::size_t q = 0;
    for (std::size_t i = 1; i < e.peaks.size(); ++i) {
      q = at(e.peaks[i]) > at(e.peaks[q]) ? i : q;
    }
    T = q > 1 ? via("mode, 3: late", e.valleys[q - 1]) : via("mode, 3: early", e.valleys[0]);
  }
  const auto above = std::find_if(e.peaks.begin(), e.peaks.end(), [T](int p) { return p > T; });
  if (above != e.peaks.end()) {
    const int P = *above;
    const std::size_t p = static_cast<std::size_t>(above - e.peaks.begin());
    int lo = P;
    int hi = P;
    const int lower = p > 0 ? e.valleys[p - 1] : 0;
    const int upper = p < e.valleys.size() ? e.valleys[p] : 128;
    while (lo > lower && at(lo) >= 0.5 * at(P)) {
      --lo;
    }
    while (hi < upper && at(hi) >= 0.5 * at(P)) {
      ++hi;
    }
    if (lo > lower && hi < upper) {
      const float sigma = static_cast<float>((hi - lo) / 2.3545700244418297);
      T = via("mode, both halves", static_cast<int>(0.8 * (P - 2.5 * static_cast<double>(sigma)) + 0.2 * T));
    } else {
      ways.insert(lo > lower ? "mode, no right half" : "mode, no left half");
    }
  }
  return T < 0 ? via("mode, below 0", static_cast<int>(0.8 * (2 * T))) : static_cast<int>(0.8 * (2 * T));
}

Bytes pictureOf(const Heights &counts, std::size_t width) {
  Bytes image;
  for (std::size_t level = 0; level < counts.size(); ++level) {
    image.insert(image.end(), counts[level], static_cast<std::uint8_t>(level));
  }
  image.resize((image.size() + width - 1) / width * width, 0);
  return image;
}

// Both methods on a picture with about these counts, and the picture that comes out, against the models.
void check(const Heights &counts, int width = 97) {
  const Bytes image = pictureOf(counts, static_cast<std::size_t>(width));
  if (image.empty()) {
    return;
  }
  Heights exact(256, 0);
  for (const std::uint8_t pixel : image) {
    ++exact[pixel];
  }
  for (const bool mode : {false, true}) {
    const int threshold = mode ? modeThreshold(exact) : silhouetteThreshold(exact);
    const Guarded<std::uint8_t> pixels(image, guardOf(mode));
    const auto method = mode ? FpThresholdingGradsImageEx : FpThresholdingGradsImage;
    ASSERT_EQ(call(method, pixels.data(), image.size() / static_cast<std::size_t>(width), width), threshold & 255)
        << mode;
    Bytes expected = image;
    std::for_each(expected.begin(), expected.end(), [&](std::uint8_t &p) { p = p > threshold ? 255 : 0; });
    ASSERT_TRUE(same(pixels.data(), expected)) << mode;
  }
}

struct Hump {
  double centre, width, pixels;
};

Heights humps(const std::vector<Hump> &list) {
  Heights counts(256, 0);
  for (const Hump &hump : list) {
    for (int i = 0; i < 256; ++i) {
      const double z = (i - hump.centre) / hump.width;
      counts[static_cast<std::size_t>(i)] +=
          static_cast<std::uint32_t>(hump.pixels * std::exp(-z * z / 2) / (hump.width * 2.5));
    }
  }
  return counts;
}

// Straight lines from one corner (level, count) to the next.
Heights corners(const std::vector<std::pair<int, int>> &list) {
  Heights counts(256, 0);
  for (std::size_t n = 1; n < list.size(); ++n) {
    const auto &[from, low] = list[n - 1];
    const auto &[to, high] = list[n];
    for (int i = from; i <= std::min(to, 255); ++i) {
      counts[static_cast<std::size_t>(i)] = static_cast<std::uint32_t>(low + (high - low) * (i - from) / (to - from));
    }
  }
  return counts;
}

TEST(Thresholds, EveryWayEqualsTheModel) {
  Random random(11);
  const auto between = [&random](double low, double high) { return low + (high - low) * random(4096) / 4096; };
  const auto whole = [&](int low, int high) { return static_cast<int>(between(low, high)); };
  check(humps({{40, 3, 900}, {60, 30, 5000}}));
  Heights sparse(194, 0);  // so few of each level that no bar, or every bar, is drawn
  for (std::size_t i = 0; i < sparse.size(); i += 2) {
    sparse[i] = 1;
  }
  check(sparse);
  std::fill_n(sparse.begin(), 16, 0);
  sparse[150] = 9;
  check(sparse);
  check(Heights{3, 1}, 1);                     // too few pixels for a smoothed peak
  for (int trial = 0; trial < 400; ++trial) {  // two peaks at the low end, of which one may be weak, and a long tail
    const int first = whole(4, 40);
    const int valley = first + whole(7, 20);
    const int second = valley + whole(7, 20);
    const int low = whole(60, 200);
    check(corners(
        {{0, 8}, {first, low + whole(5, 90)}, {valley, low}, {second, low + whole(5, 90)}, {whole(100, 260), 14}}));
  }
  for (int trial = 0; trial < 500 && !HasFailure(); ++trial) {
    std::vector<Hump> list;
    for (int n = trial % 5; n >= 0; --n) {
      list.push_back(
          {between(-20, trial % 3 == 0 ? 80 : 270), between(1, trial % 2 == 0 ? 12 : 60), between(50, 9000)});
    }
    check(humps(list));
  }
  for (int trial = 0; trial < 300 && !HasFailure(); ++trial) {  // ragged and sparse, bars of all heights side by side
    Heights counts(256, 0);
    for (std::uint32_t &count : counts) {
      const std::uint32_t r = random();
      count = r % 64 < static_cast<std::uint32_t>(trial % 80) ? (r >> 8) % static_cast<std::uint32_t>(1 + trial) : 0;
    }
    check(counts);
  }
  EXPECT_EQ(ways.size(), 26U) << "all that the models have: " << testing::PrintToString(ways);
}

// Levels first to last, so many pixels of each. The cleaning narrows a box to its own levels, rounds its corners alike
// on both sides, and removes the three columns that a single level leaves.
struct Box {
  std::size_t first, last;
  std::uint32_t pixels;
};

TEST(Thresholds, WorkedHistograms) {
  const struct {
    std::int32_t (*method)(std::uint8_t *, std::int16_t, std::int16_t);
    std::vector<Box> boxes;
    int threshold;
  } cases[] = {
      // Bars from F = 99 to L = 150; the peak is the middle of the box, 125: half-way from F, (99 + 125) / 2.
      {FpThresholdingGradsImage, {{100, 149, 90}}, 112},
      // F = 39, peak 45, but L = 221 is more than five times as far: 45 + 1.5 x 6.
      {FpThresholdingGradsImage, {{40, 49, 90}, {220, 220, 30}}, 54},
      // Heights are 0 from 60 to 139, so the valley is (60 + 140) / 2, whether or not a third peak follows.
      {FpThresholdingGradsImage, {{40, 59, 90}, {140, 159, 90}}, 100},
      {FpThresholdingGradsImage, {{40, 59, 90}, {140, 159, 90}, {200, 219, 90}}, 100},
      // Bins of 80, which smoothing keeps, less the mean 79: a peak at (1 + 128) / 2 = 64 whose foot is 0 and which
      // falls to half on neither side. Bin 32 is level 64, of which 0.8.
      {FpThresholdingGradsImageEx, {{0, 255, 40}}, 51},
  };
  for (const auto &c : cases) {
    Bytes image;
    for (const Box &box : c.boxes) {
      for (std::size_t level = box.first; level <= box.last; ++level) {
        image.insert(image.end(), box.pixels, static_cast<std::uint8_t>(level));
      }
    }
    EXPECT_EQ(call(c.method, image.data(), 1, image.size()), c.threshold) << c.boxes[0].first;
  }
}

TEST(Thresholds, RefuseNoPicture) {
  std::uint8_t pixel = 7;
  for (const auto method : {FpThresholdingGradsImage, FpThresholdingGradsImageEx}) {
    EXPECT_EQ(method(nullptr, 1, 1), 255);
    EXPECT_EQ(method(&pixel, 0, 1), 255);
    EXPECT_EQ(method(&pixel, 1, -1), 255);
    EXPECT_EQ(pixel, 7);
  }
}

}  // namespace

// Low-pass smoothing of a histogram.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "kelmtrova/image.h"
#include "tests/support/guarded.h"

namespace {

using Counters = std::vector<std::uint32_t>;

void plainSmooth(Counters &counters, int cutoff, int first) {
  float re[128], im[128] = {};
  std::copy_n(counters.begin(), 128, re);
  FFT(re, im, 128);
  for (int i = 0; i < 64; ++i) {
    const float ratio = static_cast<float>(i) / static_cast<float>(cutoff);
    const auto w = static_cast<float>(1.0 / (0.414 * std::pow(static_cast<double>(ratio), 4.0) + 1.0));
    for (const int bin : {i, 127 - i}) {
      re[bin] *= w;
      im[bin] *= w;
    }
  }
  IFFT(re, im, 128);
  for (int i = first; i < 128; ++i) {
    counters[static_cast<std::size_t>(127 - i)] = static_cast<std::uint32_t>(std::abs(static_cast<int>(re[i])));
  }
}

Counters smooth(const Counters &counters) {
  const kelm::test::Guarded<std::uint32_t> work(counters);
  if (counters.size() == 128) {
    EXPECT_EQ(HistogramSmooth128(work.data()), 0);
  } else {
    EXPECT_EQ(HistogramSmooth(reinterpret_cast<Histogram *>(work.data())), 0);
  }
  return {work.begin(), work.end()};
}

TEST(HistogramSmoothing, WorkedExamples) {
  for (const std::uint32_t level : {0U, 1U, 1000U}) {
    Counters expected(256, 0);
    std::fill_n(expected.begin(), 128, 2 * level);
    EXPECT_EQ(smooth(Counters(256, level)), expected);
    EXPECT_EQ(smooth(Counters(128, 100 * level)), Counters(128, 100 * level));
  }
  Counters peak(256, 0);
  peak[100] = peak[101] = 1000;
  peak = smooth(peak);
  EXPECT_EQ(Counters(peak.begin() + 47, peak.begin() + 52), (Counters{197, 222, 231, 222, 197}));
  Counters half(128, 0);
  half[64] = 1280;
  half = smooth(half);
  EXPECT_EQ(Counters(half.begin() + 62, half.begin() + 65), (Counters{188, 203, 188}));
}

TEST(HistogramSmoothing, EqualsThePlainFilter) {
  std::minstd_rand random(5);
  for (int round = 0; round < 50; ++round) {
    Counters counters(256);
    for (std::uint32_t &counter : counters) {
      // Steep edges, so that some bins ring below 0.
      counter = static_cast<std::uint32_t>(random() % 5 == 0 ? random() % 1000000 : random() % 50);
    }
    Counters half(counters.begin(), counters.begin() + 128);
    Counters folded(256, 0);
    for (std::size_t i = 0; i < 128; ++i) {
      folded[i] = counters[2 * i] + counters[2 * i + 1];
    }
    plainSmooth(folded, 5, 20);
    EXPECT_EQ(smooth(counters), folded);
    const Counters smoothed = smooth(half);
    plainSmooth(half, 7, 0);
    EXPECT_EQ(smoothed, half);
  }
}

TEST(HistogramSmoothing, OddArguments) {
  EXPECT_EQ(HistogramSmooth(nullptr), 2);
  EXPECT_EQ(HistogramSmooth128(nullptr), 2);
  EXPECT_EQ(smooth(Counters(128, 0xFFFFFFFFU)), Counters(128, 0x80000000U));  // beyond signed 32 bits
}

}  // namespace

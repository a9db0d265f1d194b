// SPDX-License-Identifier: Apache-2.0
// Low-pass smoothing of a histogram, on worked examples.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace {

using Counters = std::vector<std::uint32_t>;

Counters smooth(const Counters &counters) {
  const kelm::test::Guarded<std::uint32_t> work(counters);
  EXPECT_EQ(counters.size() == 128 ? HistogramSmooth128(work.data())
                                   : HistogramSmooth(reinterpret_cast<Histogram *>(work.data())),
            0);
  return {work.begin(), work.end()};
}

Counters part(const Counters &counters, int first, int count) {
  return {counters.begin() + first, counters.begin() + first + count};
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
  EXPECT_EQ(part(peak, 47, 5), (Counters{197, 222, 231, 222, 197}));
  EXPECT_LE(*std::max_element(peak.begin(), peak.end()), 231U) << "what rings below 0 counts without its sign";
  Counters upper(256, 0);  // the upper levels stay as they are
  upper[216] = 1000;
  upper = smooth(upper);
  EXPECT_EQ(upper[108], 1000U);
  EXPECT_EQ(part(upper, 109, 19), Counters(19, 0));
  EXPECT_GT(upper[107], 100U);
  Counters half(128, 0);
  half[64] = 1280;
  EXPECT_EQ(part(smooth(half), 62, 3), (Counters{188, 203, 188}));
  EXPECT_EQ(smooth(Counters(128, 0xFFFFFFFFU)), Counters(128, 0x80000000U)) << "beyond signed 32 bits";
  EXPECT_EQ(HistogramSmooth(nullptr), 2);
  EXPECT_EQ(HistogramSmooth128(nullptr), 2);
}

// The steps in words, with the C library's power.
TEST(HistogramSmoothing, EqualsItsStepsBitForBit) {
  kelm::test::Random random(5);
  for (int round = 0; round < 200; ++round) {
    const bool folds = round % 2 == 0;
    const auto largest = round % 7 == 0 ? 400000000 : 3000;
    Counters counters(folds ? 256 : 128);
    for (std::uint32_t &counter : counters) counter = static_cast<std::uint32_t>(random(largest));
    Counters expected = counters;
    if (folds) {
      for (std::size_t i = 0; i < 128; ++i) expected[i] = expected[2 * i] + expected[2 * i + 1];
      std::fill(expected.begin() + 128, expected.end(), 0U);
    }
    std::vector<float> re(expected.begin(), expected.begin() + 128), im(128, 0);
    FFT(re.data(), im.data(), 128);
    for (std::size_t i = 0; i < 64; ++i) {
      const double ratio = static_cast<float>(i) / (folds ? 5.0F : 7.0F);
      const auto weight = static_cast<float>(1.0 / (0.414 * std::pow(ratio, 4.0) + 1.0));
      for (float *value : {&re[i], &im[i], &re[127 - i], &im[127 - i]}) *value *= weight;
    }
    IFFT(re.data(), im.data(), 128);
    for (std::size_t i = folds ? 20 : 0; i < 128; ++i) {
      expected[127 - i] = static_cast<std::uint32_t>(std::abs(static_cast<std::int32_t>(re[i])));
    }
    ASSERT_EQ(smooth(counters), expected) << round;
  }
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Grey-level histogram: counts against a plain loop, statistics at their limits, the picture file.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kelmtrova/image.h"
#include "tests/support/guarded.h"

namespace {

using kelm::test::Guarded;

TEST(Histogram, CountsEveryPixelOnce) {
  std::mt19937 random(1);
  for (const unsigned levels : {1U, 2U, 3U, 256U}) {
    for (std::uint16_t width = 0; width <= 130; ++width) {
      const std::uint16_t height = width % 7 == 0 ? 9 : 1;
      const Guarded<std::uint8_t> image(std::size_t{width} * height);
      std::array<std::uint32_t, 256> expected{};
      for (std::uint8_t &pixel : image) {
        // Mostly runs, some of them broken by a single pixel.
        const bool grey = random() % 97 == 0 || levels > 3;
        pixel = static_cast<std::uint8_t>(grey ? random() % levels : 255 - levels);
        ++expected[pixel];
      }
      Histogram *histogram = HistogramCompute(image.data(), height, width);
      ASSERT_NE(histogram, nullptr);
      EXPECT_TRUE(std::equal(expected.begin(), expected.end(), histogram->counter)) << levels << " " << width;
      HistogramDestroy(histogram);
    }
  }
}

TEST(Histogram, StatisticsWrapInThirtyTwoBits) {
  const struct {
    std::vector<std::pair<int, std::uint32_t>> counters;
    std::uint8_t mean;
    std::uint32_t variance, varianceAboutZero;
  } kCases[] = {
      {{{200, 1}}, 200, 0, 40000},
      {{{0, 1}, {1, 1}}, 1, 1, 1},
      {{{0, 2}, {255, 1}}, 85, 14450, 21675},
      {{{10, 77}}, 10, 0, 100},
      {{}, 0, 0, 0},
      {{{255, 8388608}}, 255, 0, 1},                    // the largest power of two of pixels whose mean is exact
      {{{255, 8500000}}, 7, 364, 348},                  // the sum wraps to a negative number
      {{{255, 4294836225U}}, 255, 0, 0},                // 65535 x 65535 pixels: a negative count
      {{{1, 0x80000000U}, {0, 0x7FFFFFFFU}}, 0, 1, 1},  // the smallest number divided by -1
  };
  for (const auto &c : kCases) {
    Histogram histogram{};
    for (const auto &[level, counter] : c.counters) {
      histogram.counter[level] = counter;
    }
    EXPECT_EQ(HistogramGetMean(&histogram), c.mean);
    EXPECT_EQ(HistogramGetVariance(&histogram), c.variance);
    EXPECT_EQ(HistogramGetVariance2(&histogram, 0), c.varianceAboutZero);
  }
  EXPECT_EQ(HistogramCompute(nullptr, 1, 1), nullptr);
  EXPECT_EQ(HistogramGetMean(nullptr) + HistogramGetVariance(nullptr) + HistogramGetVariance2(nullptr, 9), 0U);
}

class HistogramPicture : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::remove(path_); }
  void TearDown() override { std::filesystem::remove(path_); }

  std::string read() const {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  const std::string path_ = testing::TempDir() + "kelmtrova_histogram_" + std::to_string(getpid()) + ".raw";
};

TEST_F(HistogramPicture, DrawsBarsOnTheBottomRow) {
  const struct {
    std::vector<std::uint32_t> counters;
    std::vector<int> bars;
  } kCases[] = {{{0, 5, 10}, {0, 127, 255}}, {{7, 0}, {254, 0}},           {{14}, {254}}, {{28}, {254}},
                {{0, 0, 0}, {0, 0, 0}},      {{0xFFFFFFFFU, 1}, {255, 0}}, {{}, {}}};
  for (const auto &c : kCases) {
    EXPECT_EQ(HistogramPrint(c.counters.empty() ? std::vector<std::uint32_t>(1).data() : c.counters.data(),
                             static_cast<std::int16_t>(c.counters.size()), path_.c_str()),
              0);
    std::string expected;
    for (int row = 256; row-- > 0;) {
      for (const int bar : c.bars) {
        expected += row < bar ? '\xFF' : '\0';
      }
    }
    ASSERT_TRUE(std::filesystem::exists(path_));
    EXPECT_TRUE(read() == expected) << c.counters.size();
  }
}

TEST_F(HistogramPicture, LeavesTheFileAloneWithoutPicture) {
  std::ofstream(path_) << "kept";
  const std::uint32_t counters[4] = {1, 2, 3, 4};
  EXPECT_EQ(HistogramPrint(counters, -1, path_.c_str()) + HistogramPrint(nullptr, 4, path_.c_str()), 0);
  EXPECT_EQ(HistogramPrint(counters, 4, nullptr) + HistogramPrint(counters, 4, (path_ + "/no/folder").c_str()), 0);
  EXPECT_EQ(read(), "kept");
}

TEST_F(HistogramPicture, LeavesNoHalfWrittenFile) {
  const std::vector<std::uint32_t> counters(30000, 1);
  const std::string link = path_ + ".link";
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{200, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  // The failure comes when what is buffered is written, or at once.
  for (const std::int16_t n : std::initializer_list<std::int16_t>{1, 100}) {
    std::filesystem::create_symlink(path_, link);
    EXPECT_EQ(HistogramPrint(counters.data(), n, path_.c_str()), 0);
    EXPECT_FALSE(std::filesystem::exists(path_));
    EXPECT_EQ(HistogramPrint(counters.data(), n, link.c_str()), 0);
    EXPECT_EQ(read(), "");
    EXPECT_FALSE(std::filesystem::is_symlink(link));
  }
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
}

// What is not an ordinary file is never removed: a pipe whose reader goes away in the middle of the picture.
TEST_F(HistogramPicture, LeavesAPipeInPlace) {
  const std::vector<std::uint32_t> counters(30000, 1);
  const auto handler = std::signal(SIGPIPE, SIG_IGN);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  std::thread reader([this] {
    std::ifstream pipe(path_);
    pipe.get();
  });
  EXPECT_EQ(HistogramPrint(counters.data(), 30000, path_.c_str()), 0);
  reader.join();
  std::signal(SIGPIPE, handler);
  EXPECT_TRUE(std::filesystem::is_fifo(path_));
}

}  // namespace

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <random>
#include <vector>

#include "kelmtrova/image.h"
#include "tests/support/guarded.h"

namespace {

using kelm::test::Guard;
using kelm::test::Guarded;
using Picture = std::vector<std::uint8_t>;

std::uint8_t u8(int value) { return static_cast<std::uint8_t>(value); }

struct Run {
  int start, end;
};

std::vector<Run> plainRuns(const std::vector<bool> &flags) {
  std::vector<Run> runs;
  const int n = static_cast<int>(flags.size());
  for (int i = 0; i < n - 1; ++i) {
    if (!flags[static_cast<std::size_t>(i)]) {
      continue;
    }
    int j = i + 1;
    for (; j < n && flags[static_cast<std::size_t>(j)]; ++j) {
    }
    if (j == n) {
      break;
    }
    runs.push_back({i, j - 1});
    i = j;
  }
  return runs;
}

int plainNotContinue(const std::uint8_t *image, int height, int width, long level) {
  if (height > 1024 || width > 1024) {
    return 0;
  }
  std::vector<bool> flags;
  int print = 0;
  for (int r = 0; r < height; ++r) {
    long sum = 0;
    for (int c = 0; c < width; ++c) {
      sum += image[r * width + c];
    }
    flags.push_back(sum > (width - 10) * level);
    print += flags.back() ? 0 : 1;
  }
  for (const Run run : plainRuns(flags)) {
    if (run.start > 3 && run.start <= height - 10 && run.end > 9 && run.end < height - 4) {
      return 1;
    }
  }
  int gaps = 0;
  for (int strip = 0; strip < height / 16; ++strip) {
    flags.clear();
    for (int c = 0; c < width; ++c) {
      long sum = 0;
      for (int r = 0; r < 16; ++r) {
        sum += image[(16 * strip + r) * width + c];
      }
      flags.push_back(sum > 15 * level);
    }
    for (const Run run : plainRuns(flags)) {
      gaps +=
          run.start > 15 && run.start <= width - 15 && run.end > 14 && run.end < width - 15 && run.end - run.start > 5;
    }
  }
  return static_cast<double>(static_cast<float>(gaps * 16) / static_cast<float>(print)) > 0.45 ? 1 : 0;
}

TEST(NotContinue, EqualsThePlainCheck) {
  std::mt19937 random(8);
  int found = 0;
  const int rounds = 1500;
  const auto below = [&](int n) { return static_cast<int>(random() % static_cast<std::uint32_t>(n)); };
  for (int round = 0; round < rounds; ++round) {
    const int h = 1 + below(round % 50 == 0 ? 1024 : 120);
    const int w = round < 130 ? round + 1 : 1 + below(round % 50 == 0 ? 1024 : 140);
    Guarded<std::uint8_t> image(static_cast<std::size_t>(h * w), round % 2 == 0 ? Guard::kAfter : Guard::kBefore);
    std::generate(image.begin(), image.end(), [&] { return u8(below(40)); });
    // Light bands across and down, anywhere, sometimes reaching the edges.
    for (int band = below(4); band > 0; --band) {
      const bool across = below(4) == 0;
      const int top = across ? below(h) : below(2) * below(h);
      const int bottom = across ? std::min(h, top + 1 + below(9)) : h;
      const int left = across ? 0 : below(w);
      const int right = across ? w : std::min(w, left + 5 + below(6));
      for (int y = top; y < bottom; ++y) {
        std::fill(image.data() + y * w + left, image.data() + y * w + right, u8(200 + below(56)));
      }
    }
    const int level = below(8) == 0 ? below(255) : 150;
    const int expected = plainNotContinue(image.data(), h, w, level);
    ASSERT_EQ(NotContinue(image.data(), h, w, level), expected) << h << " x " << w << " level " << level;
    found += expected;
  }
  EXPECT_GT(found, rounds / 10);
  EXPECT_LT(found, rounds - rounds / 10);
}

Picture withLight(int height, int width, int top, int bottom, int left, int right) {
  Picture picture(static_cast<std::size_t>(height * width), 0);
  for (int y = top; y < bottom; ++y) {
    std::fill(picture.begin() + y * width + left, picture.begin() + y * width + right, u8(255));
  }
  return picture;
}

TEST(NotContinue, WorkedExamples) {
  struct {
    int height, width, top, bottom, left, right, level, result;
    const char *what;
  } const cases[] = {
      {100, 100, 0, 0, 0, 0, 100, 0, "dark"},
      {100, 100, 0, 100, 0, 100, 100, 0, "light"},
      {100, 100, 20, 21, 0, 100, 100, 1, "a light row"},
      {100, 100, 0, 6, 0, 100, 100, 0, "light rows at the top"},
      {64, 100, 0, 64, 40, 50, 128, 1, "a gap in all strips"},
      {64, 100, 0, 16, 40, 50, 128, 0, "a gap in one strip"},
      {64, 100, 0, 32, 40, 50, 128, 1, "a gap in two strips"},
      {64, 100, 0, 64, 40, 46, 128, 0, "a gap of six columns"},
      {15, 100, 0, 15, 40, 50, 128, 0, "no strips"},
      {64, 100, 0, 64, 40, 50, INT_MAX, 0, "a level that nothing reaches"},
      {64, 100, 0, 64, 40, 50, INT_MIN, 0, "a level that everything reaches"},
      {1025, 20, 500, 501, 0, 20, 100, 0, "too tall"},
      {20, 1025, 10, 11, 0, 1025, 100, 0, "too wide"},
      {64, 9, 0, 0, 0, 0, 128, 0, "narrow: every row is light"},
  };
  for (const auto &c : cases) {
    const Picture picture = withLight(c.height, c.width, c.top, c.bottom, c.left, c.right);
    EXPECT_EQ(NotContinue(picture.data(), c.height, c.width, c.level), c.result) << c.what;
  }
  EXPECT_EQ(NotContinue(nullptr, 10, 10, 0), 0);
  const std::uint8_t sample = 255;
  EXPECT_EQ(NotContinue(&sample, 0, 10, 0), 0);
  EXPECT_EQ(NotContinue(&sample, INT_MIN, INT_MIN, 0), 0);
}

TEST(NotContinue, FindsTheGapBetweenRidges) {
  constexpr int kHeight = 360;
  constexpr int kWidth = 256;
  for (int degrees = 0; degrees < 180; degrees += 30) {
    const double angle = degrees * 3.14159265358979 / 180;
    for (const char gap : {'n', 'r', 'c'}) {  // none, rows, columns
      Picture picture(kHeight * kWidth);
      for (int i = 0; i < kHeight * kWidth; ++i) {
        const int x = i % kWidth;
        const int y = i / kWidth;
        const bool inGap = (gap == 'r' && y > 150 && y < 170) || (gap == 'c' && x > 120 && x < 140);
        const double phase = (x * std::sin(angle) + y * std::cos(angle)) * 6.2831853 / 9;
        picture[static_cast<std::size_t>(i)] = inGap ? u8(245) : u8(static_cast<int>(110 + 80 * std::sin(phase)));
      }
      EXPECT_EQ(NotContinue(picture.data(), kHeight, kWidth, 200), gap == 'n' ? 0 : 1) << degrees << gap;
    }
  }
}

TEST(Project, EqualsPlainSumsAndWritesNothingElse) {
  std::mt19937 random(9);
  for (int width = 1; width <= 140; ++width) {
    const int rows = 1 + static_cast<int>(random() % 70);
    Guarded<std::uint8_t> image(static_cast<std::size_t>(rows * width),
                                width % 2 == 0 ? Guard::kAfter : Guard::kBefore);
    std::generate(image.begin(), image.end(),
                  [&] { return random() % 2 == 0 ? u8(255) : u8(static_cast<int>(random() & 255)); });
    for (const std::uint32_t mode : {0U, 1U, 0x80000000U}) {
      std::vector<std::int32_t> expected(static_cast<std::size_t>(mode == 0 ? rows : width), 0);
      for (int i = 0; i < rows * width; ++i) {
        expected[static_cast<std::size_t>(mode == 0 ? i / width : i % width)] += image[static_cast<std::size_t>(i)];
      }
      Guarded<std::int32_t> sums(expected.size());
      std::fill(sums.begin(), sums.end(), -1);
      Project(sums.data(), image.data(), rows, width, mode);
      ASSERT_TRUE(std::equal(expected.begin(), expected.end(), sums.begin())) << rows << " x " << width;
    }
  }
  std::int32_t sum = -1;
  const std::uint8_t sample = 3;
  Project(&sum, nullptr, 1, 1, 0);
  Project(&sum, &sample, 0, 1, 1);
  Project(nullptr, &sample, 1, 1, 0);
  EXPECT_EQ(sum, -1);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <climits>

#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace {

using namespace kelm::test;

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

// Everything of `picture` within these rows and columns becomes light.
void lighten(std::uint8_t *picture, int width, int top, int bottom, int left, int right) {
  for (int y = top; y < bottom; ++y) {
    std::fill(picture + y * width + left, picture + y * width + right, u8(255));
  }
}

TEST(NotContinue, EqualsThePlainCheck) {
  Random random(8);
  int found = 0;
  const int rounds = 1500;
  for (int round = 0; round < rounds; ++round) {
    const int h = 1 + random(round % 50 == 0 ? 1024 : 120);
    const int w = round < 130 ? round + 1 : 1 + random(round % 50 == 0 ? 1024 : 140);
    const Guarded<std::uint8_t> image(picture(h, w, [&](int, int) { return random(40); }), guardOf(round));
    // Light bands across and down, anywhere, sometimes reaching the edges.
    for (int band = random(4); band > 0; --band) {
      const int from = random(h);
      const int left = random(w);
      if (random(4) == 0) {
        lighten(image.data(), w, from, std::min(h, from + 1 + random(9)), 0, w);
      } else {
        lighten(image.data(), w, random(2) * from, h, left, std::min(w, left + 5 + random(6)));
      }
    }
    const int level = random(8) == 0 ? random(255) : 150;
    const int expected = plainNotContinue(image.data(), h, w, level);
    ASSERT_EQ(NotContinue(image.data(), h, w, level), expected) << h << " x " << w << " level " << level;
    found += expected;
  }
  EXPECT_GT(found, rounds / 10);
  EXPECT_LT(found, rounds - rounds / 10);
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
    Bytes picture(static_cast<std::size_t>(c.height * c.width));
    lighten(picture.data(), c.width, c.top, c.bottom, c.left, c.right);
    EXPECT_EQ(NotContinue(picture.data(), c.height, c.width, c.level), c.result) << c.what;
  }
  EXPECT_EQ(NotContinue(nullptr, 10, 10, 0), 0);
  const std::uint8_t sample = 255;
  EXPECT_EQ(NotContinue(&sample, 0, 10, 0) + NotContinue(&sample, 10, 0, 0), 0);
  EXPECT_EQ(NotContinue(&sample, INT_MIN, INT_MIN, 0), 0);
}

TEST(Project, EqualsPlainSumsAndWritesNothingElse) {
  Random random(9);
  for (int width = 1; width <= 140; ++width) {
    const int rows = 1 + random(70);
    const Bytes image = picture(rows, width, [&](int, int) { return random(2) == 0 ? 255 : random(256); });
    const Guarded<std::uint8_t> guarded(image, guardOf(width));
    for (const std::uint32_t mode : {0U, 1U, 0x80000000U}) {
      std::vector<std::int32_t> expected(static_cast<std::size_t>(mode == 0 ? rows : width), 0);
      for (int i = 0; i < rows * width; ++i) {
        expected[static_cast<std::size_t>(mode == 0 ? i / width : i % width)] += image[static_cast<std::size_t>(i)];
      }
      const Guarded<std::int32_t> sums(expected.size());
      std::fill(sums.begin(), sums.end(), -1);
      Project(sums.data(), guarded.data(), rows, width, mode);
      ASSERT_TRUE(same(sums.data(), expected)) << rows << " x " << width;
    }
  }
}

// As many sums as there are rows, or columns, whatever the other dimension.
TEST(Project, SumsOverNothingAreZero) {
  const std::uint8_t sample = 3;
  struct {
    const std::uint8_t *image;
    int rows, width, mode, written;
  } const cases[] = {{&sample, 3, 0, 0, 3},  {&sample, 3, -2, 0, 3}, {&sample, 0, 2, 7, 2},
                     {&sample, -9, 2, 1, 2}, {&sample, 0, 3, 0, 0},  {&sample, -1, -1, 0, 0},
                     {&sample, 3, -1, 1, 0}, {nullptr, 3, 3, 0, 0},  {nullptr, 3, 3, 1, 0}};
  for (const auto &c : cases) {
    std::vector<std::int32_t> expected(4, -1);
    std::fill_n(expected.begin(), c.written, 0);
    const Guarded<std::int32_t> sums(std::vector<std::int32_t>(4, -1));
    call(Project, sums.data(), c.image, c.rows, c.width, c.mode);
    EXPECT_TRUE(same(sums.data(), expected)) << c.rows << " x " << c.width << " mode " << c.mode;
  }
  Project(nullptr, &sample, 1, 1, 0);
}

}  // namespace

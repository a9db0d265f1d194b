// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <cstdlib>

#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace {

using namespace kelm::test;
using Picture = Bytes;

struct Grown {
  std::uint32_t area = 77;
  std::int16_t left = 77, top = 77, right = 77, bottom = 77;
  bool operator==(const Grown &) const = default;
};

// The fill pixel by pixel, with a stack that refuses what it cannot hold.
struct PlainFill {
  std::uint8_t *image;
  int height, width, seed, label, tolerance;
  ZooList stack;

  bool matches(int y, int x) const { return std::abs(image[y * width + x] - seed) < tolerance; }
  void push(int y, int x) {
    zooPush(&stack, static_cast<std::uint32_t>(y) << 16 | (static_cast<std::uint32_t>(x) & 0xFFFF));
  }
  void look(int y, int first, int last) {
    for (int c = first; c <= last;) {
      bool found = false;
      for (; c < width && matches(y, c); ++c) {
        found = true;
      }
      if (found) {
        push(y, c - 1);
      }
      for (; c <= last && !matches(y, c); ++c) {
      }
    }
  }
  Grown run(int seedRow, int seedColumn) {
    int count = 0;
    for (int i = 0; i < height * width; ++i) {
      count += matches(0, i) ? 1 : 0;
    }
    zooInitList(&stack, count);
    push(seedRow, seedColumn);
    int area = 0, left = width, top = height, right = 0, bottom = 0;
    for (std::uint32_t entry = 0; zooPop(&stack, &entry) == 1;) {
      const int y = static_cast<int>(entry >> 16);
      const int x = static_cast<int>(entry & 0xFFFF);
      top = std::min(top, y);
      int end = x;
      for (; end < width && matches(y, end); ++end, ++area) {
        image[y * width + end] = static_cast<std::uint8_t>(label);
      }
      right = std::max(right, end - 1);
      int start = x;
      for (; start > 0 && matches(y, start - 1); --start, ++area) {
        image[y * width + start - 1] = static_cast<std::uint8_t>(label);
      }
      left = std::min(left, start);
      bottom = std::max(bottom, y);
      if (y + 1 < height) {
        look(y + 1, start, end - 1);
      }
      if (y > 0) {
        look(y - 1, start, end - 1);
      }
    }
    zooClearup(&stack);
    return {static_cast<std::uint32_t>(area), static_cast<std::int16_t>(left), static_cast<std::int16_t>(top),
            static_cast<std::int16_t>(right), static_cast<std::int16_t>(bottom)};
  }
};

Grown grow(std::uint8_t *image, int height, int width, int row, int column, int seed, int label, int tolerance) {
  Grown grown;
  call(RegionGrow, image, height, width, row, column, &grown.area, &grown.left, &grown.top, &grown.right, &grown.bottom,
       seed, label, tolerance);
  return grown;
}

// Random grey levels: long runs of few levels, so that regions are large and ragged.
Picture blotches(int height, int width, int levels, int persistence, Random &random) {
  Picture picture(static_cast<std::size_t>(height * width));
  for (std::size_t i = 0; i < picture.size(); ++i) {
    const int choice = random(100);
    const auto w = static_cast<std::size_t>(width);
    picture[i] = i >= w && choice < persistence ? picture[i - (choice % 2 == 0 ? w : 1)]
                                                : static_cast<std::uint8_t>(random(levels));
  }
  return picture;
}

// Calls `check(height, width, round)` for every small width and a few large extents.
void forAllSizes(Random &random, int rounds, auto &&check) {
  std::vector<std::array<int, 2>> sizes = {{1, 700}, {300, 1}, {70, 333}, {150, 64}, {9, 1001}};
  for (int width = 1; width <= 130; ++width) {
    sizes.push_back({1 + random(24), width});
  }
  for (const auto &[height, width] : sizes) {
    for (int round = 0; round < rounds; ++round) {
      SCOPED_TRACE(testing::Message() << height << " x " << width << ", round " << round);
      check(height, width, round);
      ASSERT_FALSE(testing::Test::HasFailure());
    }
  }
}

TEST(RegionGrow, EqualsThePlainFill) {
  Random random(1);
  forAllSizes(random, 12, [&](int height, int width, int round) {
    const int levels = std::array{2, 3, 9}[static_cast<std::size_t>(round % 3)];
    Picture expected = blotches(height, width, levels, round % 4 * 30, random);
    const Guarded<std::uint8_t> image(expected, guardOf(round));
    const int row = random(height);
    const int column = random(width + 1);
    const int seed = random(levels + 1);
    const int tolerance = random(4);
    const int label = random(2) == 0 ? 255 : seed + tolerance;
    PlainFill plain{expected.data(), height, width, seed, label, tolerance, {}};
    EXPECT_EQ(plain.run(row, column), grow(image.data(), height, width, row, column, seed, label, tolerance));
    EXPECT_TRUE(same(image.data(), expected)) << "from " << row << ", " << column;
  });
}

TEST(RegionGrow, WorkedExamples) {
  Picture block(25, 0);
  for (const int i : {6, 7, 8, 11, 12, 13, 16, 17, 18}) {
    block[static_cast<std::size_t>(i)] = 7;
  }
  Picture image = block;
  EXPECT_EQ(grow(image.data(), 5, 5, 2, 2, 7, 9, 1), (Grown{9, 1, 1, 3, 3}));
  EXPECT_EQ(std::count(image.begin(), image.end(), 9), 9);
  EXPECT_EQ(std::count(image.begin(), image.end(), 7), 0);
  image = {7, 0, 0, 7};
  EXPECT_EQ(grow(image.data(), 2, 2, 0, 0, 7, 9, 1), (Grown{1, 0, 0, 0, 0})) << "a corner does not join";
  const Grown nothing{0, 5, 5, 0, 0};
  image = block;
  struct {
    int row, column, seed, label, tolerance;
    const char *what;
  } const refused[] = {{2, 2, 7, 9, 0, "tolerance 0"},   {2, 2, 99, 9, 1, "no pixel matches"},
                       {2, 2, 7, 7, 1, "label is seed"}, {2, 2, 7, 9, 3, "label matches"},
                       {-1, 2, 7, 9, 1, "row -1"},       {5, 2, 7, 9, 1, "row 5"},
                       {2, -1, 7, 9, 1, "column -1"},    {2, 6, 7, 9, 1, "column 6"}};
  for (const auto &c : refused) {
    EXPECT_EQ(grow(image.data(), 5, 5, c.row, c.column, c.seed, c.label, c.tolerance), nothing) << c.what;
    EXPECT_EQ(image, block) << c.what;
  }
  EXPECT_EQ(grow(nullptr, 5, 5, 2, 2, 7, 9, 1), Grown());
  EXPECT_EQ(grow(image.data(), 0, 5, 2, 2, 7, 9, 1), Grown());
  RegionGrow(image.data(), 5, 5, 2, 4, nullptr, nullptr, nullptr, nullptr, nullptr, 7, 9, 1);
  EXPECT_EQ(std::count(image.begin(), image.end(), 9), 9) << "from the pixel right of the block, no outputs wanted";
}

TEST(RemoveSmallArea, EqualsFillingEveryArea) {
  Random random(2);
  forAllSizes(random, 8, [&](int height, int width, int round) {
    const Picture picture = blotches(height, width, 2 + round % 2, round % 4 * 25, random);
    const int limit = std::array{0, 1, 4, 20, 300, 32767, -1, -32768}[static_cast<std::size_t>(round)];
    Picture copy = picture;
    Picture expected = picture;
    for (int i = 0; i < height * width; ++i) {  // column by column
      const int x = i / height;
      const int y = i % height;
      if (copy[static_cast<std::size_t>(y * width + x)] == 1 &&
          PlainFill{copy.data(), height, width, 1, 9, 1, {}}.run(y, x).area <= static_cast<std::uint32_t>(limit)) {
        PlainFill{expected.data(), height, width, 1, 9, 1, {}}.run(y, x);
      }
    }
    const Guarded<std::uint8_t> image(picture, guardOf(round));
    ASSERT_EQ(call(RemoveSmallArea, image.data(), height, width, 1, 9, limit), 0);
    EXPECT_TRUE(same(image.data(), expected)) << "limit " << limit;
  });
  Picture image(64, 255);
  EXPECT_EQ(RemoveSmallArea(nullptr, 8, 8, 255, 0, 4), 2);
  EXPECT_EQ(RemoveSmallArea(image.data(), 8, 8, 255, 255, 4), 2);
  EXPECT_EQ(RemoveSmallArea(image.data(), 0, 8, 255, 0, 4), 2);
  EXPECT_EQ(RemoveSmallArea(image.data(), 8, -1, 255, 0, 4), 2);
  EXPECT_EQ(image, Picture(64, 255));
}

TEST(ZooList, HoldsItsCapacityAndNoMore) {
  ZooList list;
  zooInitList(&list, 2);
  EXPECT_EQ(list.items[1], 0U);
  EXPECT_EQ(zooIsListEmpty(&list), 1);
  EXPECT_EQ(zooPush(&list, 5) + zooPush(&list, 6), 2);
  EXPECT_EQ(zooPush(&list, 7), 0);
  EXPECT_EQ(zooIsListEmpty(&list), 0);
  std::uint32_t entry = 0;
  EXPECT_EQ(zooPop(&list, nullptr), 0);
  EXPECT_EQ(zooPop(&list, &entry), 1);
  EXPECT_EQ(entry, 6U);
  EXPECT_EQ(zooPop(&list, &entry), 1);
  EXPECT_EQ(zooPop(&list, &entry), 0);
  EXPECT_EQ(entry, 5U);
  list.count = -1;
  EXPECT_EQ(zooPush(&list, 8), 0);
  list.count = 3;
  EXPECT_EQ(zooPop(&list, &entry), 0);
  zooClearup(&list);
  EXPECT_EQ(list.items, nullptr);
  for (const std::int32_t capacity : {0, -3}) {
    zooInitList(&list, capacity);
    EXPECT_EQ(list.items, nullptr) << capacity;
    EXPECT_EQ(list.capacity, capacity);
    EXPECT_EQ(zooPush(&list, 1) + zooPop(&list, &entry), 0);
    list.items = &entry;  // not the list's to release
    zooClearup(&list);
    EXPECT_EQ(list.items, &entry);
  }
  zooInitList(nullptr, 1);
  zooClearup(nullptr);
  EXPECT_EQ(zooPush(nullptr, 1) + zooPop(nullptr, &entry), 0);
  EXPECT_EQ(zooIsListEmpty(nullptr), 1);
}

}  // namespace

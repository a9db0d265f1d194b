#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <random>
#include <vector>

#include "kelmtrova/image.h"
#include "tests/support/allocation.h"
#include "tests/support/guarded.h"

namespace {

using kelm::test::AllocationWatch;
using kelm::test::Guard;
using kelm::test::Guarded;
using Picture = std::vector<std::uint8_t>;

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
  const auto s = [](int value) { return static_cast<std::int16_t>(value); };
  const auto b = [](int value) { return static_cast<std::uint8_t>(value); };
  RegionGrow(image, s(height), s(width), s(row), s(column), &grown.area, &grown.left, &grown.top, &grown.right,
             &grown.bottom, b(seed), b(label), b(tolerance));
  return grown;
}

// Random grey levels: long runs of few levels, so that regions are large and ragged.
Picture blotches(int height, int width, int levels, int persistence, std::mt19937 &random) {
  Picture picture(static_cast<std::size_t>(height) * static_cast<std::size_t>(width));
  for (std::size_t i = 0; i < picture.size(); ++i) {
    const auto choice = static_cast<std::uint32_t>(random() % 100);
    const auto w = static_cast<std::size_t>(width);
    if (i >= w && choice < static_cast<std::uint32_t>(persistence)) {
      picture[i] = picture[i - (choice % 2 == 0 ? w : 1)];
    } else {
      picture[i] = static_cast<std::uint8_t>(random() % static_cast<std::uint32_t>(levels));
    }
  }
  return picture;
}

struct Size {
  int height, width;
};

std::vector<Size> sizes(std::mt19937 &random) {
  std::vector<Size> all = {{1, 700}, {300, 1}, {70, 333}, {150, 64}, {9, 1001}};
  for (int width = 1; width <= 130; ++width) {
    all.push_back({1 + static_cast<int>(random() % 24), width});
  }
  return all;
}

TEST(RegionGrow, EqualsThePlainFill) {
  std::mt19937 random(1);
  for (const Size size : sizes(random)) {
    for (std::size_t round = 0; round < 12; ++round) {
      const int levels = std::array{2, 3, 9}[round % 3];
      const Picture picture = blotches(size.height, size.width, levels, static_cast<int>(round % 4) * 30, random);
      Picture expected = picture;
      Guarded<std::uint8_t> image(std::span<const std::uint8_t>(picture),
                                  round % 2 == 0 ? Guard::kAfter : Guard::kBefore);
      const int row = static_cast<int>(random() % static_cast<std::uint32_t>(size.height));
      const int column = static_cast<int>(random() % static_cast<std::uint32_t>(size.width + 1));
      const int seed = static_cast<int>(random() % static_cast<std::uint32_t>(levels + 1));
      const int tolerance = static_cast<int>(random() % 4);
      const int label = random() % 2 == 0 ? 255 : seed + tolerance;
      PlainFill plain{expected.data(), size.height, size.width, seed, label, tolerance, {}};
      EXPECT_EQ(plain.run(row, column),
                grow(image.data(), size.height, size.width, row, column, seed, label, tolerance));
      ASSERT_TRUE(std::equal(expected.begin(), expected.end(), image.begin()))
          << size.height << " x " << size.width << " from " << row << ", " << column;
    }
  }
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

TEST(RegionGrow, WithoutMemoryNothingIsFilled) {
  Picture image(100, 7);
  AllocationWatch watch(1);
  EXPECT_EQ(grow(image.data(), 10, 10, 5, 5, 8, 10, 1).area, 0U);
  EXPECT_EQ(watch.allocations(), 0U) << "nothing to grow";
  EXPECT_EQ(grow(image.data(), 10, 10, 5, 5, 7, 9, 1), (Grown{0, 10, 10, 0, 0}));
  EXPECT_EQ(std::count(image.begin(), image.end(), 7), 100);
  EXPECT_EQ(grow(image.data(), 10, 10, 5, 5, 7, 9, 1).area, 100U);
  EXPECT_EQ(watch.outstanding(), 0);
}

TEST(RemoveSmallArea, EqualsFillingEveryArea) {
  std::mt19937 random(2);
  for (const Size size : sizes(random)) {
    for (std::size_t round = 0; round < 8; ++round) {
      const Picture picture =
          blotches(size.height, size.width, 2 + static_cast<int>(round % 2), static_cast<int>(round % 4) * 25, random);
      const auto limit = static_cast<std::int16_t>(std::array{0, 1, 4, 20, 300, 32767, -1, -32768}[round]);
      Picture copy = picture;
      Picture expected = picture;
      for (int x = 0; x < size.width; ++x) {
        for (int y = 0; y < size.height; ++y) {
          if (copy[static_cast<std::size_t>(y * size.width + x)] != 1) {
            continue;
          }
          PlainFill measure{copy.data(), size.height, size.width, 1, 9, 1, {}};
          if (measure.run(y, x).area <= static_cast<std::uint32_t>(std::int32_t{limit})) {
            PlainFill{expected.data(), size.height, size.width, 1, 9, 1, {}}.run(y, x);
          }
        }
      }
      Guarded<std::uint8_t> image(std::span<const std::uint8_t>(picture),
                                  round % 2 == 0 ? Guard::kAfter : Guard::kBefore);
      ASSERT_EQ(RemoveSmallArea(image.data(), static_cast<std::int16_t>(size.height),
                                static_cast<std::int16_t>(size.width), 1, 9, limit),
                0);
      ASSERT_TRUE(std::equal(expected.begin(), expected.end(), image.begin()))
          << size.height << " x " << size.width << " limit " << limit;
    }
  }
}

TEST(RemoveSmallArea, RefusesAndSurvivesExhaustedMemory) {
  Picture image(64, 255);
  EXPECT_EQ(RemoveSmallArea(nullptr, 8, 8, 255, 0, 4), 2);
  EXPECT_EQ(RemoveSmallArea(image.data(), 8, 8, 255, 255, 4), 2);
  EXPECT_EQ(RemoveSmallArea(image.data(), 0, 8, 255, 0, 4), 2);
  EXPECT_EQ(RemoveSmallArea(image.data(), 8, -1, 255, 0, 4), 2);
  for (std::uint64_t failing = 1;; ++failing) {
    AllocationWatch watch(failing);
    const std::int32_t result = RemoveSmallArea(image.data(), 8, 8, 255, 0, 64);
    EXPECT_EQ(watch.outstanding(), 0);
    if (!watch.failed()) {
      EXPECT_EQ(result, 0);
      break;
    }
    EXPECT_EQ(result, 1);
    ASSERT_EQ(image, Picture(64, 255));
  }
  EXPECT_EQ(image, Picture(64, 0));
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
  for (const std::int32_t capacity : {0, -3, 4}) {
    AllocationWatch watch(1);
    zooInitList(&list, capacity);
    EXPECT_EQ(list.items, nullptr) << capacity;
    EXPECT_EQ(list.capacity, capacity == 4 ? 0 : capacity);
    EXPECT_EQ(zooPush(&list, 1) + zooPop(&list, &entry), 0);
    zooClearup(&list);
  }
  zooInitList(nullptr, 1);
  zooClearup(nullptr);
  EXPECT_EQ(zooPush(nullptr, 1) + zooPop(nullptr, &entry), 0);
  EXPECT_EQ(zooIsListEmpty(nullptr), 1);
}

}  // namespace

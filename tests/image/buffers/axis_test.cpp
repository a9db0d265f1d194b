// Tables of rotated window offsets.
#include <gtest/gtest.h>

#include <cmath>

#include "kelmtrova/image.h"
#include "tests/support/allocation.h"

namespace {

using kelm::test::AllocationWatch;

TEST(Axis, HoldsTheRotatedOffsets) {
  const struct {
    std::uint8_t n, width, height;
  } kCases[] = {{1, 1, 1}, {2, 3, 3}, {4, 5, 5}, {3, 4, 7}, {180, 16, 9}, {255, 255, 1}, {7, 1, 255}, {12, 255, 255}};
  for (const auto &c : kCases) {
    AxisPoint **tables = AxisTransform(c.n, c.width, c.height);
    ASSERT_NE(tables, nullptr);
    const auto step = static_cast<float>(3.1415926535898 / c.n);
    for (int r = 0; r <= c.n; ++r) {
      const auto phi = static_cast<float>(static_cast<double>(static_cast<float>(r) * step) - 1.5707963267949);
      const auto sn = -static_cast<float>(std::sin(static_cast<double>(phi)));
      const auto cs = static_cast<float>(std::cos(static_cast<double>(phi)));
      int wrong = 0;
      for (int i = 0; i < c.height; ++i) {
        for (int j = 0; j < c.width; ++j) {
          const auto di = static_cast<float>(i - c.height / 2), dj = static_cast<float>(j - c.width / 2);
          const AxisPoint &point = tables[r][i * c.width + j];
          wrong += point.x != std::lround(dj * cs + di * sn) || point.y != std::lround(di * cs - dj * sn);
        }
      }
      EXPECT_EQ(wrong, 0) << int{c.n} << " table " << r;
    }
    AxisDestroy(tables, c.n);
  }
}

TEST(Axis, WorkedExamples) {
  AxisPoint **three = AxisTransform(2, 3, 3);
  AxisPoint **five = AxisTransform(4, 5, 5);
  const struct {
    const AxisPoint *point;
    int x, y;
  } kCases[] = {{&three[1][0], -1, -1}, {&three[1][8], 1, 1}, {&three[0][2], -1, -1}, {&three[2][2], 1, 1},
                {&five[1][4], 0, -3},   {&five[1][20], 0, 3}, {&five[1][0], -3, 0},   {&five[1][12], 0, 0}};
  for (const auto &c : kCases) {
    EXPECT_EQ(c.point->x, c.x);
    EXPECT_EQ(c.point->y, c.y);
  }
  AxisDestroy(three, 2);
  AxisDestroy(five, 4);
}

TEST(Axis, NoTablesWithoutMemoryOrSize) {
  for (std::uint64_t failing = 1; failing <= 5; ++failing) {
    const AllocationWatch watch(failing);
    EXPECT_EQ(AxisTransform(3, 4, 4), nullptr);
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ(watch.outstanding(), 0);
  }
  EXPECT_EQ(AxisTransform(0, 4, 4), nullptr);
  EXPECT_EQ(AxisTransform(3, 0, 4), nullptr);
  EXPECT_EQ(AxisTransform(3, 4, 0), nullptr);
  AxisDestroy(nullptr, 3);
}

}  // namespace

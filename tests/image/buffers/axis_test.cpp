// SPDX-License-Identifier: Apache-2.0
// Tables of rotated window offsets.
#include <cmath>

#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace {

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
      for (int i = 0; i < c.height * c.width; ++i) {
        const auto di = static_cast<float>(i / c.width - c.height / 2);
        const auto dj = static_cast<float>(i % c.width - c.width / 2);
        const AxisPoint &point = tables[r][i];
        wrong += point.x != std::lround(dj * cs + di * sn) || point.y != std::lround(di * cs - dj * sn);
      }
      EXPECT_EQ(wrong, 0) << int{c.n} << " table " << r;
    }
    AxisDestroy(tables, c.n);
  }
}

TEST(Axis, WorkedExamples) {
  AxisPoint **five = AxisTransform(4, 5, 5);
  const int cases[][4] = {{1, 4, 0, -3}, {1, 20, 0, 3}, {1, 0, -3, 0}, {1, 12, 0, 0}};  // table, point, x, y
  for (const auto &[table, point, x, y] : cases) {
    EXPECT_TRUE(five[table][point].x == x && five[table][point].y == y) << point;
  }
  AxisDestroy(five, 4);
  EXPECT_EQ(AxisTransform(0, 4, 4), nullptr);
  EXPECT_EQ(AxisTransform(3, 0, 4), nullptr);
  EXPECT_EQ(AxisTransform(3, 4, 0), nullptr);
  AxisDestroy(nullptr, 3);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>

#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace {

using namespace kelm::test;

TEST(Complexity, CountsTheBoundary) {
  Bytes square(20 * 30, 0);
  for (std::size_t y = 4; y < 14; ++y) {
    std::fill_n(&square[y * 30 + 7], 10, std::uint8_t{255});
  }
  EXPECT_FLOAT_EQ(Complexity(square.data(), 20, 30, 255), 12.96F);
  EXPECT_EQ(Complexity(nullptr, 20, 30, 255), -1.0F);
  EXPECT_TRUE(std::isnan(Complexity(square.data(), 20, 30, 9)));
  EXPECT_TRUE(std::isnan(Complexity(square.data(), 2, 30, 0)));
  EXPECT_TRUE(std::isnan(Complexity(square.data(), -20, 30, 0)));
}

TEST(Complexity, EqualsTheModelOnPicturesOfAllSizes) {
  Random random(3);
  for (int size = 0; size < 120; ++size) {
    const int height = size < 3 ? 40 : 3 + random(60);
    const int width = size < 3 ? 16500 + size : 3 + random(300);
    const Bytes mask = picture(height, width, [&](int, int y) {
      const int kind = size == 0 ? y : random(8);  // full rows fill up the lanes of counters
      return kind == 0 ? 0 : kind == 1 ? random(256) : 255;
    });
    int area = 0;
    int inner = 0;
    for (int y = 1; y < height - 1; ++y) {
      for (int x = 1; x < width - 1; ++x) {
        const std::uint8_t *p = &mask[static_cast<std::size_t>(y * width + x)];
        area += *p == 255 ? 1 : 0;
        inner += *p == 255 && (p[-1] & p[1] & p[-width] & p[width]) != 0 ? 1 : 0;
      }
    }
    const float boundary = static_cast<float>(area) - static_cast<float>(inner);
    const Guarded<std::uint8_t> guarded(mask);
    const float result = call(Complexity, guarded.data(), height, width, 255);
    EXPECT_TRUE(area == 0 || result == boundary * boundary / static_cast<float>(area)) << height << " x " << width;
  }
}

}  // namespace

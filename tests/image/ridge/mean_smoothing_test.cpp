// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>

#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace {

using namespace kelm::test;
using Picture = Bytes;

Picture plainMean(const Picture &source, int height, int width) {
  return picture(height, width, [&](int x, int y) {
    int sum = 0;
    for (int v = std::max(y - 1, 0); v <= std::min(y + 1, height - 1); ++v) {
      for (int u = std::max(x - 1, 0); u <= std::min(x + 1, width - 1); ++u) {
        sum += source[static_cast<std::size_t>(v * width + u)];
      }
    }
    return sum / 9;
  });
}

TEST(MeanSmooth, EqualsThePlainMeanInPlaceApartAndOverlapping) {
  Random random(3);
  for (int width = 1; width <= 131; ++width) {
    const int w = width == 131 ? 1000 : width;
    const int h = 1 + random(9);
    const int size = h * w;
    const Picture source = picture(h, w, [&](int, int) { return random(3) == 0 ? 255 : random(256); });
    const Picture expected = plainMean(source, h, w);
    // The destination lies this many samples behind (positive) or before the source; `size` is apart.
    for (const int shift : {0, 1, -1, size / 2, -(size / 2), size}) {
      const Guarded<std::uint8_t> both(static_cast<std::size_t>(size + std::abs(shift)), guardOf(width));
      std::uint8_t *const from = both.data() + std::max(0, -shift);
      std::copy(source.begin(), source.end(), from);
      ASSERT_EQ(call(MeanSmooth, from, from + shift, h, w), 0);
      ASSERT_TRUE(same(from + shift, expected)) << h << " x " << w << " shift " << shift;
    }
  }
}

TEST(MeanSmooth, WorkedExamplesAndRefusals) {
  struct {
    std::uint8_t level;
    std::array<std::uint8_t, 3> interiorEdgeCorner;
  } const cases[] = {{90, {90, 60, 40}}, {255, {255, 170, 113}}};
  for (const auto &c : cases) {
    Picture image(25, c.level);
    ASSERT_EQ(MeanSmooth(image.data(), image.data(), 5, 5), 0);
    EXPECT_EQ((std::array{image[12], image[2], image[24]}), c.interiorEdgeCorner);
  }
  Picture image(25, 90);
  Picture out(25, 1);
  EXPECT_EQ(MeanSmooth(nullptr, out.data(), 5, 5), 2);
  EXPECT_EQ(MeanSmooth(image.data(), nullptr, 5, 5), 2);
  EXPECT_EQ(MeanSmooth(image.data(), out.data(), 0, 5), 2);
  EXPECT_EQ(MeanSmooth(image.data(), out.data(), 5, -5), 2);
  EXPECT_EQ(out, Picture(25, 1));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
#include "kelmtrova/image.h"
#include "tests/support/plain/quality.h"
#include "tests/support/samples.h"

namespace {

using namespace kelm::test;

void release(std::uint16_t **maps) {
  for (int d = 0; maps != nullptr && d < 4; ++d) {
    std::free(maps[d]);
  }
  std::free(maps);
}

void compare(int height, int width, int step, Random &random) {
  SCOPED_TRACE(testing::Message() << height << " x " << width << " step " << step);
  const Guarded<std::uint8_t> image(
      picture(height, width, [&](int, int) { return random(4) == 0 ? 255 : random(256); }), guardOf(width));
  std::uint16_t **maps = call(FpGetImg4DirectionGradsEx, image.data(), height, width, step);
  ASSERT_NE(maps, nullptr);
  const kelm::plain::Maps expected = kelm::plain::gradients(image.data(), height, width, step);
  const kelm::plain::Maps alone = kelm::plain::gradients(image.data(), height, width, step < 4 ? 4 : step, 0);
  for (std::size_t d = 0; d < 4; ++d) {
    EXPECT_TRUE(same(maps[d], expected[d]));
    std::uint16_t *map = nullptr;
    ASSERT_EQ(call(FpGetImg4DirectionGrads, image.data(), height, width, &map, d, step), step < 4 ? 2U : 0U);
    EXPECT_TRUE(step < 4 || same(map, alone[d]));
    std::free(map);
  }
  release(maps);
}

TEST(Gradients, EqualThePlainOnes) {
  Random random(5);
  for (int width = 1; width <= 130; ++width) {
    for (const int step : {3, 4, 5 + width % 12}) {
      compare(1 + random(40), width, step, random);
    }
  }
  compare(17, 3000, 4, random);
  compare(13, 32767, 4, random);
  compare(600, 600, 255, random);
}

TEST(Gradients, RefusalsAndEmptyGrids) {
  const std::vector<std::uint8_t> image(64, 9);
  std::uint16_t untouched = 0;
  std::uint16_t *map = &untouched;
  struct {
    const std::uint8_t *image;
    int height, width, direction, step;
  } const cases[] = {{nullptr, 8, 8, 0, 4},      {image.data(), 0, 8, 0, 4}, {image.data(), 8, -8, 0, 4},
                     {image.data(), 8, 8, 4, 4}, {image.data(), 8, 8, 0, 0}, {image.data(), 8, 8, 0, 3}};
  for (const auto &c : cases) {
    EXPECT_EQ(call(FpGetImg4DirectionGrads, c.image, c.height, c.width, &map, c.direction, c.step), 2U);
    const bool fits = c.direction != 0 || c.step == 3;
    std::uint16_t **maps = call(FpGetImg4DirectionGradsEx, c.image, c.height, c.width, c.step);
    EXPECT_EQ(maps != nullptr, fits);
    release(maps);
  }
  EXPECT_EQ(map, &untouched);
  EXPECT_EQ(FpGetImg4DirectionGrads(image.data(), 8, 8, nullptr, 0, 4), 2U);
  EXPECT_EQ(FpGetImg4DirectionGradsEx(image.data(), 8, 8, 2), nullptr);
  EXPECT_EQ(FpGetImg4DirectionGrads(image.data(), 3, 8, &map, 0, 4), 0U) << "a grid without points";
  EXPECT_NE(map, nullptr);
  std::free(map);
}

}  // namespace

#include <gtest/gtest.h>

#include <algorithm>
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
using Map = std::vector<std::uint16_t>;

constexpr int kSteps[4][2] = {{1, 0}, {1, -1}, {0, 1}, {1, 1}};

std::int16_t s16(int value) { return static_cast<std::int16_t>(value); }
std::uint8_t u8(int value) { return static_cast<std::uint8_t>(value); }

// `border`: points left at 0 at the far edges.
Map plainGradients(const std::uint8_t *image, int height, int width, int direction, int step, int border) {
  const int rows = height / step;
  const int cols = width / step;
  Map map(static_cast<std::size_t>(rows * cols), 0);
  const auto neighbour = [&](int y, int x, int k) {
    return int{image[(y + k * kSteps[direction][1]) * width + x + k * kSteps[direction][0]]};
  };
  for (int gy = 1; gy < rows - border; ++gy) {
    for (int gx = 1; gx < cols - border; ++gx) {
      int sum = 0;
      for (int k = -3; k <= 3; ++k) {
        sum += neighbour(gy * step, gx * step, k);
      }
      for (int k = -3; k <= 3; ++k) {
        const int difference = k == 0 ? 0 : std::abs(neighbour(gy * step, gx * step, k) - sum / 7);
        map[static_cast<std::size_t>(gy * cols + gx)] =
            static_cast<std::uint16_t>(map[static_cast<std::size_t>(gy * cols + gx)] + difference);
      }
    }
  }
  return map;
}

void release(std::uint16_t **maps) {
  for (int d = 0; maps != nullptr && d < 4; ++d) {
    std::free(maps[d]);
  }
  std::free(maps);
}

void compare(int height, int width, int step, Guard guard, std::mt19937 &random) {
  Guarded<std::uint8_t> image(static_cast<std::size_t>(height * width), guard);
  std::generate(image.begin(), image.end(),
                [&] { return random() % 4 == 0 ? u8(255) : u8(static_cast<int>(random() & 255)); });
  std::uint16_t **maps = FpGetImg4DirectionGradsEx(image.data(), s16(height), s16(width), u8(step));
  ASSERT_NE(maps, nullptr);
  for (int d = 0; d < 4; ++d) {
    const Map expected = plainGradients(image.data(), height, width, d, step, 1);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), maps[d])) << height << " x " << width << " step " << step;
    std::uint16_t *map = nullptr;
    const std::uint32_t result = FpGetImg4DirectionGrads(image.data(), s16(height), s16(width), &map, u8(d), u8(step));
    ASSERT_EQ(result, step < 4 ? 2U : 0U);
    if (step >= 4) {
      const Map single = plainGradients(image.data(), height, width, d, step, 0);
      EXPECT_TRUE(std::equal(single.begin(), single.end(), map)) << height << " x " << width << " step " << step;
    }
    std::free(map);
  }
  release(maps);
}

TEST(Gradients, EqualThePlainOnes) {
  std::mt19937 random(5);
  for (int width = 1; width <= 130; ++width) {
    for (const int step : {3, 4, 5 + width % 12}) {
      compare(1 + static_cast<int>(random() % 40), width, step, width % 2 == 0 ? Guard::kAfter : Guard::kBefore,
              random);
    }
  }
  compare(17, 3000, 4, Guard::kAfter, random);
  compare(13, 32767, 4, Guard::kAfter, random);
  compare(600, 600, 255, Guard::kAfter, random);
}

TEST(Gradients, RefusalsEmptyGridsAndExhaustedMemory) {
  const std::vector<std::uint8_t> image(64, 9);
  std::uint16_t untouched = 0;
  std::uint16_t *map = &untouched;
  struct {
    const std::uint8_t *image;
    int height, width, direction, step;
  } const cases[] = {{nullptr, 8, 8, 0, 4},      {image.data(), 0, 8, 0, 4}, {image.data(), 8, -8, 0, 4},
                     {image.data(), 8, 8, 4, 4}, {image.data(), 8, 8, 0, 0}, {image.data(), 8, 8, 0, 3}};
  for (const auto &c : cases) {
    EXPECT_EQ(FpGetImg4DirectionGrads(c.image, s16(c.height), s16(c.width), &map, u8(c.direction), u8(c.step)), 2U);
    const bool fits = c.direction != 0 || c.step == 3;
    std::uint16_t **maps = FpGetImg4DirectionGradsEx(c.image, s16(c.height), s16(c.width), u8(c.step));
    EXPECT_EQ(maps != nullptr, fits);
    release(maps);
  }
  EXPECT_EQ(map, &untouched);
  EXPECT_EQ(FpGetImg4DirectionGrads(image.data(), 8, 8, nullptr, 0, 4), 2U);
  EXPECT_EQ(FpGetImg4DirectionGradsEx(image.data(), 8, 8, 2), nullptr);
  AllocationWatch single(1);
  EXPECT_EQ(FpGetImg4DirectionGrads(image.data(), 8, 8, &map, 0, 4), 1U);
  EXPECT_EQ(map, nullptr);
  EXPECT_EQ(FpGetImg4DirectionGrads(image.data(), 3, 8, &map, 0, 4), 0U) << "a grid without points";
  EXPECT_NE(map, nullptr);
  std::free(map);
  std::uint16_t **maps = nullptr;
  for (std::uint64_t failing = 1; failing <= 6; ++failing) {
    AllocationWatch watch(failing);
    maps = FpGetImg4DirectionGradsEx(image.data(), 8, 8, 4);
    EXPECT_EQ(maps == nullptr, failing <= 5);
    EXPECT_EQ(watch.outstanding(), maps == nullptr ? 0 : 5);
  }
  release(maps);
}

}  // namespace

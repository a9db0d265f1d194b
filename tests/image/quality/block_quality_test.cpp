// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>

#include "kelmtrova/image.h"
#include "tests/support/plain/quality.h"
#include "tests/support/samples.h"

namespace {

using namespace kelm::test;
using Grades = Bytes;

std::int16_t s16(int value) { return static_cast<std::int16_t>(value); }

// Each row at the stride of the map.
Grades modelGrades(const std::uint16_t *const *grads, int height, int width) {
  kelm::plain::Maps maps;
  for (int d = 0; d < 4; ++d) {
    maps.emplace_back(grads[d], grads[d] + (height / 4) * (width / 4));
  }
  const Grades packed = kelm::plain::blockGrades(maps, height, width);
  const int cols = (width - 1) / 16 + 1;
  Grades grades(static_cast<std::size_t>(((height - 1) / 16 + 1) * cols), 0);
  for (int by = 0; by < height / 16; ++by) {
    std::copy_n(packed.begin() + by * (width / 16), width / 16, grades.begin() + by * cols);
  }
  return grades;
}

void expectGrades(const BlockQualityMap &map, const std::uint16_t *const *grads, int height, int width) {
  const Owned<std::uint8_t> owner(map.grades);
  const Grades expected = modelGrades(grads, height, width);
  ASSERT_EQ(expected.size(), static_cast<std::size_t>(map.rows * map.cols));
  EXPECT_TRUE(same(map.grades, expected)) << height << " x " << width;
}

TEST(BlockQuality, EqualsThePlainGrades) {
  Random random(6);
  for (int round = 0; round < 160; ++round) {
    const int width = round < 130 ? 16 + round : 200 + random(2400);
    const int height = 16 + random(90);
    const int contrast = 1 + random(256);
    const Guarded<std::uint8_t> image(picture(height, width,
                                              [&](int x, int y) {
                                                return static_cast<int>(127 + 100 * std::sin(x + round % 3 * y)) +
                                                       random(contrast) / 10;
                                              }),
                                      guardOf(round));
    BlockQualityMap map = {};
    ASSERT_EQ(ImageBlkQuality(&map, image.data(), s16(height), s16(width), ~0ULL), 0U);
    std::uint16_t **grads = FpGetImg4DirectionGradsEx(image.data(), s16(height), s16(width), 4);
    ASSERT_NE(grads, nullptr);
    expectGrades(map, grads, height, width);
    // The caller's maps may hold any values.
    for (int i = 0; i < 4 * (height / 4) * (width / 4); ++i) {
      grads[i % 4][i / 4] = static_cast<std::uint16_t>(random(round % 2 == 0 ? 0x10000 : 8));
    }
    ASSERT_EQ(ImageBlkQualityEx(&map, image.data(), s16(height), s16(width), 0, grads), 0U);
    expectGrades(map, grads, height, width);
    std::for_each_n(grads, 4, std::free);
    std::free(grads);
  }
}

TEST(BlockQuality, HeaderPartialBlocksAndRefusals) {
  const std::vector<std::uint8_t> flat(360 * 256, 80);
  struct {
    int height, width;
    std::uint32_t result;
    int rows, cols;
  } const cases[] = {{64, 64, 0, 4, 4}, {360, 256, 0, 23, 16}, {15, 40, 2, 1, 3}, {40, 15, 2, 3, 1}, {1, 1, 2, 1, 1}};
  for (const auto &c : cases) {
    BlockQualityMap map = {};
    EXPECT_EQ(ImageBlkQuality(&map, flat.data(), s16(c.height), s16(c.width), 0), c.result);
    EXPECT_TRUE(map.blkH == 16 && map.blkW == 16 && map.rows == c.rows && map.cols == c.cols) << c.height;
    ASSERT_NE(map.grades, nullptr);
    EXPECT_EQ(std::count(map.grades, map.grades + c.rows * c.cols, 0), c.rows * c.cols);
    std::free(map.grades);
  }
  std::uint8_t mark = 0;
  BlockQualityMap map = {1, 2, 3, 4, &mark};
  std::uint16_t values[16] = {};
  std::uint16_t *grads[4] = {values, values, nullptr, values};
  EXPECT_EQ(ImageBlkQuality(nullptr, flat.data(), 64, 64, 0), 2U);
  EXPECT_EQ(ImageBlkQuality(&map, nullptr, 64, 64, 0), 2U);
  EXPECT_EQ(ImageBlkQuality(&map, flat.data(), 0, 64, 0), 2U);
  EXPECT_EQ(ImageBlkQuality(&map, flat.data(), 64, -1, 0), 2U);
  EXPECT_EQ(ImageBlkQualityEx(&map, flat.data(), 16, 16, 0, grads), 2U);
  EXPECT_EQ(ImageBlkQualityEx(&map, flat.data(), 16, 16, 0, nullptr), 2U);
  EXPECT_EQ(ImageBlkQualityEx(&map, nullptr, 16, 16, 0, grads), 2U);
  EXPECT_EQ(map.rows, 3);
  EXPECT_EQ(map.grades, &mark);
}

}  // namespace

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
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
using Grades = std::vector<std::uint8_t>;

std::int16_t s16(int value) { return static_cast<std::int16_t>(value); }
std::uint8_t u8(int value) { return static_cast<std::uint8_t>(value); }

// The grades of the blocks, each row at the stride of the map; from direction maps.
Grades plainQuality(const std::uint16_t *const *grads, int height, int width) {
  const int gcols = width / 4;
  const int brows = height / 16;
  const int bcols = width / 16;
  const int cols = (width - 1) / 16 + 1;
  Grades packed(static_cast<std::size_t>(brows * bcols));
  for (int by = 0; by < brows; ++by) {
    for (int bx = 0; bx < bcols; ++bx) {
      int counter[4] = {};
      unsigned total = 0;
      for (int cell = 0; cell < 16; ++cell) {
        const int i = (4 * by + cell / 4) * gcols + 4 * bx + cell % 4;
        int sum = 0;
        int dominant = 0;
        for (int d = 0; d < 4; ++d) {
          sum += s16(grads[d][i]);
          dominant = s16(grads[d][i]) < s16(grads[dominant][i]) ? d : dominant;
        }
        ++counter[dominant];
        total += u8(std::min(sum >> 2, 255));
      }
      const float coherence = static_cast<float>(*std::max_element(counter, counter + 4)) / 16.0F;
      packed[static_cast<std::size_t>(by * bcols + bx)] =
          u8(static_cast<int>(static_cast<float>(total / 16) * coherence));
    }
  }
  MeanSmooth(packed.data(), packed.data(), s16(brows), s16(bcols));
  Grades grades(static_cast<std::size_t>(((height - 1) / 16 + 1) * cols), 0);
  for (int by = 0; by < brows; ++by) {
    std::copy_n(packed.begin() + by * bcols, bcols, grades.begin() + by * cols);
  }
  return grades;
}

TEST(BlockQuality, EqualsThePlainGrades) {
  std::mt19937 random(6);
  for (int round = 0; round < 160; ++round) {
    const int width = round < 130 ? 16 + round : 200 + static_cast<int>(random() % 2400);
    const int height = 16 + static_cast<int>(random() % 90);
    const auto size = static_cast<std::size_t>(height * width);
    Guarded<std::uint8_t> image(size, round % 2 == 0 ? Guard::kAfter : Guard::kBefore);
    const int contrast = 1 + static_cast<int>(random() % 256);
    for (std::size_t i = 0; i < size; ++i) {
      const auto across = static_cast<double>(static_cast<int>(i) % width + round % 3 * (static_cast<int>(i) / width));
      image[i] = u8(static_cast<int>(127 + 100 * std::sin(across)) +
                    static_cast<int>(random() % static_cast<std::uint32_t>(contrast)) / 10);
    }
    BlockQualityMap map = {};
    ASSERT_EQ(ImageBlkQuality(&map, image.data(), s16(height), s16(width), ~0ULL), 0U);
    std::uint16_t **grads = FpGetImg4DirectionGradsEx(image.data(), s16(height), s16(width), 4);
    ASSERT_NE(grads, nullptr);
    EXPECT_EQ(plainQuality(grads, height, width), Grades(map.grades, map.grades + map.rows * map.cols));
    std::free(map.grades);
    // The caller's maps may hold any values.
    const auto cells = static_cast<std::size_t>(height / 4 * (width / 4));
    for (int d = 0; d < 4; ++d) {
      std::free(grads[d]);
      auto *values = static_cast<std::uint16_t *>(std::malloc(cells * sizeof(std::uint16_t)));
      const std::uint32_t mask = round % 2 == 0 ? 0xFFFF : 0x7;
      std::generate_n(values, cells, [&] { return static_cast<std::uint16_t>(random() & mask); });
      grads[d] = values;
    }
    ASSERT_EQ(ImageBlkQualityEx(&map, image.data(), s16(height), s16(width), 0, grads), 0U);
    EXPECT_EQ(plainQuality(grads, height, width), Grades(map.grades, map.grades + map.rows * map.cols));
    std::free(map.grades);
    std::for_each_n(grads, 4, std::free);
    std::free(grads);
  }
}

// Blocks in the middle of 3 x 3 equal ones keep their grade through the smoothing.
TEST(BlockQuality, CoherenceAndMeanAreTruncatedApart) {
  for (const int surplus : {0, 15, 16}) {
    std::vector<std::uint16_t> maps[4];
    std::uint16_t *grads[4];
    for (int d = 0; d < 4; ++d) {
      maps[d].assign(12 * 12, 0);
      grads[d] = maps[d].data();
    }
    for (int i = 0; i < 144; ++i) {
      const int cell = i / 12 % 4 * 4 + i % 4;
      const int mean = 100 + (cell < surplus ? 1 : 0);
      // Twelve cells of direction 0, four of direction 2; the four values make up four times the mean.
      const int least = cell < 12 ? 0 : 2;
      for (int d = 0; d < 4; ++d) {
        maps[d][static_cast<std::size_t>(i)] = static_cast<std::uint16_t>(mean + (d == least ? -3 : 1));
      }
    }
    const std::uint8_t image = 0;
    BlockQualityMap map = {};
    ASSERT_EQ(ImageBlkQualityEx(&map, &image, 48, 48, 0, grads), 0U);
    EXPECT_EQ(map.grades[4], 75) << surplus;
    std::free(map.grades);
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
    EXPECT_EQ(map.blkH, 16);
    EXPECT_EQ(map.blkW, 16);
    EXPECT_EQ(map.rows, c.rows);
    EXPECT_EQ(map.cols, c.cols);
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
  EXPECT_EQ(map.rows, 3);
  EXPECT_EQ(map.grades, &mark);
}

TEST(BlockQuality, ExhaustedMemoryLeavesZeroGradesToTheCaller) {
  std::vector<std::uint8_t> image(64 * 64);
  std::generate(image.begin(), image.end(), [i = 0]() mutable { return i++ % 4 < 2 ? u8(0) : u8(255); });
  bool failed = true;
  for (std::uint64_t failing = 1; failed; ++failing) {
    BlockQualityMap map = {};
    AllocationWatch watch(failing);
    const std::uint32_t result = ImageBlkQuality(&map, image.data(), 64, 64, 0);
    failed = watch.failed();
    EXPECT_EQ(result, failed ? 1U : 0U);
    EXPECT_EQ(map.grades == nullptr, failing == 1);
    EXPECT_EQ(watch.outstanding(), map.grades == nullptr ? 0 : 1);
    EXPECT_EQ(map.grades == nullptr || map.grades[5] == 0, failed);
    std::free(map.grades);
  }
}

TEST(BlockQuality, RidgesGradeAboveNoiseAndNoiseAboveNothing) {
  std::mt19937 random(7);
  for (int degrees = 0; degrees < 180; degrees += 15) {
    constexpr int kEdge = 192;  // a third each of ridges, noise and paper
    std::vector<std::uint8_t> image(kEdge * kEdge);
    const double angle = degrees * 3.14159265358979 / 180;
    for (int i = 0; i < kEdge * kEdge; ++i) {
      const double phase = (i % kEdge * std::sin(angle) + i / kEdge * std::cos(angle)) * 6.2831853 / 9;
      const int noise = static_cast<int>(random() % 161);
      image[static_cast<std::size_t>(i)] =
          i % kEdge < 64 ? u8(static_cast<int>(128 + 80 * std::sin(phase))) : u8(i % kEdge < 128 ? 48 + noise : 230);
    }
    BlockQualityMap map = {};
    ASSERT_EQ(ImageBlkQuality(&map, image.data(), kEdge, kEdge, 0), 0U);
    int mean[3] = {};
    for (int row = 2; row < 10; ++row) {
      for (int third = 0; third < 3; ++third) {
        mean[third] += map.grades[row * 12 + 4 * third + 1] + map.grades[row * 12 + 4 * third + 2];
      }
    }
    EXPECT_GT(mean[0], mean[1] * 5 / 4) << degrees;
    EXPECT_GT(mean[1], mean[2]) << degrees;
    std::free(map.grades);
  }
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
#include "tests/support/plain/frequency.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace {

using namespace kelm::test;
using Shorts = std::vector<std::int16_t>;

struct Field {
  int rows, cols;
  Shorts data;
};

Field constantField(int height, int width, int direction) {
  const int rows = (height + 7) / 8;
  const int cols = (width + 7) / 8;
  return {rows, cols, Shorts(static_cast<std::size_t>(rows * cols), static_cast<std::int16_t>(direction))};
}

FingerprintBlockField recordOf(const Field &field, std::int16_t *directions) {
  return {8, static_cast<std::uint16_t>(field.rows), static_cast<std::uint16_t>(field.cols), directions};
}

Bytes modelMap(const Bytes &image, int height, int width, Field field) {
  return kelm::plain::Frequency().run(image.data(), height, width, recordOf(field, field.data.data()));
}

// The function on a picture and a field that lie hard against pages that cannot be touched, against the model.
testing::AssertionResult equalsModel(const Bytes &image, int height, int width, const Field &field, int round = 0) {
  const Guarded<std::uint8_t> pixels(image, guardOf(round));
  const Guarded<std::int16_t> directions(field.data, guardOf(round));
  const FingerprintBlockField record = recordOf(field, directions.data());
  std::uint8_t *map = nullptr;
  EXPECT_EQ(call(FpGetFrequency, pixels.data(), height, width, &record, &map), 0);
  const Owned<std::uint8_t> owner(map);
  return same(map, modelMap(image, height, width, field));
}

TEST(Frequency, StripesOfKnownPeriod) {
  // All gaps equal the period, three windows tie and the longest wins: one pixel more than the period.
  for (const auto &[period, expected] : {std::array{8, 72}, std::array{10, 88}}) {
    const Bytes image = picture(64, 64, [p = period](int, int y) { return y % p < p / 2 ? 200 : 50; });
    const Field field = constantField(64, 64, 0);
    ASSERT_TRUE(equalsModel(image, 64, 64, field));
    const Bytes map = modelMap(image, 64, 64, field);
    for (std::size_t i = 5; i < 11; ++i) {
      EXPECT_EQ(std::count(&map[16 * i + 5], &map[16 * i + 11], expected), 6) << i;
    }
  }
}

TEST(Frequency, EqualsTheModelOnPicturesOfAllSizes) {
  Random below(5);
  const int sizes[][2] = {{1, 1},   {3, 9},   {40, 4},  {20, 65},  {4, 4},    {5, 6},    {8, 7},    {17, 40},
                          {40, 17}, {37, 43}, {45, 61}, {64, 131}, {97, 200}, {200, 97}, {177, 313}};
  for (const auto &[height, width] : sizes) {
    for (int style = 0; style < 6; ++style) {
      const double fx = (below(200) - 100) / 100.0;
      const double fy = (below(200) - 100) / 100.0;
      const Bytes image = picture(height, width, [&](int x, int y) {
        const int wave = static_cast<int>(100 + 90 * std::sin(x * fx + y * fy));
        return style == 0 ? below(256) : style == 1 ? 100 * below(3) : style == 2 ? wave / 60 * 60 : wave;
      });
      Field field = constantField(height, width, 0);
      if (style % 2 == 1) {  // a field that does not cover the image, or more than it
        field.rows = 1 + below(2 * field.rows);
        field.cols = 1 + below(2 * field.cols);
      }
      const int turn = below(181);
      field.data = picture<std::int16_t>(field.rows, field.cols, [&](int, int) {
        return style < 4 ? below(361) - 180 : style == 4 ? turn : below(65536);
      });
      ASSERT_TRUE(equalsModel(image, height, width, field, style / 3)) << height << " x " << width << " " << style;
    }
  }
}

TEST(Frequency, EqualsTheModelInEveryDirection) {
  const Bytes image = picture(72, 88, [](int x, int y) { return (x * x / 9 + y * y / 7 + x * y / 5) % 251; });
  for (int d = -180; d <= 180; ++d) {
    ASSERT_TRUE(equalsModel(image, 72, 88, constantField(72, 88, d))) << d;
  }
}

TEST(Frequency, RefusesBadArguments) {
  std::uint8_t pixel = 9;
  std::int16_t direction = 0;
  std::uint8_t *map = &pixel;
  const FingerprintBlockField good = {8, 1, 1, &direction};
  const FingerprintBlockField bad[] = {{8, 1, 1, nullptr}, {8, 0, 1, &direction}, {8, 1, 0, &direction}};
  EXPECT_EQ(FpGetFrequency(nullptr, 1, 1, &good, &map), 2);
  EXPECT_EQ(FpGetFrequency(&pixel, 0, 1, &good, &map), 2);
  EXPECT_EQ(FpGetFrequency(&pixel, 1, -1, &good, &map), 2);
  EXPECT_EQ(FpGetFrequency(&pixel, 1, 1, nullptr, &map), 2);
  EXPECT_EQ(FpGetFrequency(&pixel, 1, 1, &good, nullptr), 2);
  for (const FingerprintBlockField &field : bad) {
    EXPECT_EQ(FpGetFrequency(&pixel, 1, 1, &field, &map), 2);
  }
  EXPECT_EQ(map, &pixel);
}

}  // namespace

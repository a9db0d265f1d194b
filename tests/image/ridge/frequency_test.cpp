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

// One cell after the other, point by point.
class Model {
 public:
  Model(const Bytes &image, int height, int width) : image_(image), height_(height), width_(width) {}

  Bytes map(const Field &field) {
    Bytes cells;
    for (int y = 0; y < height_ / 4 * 4; y += 4) {
      for (int x = 0; x < width_ / 4 * 4; x += 4) {
        const int bx = std::min(x / 8, field.cols - 1);
        const int by = std::min(y / 8, field.rows - 1);
        int d = field.data[static_cast<std::size_t>(bx + field.cols * (field.rows - 1 - by))];
        if (d < -180 || d > 180) {
          d %= 180;
        }
        const double angle = static_cast<float>((d < 0 ? d + 180 : d) * 3.141592653589793 / 180.0);
        sample(x, y, static_cast<int>(std::cos(angle) * 256.0), static_cast<int>(std::sin(angle) * 256.0));
        cells.push_back(static_cast<std::uint8_t>(std::min(255, value())));
      }
    }
    return cells;
  }

 private:
  void sample(int x, int y, int c, int s) {
    for (int k = -16; k <= 16; ++k) {
      int sum = 0;
      int count = 0;
      for (int j = -2; j <= 2; ++j) {
        const int sign = j < 0 ? -1 : 1;
        const int px = x - ((k * s) >> 8) + sign * ((std::abs(j) * c) >> 8);
        const int py = y + ((k * c) >> 8) + sign * ((std::abs(j) * s) >> 8);
        if (px >= 0 && px < width_ && py >= 0 && py < height_) {
          sum += image_[static_cast<std::size_t>(py * width_ + px)];
          ++count;
        }
      }
      if (count > 0) {
        p_[k + 16] = sum / count;
      }
    }
  }

  // direction 1: peaks; -1: valleys, which are the peaks of the negated profile.
  std::vector<int> turns(int direction) const {
    std::vector<int> list;
    int start = -1;
    int end = -1;
    for (int i = 1; i <= 31; ++i) {
      const int a = direction * p_[i - 1];
      const int b = direction * p_[i];
      const int c = direction * p_[i + 1];
      start = a < b && b >= c ? i : start;
      end = a <= b && b > c ? i : end;
      if (start >= 0 && end >= start) {
        list.push_back((start + end) / 2);
        start = end = -1;
      }
    }
    return list;
  }

  int value() const {
    const std::vector<int> peaks = turns(1);
    const std::vector<int> valleys = turns(-1);
    if (peaks.size() > 2 || valleys.size() > 2) {
      const std::vector<int> &list = peaks.size() > 2 ? peaks : valleys;
      int gaps[100] = {};
      for (std::size_t i = 1; i < list.size(); ++i) {
        ++gaps[list[i] - list[i - 1]];
      }
      int best = 0;
      int common = 0;
      for (int d = 2; d <= 49; ++d) {
        const int sum = gaps[d - 1] + gaps[d] + gaps[d + 1];
        common = sum >= best ? d : common;
        best = std::max(best, sum);
      }
      return 8 * common;
    }
    if (peaks.size() == 2 && valleys.size() == 2) {
      const int span = peaks[0] > valleys[0] ? peaks[1] - valleys[0] : valleys[1] - peaks[0];
      return 2 * (8 * span / 3);
    }
    return 255;
  }

  const Bytes &image_;
  int height_, width_;
  int p_[33] = {};
};

// The function on a picture and a field that lie hard against pages that cannot be touched, against the model.
testing::AssertionResult equalsModel(const Bytes &image, int height, int width, const Field &field, int round = 0) {
  const Guarded<std::uint8_t> pixels(image, guardOf(round));
  const Guarded<std::int16_t> directions(field.data, guardOf(round));
  const FingerprintBlockField record = {8, static_cast<std::uint16_t>(field.rows),
                                        static_cast<std::uint16_t>(field.cols), directions.data()};
  std::uint8_t *map = nullptr;
  EXPECT_EQ(call(FpGetFrequency, pixels.data(), height, width, &record, &map), 0);
  const Owned<std::uint8_t> owner(map);
  return same(map, Model(image, height, width).map(field));
}

TEST(Frequency, StripesOfKnownPeriod) {
  // All gaps equal the period, three windows tie and the longest wins: one pixel more than the period.
  for (const auto &[period, expected] : {std::array{8, 72}, std::array{10, 88}}) {
    const Bytes image = picture(64, 64, [p = period](int, int y) { return y % p < p / 2 ? 200 : 50; });
    const Field field = constantField(64, 64, 0);
    ASSERT_TRUE(equalsModel(image, 64, 64, field));
    const Bytes map = Model(image, 64, 64).map(field);
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

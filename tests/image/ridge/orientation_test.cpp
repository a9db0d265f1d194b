// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

#include "tests/support/allocation.h"
#include "tests/support/fields.h"

namespace {

using namespace kelm::test;
using Ints = std::vector<std::int32_t>;
using Floats = std::vector<float>;
using Shorts = std::vector<std::int16_t>;

struct Fields {
  Ints products, differences;
  Shorts direction8, orientGrad, direction16;
  bool operator==(const Fields &) const = default;
};

Shorts samplesOf(const FingerprintBlockField &f) { return Shorts(f.data, f.data + f.rows * f.cols); }

Fields fieldsOf(const Bytes &image, const Shape &s) {
  const Guarded<std::uint8_t> pixels(image);
  DirectionFields c;
  EXPECT_EQ(c.compute(pixels.data(), s), 0);
  const int n = s.height * s.width;
  const std::array<int, 9> heads = {c.direction8.blockSize,  c.direction8.rows,  c.direction8.cols,
                                    c.orientGrad.blockSize,  c.orientGrad.rows,  c.orientGrad.cols,
                                    c.direction16.blockSize, c.direction16.rows, c.direction16.cols};
  EXPECT_EQ(heads, (std::array<int, 9>{8, s.height / 4, s.width / 4, 8, s.height / 4, s.width / 4, 16,
                                       (s.fullHeight + 15) / 16, (s.fullWidth + 15) / 16}));
  return {Ints(c.products, c.products + n), Ints(c.differences, c.differences + n), samplesOf(c.direction8),
          samplesOf(c.orientGrad), samplesOf(c.direction16)};
}

std::int16_t degrees(double doubled) { return static_cast<std::int16_t>(doubled * 57.295779513 / 2.0); }

Shorts smooth(const Floats &angles, int rows, int cols, int window) {
  Floats cosines(angles.size());
  Floats sines(angles.size());
  for (std::size_t i = 0; i < angles.size(); ++i) {
    cosines[i] = static_cast<float>(std::cos(static_cast<double>(angles[i])));
    sines[i] = static_cast<float>(std::sin(static_cast<double>(angles[i])));
  }
  for (Floats *part : {&cosines, &sines}) {
    call(fvs_ImageLocalSumFloat2Float, part->data(), part->data(), rows, cols, window, window);
  }
  Shorts result;
  for (std::size_t i = 0; i < angles.size(); ++i) {
    result.push_back(degrees(std::atan2(static_cast<double>(sines[i]), static_cast<double>(cosines[i]))));
  }
  return result;
}

// The sums, which are compared with a model of their own.
Ints boxSum(Ints samples, int height, int width, int size) {
  call(fvs_ImageLocalSumInt2Int, samples.data(), samples.data(), height, width, size, size);
  return samples;
}

Shorts orientGradOf(const Shorts &d, int rows, int cols) {
  Ints change = picture<std::int32_t>(rows, cols, [&](int x, int y) {
    const std::int16_t *at = &d[static_cast<std::size_t>(y * cols + x)];
    if (y + 1 == rows || x + 1 == cols) {
      return 0;
    }
    const int a = AngleDiffAbs(at[0], at[1]);
    const int b = AngleDiffAbs(at[0], at[cols]);
    return static_cast<int>(std::sqrt(static_cast<double>(a * a + b * b)));
  });
  change = boxSum(boxSum(change, rows, cols, 3), rows, cols, 3);
  Shorts result;
  for (const int sum : change) {
    result.push_back(static_cast<std::int16_t>((sum + 41) / 81));
  }
  return result;
}

Fields model(const Bytes &image, const Shape &s) {
  Fields f;
  f.products.assign(image.size(), 0);
  f.differences.assign(image.size(), 0);
  for (int r = 1; r + 1 < s.height; ++r) {
    for (int c = 1; c + 1 < s.width; ++c) {
      const auto g = [&](int dy, int dx) -> int {
        return image[static_cast<std::size_t>((r + dy) * s.width + c + dx)];
      };
      const int gx = 2 * (g(0, 1) - g(0, -1)) + g(-1, 1) - g(-1, -1) + g(1, 1) - g(1, -1);
      const int gy = 2 * (g(1, 0) - g(-1, 0)) + g(1, -1) - g(-1, -1) + g(1, 1) - g(-1, 1);
      f.products[static_cast<std::size_t>(r * s.width + c)] = gx * gy * 2;
      f.differences[static_cast<std::size_t>(r * s.width + c)] = gy * gy - gx * gx;
    }
  }
  f.products = boxSum(f.products, s.height, s.width, s.window);
  f.differences = boxSum(f.differences, s.height, s.width, s.window);
  const auto angle = [&](int y, int x) {
    const std::size_t i = static_cast<std::size_t>(y * s.width + x);
    return static_cast<float>(std::atan2(static_cast<double>(f.products[i]), static_cast<double>(f.differences[i])));
  };
  Floats fine;
  Shorts raw;
  for (int b = 0; b < s.height / 4; ++b) {
    for (int k = 0; k < s.width / 4; ++k) {
      fine.push_back(angle(4 * b + 2, 4 * k + 2));
      raw.push_back(degrees(static_cast<double>(fine.back())));
    }
  }
  f.direction8 = smooth(fine, s.height / 4, s.width / 4, 5);
  f.orientGrad = orientGradOf(raw, s.height / 4, s.width / 4);
  Floats coarse;
  for (int b = 0; b < (s.fullHeight + 15) / 16; ++b) {
    for (int k = 0; k < (s.fullWidth + 15) / 16; ++k) {
      coarse.push_back(angle(std::min(b, s.height / 8 - 1) * 8 + 4, std::min(k, s.width / 8 - 1) * 8 + 4));
    }
  }
  f.direction16 = smooth(coarse, (s.fullHeight + 15) / 16, (s.fullWidth + 15) / 16, 3);
  return f;
}

TEST(Orientation, EqualsTheModel) {
  Random random(7);
  const Shape shapes[] = {{8, 8, 16, 16, 9},       {9, 15, 17, 18, 0},       {8, 16, 20, 36, 3},
                          {24, 31, 48, 50, 4},     {40, 33, 80, 70, 17},     {57, 90, 116, 180, 9},
                          {64, 48, 128, 100, 255}, {700, 800, 1400, 1600, 9}};  // angles enough that some are ambiguous
  for (const Shape &s : shapes) {
    for (const auto &[levels, step] : {std::array{1, 1}, std::array{12, 1}, std::array{2, 255}}) {
      const Bytes image = picture(s.height, s.width, [&, n = levels, by = step](int, int) { return random(n) * by; });
      ASSERT_TRUE(fieldsOf(image, s) == model(image, s)) << s.height << " x " << s.width << " / " << levels;
    }
  }
}

TEST(Orientation, RefusesWhatDoesNotFitTheGrid) {
  const Bytes image(64 * 64, 3);
  const Shape bad[] = {{7, 16, 16, 32, 3},  {16, 7, 32, 16, 3},  {0, 16, 0, 32, 3},        {16, 0, 32, 0, 3},
                       {16, 16, 16, 32, 3}, {16, 16, 49, 32, 3}, {16, 16, 32, 16, 3},      {16, 16, 32, 49, 3},
                       {16, 16, 0, 32, 3},  {16, 16, 32, 0, 3},  {16, 32768, 32, 65535, 3}};
  for (const Shape &s : bad) {
    DirectionFields arguments;
    arguments.direction8.blockSize = 3;
    EXPECT_EQ(arguments.compute(image.data(), s), 2)
        << s.height << ' ' << s.width << ' ' << s.fullHeight << ' ' << s.fullWidth;
    EXPECT_EQ(arguments.direction8.blockSize, 3);
    EXPECT_EQ(arguments.products, nullptr);
  }
  DirectionFields arguments;
  EXPECT_EQ(arguments.compute(nullptr, {16, 16, 32, 32, 3}), 2);
  for (int missing = 0; missing < 5; ++missing) {
    const auto unless = [&](int output, auto *given) { return output == missing ? nullptr : given; };
    EXPECT_EQ(FingerprintGetDirectionFloat(image.data(), 16, 16, 32, 32, 3, 0, unless(0, &arguments.products),
                                           unless(1, &arguments.differences), unless(2, &arguments.direction8),
                                           unless(3, &arguments.orientGrad), unless(4, &arguments.direction16)),
              2);
  }
}

TEST(AngleDiffAbs, WrapsAtTheHalfTurnAndReadsTheLowHalf) {
  const int cases[][3] = {{0, 179, 1},   {179, 0, 1},   {0, 90, 90},         {90, 0, 90},
                          {-80, 80, 20}, {80, -80, 20}, {65536 + 10, 0, 10}, {INT32_MIN, INT32_MAX, 1}};
  for (const auto &[a, b, expected] : cases) {
    EXPECT_EQ(AngleDiffAbs(a, b), expected) << a << ' ' << b;
  }
}

std::int16_t *heapCopy(const Shorts &samples) {
  std::int16_t *const copy = static_cast<std::int16_t *>(std::malloc(samples.size() * sizeof(std::int16_t) + 1));
  std::copy(samples.begin(), samples.end(), copy);
  return copy;
}

// The input stays whole when the memory for its own successor runs out; another output loses its data.
TEST(OrientGrad, OfItselfOfOthersAndWithoutMemory) {
  Shorts directions =
      picture<std::int16_t>(7, 9, [](int x, int y) { return (9 * y + x) * (9 * y + x) * 37 % 181 - 90; });
  for (const bool same : {false, true}) {
    for (std::uint64_t failing = 4; failing-- > 0;) {  // the last round has all the memory it wants
      FingerprintBlockField input = {16, 7, 9, heapCopy(directions)};
      FingerprintBlockField other = {1, 2, 3, heapCopy({4, 5})};
      FingerprintBlockField *output = same ? &input : &other;
      std::int32_t result = 0;
      {
        const AllocationWatch watch(failing);
        result = FingerprintOrientGrad(output, &input);
        EXPECT_EQ(watch.outstanding(), failing == 0 || same ? 0 : -1) << "the data of another output goes";
      }
      EXPECT_EQ(result, failing == 0 ? 0 : 1);
      if (failing == 0 || same) {
        EXPECT_EQ(samplesOf(*output), failing == 0 ? orientGradOf(directions, 7, 9) : directions);
        EXPECT_EQ(output->blockSize, 16);
      } else {
        EXPECT_EQ(other.data, nullptr);
      }
      std::free(input.data);
      std::free(other.data);
    }
  }
  FingerprintBlockField empty = {16, 7, 9, nullptr};
  FingerprintBlockField output = {1, 2, 3, directions.data()};
  EXPECT_EQ(FingerprintOrientGrad(&output, &empty), 2);
  EXPECT_EQ(output.data, directions.data());
  EXPECT_EQ(FingerprintOrientGrad(&output, nullptr), 2);
  EXPECT_EQ(FingerprintOrientGrad(nullptr, &output), 2);
  FingerprintBlockField nothing = {8, 0, 5, heapCopy({})};
  EXPECT_EQ(FingerprintOrientGrad(&nothing, &nothing), 0);
  std::free(nothing.data);
}

}  // namespace

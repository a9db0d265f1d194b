#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "kelmtrova/image.h"
#include "tests/support/allocation.h"
#include "tests/support/guarded.h"

namespace {

using kelm::test::AllocationWatch;
using kelm::test::Guarded;
using Bytes = std::vector<std::uint8_t>;
using Ints = std::vector<std::int32_t>;
using Floats = std::vector<float>;
using Shorts = std::vector<std::int16_t>;

struct Shape {
  int height, width, fullHeight, fullWidth, window;
};

struct Fields {
  Ints products, differences;
  Shorts direction8, orientGrad, direction16;
  bool operator==(const Fields &) const = default;
};

// The arguments of one call and what it leaves in them.
struct Call {
  std::int32_t *products = nullptr;
  std::int32_t *differences = nullptr;
  FingerprintBlockField direction8 = {}, orientGrad = {}, direction16 = {};

  std::int32_t run(const std::uint8_t *image, const Shape &s) {
    return FingerprintGetDirectionFloat(image, static_cast<std::uint16_t>(s.height),
                                        static_cast<std::uint16_t>(s.width), static_cast<std::uint16_t>(s.fullHeight),
                                        static_cast<std::uint16_t>(s.fullWidth), static_cast<std::uint8_t>(s.window),
                                        77, &products, &differences, &direction8, &orientGrad, &direction16);
  }
  ~Call() {
    for (void *block :
         {static_cast<void *>(products), static_cast<void *>(differences), static_cast<void *>(direction8.data),
          static_cast<void *>(orientGrad.data), static_cast<void *>(direction16.data)}) {
      std::free(block);
    }
  }
};

Shorts samplesOf(const FingerprintBlockField &f) { return Shorts(f.data, f.data + f.rows * f.cols); }

Fields fieldsOf(const Bytes &image, const Shape &s) {
  const Guarded<std::uint8_t> pixels(image);
  Call call;
  EXPECT_EQ(call.run(pixels.data(), s), 0);
  const int n = s.height * s.width;
  const std::array<int, 9> heads = {call.direction8.blockSize,  call.direction8.rows,  call.direction8.cols,
                                    call.orientGrad.blockSize,  call.orientGrad.rows,  call.orientGrad.cols,
                                    call.direction16.blockSize, call.direction16.rows, call.direction16.cols};
  EXPECT_EQ(heads, (std::array<int, 9>{8, s.height / 4, s.width / 4, 8, s.height / 4, s.width / 4, 16,
                                       (s.fullHeight + 15) / 16, (s.fullWidth + 15) / 16}));
  return {Ints(call.products, call.products + n), Ints(call.differences, call.differences + n),
          samplesOf(call.direction8), samplesOf(call.orientGrad), samplesOf(call.direction16)};
}

std::int16_t degrees(double doubled) { return static_cast<std::int16_t>(doubled * 57.295779513 / 2.0); }

Shorts smooth(const Floats &angles, int rows, int cols, std::uint8_t window) {
  Floats cosines(angles.size());
  Floats sines(angles.size());
  for (std::size_t i = 0; i < angles.size(); ++i) {
    cosines[i] = static_cast<float>(std::cos(static_cast<double>(angles[i])));
    sines[i] = static_cast<float>(std::sin(static_cast<double>(angles[i])));
  }
  for (Floats *part : {&cosines, &sines}) {
    fvs_ImageLocalSumFloat2Float(part->data(), part->data(), static_cast<std::int16_t>(rows),
                                 static_cast<std::int16_t>(cols), window, window);
  }
  Shorts result;
  for (std::size_t i = 0; i < angles.size(); ++i) {
    result.push_back(degrees(std::atan2(static_cast<double>(sines[i]), static_cast<double>(cosines[i]))));
  }
  return result;
}

Shorts orientGradOf(const Shorts &d, int rows, int cols) {
  const auto weighed = [](int distance) { return 3 - std::abs(distance); };
  Shorts result;
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      int sum = 0;
      for (int y = std::max(0, r - 2); y <= std::min(rows - 1, r + 2); ++y) {
        for (int x = std::max(0, c - 2); x <= std::min(cols - 1, c + 2); ++x) {
          if (y + 1 == rows || x + 1 == cols) {
            continue;
          }
          const std::int16_t *at = &d[static_cast<std::size_t>(y * cols + x)];
          const int a = AngleDiffAbs(at[0], at[1]);
          const int b = AngleDiffAbs(at[0], at[cols]);
          // Two 3 x 3 sums that are cut at the border see a sample along the ways that stay inside.
          int ways = 0;
          for (int my = r - 1; my <= r + 1; ++my) {
            for (int mx = c - 1; mx <= c + 1; ++mx) {
              ways += my >= 0 && my < rows && mx >= 0 && mx < cols && std::abs(my - y) <= 1 && std::abs(mx - x) <= 1;
            }
          }
          EXPECT_LE(ways, weighed(y - r) * weighed(x - c));
          sum += ways * static_cast<int>(std::sqrt(static_cast<double>(a * a + b * b)));
        }
      }
      result.push_back(static_cast<std::int16_t>((sum + 41) / 81));
    }
  }
  return result;
}

Ints boxSum(const Ints &in, const Shape &s) {
  Ints out;
  const int h = s.window >> 1;
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < s.width; ++x) {
      std::uint32_t sum = 0;
      for (int v = std::max(0, y - h); v <= std::min(s.height - 1, y + h); ++v) {
        for (int u = std::max(0, x - h); u <= std::min(s.width - 1, x + h); ++u) {
          sum += static_cast<std::uint32_t>(in[static_cast<std::size_t>(v * s.width + u)]);
        }
      }
      out.push_back(static_cast<std::int32_t>(sum));
    }
  }
  return out;
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
  f.products = boxSum(f.products, s);
  f.differences = boxSum(f.differences, s);
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
  std::mt19937 random(7);
  const Shape shapes[] = {{8, 8, 16, 16, 9},    {9, 15, 17, 18, 0},    {8, 16, 20, 36, 3},     {24, 31, 48, 50, 4},
                          {40, 33, 80, 70, 17}, {57, 90, 116, 180, 9}, {64, 48, 128, 100, 255}};
  for (const Shape &s : shapes) {
    for (int amplitude : {1, 12, 255}) {
      Bytes image(static_cast<std::size_t>(s.height * s.width));
      for (std::uint8_t &pixel : image) {
        pixel = static_cast<std::uint8_t>(amplitude == 255 ? random() % 2 * 255
                                                           : random() % static_cast<unsigned>(amplitude));
      }
      ASSERT_TRUE(fieldsOf(image, s) == model(image, s)) << s.height << " x " << s.width << " / " << amplitude;
    }
  }
}

TEST(Orientation, RefusesWhatDoesNotFitTheGrid) {
  const Bytes image(64 * 64, 3);
  const Shape bad[] = {{7, 16, 16, 32, 3},  {16, 7, 32, 16, 3},  {0, 16, 0, 32, 3},        {16, 0, 32, 0, 3},
                       {16, 16, 16, 32, 3}, {16, 16, 49, 32, 3}, {16, 16, 32, 16, 3},      {16, 16, 32, 49, 3},
                       {16, 16, 0, 32, 3},  {16, 16, 32, 0, 3},  {16, 32768, 32, 65535, 3}};
  for (const Shape &s : bad) {
    Call call;
    call.direction8.blockSize = 3;
    EXPECT_EQ(call.run(image.data(), s), 2) << s.height << ' ' << s.width << ' ' << s.fullHeight << ' ' << s.fullWidth;
    EXPECT_EQ(call.direction8.blockSize, 3);
    EXPECT_EQ(call.products, nullptr);
  }
  Call call;
  EXPECT_EQ(call.run(nullptr, {16, 16, 32, 32, 3}), 2);
  Call *const c = &call;
  const auto with = [&](std::int32_t **p, std::int32_t **d, FingerprintBlockField *f8, FingerprintBlockField *g,
                        FingerprintBlockField *f16) {
    return FingerprintGetDirectionFloat(image.data(), 16, 16, 32, 32, 3, 0, p, d, f8, g, f16);
  };
  EXPECT_EQ(with(nullptr, &c->differences, &c->direction8, &c->orientGrad, &c->direction16), 2);
  EXPECT_EQ(with(&c->products, nullptr, &c->direction8, &c->orientGrad, &c->direction16), 2);
  EXPECT_EQ(with(&c->products, &c->differences, nullptr, &c->orientGrad, &c->direction16), 2);
  EXPECT_EQ(with(&c->products, &c->differences, &c->direction8, nullptr, &c->direction16), 2);
  EXPECT_EQ(with(&c->products, &c->differences, &c->direction8, &c->orientGrad, nullptr), 2);
}

TEST(Orientation, ExhaustedMemoryAnywhereHandsNothingOver) {
  const Bytes image(40 * 40, 5);
  std::int16_t earlier = 0;
  for (std::uint64_t failing = 1;; ++failing) {
    Call call;
    call.direction8.data = &earlier;
    std::int32_t result = 0;
    bool failed = false;
    {
      AllocationWatch watch(failing);
      result = call.run(image.data(), {40, 40, 80, 80, 9});
      failed = watch.failed();
      EXPECT_EQ(watch.outstanding(), failed ? 0 : 5) << failing;
    }
    if (!failed) {
      EXPECT_EQ(result, 0);
      EXPECT_GT(failing, 10U);
      break;
    }
    EXPECT_EQ(result, 1);
    EXPECT_EQ(call.direction8.data, &earlier);
    EXPECT_EQ(call.direction8.rows, 10);
    EXPECT_EQ(call.orientGrad.data, nullptr);
    EXPECT_EQ(call.orientGrad.cols, 10);
    EXPECT_EQ(call.products, nullptr);
    EXPECT_EQ(call.differences, nullptr);
    EXPECT_EQ(call.direction16.rows, 0);
    call.direction8.data = nullptr;
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

TEST(OrientGrad, OfItselfOfOthersAndWithoutMemory) {
  Shorts directions(7 * 9);
  for (std::size_t i = 0; i < directions.size(); ++i) {
    directions[i] = static_cast<std::int16_t>(i * i * 37 % 181 - 90);
  }
  const Shorts expected = orientGradOf(directions, 7, 9);
  for (const bool same : {false, true}) {
    for (std::uint64_t failing = 4; failing-- > 0;) {  // the last round has all the memory it wants
      FingerprintBlockField input = {16, 7, 9, heapCopy(directions)};
      FingerprintBlockField other = {1, 2, 3, heapCopy({4, 5})};
      FingerprintBlockField *output = same ? &input : &other;
      std::int32_t result = 0;
      {
        const AllocationWatch watch(failing);
        result = FingerprintOrientGrad(output, &input);
      }
      EXPECT_EQ(result, failing == 0 ? 0 : 1);
      if (failing == 0) {
        EXPECT_EQ(samplesOf(*output), expected);
        EXPECT_EQ(output->blockSize, 16);
      } else if (same) {
        EXPECT_EQ(samplesOf(input), directions);  // still whole
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

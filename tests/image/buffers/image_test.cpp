// SPDX-License-Identifier: Apache-2.0
// Buffer operations against plain loops.
#include "kelmtrova/image.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "tests/support/samples.h"

namespace {

using namespace kelm::test;
using Image = Bytes;

TEST(Image, CopiesAndFillsExactlyTheImage) {
  Random random(1);
  const Image source = noise(7, 13, random);
  Image copy(source.size() + 2, 9);
  EXPECT_EQ(ImageCopy(copy.data() + 1, source.data(), 7, 13), 0);
  EXPECT_TRUE(copy.front() == 9 && copy.back() == 9 && std::equal(source.begin(), source.end(), copy.begin() + 1));
  EXPECT_EQ(ImageFlood(copy.data() + 1, 200, 13, 7), 0);
  EXPECT_EQ(std::count(copy.begin() + 1, copy.end() - 1, 200), 91);
  EXPECT_EQ(ImageClear(copy.data() + 1, 90, 1), 0);
  EXPECT_TRUE(copy.front() == 9 && copy.back() == 9 && copy[91] == 200 &&
              std::count(copy.begin(), copy.end(), 0) == 90);
  EXPECT_EQ(ImageCopy(copy.data(), source.data(), 0, 9) + ImageFlood(copy.data(), 1, 9, 0), 0);
  EXPECT_EQ(copy[0], 9);
  EXPECT_EQ(ImageCopy(nullptr, source.data(), 1, 1), 1);
  EXPECT_EQ(ImageCopy(copy.data(), nullptr, 1, 1), 1);
  EXPECT_EQ(ImageFlood(nullptr, 1, 1, 1), 1);
  EXPECT_EQ(ImageClear(nullptr, 0, 0), 1);
}

Image plainEnlarge(const std::uint8_t *source, int sourceWidth, int height, int width) {
  return picture(height, width, [&](int x, int y) { return source[y / 2 * sourceWidth + x / 2]; });
}

Image plainReduce(const std::uint8_t *source, int sourceWidth, int height, int width) {
  return picture(height, width, [&](int x, int y) {
    const std::uint8_t *s = source + 2 * y * sourceWidth + 2 * x;
    const auto row = [&](const std::uint8_t *r) {
      return 0.4015F * static_cast<float>(r[0]) + 0.2992F * static_cast<float>(r[-1] + r[1]);
    };
    return x == 0 || y == 0 ? *s : 0.4015F * row(s) + 0.2992F * (row(s - sourceWidth) + row(s + sourceWidth));
  });
}

// Over every small width, and widths and heights of more than one strip of the kernels.
template <typename Function, typename Model>
void compareResized(Function function, Model model, bool reduces) {
  std::vector<std::pair<int, int>> extents = {{2, 1025}, {3, 2200}, {1, 40}, {40, 1}, {200, 3}, {512, 700}};
  for (int width = 1; width <= 130; ++width) {
    extents.emplace_back(1 + width % 5, width);
  }
  Random random(2);
  for (const auto &[height, width] : extents) {
    SCOPED_TRACE(testing::Message() << height << " x " << width);
    const int single = height == 1 || width == 1 ? 1 : 0;  // without neighbours the last row and column are not read
    const int rows = reduces ? 2 * height - single : (height + 1) / 2;
    const int columns = reduces ? 2 * width - single : (width + 1) / 2;
    for (const int gap : {0, 3}) {  // a source wider than what is read
      for (const Guard guard : {Guard::kBefore, Guard::kAfter}) {
        const Guarded<std::uint8_t> source(noise(rows, columns + gap, random), guard);
        const Owned<std::uint8_t> out(call(function, source.data(), rows, columns + gap, height, width));
        ASSERT_NE(out, nullptr);
        ASSERT_TRUE(same(out.get(), model(source.data(), columns + gap, height, width)));
        if (rows > 1) {  // 0 would be a height that is not given
          EXPECT_EQ(call(function, source.data(), rows - 1, columns + gap, height, width), nullptr);
        }
        const Owned<std::uint8_t> unknown(call(function, source.data(), 0, columns + gap, height, width));
        EXPECT_TRUE(unknown != nullptr && same(unknown.get(), {out.get(), out.get() + height * width}));
        EXPECT_EQ(call(function, source.data(), rows, columns - 1, height, width), nullptr);
      }
    }
  }
  const Image source(16, 1);
  EXPECT_NE(Owned<std::uint8_t>(function(source.data(), 0, 0, 0, 5)), nullptr);
  EXPECT_NE(Owned<std::uint8_t>(function(source.data(), 4, 4, 5, 0)), nullptr);
  EXPECT_EQ(function(nullptr, 4, 4, 2, 2), nullptr);
}

TEST(Image, ResizesAsThePlainLoop) {
  compareResized(ImageEnlarge, plainEnlarge, false);
  compareResized(ImageReduce, plainReduce, true);
  for (const std::uint8_t level : {std::uint8_t{100}, std::uint8_t{255}}) {
    const Image uniform(16, level);
    const Owned<std::uint8_t> out(ImageReduce(uniform.data(), 4, 4, 2, 2));
    EXPECT_TRUE(same(out.get(), Image{level, level, level, static_cast<std::uint8_t>(level - 1)}));
  }
}

Image plainNormalize(const Image &image, int targetMean, std::uint32_t targetVariance) {
  std::int64_t sum = 0, squares = 0;
  const auto count = static_cast<std::int64_t>(image.size());
  for (const int p : image) {
    sum += p;
  }
  const int m = static_cast<int>((sum + count / 2) / count);
  for (const int p : image) {
    squares += (p - m) * (p - m);
  }
  const auto root = [](std::int64_t v) {
    return static_cast<float>(std::sqrt(static_cast<double>(static_cast<float>(v))));
  };
  const float sd = root((squares + count / 2) / count);
  const float gain = sd > 0 ? root(targetVariance) / sd : 0;
  Image out;
  for (const int p : image) {
    float val = static_cast<float>(p - m) * gain + static_cast<float>(targetMean);
    val = val < 0 ? 0 : val > 255.0F ? 255.0F : val;
    out.push_back(static_cast<std::uint8_t>(static_cast<double>(val) + 0.5));
  }
  return out;
}

TEST(Image, NormalizesAsThePlainLoop) {
  Random random(7);
  for (int round = 1; round <= 1200; ++round) {
    // Every width up to 130; many different gains, each over (nearly) all grey levels.
    const int width = round <= 130 ? round : 701;
    const int height = round % 3 == 0 ? 5 : 1;
    const Image pixels = picture(height, width, [&](int, int) { return random(256) >> (round % 4); });
    const auto mean = static_cast<std::uint8_t>(random(256));
    const std::uint32_t variance = random() >> random(32);
    const Guarded<std::uint8_t> image(pixels, guardOf(round));
    EXPECT_EQ(call(ImageNormalize, image.data(), height, width, mean, variance), 0);
    ASSERT_TRUE(same(image.data(), plainNormalize(pixels, mean, variance))) << round;
  }
}

// 41 * (1 / 82) is the number just below 0.5 in single precision, where adding 0.5 to it gives 1; in double it does
// not. With the variance 41 * 41 it is a half exactly, and rounded up.
TEST(Image, NormalizeRoundsInDoublePrecision) {
  for (const unsigned variance : {1U, 41U * 41U}) {
    Image image(40002, 100 - 82);
    std::fill_n(image.begin(), 20000, 100 + 82);
    image[0] = 100 + 41;
    image[20000] = 100 - 41;
    image[20001] = 100 + 82;
    Image expected = plainNormalize(image, 0, variance);
    EXPECT_EQ(expected[0], variance == 1 ? 0 : 21);
    EXPECT_EQ(expected[1], variance == 1 ? 1 : 41);
    EXPECT_EQ(ImageNormalize(image.data(), 6, 6667, 0, variance), 0);
    EXPECT_EQ(image, expected);
  }
}

TEST(Image, NormalizeAtTheEdges) {
  Image uniform(100, 7);
  EXPECT_EQ(ImageNormalize(uniform.data(), 10, 10, 250, 4000), 0);
  EXPECT_EQ(uniform, Image(100, 250));
  Image image = {0, 255};
  EXPECT_EQ(ImageNormalize(image.data(), 0, 2, 9, 9), 0);
  EXPECT_EQ(ImageNormalize(image.data(), 1, 2, 250, 0xFFFFFFFFU), 0);
  EXPECT_EQ(image, (Image{0, 255}));
  EXPECT_EQ(ImageNormalize(nullptr, 1, 1, 1, 1), 1);
}

}  // namespace

// Buffer operations against plain loops.
#include "kelmtrova/image.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/allocation.h"
#include "tests/support/guarded.h"

namespace {

using kelm::test::AllocationWatch;
using kelm::test::Guard;
using kelm::test::Guarded;
using Image = std::vector<std::uint8_t>;

constexpr auto kGuards = {Guard::kBefore, Guard::kAfter};

Image randomImage(std::size_t size, unsigned seed) {
  std::minstd_rand random(seed);
  Image image(size);
  std::generate(image.begin(), image.end(), [&] { return static_cast<std::uint8_t>(random() >> 8); });
  return image;
}

// What a function handed back, as a vector; a size other than the real one is reported by the sanitizers.
Image take(std::uint8_t *buffer, std::size_t size) {
  Image image(buffer, buffer + size);
  std::free(buffer);
  return image;
}

TEST(Image, CopiesAndFillsExactlyTheImage) {
  const Image source = randomImage(7 * 13, 1);
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
  Image out;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      out.push_back(source[y / 2 * sourceWidth + x / 2]);
    }
  }
  return out;
}

Image plainReduce(const std::uint8_t *source, int sourceWidth, int height, int width) {
  Image out;
  const auto row = [&](int r, int x) {
    const std::uint8_t *s = source + r * sourceWidth + 2 * x;
    return 0.4015F * static_cast<float>(s[0]) + 0.2992F * static_cast<float>(s[-1] + s[1]);
  };
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (x == 0 || y == 0) {
        out.push_back(source[2 * y * sourceWidth + 2 * x]);
      } else {
        const float value = 0.4015F * row(2 * y, x) + 0.2992F * (row(2 * y - 1, x) + row(2 * y + 1, x));
        out.push_back(static_cast<std::uint8_t>(value));
      }
    }
  }
  return out;
}

// Output extents: every small width, and widths and heights of more than one strip of the kernels.
std::vector<std::pair<int, int>> extents() {
  std::vector<std::pair<int, int>> all = {{2, 1025}, {3, 2200}, {1, 40}, {40, 1}, {200, 3}, {512, 700}};
  for (int width = 1; width <= 130; ++width) {
    all.emplace_back(1 + width % 5, width);
  }
  return all;
}

TEST(Image, EnlargesAsThePlainLoop) {
  for (const std::pair<int, int> &extent : extents()) {
    const int height = extent.first;
    const int width = extent.second;
    for (const int gap : {0, 3}) {  // a source wider than what is read
      const int sourceHeight = (height + 1) / 2;
      const int sourceWidth = (width + 1) / 2 + gap;
      const Image pixels = randomImage(static_cast<std::size_t>(sourceHeight * sourceWidth), 2);
      for (const Guard guard : kGuards) {
        const Guarded<std::uint8_t> source(pixels, guard);
        const auto call = [&](int rows, int columns) {
          return ImageEnlarge(source.data(), static_cast<std::uint16_t>(rows), static_cast<std::uint16_t>(columns),
                              static_cast<std::uint16_t>(height), static_cast<std::uint16_t>(width));
        };
        std::uint8_t *out = call(sourceHeight, sourceWidth);
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(take(out, static_cast<std::size_t>(height * width)),
                  plainEnlarge(source.data(), sourceWidth, height, width))
            << height << " x " << width;
        EXPECT_EQ(call(sourceHeight - 1, sourceWidth), nullptr);
        EXPECT_EQ(call(sourceHeight, (width + 1) / 2 - 1), nullptr);
      }
    }
  }
}

TEST(Image, ReducesAsThePlainLoop) {
  for (const std::pair<int, int> &extent : extents()) {
    const int height = extent.first;
    const int width = extent.second;
    for (const int gap : {0, 3}) {
      const int single = height == 1 || width == 1 ? 1 : 0;  // without neighbours the last row and column are not read
      const int sourceHeight = 2 * height - single;
      const int sourceWidth = 2 * width - single + gap;
      const Image pixels = randomImage(static_cast<std::size_t>(sourceHeight * sourceWidth), 3);
      for (const Guard guard : kGuards) {
        const Guarded<std::uint8_t> source(pixels, guard);
        const auto call = [&](int rows, int columns) {
          return ImageReduce(source.data(), static_cast<std::uint16_t>(rows), static_cast<std::uint16_t>(columns),
                             static_cast<std::uint16_t>(height), static_cast<std::uint16_t>(width));
        };
        std::uint8_t *out = call(sourceHeight, sourceWidth);
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(take(out, static_cast<std::size_t>(height * width)),
                  plainReduce(source.data(), sourceWidth, height, width))
            << height << " x " << width;
        EXPECT_EQ(call(sourceHeight - 1, sourceWidth), nullptr);
        EXPECT_EQ(call(sourceHeight, 2 * width - single - 1), nullptr);
      }
    }
  }
  const Image uniform(16, 100);
  EXPECT_EQ(take(ImageReduce(uniform.data(), 4, 4, 2, 2), 4), (Image{100, 100, 100, 99}));
  const Image white(16, 255);
  EXPECT_EQ(take(ImageReduce(white.data(), 4, 4, 2, 2), 4), (Image{255, 255, 255, 254}));
}

TEST(Image, NewImagesOfNoSizeAndWithoutMemory) {
  const Image source(16, 1);
  for (const auto function : {ImageEnlarge, ImageReduce}) {
    std::uint8_t *empty = function(source.data(), 0, 0, 0, 5);
    EXPECT_NE(empty, nullptr);
    std::free(empty);
    empty = function(source.data(), 4, 4, 5, 0);
    EXPECT_NE(empty, nullptr);
    std::free(empty);
    EXPECT_EQ(function(nullptr, 4, 4, 2, 2), nullptr);
    const AllocationWatch watch(1);
    EXPECT_EQ(function(source.data(), 4, 4, 2, 2), nullptr);
    EXPECT_EQ(watch.outstanding(), 0);
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
  std::minstd_rand random(7);
  for (std::uint16_t round = 1; round <= 1200; ++round) {
    // Every width up to 130; many different gains, each over (nearly) all grey levels.
    const auto width = static_cast<std::uint16_t>(round <= 130 ? round : 701);
    const std::uint16_t height = round % 3 == 0 ? 5 : 1;
    Image pixels = randomImage(std::size_t{width} * height, round);
    for (std::uint8_t &p : pixels) {
      p = static_cast<std::uint8_t>(p >> (round % 4));
    }
    const auto mean = static_cast<std::uint8_t>(random());
    const auto variance = static_cast<std::uint32_t>(random() >> (random() % 32));
    const Guarded<std::uint8_t> image(pixels, round % 2 == 0 ? Guard::kBefore : Guard::kAfter);
    EXPECT_EQ(ImageNormalize(image.data(), height, width, mean, variance), 0);
    ASSERT_EQ(Image(image.begin(), image.end()), plainNormalize(pixels, mean, variance)) << round;
  }
}

// 41 * (1 / 82) is the number just below 0.5 in single precision, where adding 0.5 to it gives 1; in double it does
// not.
TEST(Image, NormalizeRoundsInDoublePrecision) {
  Image image(40002, 100 - 82);
  std::fill_n(image.begin(), 20000, 100 + 82);
  image[0] = 100 + 41;
  image[20000] = 100 - 41;
  image[20001] = 100 + 82;
  Image expected = plainNormalize(image, 0, 1);
  EXPECT_EQ(expected[0], 0);
  EXPECT_EQ(expected[1], 1);
  EXPECT_EQ(ImageNormalize(image.data(), 6, 6667, 0, 1), 0);
  EXPECT_EQ(image, expected);
}

TEST(Image, NormalizeAtTheEdges) {
  Image uniform(100, 7);
  EXPECT_EQ(ImageNormalize(uniform.data(), 10, 10, 250, 4000), 0);
  EXPECT_EQ(uniform, Image(100, 250));
  Image image = {0, 255};
  EXPECT_EQ(ImageNormalize(image.data(), 0, 2, 9, 9), 0);
  {
    const AllocationWatch watch(1);
    EXPECT_EQ(ImageNormalize(image.data(), 1, 2, 9, 9), 0);
  }
  EXPECT_EQ(image, (Image{0, 255}));
  EXPECT_EQ(ImageNormalize(image.data(), 1, 2, 250, 0xFFFFFFFFU), 0);
  EXPECT_EQ(image, (Image{0, 255}));
  EXPECT_EQ(ImageNormalize(nullptr, 1, 1, 1, 1), 1);
}

}  // namespace

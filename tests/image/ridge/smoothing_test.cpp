#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

#include "kelmtrova/image.h"
#include "tests/support/allocation.h"
#include "tests/support/guarded.h"

namespace {

using kelm::test::AllocationWatch;
using kelm::test::Guard;
using kelm::test::Guarded;
using Picture = std::vector<std::uint8_t>;

std::int16_t s16(int value) { return static_cast<std::int16_t>(value); }
std::uint8_t u8(int value) { return static_cast<std::uint8_t>(value); }

Picture plainMean(const Picture &source, int height, int width) {
  Picture out(source.size());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      int sum = 0;
      for (int v = std::max(y - 1, 0); v <= std::min(y + 1, height - 1); ++v) {
        for (int u = std::max(x - 1, 0); u <= std::min(x + 1, width - 1); ++u) {
          sum += source[static_cast<std::size_t>(v * width + u)];
        }
      }
      out[static_cast<std::size_t>(y * width + x)] = u8(sum / 9);
    }
  }
  return out;
}

TEST(MeanSmooth, EqualsThePlainMeanInPlaceApartAndOverlapping) {
  std::mt19937 random(3);
  for (int width = 1; width <= 131; ++width) {
    const int w = width == 131 ? 1000 : width;
    const int h = 1 + static_cast<int>(random() % 9);
    const auto size = static_cast<std::size_t>(h * w);
    Picture source(size);
    for (std::uint8_t &sample : source) {
      sample = random() % 3 == 0 ? 255 : u8(static_cast<int>(random() % 256));
    }
    const Picture expected = plainMean(source, h, w);
    // The destination lies this many samples behind (positive) or before the source; `size` is apart.
    const auto apart = static_cast<std::ptrdiff_t>(size);
    for (const std::ptrdiff_t shift :
         {std::ptrdiff_t{0}, std::ptrdiff_t{1}, std::ptrdiff_t{-1}, apart / 2, -(apart / 2), apart}) {
      const auto distance = static_cast<std::size_t>(std::abs(shift));
      Guarded<std::uint8_t> both(size + distance, width % 2 == 0 ? Guard::kAfter : Guard::kBefore);
      std::uint8_t *const from = both.data() + (shift < 0 ? distance : 0);
      std::copy(source.begin(), source.end(), from);
      ASSERT_EQ(MeanSmooth(from, from + shift, s16(h), s16(w)), 0);
      ASSERT_TRUE(std::equal(expected.begin(), expected.end(), from + shift)) << h << " x " << w << " shift " << shift;
    }
  }
}

TEST(MeanSmooth, WorkedExamplesAndRefusals) {
  struct {
    std::uint8_t level;
    std::array<std::uint8_t, 3> interiorEdgeCorner;
  } const cases[] = {{90, {90, 60, 40}}, {255, {255, 170, 113}}};
  for (const auto &c : cases) {
    Picture image(25, c.level);
    ASSERT_EQ(MeanSmooth(image.data(), image.data(), 5, 5), 0);
    EXPECT_EQ((std::array{image[12], image[2], image[24]}), c.interiorEdgeCorner);
  }
  Picture image(25, 90);
  Picture out(25, 1);
  EXPECT_EQ(MeanSmooth(nullptr, out.data(), 5, 5), 2);
  EXPECT_EQ(MeanSmooth(image.data(), nullptr, 5, 5), 2);
  EXPECT_EQ(MeanSmooth(image.data(), out.data(), 0, 5), 2);
  EXPECT_EQ(MeanSmooth(image.data(), out.data(), 5, -5), 2);
  AllocationWatch watch(1);
  EXPECT_EQ(MeanSmooth(image.data(), out.data(), 5, 5), 1);
  EXPECT_EQ(MeanSmooth(image.data(), image.data(), 5, 5), 0);
  EXPECT_EQ(watch.outstanding(), 0);
  EXPECT_EQ(out, Picture(25, 1));
}

// One line of samples `step` apart.
void plainStrip(std::uint8_t *line, int samples, int step, int value, int fill, int longest) {
  for (int i = 0; i < samples;) {
    int end = i;
    for (; end < samples && line[end * step] == value; ++end) {
    }
    for (int k = i; end - i <= longest && k < end; ++k) {
      line[k * step] = u8(fill);
    }
    i = std::max(end, i + 1);
  }
}

TEST(RemoveStripe, EqualsWalkingEveryLine) {
  std::mt19937 random(4);
  for (int round = 0; round < 420; ++round) {
    // The last rounds are long lines, with runs about as long as the longest that can be named.
    const bool large = round >= 400;
    const int length = large ? 900 + static_cast<int>(random() % 3000) : 1 + round % 200;
    const int other = 1 + static_cast<int>(random() % (large ? 3 : 140));
    const std::uint8_t direction = u8(static_cast<int>(random() % 2));
    const int h = direction == 0 ? other : length;
    const int w = direction == 0 ? length : other;
    const int longest = std::array{1, 2, 3, 7, 8, 63, 64, 65, 127, 128, 129, 200, 254, 255, 0}[random() % 15];
    const int mean = 1 + static_cast<int>(random() % static_cast<std::uint32_t>(2 * longest + 2));
    Picture picture(static_cast<std::size_t>(h * w));
    for (int line = 0; line < other; ++line) {
      for (int i = 0, sample = 0; i < length; ++i) {
        sample = random() % static_cast<std::uint32_t>(mean) == 0 ? 1 - sample : sample;
        picture[static_cast<std::size_t>(direction == 0 ? line * w + i : i * w + line)] = u8(sample * 255);
      }
    }
    const int value = random() % 2 == 0 ? 255 : 0;
    const int fill = std::array{0, 255, 100}[random() % 3];
    Guarded<std::uint8_t> image(std::span<const std::uint8_t>(picture),
                                round % 2 == 0 ? Guard::kAfter : Guard::kBefore);
    for (int line = 0; line < other; ++line) {
      plainStrip(picture.data() + (direction == 0 ? line * w : line), length, direction == 0 ? 1 : w, value, fill,
                 longest);
    }
    ASSERT_EQ(RemoveStripe(image.data(), s16(h), s16(w), u8(value), u8(fill), u8(longest), direction), 0);
    ASSERT_TRUE(std::equal(picture.begin(), picture.end(), image.begin()))
        << h << " x " << w << " longest " << longest << " direction " << int{direction};
  }
}

TEST(RemoveStripe, WorkedExamplesAndRefusals) {
  const Picture row = {0, 255, 255, 0, 255, 255, 255, 0};
  Picture image = row;
  EXPECT_EQ(RemoveStripe(image.data(), 1, 8, 255, 0, 2, 2), 0);
  EXPECT_EQ(RemoveStripe(image.data(), 1, 8, 255, 0, 0, 0), 0);
  EXPECT_EQ(image, row);
  EXPECT_EQ(RemoveStripe(nullptr, 1, 8, 255, 0, 2, 0), 2);
  EXPECT_EQ(RemoveStripe(image.data(), 0, 8, 255, 0, 2, 0), 2);
  EXPECT_EQ(RemoveStripe(image.data(), 1, 8, 255, 0, 2, 0), 0);
  EXPECT_EQ(image, (Picture{0, 0, 0, 0, 255, 255, 255, 0}));
}

}  // namespace

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "kelmtrova/image.h"
#include "tests/support/allocation.h"
#include "tests/support/guarded.h"

namespace {

using kelm::test::AllocationWatch;
using kelm::test::Guard;
using kelm::test::Guarded;

std::mt19937 generator(42);

template <typename T>
using Mask = std::vector<T>;

// Mostly foreground, with holes; `arbitrary` draws any value instead of 0 and `foreground`.
template <typename T>
Mask<T> randomMask(int height, int width, T foreground, bool arbitrary) {
  Mask<T> mask(static_cast<std::size_t>(height * width));
  const std::uint32_t holes = 2 + static_cast<std::uint32_t>(generator()) % 60;
  for (T &sample : mask) {
    const std::uint32_t bits = static_cast<std::uint32_t>(generator());
    sample = bits % holes == 0 ? T{0} : arbitrary ? static_cast<T>(bits >> 16) : foreground;
  }
  return mask;
}

bool inside(int y, int x, int height, int width) { return y > 0 && x > 0 && y + 1 < height && x + 1 < width; }

template <typename Mark>
void eachNeighbour(int y, int x, int width, Mark mark) {
  for (int k = 0; k < 9; ++k) {
    mark(static_cast<std::size_t>((y + k / 3 - 1) * width + x + k % 3 - 1), k == 4);
  }
}

Mask<std::uint8_t> model3x3(const Mask<std::uint8_t> &mask, int height, int width, bool dilate) {
  Mask<std::uint8_t> out = mask;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const auto here = static_cast<std::size_t>(y * width + x);
      if (!inside(y, x, height, width) || mask[here] == 0) {
        continue;
      }
      eachNeighbour(y, x, width, [&](std::size_t at, bool middle) {
        if (dilate && !middle) {
          out[at] = 255;
        } else if (!dilate && mask[at] == 0) {
          out[here] = 0;
        }
      });
    }
  }
  return out;
}

// Wrapping counts over the window.
template <typename T>
Mask<T> modelCounts(const Mask<T> &mask, int height, int width, int sizeX, int sizeY) {
  Mask<T> rows(mask.size()), counts(mask.size());
  const auto box = [](const Mask<T> &in, Mask<T> &out, int lines, int lineStep, int n, int step, int half) {
    for (int l = 0; l < lines; ++l) {
      for (int i = 0; i < n; ++i) {
        std::uint32_t sum = 0;
        for (int k = std::max(0, i - half); k <= std::min(n - 1, i + half); ++k) {
          sum += in[static_cast<std::size_t>(l * lineStep + k * step)];
        }
        out[static_cast<std::size_t>(l * lineStep + i * step)] = static_cast<T>(sum);
      }
    }
  };
  box(mask, rows, height, width, width, 1, sizeX / 2);
  box(rows, counts, width, 1, height, width, sizeY / 2);
  return counts;
}

template <typename T>
Mask<T> modelByCount(const Mask<T> &mask, int height, int width, int sizeX, int sizeY, bool dilate) {
  const Mask<T> counts = modelCounts(mask, height, width, sizeX, sizeY);
  const int area = sizeX * sizeY;
  Mask<T> out = mask;
  for (std::size_t i = 0; i < mask.size(); ++i) {
    if constexpr (sizeof(T) == 1) {
      const int threshold = static_cast<std::uint8_t>(0.1 * (area & 255) + 0.7);
      out[i] = dilate ? (counts[i] >= threshold ? 1 : mask[i]) : (counts[i] != area ? 0 : mask[i]);
    } else {
      const int threshold = static_cast<std::uint16_t>(0.7 + area * 0.18);
      out[i] = dilate ? counts[i] >= threshold : counts[i] == area;
    }
  }
  return out;
}

Mask<std::uint8_t> modelWrapper(const Mask<std::uint8_t> &mask, int height, int width, int sizeX, int sizeY,
                                bool dilate) {
  Mask<std::uint16_t> copy(mask.size());
  std::transform(mask.begin(), mask.end(), copy.begin(), [](std::uint8_t v) { return std::uint16_t{v != 0}; });
  copy = modelByCount(copy, height, width, sizeX, sizeY, dilate);
  Mask<std::uint8_t> out(mask.size());
  std::transform(copy.begin(), copy.end(), out.begin(), [](std::uint16_t v) { return v != 0 ? 255 : 0; });
  return out;
}

template <typename T, typename Call>
void expectMask(Call call, const Mask<T> &mask, const Mask<T> &expected, Guard guard) {
  Guarded<T> work(std::span<const T>(mask), guard);
  ASSERT_EQ(call(work.data()), 0);
  ASSERT_TRUE(std::equal(work.begin(), work.end(), expected.begin()));
}

TEST(Morphology3x3, EqualsPlainModel) {
  for (int n = 1; n <= 300; ++n) {
    const int height = n <= 130 ? 1 + n % 9 : n % 140 + 1;
    const int width = n <= 130 ? n : 1 + n % 37;
    SCOPED_TRACE(testing::Message() << height << " x " << width);
    const auto mask = randomMask<std::uint8_t>(height, width, 1, n % 2 == 0);
    const Guard guard = n % 4 < 2 ? Guard::kBefore : Guard::kAfter;
    const auto h = static_cast<std::int16_t>(height);
    const auto w = static_cast<std::int16_t>(width);
    // Dilation spreads from few pixels, erosion from few holes.
    auto sparse = randomMask<std::uint8_t>(height, width, 1, n % 2 == 0);
    std::transform(sparse.begin(), sparse.end(), mask.rbegin(), sparse.begin(),
                   [](std::uint8_t a, std::uint8_t b) { return b == 0 ? a : std::uint8_t{0}; });
    expectMask([&](std::uint8_t *m) { return BDilate(m, h, w); }, sparse, model3x3(sparse, height, width, true), guard);
    expectMask([&](std::uint8_t *m) { return BErode(m, h, w); }, mask, model3x3(mask, height, width, false), guard);
  }
}

struct Case {
  int height, width, sizeX, sizeY;
};

std::vector<Case> cases() {
  std::vector<Case> all = {{257, 361, 9, 9}, {40, 1030, 9, 9}, {300, 290, 255, 255}};
  for (int n = 1; n <= 130; ++n) {
    all.push_back({1 + n % 13, n, 1 + n % 11, 1 + n % 5});
    all.push_back({n, 1 + n % 35, 1 + n % 5, 1 + n % 11});
  }
  for (int size = 0; size < 256; ++size) {
    all.push_back({9, 50, size, 1 + size % 5});
    all.push_back({41, 17, 1 + size % 5, size});
  }
  return all;
}

TEST(CountMorphology, EqualsPlainModel) {
  int index = 0;
  for (const Case &c : cases()) {
    SCOPED_TRACE(testing::Message() << c.height << " x " << c.width << ", window " << c.sizeX << " x " << c.sizeY);
    const auto h = static_cast<std::int16_t>(c.height);
    const auto w = static_cast<std::int16_t>(c.width);
    const auto sizeX = static_cast<std::uint8_t>(c.sizeX);
    const auto sizeY = static_cast<std::uint8_t>(c.sizeY);
    const bool arbitrary = ++index % 3 == 0;
    const Guard guard = index % 2 == 0 ? Guard::kBefore : Guard::kAfter;
    const auto bytes = randomMask<std::uint8_t>(c.height, c.width, 1, arbitrary);
    const auto wide = randomMask<std::uint16_t>(c.height, c.width, 1, arbitrary);
    for (const bool dilate : {false, true}) {
      const auto onBytes = dilate ? BWDilateFast : BWErodeFast;
      const auto onWide = dilate ? BWDilateFastUint16 : BWErodeFastUint16;
      const auto wrapper = dilate ? MY_BWDilateFastUint16 : MY_BWErodeFastUint16;
      if (c.sizeX * c.sizeY <= 255) {
        expectMask([&](std::uint8_t *m) { return onBytes(m, h, w, sizeX, sizeY); }, bytes,
                   modelByCount(bytes, c.height, c.width, c.sizeX, c.sizeY, dilate), guard);
      } else {
        auto untouched = bytes;
        ASSERT_EQ(onBytes(untouched.data(), h, w, sizeX, sizeY), 2);
        ASSERT_EQ(untouched, bytes);
      }
      expectMask([&](std::uint16_t *m) { return onWide(m, h, w, sizeX, sizeY); }, wide,
                 modelByCount(wide, c.height, c.width, c.sizeX, c.sizeY, dilate), guard);
      expectMask([&](std::uint8_t *m) { return wrapper(m, h, w, sizeX, sizeY); }, bytes,
                 modelWrapper(bytes, c.height, c.width, c.sizeX, c.sizeY, dilate), guard);
    }
  }
}

TEST(Morphology, WorkedExamples) {
  Mask<std::uint8_t> mask(25, 0);
  mask[12] = 1;
  ASSERT_EQ(BDilate(mask.data(), 5, 5), 0);
  EXPECT_EQ(mask, (Mask<std::uint8_t>{0,   0, 0, 0,   0,   0,   255, 255, 255, 0, 0, 255, 1,
                                      255, 0, 0, 255, 255, 255, 0,   0,   0,   0, 0, 0}));
  // What a single pixel becomes under each count-based dilation.
  Mask<std::uint8_t> single(25, 0);
  single[12] = 1;
  Mask<std::uint16_t> wide(single.begin(), single.end());
  ASSERT_EQ(BWDilateFast(single.data(), 5, 5, 3, 3), 0);
  EXPECT_EQ(std::count(single.begin(), single.end(), 1), 9);
  ASSERT_EQ(BWDilateFastUint16(wide.data(), 5, 5, 3, 3), 0);
  EXPECT_EQ(std::count(wide.begin(), wide.end(), 0), 25);
  // Thresholds: a row of k pixels in the middle of an empty mask survives in its centre from k = T on.
  const struct {
    std::uint8_t size;
    int fast, wide;
  } thresholds[] = {{3, 1, 2}, {5, 3, 5}, {7, 5, 9}, {9, 8, 15}};
  for (const auto &t : thresholds) {
    for (int missing : {0, 1}) {
      Mask<std::uint8_t> small(21 * 21, 0), large(21 * 21, 0);
      const auto place = [&](Mask<std::uint8_t> &m, int count, std::uint8_t value) {
        for (int i = 0; i < count; ++i) {
          m[static_cast<std::size_t>((10 - t.size / 2 + i / t.size) * 21 + 10 - t.size / 2 + i % t.size)] = value;
        }
        m[10 * 21 + 10] = 0;
      };
      place(small, t.fast - missing, 1);
      place(large, t.wide - missing, 255);
      ASSERT_EQ(BWDilateFast(small.data(), 21, 21, t.size, t.size), 0);
      ASSERT_EQ(MY_BWDilateFastUint16(large.data(), 21, 21, t.size, t.size), 0);
      EXPECT_EQ(small[10 * 21 + 10], missing == 0 ? 1 : 0) << int{t.size};
      EXPECT_EQ(large[10 * 21 + 10], missing == 0 ? 255 : 0) << int{t.size};
    }
  }
}

TEST(Morphology, BadArgumentsAndExhaustedMemory) {
  const auto check = [](auto call, auto sample) {
    using T = decltype(sample);
    const Mask<T> before(30 * 20, 1);
    Mask<T> mask = before;
    EXPECT_EQ(call(static_cast<T *>(nullptr), std::int16_t{30}, std::int16_t{20}), 2);
    for (const auto bad : std::initializer_list<std::int16_t>{0, -1, -32768}) {
      EXPECT_EQ(call(mask.data(), bad, std::int16_t{20}), 2);
      EXPECT_EQ(call(mask.data(), std::int16_t{30}, bad), 2);
    }
    std::int32_t result;
    {
      AllocationWatch watch(1);
      result = call(mask.data(), std::int16_t{30}, std::int16_t{20});
      EXPECT_EQ(watch.allocations(), 1U);
    }
    EXPECT_EQ(result, 1);
    EXPECT_EQ(mask, before);
    AllocationWatch watch;
    EXPECT_EQ(call(mask.data(), std::int16_t{30}, std::int16_t{20}), 0);
    EXPECT_EQ(watch.allocations(), 1U);
    EXPECT_EQ(watch.outstanding(), 0);
  };
  for (const auto function : {BDilate, BErode}) {
    check(function, std::uint8_t{});
  }
  for (const auto function : {BWDilateFast, BWErodeFast, MY_BWDilateFastUint16, MY_BWErodeFastUint16}) {
    check([&](std::uint8_t *m, std::int16_t h, std::int16_t w) { return function(m, h, w, 11, 5); }, std::uint8_t{});
  }
  for (const auto function : {BWDilateFastUint16, BWErodeFastUint16}) {
    check([&](std::uint16_t *m, std::int16_t h, std::int16_t w) { return function(m, h, w, 11, 5); }, std::uint16_t{});
  }
}

}  // namespace

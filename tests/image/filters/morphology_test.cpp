// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "kelmtrova/image.h"
#include "tests/support/samples.h"
#include "tests/support/windows.h"

namespace {

using namespace kelm::test;

Random numbers(42);

template <typename T>
using Mask = std::vector<T>;

// Mostly foreground, with holes, or, for dilations, the contrary; `arbitrary` draws any value instead of 0 and 1.
template <typename T>
Mask<T> randomMask(int height, int width, bool arbitrary, bool sparse = false) {
  const int holes = 2 + numbers(sparse ? 10 : 60);
  return picture<T>(height, width, [&](int, int) {
    const int value = numbers(65536);
    return (numbers(holes) == 0) != sparse ? 0 : arbitrary ? value : 1;
  });
}

Bytes model3x3(const Bytes &mask, int height, int width, bool dilate) {
  Bytes out = mask;
  for (int y = 1; y + 1 < height; ++y) {
    for (int x = 1; x + 1 < width; ++x) {
      const auto here = static_cast<std::size_t>(y * width + x);
      for (int k = 0; mask[here] != 0 && k < 9; ++k) {
        const auto at = static_cast<std::size_t>((y + k / 3 - 1) * width + x + k % 3 - 1);
        if (dilate && k != 4) {
          out[at] = 255;
        } else if (!dilate && mask[at] == 0) {
          out[here] = 0;
        }
      }
    }
  }
  return out;
}

template <typename T>
Mask<T> modelByCount(const Mask<T> &mask, int height, int width, int sizeX, int sizeY, bool dilate) {
  Mask<T> counts(mask.size());  // the sums that wrap are compared with a model of their own
  if constexpr (sizeof(T) == 1) {
    call(fvs_ImageLocalSumChar2Char, counts.data(), mask.data(), height, width, sizeX, sizeY);
  } else {
    call(fvs_ImageLocalSumUint162Uint16, counts.data(), mask.data(), height, width, sizeX, sizeY);
  }
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

Bytes modelWrapper(const Bytes &mask, int height, int width, int sizeX, int sizeY, bool dilate) {
  Mask<std::uint16_t> wide(mask.size());
  std::transform(mask.begin(), mask.end(), wide.begin(), [](int v) { return v != 0; });
  wide = modelByCount(wide, height, width, sizeX, sizeY, dilate);
  Bytes out(mask.size());
  std::transform(wide.begin(), wide.end(), out.begin(), [](int v) { return v != 0 ? 255 : 0; });
  return out;
}

// What `function` makes of a mask hard against a guard page.
template <typename T, typename Function, typename... Sizes>
testing::AssertionResult gives(const Mask<T> &expected, int round, Function function, const Mask<T> &mask,
                               Sizes... sizes) {
  const Guarded<T> work(std::span<const T>(mask), guardOf(round));
  const int result = call(function, work.data(), sizes...);
  return result != 0 ? testing::AssertionFailure() << "result " << result : same(work.data(), expected);
}

TEST(Morphology3x3, EqualsPlainModel) {
  for (int n = 1; n <= 300; ++n) {
    const int h = n <= 130 ? 1 + n % 9 : n % 140 + 1;
    const int w = n <= 130 ? n : 1 + n % 37;
    const auto mask = randomMask<std::uint8_t>(h, w, n % 2 == 0);
    // Dilation spreads from few pixels, erosion from few holes.
    const auto sparse = picture(h, w, [&](int, int) { return numbers(1 + n % 60) == 0 ? n % 256 : 0; });
    ASSERT_TRUE(gives(model3x3(sparse, h, w, true), n / 2, BDilate, sparse, h, w)) << h << " x " << w;
    ASSERT_TRUE(gives(model3x3(mask, h, w, false), n / 2, BErode, mask, h, w)) << h << " x " << w;
  }
}

TEST(CountMorphology, EqualsPlainModel) {
  int index = 0;
  for (const auto &[h, w, x, y] : windows()) {
    SCOPED_TRACE(testing::Message() << h << " x " << w << ", window " << x << " x " << y);
    const bool arbitrary = ++index % 3 == 0;
    for (const bool dilate : {false, true}) {
      const auto bytes = randomMask<std::uint8_t>(h, w, arbitrary, dilate);
      const auto wide = randomMask<std::uint16_t>(h, w, arbitrary, dilate);
      const auto onBytes = dilate ? BWDilateFast : BWErodeFast;
      if (x * y <= 255) {
        ASSERT_TRUE(gives(modelByCount(bytes, h, w, x, y, dilate), index, onBytes, bytes, h, w, x, y));
      } else {
        auto untouched = bytes;
        ASSERT_EQ(call(onBytes, untouched.data(), h, w, x, y), 2);
        ASSERT_EQ(untouched, bytes);
      }
      ASSERT_TRUE(gives(modelByCount(wide, h, w, x, y, dilate), index, dilate ? BWDilateFastUint16 : BWErodeFastUint16,
                        wide, h, w, x, y));
      ASSERT_TRUE(gives(modelWrapper(bytes, h, w, x, y, dilate), index,
                        dilate ? MY_BWDilateFastUint16 : MY_BWErodeFastUint16, bytes, h, w, x, y));
    }
  }
}

TEST(Morphology, WorkedExamples) {
  Bytes mask(25, 0);
  mask[12] = 1;
  ASSERT_EQ(BDilate(mask.data(), 5, 5), 0);
  EXPECT_EQ(mask, (Bytes{0, 0, 0, 0, 0, 0, 255, 255, 255, 0, 0, 255, 1, 255, 0, 0, 255, 255, 255, 0, 0, 0, 0, 0, 0}));
  // What a single pixel becomes under each count-based dilation.
  Bytes single(25, 0);
  single[12] = 1;
  Mask<std::uint16_t> wide(single.begin(), single.end());
  ASSERT_EQ(BWDilateFast(single.data(), 5, 5, 3, 3), 0);
  EXPECT_EQ(std::count(single.begin(), single.end(), 1), 9);
  ASSERT_EQ(BWDilateFastUint16(wide.data(), 5, 5, 3, 3), 0);
  EXPECT_EQ(std::count(wide.begin(), wide.end(), 0), 25);
  // Thresholds: as many pixels around an empty centre fill it, and one fewer do not.
  const struct {
    std::uint8_t size;
    int fast, wide;
  } thresholds[] = {{3, 1, 2}, {5, 3, 5}, {7, 5, 9}, {9, 8, 15}};
  for (const auto &t : thresholds) {
    const auto centreWith = [&](int pixels, auto dilate) {
      Bytes square(std::size_t{t.size} * t.size, 0);
      std::fill_n(square.begin(), pixels, std::uint8_t{1});
      EXPECT_EQ(dilate(square.data(), t.size, t.size, t.size, t.size), 0);
      return square[square.size() / 2];
    };
    EXPECT_EQ(centreWith(t.fast - 1, BWDilateFast), 0) << int{t.size};
    EXPECT_EQ(centreWith(t.fast, BWDilateFast), 1) << int{t.size};
    EXPECT_EQ(centreWith(t.wide - 1, MY_BWDilateFastUint16), 0) << int{t.size};
    EXPECT_EQ(centreWith(t.wide, MY_BWDilateFastUint16), 255) << int{t.size};
  }
}

TEST(Morphology, BadArguments) {
  const auto check = [](auto function, auto sample, auto... sizes) {
    using T = decltype(sample);
    const Mask<T> before(12, 1);
    Mask<T> mask = before;
    EXPECT_EQ(call(function, static_cast<T *>(nullptr), 3, 4, sizes...), 2);
    for (const int bad : {0, -1, -32768}) {
      EXPECT_EQ(call(function, mask.data(), bad, 4, sizes...), 2);
      EXPECT_EQ(call(function, mask.data(), 3, bad, sizes...), 2);
    }
    EXPECT_EQ(mask, before);
  };
  for (const auto function : {BDilate, BErode}) {
    check(function, std::uint8_t{});
  }
  for (const auto function : {BWDilateFast, BWErodeFast, MY_BWDilateFastUint16, MY_BWErodeFastUint16}) {
    check(function, std::uint8_t{}, 11, 5);
  }
  for (const auto function : {BWDilateFastUint16, BWErodeFastUint16}) {
    check(function, std::uint16_t{}, 11, 5);
  }
}

}  // namespace

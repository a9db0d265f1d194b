// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <type_traits>

#include "kelmtrova/image.h"
#include "tests/support/allocation.h"
#include "tests/support/samples.h"
#include "tests/support/windows.h"

namespace {

using namespace kelm::test;

Random numbers(41);

template <typename T>
void fillRandom(T *samples, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    const auto bits = numbers();
    if constexpr (std::is_same_v<T, float>) {
      // Of very different sizes, so that any other order of the additions shows; negative zeros among them.
      samples[i] =
          bits % 16 == 0 ? -0.0F : static_cast<float>(static_cast<std::int32_t>(bits)) * (bits & 1 ? 1 : 1e-6F);
    } else {
      samples[i] = static_cast<T>(bits);
    }
  }
}

// The running sum over x[0], x[stride], ...: the order of the additions is that of the interface.
template <typename Out, typename In>
std::vector<Out> modelVector(const In *x, std::ptrdiff_t stride, int n, int size) {
  using Sum = std::conditional_t<std::is_same_v<Out, float>, float, std::uint32_t>;
  const int h = size / 2;
  const auto at = [&](int i) { return static_cast<Sum>(x[i * stride]); };
  std::vector<Out> y;
  Sum sum = at(0);
  for (int i = 1; i <= std::min(h, n - 1); ++i) {
    sum += at(i);
  }
  for (int i = 0; i < n; ++i) {
    y.push_back(static_cast<Out>(sum));
    sum = i + h + 1 < n ? sum + at(i + h + 1) : sum;
    sum = i - h >= 0 ? sum - at(i - h) : sum;
  }
  return y;
}

template <typename Out, typename In>
std::vector<Out> modelImage(const In *in, int height, int width, int sizeX, int sizeY) {
  std::vector<Out> rows;
  for (int y = 0; y < height; ++y) {
    const auto row = modelVector<Out>(in + static_cast<std::ptrdiff_t>(y) * width, 1, width, sizeX);
    rows.insert(rows.end(), row.begin(), row.end());
  }
  std::vector<Out> out(rows.size());
  for (int x = 0; x < width; ++x) {
    const auto column = modelVector<Out>(rows.data() + x, width, height, sizeY);
    for (int y = 0; y < height; ++y) {
      out[static_cast<std::size_t>(y * width + x)] = column[static_cast<std::size_t>(y)];
    }
  }
  return out;
}

// The sums of bytes are of 16 bits, those of 32-bit samples of 32.
template <typename T>
std::vector<T> modelMean(const T *in, int height, int width, int sizeX, int sizeY) {
  using Sum = std::conditional_t<sizeof(T) == 1, std::uint16_t, std::int32_t>;
  const int area = std::max(sizeX, 1) * std::max(sizeY, 1);
  std::vector<T> out;
  for (const Sum sum : modelImage<Sum>(in, height, width, sizeX, sizeY)) {
    const std::uint32_t rounded = static_cast<std::uint32_t>(sum) + static_cast<std::uint32_t>((area + 1) >> 1);
    out.push_back(static_cast<T>(static_cast<std::int32_t>(rounded) / area));
  }
  return out;
}

// `function` on images hard against a guard page, into a separate image and in place.
template <typename Out, typename In, typename Function, typename Model>
void compareWithModel(Function function, Model model, bool zeroRefused) {
  In one{1};
  Out untouched{9};
  EXPECT_EQ(call(function, static_cast<Out *>(nullptr), &one, 1, 1, 3, 3), 2);
  EXPECT_EQ(call(function, &untouched, static_cast<In *>(nullptr), 1, 1, 3, 3), 2);
  for (const int bad : {0, -1, -32768}) {
    EXPECT_EQ(call(function, &untouched, &one, bad, 1, 3, 3), 2);
    EXPECT_EQ(call(function, &untouched, &one, 1, bad, 3, 3), 2);
  }
  EXPECT_EQ(untouched, Out{9});
  int index = 0;
  for (const auto &[height, width, sizeX, sizeY] : windows()) {
    SCOPED_TRACE(testing::Message() << height << " x " << width << ", window " << sizeX << " x " << sizeY);
    const auto n = static_cast<std::size_t>(height * width);
    Guarded<In> in(n, guardOf(++index));
    Guarded<Out> out(n, guardOf(index));
    fillRandom(in.data(), n);
    const std::vector<In> before(in.begin(), in.end());
    const bool refused = zeroRefused && sizeX * sizeY == 0;
    const auto expected =
        refused ? std::vector<Out>(out.begin(), out.end()) : model(in.data(), height, width, sizeX, sizeY);
    ASSERT_EQ(call(function, out.data(), in.data(), height, width, sizeX, sizeY), refused ? 2 : 0);
    ASSERT_TRUE(same(out.data(), expected) && same(in.data(), before));
    if constexpr (std::is_same_v<In, Out>) {
      if (!refused) {
        ASSERT_EQ(call(function, in.data(), in.data(), height, width, sizeX, sizeY), 0);
        ASSERT_TRUE(same(in.data(), expected));
      }
    }
  }
}

template <typename Out, typename In, typename Function>
void compareSums(Function function) {
  compareWithModel<Out, In>(function, modelImage<Out, In>, false);
}

TEST(ImageLocalSum, EqualsPlainModel) {
  compareSums<std::uint8_t, std::uint8_t>(fvs_ImageLocalSumChar2Char);
  compareSums<std::uint16_t, std::uint8_t>(fvs_ImageLocalSumChar2Uint16);
  compareSums<std::uint16_t, std::uint16_t>(fvs_ImageLocalSumUint162Uint16);
  compareSums<std::int32_t, std::int32_t>(fvs_ImageLocalSumInt2Int);
  compareSums<float, float>(fvs_ImageLocalSumFloat2Float);
}

TEST(ImageMean, EqualsPlainModel) {
  compareWithModel<std::uint8_t, std::uint8_t>(fvs_ImageMeanChar2Char, modelMean<std::uint8_t>, true);
  compareWithModel<std::int32_t, std::int32_t>(fvs_ImageMeanInt2Int, modelMean<std::int32_t>, true);
}

// Where a reciprocal would show its error first: sums that are a multiple of the area, or next to one, for every area
// that two sizes can have.
TEST(ImageMean, DividesExactly) {
  std::vector<bool> seen(255 * 255 + 1);
  for (int sizeX = 1; sizeX < 256; ++sizeX) {
    for (int sizeY = sizeX; sizeY < 256; ++sizeY) {
      const int area = sizeX * sizeY;
      if (seen[static_cast<std::size_t>(area)]) {
        continue;
      }
      seen[static_cast<std::size_t>(area)] = true;
      std::vector<std::int32_t> wanted;
      for (int i = 0; i < 24; ++i) {
        const std::int64_t quotient = static_cast<std::int32_t>(numbers()) / area;
        const std::int64_t sum = quotient * area - ((area + 1) >> 1) + numbers(3) - 1;
        wanted.push_back(static_cast<std::int32_t>(sum));
      }
      // As far apart as a window is wide: each window holds one of them.
      const std::size_t apart = static_cast<std::size_t>(sizeX) + 1;
      std::vector<std::int32_t> in(wanted.size() * apart), out(in.size());
      for (std::size_t i = 0; i < wanted.size(); ++i) {
        in[i * apart + apart / 2] = wanted[i];
      }
      ASSERT_EQ(call(fvs_ImageMeanInt2Int, out.data(), in.data(), 1, in.size(), sizeX, sizeY), 0);
      const auto expected = modelMean(in.data(), 1, static_cast<int>(in.size()), sizeX, sizeY);
      ASSERT_EQ(out, expected) << "area " << area;
    }
  }
}

template <typename Out, typename In, typename Function>
void compareVectors(Function function) {
  for (int n : {1, 2, 3, 5, 8, 17, 64, 130}) {
    for (int size = 0; size < 256; size += n < 10 ? 1 : 7) {
      for (const auto [outStride, inStride] :
           {std::array{1, 1}, std::array{3, 2}, std::array{-2, 5}, std::array{7, -1}}) {
        const auto length = [n](int stride) { return static_cast<std::size_t>((n - 1) * std::abs(stride) + 1); };
        Guarded<In> in(length(inStride));
        Guarded<Out> out(length(outStride));
        fillRandom(in.data(), in.size());
        fillRandom(out.data(), out.size());
        const In *inBase = inStride < 0 ? in.end() - 1 : in.begin();
        Out *outBase = outStride < 0 ? out.end() - 1 : out.begin();
        std::vector<Out> expected(out.begin(), out.end());
        const auto sums = modelVector<Out>(inBase, inStride, n, size);
        for (int i = 0; i < n; ++i) {
          expected[static_cast<std::size_t>(outBase - out.begin() + i * outStride)] = sums[static_cast<std::size_t>(i)];
        }
        call(function, outBase, inBase, outStride, inStride, n, size);
        ASSERT_TRUE(same(out.data(), expected)) << n << ", window " << size << ", stride " << outStride;
      }
    }
  }
}

TEST(VectorLocalSum, EqualsPlainModel) {
  compareVectors<std::uint8_t, std::uint8_t>(fvs_VectorLocalSumChar2Char);
  compareVectors<std::uint16_t, std::uint8_t>(fvs_VectorLocalSumChar2Uint16);
  compareVectors<std::uint16_t, std::uint16_t>(fvs_VectorLocalSumUint162Uint16);
  compareVectors<std::int32_t, std::int32_t>(fvs_VectorLocalSumInt2Int);
  compareVectors<float, float>(fvs_VectorLocalSumFloat2Float);
}

TEST(LocalSums, WorkedExamples) {
  const Bytes vector = {1, 2, 3, 4, 5};
  Bytes sums(5);
  fvs_VectorLocalSumChar2Char(sums.data(), vector.data(), 1, 1, 5, 3);
  EXPECT_EQ(sums, (Bytes{3, 6, 9, 12, 9}));
  const struct {
    decltype(&fvs_ImageMeanChar2Char) function;
    std::uint8_t level, size;
    std::array<int, 3> middleEdgeCorner;
  } cases[] = {{fvs_ImageLocalSumChar2Char, 255, 3, {247, 250, 252}},
               {fvs_ImageMeanChar2Char, 255, 1, {0, 0, 0}},
               {fvs_ImageMeanChar2Char, 100, 3, {100, 67, 45}}};
  for (const auto &c : cases) {
    const Bytes image(25, c.level);
    Bytes out(25);
    ASSERT_EQ(c.function(out.data(), image.data(), 5, 5, c.size, c.size), 0);
    EXPECT_EQ((std::array<int, 3>{out[12], out[2], out[0]}), c.middleEdgeCorner);
  }
  const std::array<std::int32_t, 9> minus14 = {0, -14};
  std::array<std::int32_t, 9> mean{};
  ASSERT_EQ(fvs_ImageMeanInt2Int(mean.data(), minus14.data(), 3, 3, 3, 3), 0);
  EXPECT_EQ(mean[4], -1);
}

TEST(VectorLocalSum, BadArguments) {
  // Vectors without samples, and any stride over the one element that there is.
  std::uint8_t one = 7;
  fvs_VectorLocalSumChar2Char(&one, &one, 1, 1, 0, 3);
  fvs_VectorLocalSumChar2Char(&one, &one, 1, 1, -32768, 3);
  fvs_VectorLocalSumChar2Char(nullptr, &one, 1, 1, 1, 3);
  fvs_VectorLocalSumChar2Char(&one, nullptr, 1, 1, 1, 3);
  EXPECT_EQ(one, 7);
  fvs_VectorLocalSumChar2Char(&one, &one, 0, 0, 32767, 0);
  EXPECT_EQ(one, 7);
}

// The one member that delivers the sums along the rows when memory is short.
TEST(LocalSums, ExhaustedMemoryLeavesTheSumsAlongTheRows) {
  const Bytes in = noise(20, 30, numbers);
  std::vector<std::uint16_t> out(in.size());
  const AllocationWatch watch(1);
  EXPECT_EQ(fvs_ImageLocalSumChar2Uint16(out.data(), in.data(), 20, 30, 13, 7), 1);
  EXPECT_EQ(out, modelImage<std::uint16_t>(in.data(), 20, 30, 13, 1));
}

}  // namespace

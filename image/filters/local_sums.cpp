// SPDX-License-Identifier: Apache-2.0
// Box sums and box means.
#include "image/filters/local_sums.h"

#include <cmath>
#include <type_traits>

#include "image/filters/box_rows.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

// Signed samples are summed as unsigned ones, which wrap.
template <typename T>
using SumOf = std::conditional_t<std::is_same_v<T, std::int32_t>, std::uint32_t, T>;

// The vector sum, step by step; `out` and `in` do not overlap.
template <typename Out, typename In>
KELM_INLINE void vectorLocalSum(Out *out, const In *in, int outStride, int inStride, int n, std::uint8_t size) {
  using Sum = SumOf<Out>;
  if (out == nullptr || in == nullptr || n <= 0) {
    return;
  }
  const int half = size >> 1;
  Sum sum = static_cast<Sum>(in[0]);
  for (int i = 1; i <= half && i < n; ++i) {
    sum = static_cast<Sum>(sum + static_cast<Sum>(in[i * inStride]));
  }
  for (int i = 0; i < n; ++i) {
    out[i * outStride] = static_cast<Out>(sum);
    if (i + half + 1 < n) {
      sum = static_cast<Sum>(sum + static_cast<Sum>(in[(i + half + 1) * inStride]));
    }
    if (i >= half) {
      sum = static_cast<Sum>(sum - static_cast<Sum>(in[(i - half) * inStride]));
    }
  }
}

template <typename Out, typename In>
bool imageArgumentsAreBad(const Out *out, const In *in, int height, int width) {
  return out == nullptr || in == nullptr || height < 1 || width < 1;
}

template <typename Out, typename In>
bool sameImage(const Out *out, const In *in) {
  return static_cast<const void *>(out) == static_cast<const void *>(in);
}

// ---- Integer sums ----

template <typename Sum, typename In>
KELM_INLINE void sumsBody(Sum *out, const In *in, const BoxShape &shape, const BoxScratch<Sum, In> &scratch) {
  boxRows(
      out, in, shape, scratch, [](In sample) KELM_INLINE_LAMBDA { return static_cast<Sum>(sample); },
      [](Sum, Sum sum) KELM_INLINE_LAMBDA { return sum; });
}

using Scratch8 = BoxScratch<std::uint8_t, std::uint8_t>;
using Scratch8To16 = BoxScratch<std::uint16_t, std::uint8_t>;
using Scratch16 = BoxScratch<std::uint16_t, std::uint16_t>;
using Scratch32 = BoxScratch<std::uint32_t, std::uint32_t>;

KELM_KERNEL(void, sums, (std::uint8_t * out, const std::uint8_t *in, const BoxShape &shape, const Scratch8 &scratch),
            (out, in, shape, scratch), sumsBody)
KELM_KERNEL(void, sums,
            (std::uint16_t * out, const std::uint8_t *in, const BoxShape &shape, const Scratch8To16 &scratch),
            (out, in, shape, scratch), sumsBody)
KELM_KERNEL(void, sums, (std::uint16_t * out, const std::uint16_t *in, const BoxShape &shape, const Scratch16 &scratch),
            (out, in, shape, scratch), sumsBody)
KELM_KERNEL(void, sums, (std::uint32_t * out, const std::uint32_t *in, const BoxShape &shape, const Scratch32 &scratch),
            (out, in, shape, scratch), sumsBody)

template <typename Sum, typename In>
std::int32_t integerSum(Sum *out, const In *in, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY) {
  if (imageArgumentsAreBad(out, in, height, width)) {
    return 2;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  const BoxScratch<Sum, In> scratch(shape, sameImage(out, in));
  if (scratch.block == nullptr) {
    return 1;
  }
  sums(out, in, shape, scratch);
  return 0;
}

// ---- Means ----
//
// The quotient by the fixed area a comes from a multiplication by a reciprocal that is not below 1 / a, so that exact
// multiples of a do not fall short; everything else is at least 1 / a below the next integer. With e the error of
// reciprocal and product together, n * e / a must stay below 1 / a:
//  - 8-bit mean: single precision, n < 2^17 is exact, e < 2^-21;
//  - 32-bit mean: double precision, |n| <= 2^31 is exact, e < 2^-50.

KELM_INLINE void meanBody(std::uint8_t *out, const std::uint8_t *in, const BoxShape &shape, const Scratch8To16 &scratch,
                          std::int32_t area) {
  const std::int32_t rounding = (area + 1) >> 1;
  const float reciprocal = std::nextafter(1.0F / static_cast<float>(area), 2.0F);
  boxRows(
      out, in, shape, scratch, [](std::uint8_t sample) KELM_INLINE_LAMBDA { return std::uint16_t{sample}; },
      [=](std::uint8_t, std::uint16_t sum) KELM_INLINE_LAMBDA {
        return static_cast<std::uint8_t>(static_cast<std::int32_t>(static_cast<float>(sum + rounding) * reciprocal));
      });
}
KELM_KERNEL(void, mean,
            (std::uint8_t * out, const std::uint8_t *in, const BoxShape &shape, const Scratch8To16 &scratch,
             std::int32_t area),
            (out, in, shape, scratch, area), meanBody)

KELM_INLINE void meanBody(std::uint32_t *out, const std::uint32_t *in, const BoxShape &shape, const Scratch32 &scratch,
                          std::int32_t area) {
  const std::uint32_t rounding = static_cast<std::uint32_t>(area + 1) >> 1;
  const double reciprocal = std::nextafter(1.0 / area, 2.0);
  boxRows(
      out, in, shape, scratch, [](std::uint32_t sample) KELM_INLINE_LAMBDA { return sample; },
      [=](std::uint32_t, std::uint32_t sum) KELM_INLINE_LAMBDA {
        const double n = static_cast<std::int32_t>(sum + rounding);
        return static_cast<std::uint32_t>(static_cast<std::int32_t>(n * reciprocal));
      });
}
KELM_KERNEL(void, mean,
            (std::uint32_t * out, const std::uint32_t *in, const BoxShape &shape, const Scratch32 &scratch,
             std::int32_t area),
            (out, in, shape, scratch, area), meanBody)

template <typename Sum, typename In>
std::int32_t imageMean(In *out, const In *in, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY) {
  if (imageArgumentsAreBad(out, in, height, width) || sizeX == 0 || sizeY == 0) {
    return 2;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  const BoxScratch<Sum, In> scratch(shape, sameImage(out, in));
  if (scratch.block == nullptr) {
    return 1;
  }
  mean(out, in, shape, scratch, sizeX * sizeY);
  return 0;
}

// ---- Single-precision sums ----
//
// Every sum is made of the additions of the plain running sum in their order. Along the rows that is one chain of
// dependent additions per row, so rows are walked side by side; down the columns, columns are.

constexpr std::size_t kRowsTogether = 8;

// The lines of row sums kept at a time: a window's, the group of rows that is being made, and rounded up so that a
// group does not wrap around.
std::size_t rowSumSlots(const BoxShape &shape) { return roundUp(2 * shape.halfY + 1 + kRowsTogether, kRowsTogether); }

// Lines of so many bytes, or a multiple, all fall into one set of a first-level cache: the rows read and those written
// side by side would then drive each other out.
constexpr std::size_t kCacheSpan = 4096;

// How many samples further `scratch` lies half a span away from `in`.
std::size_t offsetAgainst(const float *in, const float *scratch) {
  const std::uintptr_t apart = reinterpret_cast<std::uintptr_t>(scratch) - reinterpret_cast<std::uintptr_t>(in);
  return (kCacheSpan / 2 - apart) % kCacheSpan / sizeof(float);
}

template <std::size_t kRows>
KELM_INLINE void rowSums(float *__restrict out, const float *__restrict in, std::size_t n, std::size_t half) {
  float sum[kRows];
  for (std::size_t r = 0; r < kRows; ++r) {
    sum[r] = in[r * n];
  }
  const std::size_t warm = std::min(half + 1, n);
  for (std::size_t i = 1; i < warm; ++i) {
    for (std::size_t r = 0; r < kRows; ++r) {
      sum[r] += in[r * n + i];
    }
  }
  // Where the window is cut at both ends it holds the whole row and neither gains nor loses.
  const std::size_t lastEntering = n - warm;  // elements enter while i is below this
  std::size_t i = 0;
  for (; i < std::min(half, lastEntering); ++i) {
    for (std::size_t r = 0; r < kRows; ++r) {
      out[r * n + i] = sum[r];
      sum[r] += in[r * n + i + half + 1];
    }
  }
  for (; i < std::min(half, n); ++i) {
    for (std::size_t r = 0; r < kRows; ++r) {
      out[r * n + i] = sum[r];
    }
  }
  for (; i < lastEntering; ++i) {
    for (std::size_t r = 0; r < kRows; ++r) {
      out[r * n + i] = sum[r];
      sum[r] += in[r * n + i + half + 1];
      sum[r] -= in[r * n + i - half];
    }
  }
  for (; i < n; ++i) {
    for (std::size_t r = 0; r < kRows; ++r) {
      out[r * n + i] = sum[r];
      sum[r] -= in[r * n + i - half];
    }
  }
}

KELM_INLINE void columnSums(float *__restrict out, float *__restrict columns, const float *__restrict entering,
                            const float *__restrict leaving, std::size_t n) {
  if (entering != nullptr && leaving != nullptr) {
    for (std::size_t x = 0; x < n; ++x) {
      const float sum = columns[x];
      out[x] = sum;
      columns[x] = sum + entering[x] - leaving[x];
    }
    return;
  }
  for (std::size_t x = 0; x < n; ++x) {
    out[x] = columns[x];
  }
  if (entering != nullptr) {
    for (std::size_t x = 0; x < n; ++x) {
      columns[x] += entering[x];
    }
  } else if (leaving != nullptr) {
    for (std::size_t x = 0; x < n; ++x) {
      columns[x] -= leaving[x];
    }
  }
}

// `columns` is a line of the image's width, `ring` min(rowSumSlots, height) such lines. Rows are read before they are
// overwritten, so `out` may be `in`.
KELM_INLINE void floatSumsBody(float *out, const float *in, const BoxShape &shape, float *columns, float *ring) {
  const std::size_t width = shape.width;
  const std::size_t slots = rowSumSlots(shape);
  std::size_t made = 0;
  const auto line = [&](std::size_t y) KELM_INLINE_LAMBDA {
    while (made <= y) {
      float *sums = ring + made % slots * width;
      if (made + kRowsTogether <= shape.height) {
        rowSums<kRowsTogether>(sums, in + made * width, width, shape.halfX);
        made += kRowsTogether;
      } else {
        rowSums<1>(sums, in + made * width, width, shape.halfX);
        ++made;
      }
    }
    return ring + y % slots * width;
  };
  std::memcpy(columns, line(0), width * sizeof(float));
  for (std::size_t y = 1; y <= shape.halfY && y < shape.height; ++y) {
    const float *entering = line(y);
    for (std::size_t x = 0; x < width; ++x) {
      columns[x] += entering[x];
    }
  }
  for (std::size_t y = 0; y < shape.height; ++y) {
    const std::size_t next = y + shape.halfY + 1;
    const float *entering = next < shape.height ? line(next) : nullptr;
    const float *leaving = y >= shape.halfY ? ring + (y - shape.halfY) % slots * width : nullptr;
    columnSums(out + y * width, columns, entering, leaving, width);
  }
}
KELM_KERNEL(void, floatSums, (float *out, const float *in, const BoxShape &shape, float *columns, float *ring),
            (out, in, shape, columns, ring), floatSumsBody)

}  // namespace

std::int32_t imageLocalSum(std::uint8_t *out, const std::uint8_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY) {
  return integerSum(out, in, height, width, sizeX, sizeY);
}

std::int32_t imageLocalSum(std::uint16_t *out, const std::uint8_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY) {
  const std::int32_t result = integerSum(out, in, height, width, sizeX, sizeY);
  if (result == 1) {
    // Part of the interface: when memory is short, the sums along the rows are delivered all the same.
    for (std::size_t y = 0; y < static_cast<std::size_t>(height); ++y) {
      const std::size_t row = y * static_cast<std::size_t>(width);
      vectorLocalSum(out + row, in + row, 1, 1, width, sizeX);
    }
  }
  return result;
}

std::int32_t imageLocalSum(std::uint16_t *out, const std::uint16_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY) {
  return integerSum(out, in, height, width, sizeX, sizeY);
}

std::int32_t imageLocalSum(std::int32_t *out, const std::int32_t *in, int height, int width, std::uint8_t sizeX,
                           std::uint8_t sizeY) {
  return integerSum(reinterpret_cast<std::uint32_t *>(out), reinterpret_cast<const std::uint32_t *>(in), height, width,
                    sizeX, sizeY);
}

std::int32_t imageLocalSum(float *out, const float *in, int height, int width, std::uint8_t sizeX, std::uint8_t sizeY) {
  if (imageArgumentsAreBad(out, in, height, width)) {
    return 2;
  }
  const BoxShape shape(height, width, sizeX, sizeY);
  const std::size_t needed = (1 + std::min(rowSumSlots(shape), shape.height)) * shape.width;
  const Block<float> lines = allocate<float>(needed + kCacheSpan / sizeof(float));
  if (lines == nullptr) {
    return 1;
  }
  float *columns = lines.get() + offsetAgainst(in, lines.get() + shape.width);
  floatSums(out, in, shape, columns, columns + shape.width);
  return 0;
}

}  // namespace kelm::image

using kelm::image::imageLocalSum;
using kelm::image::imageMean;
using kelm::image::vectorLocalSum;

void fvs_VectorLocalSumChar2Char(uint8_t *out, const uint8_t *in, int16_t outStride, int16_t inStride, int16_t n,
                                 uint8_t size) {
  vectorLocalSum(out, in, outStride, inStride, n, size);
}

void fvs_VectorLocalSumChar2Uint16(uint16_t *out, const uint8_t *in, int16_t outStride, int16_t inStride, int16_t n,
                                   uint8_t size) {
  vectorLocalSum(out, in, outStride, inStride, n, size);
}

void fvs_VectorLocalSumUint162Uint16(uint16_t *out, const uint16_t *in, int16_t outStride, int16_t inStride, int16_t n,
                                     uint8_t size) {
  vectorLocalSum(out, in, outStride, inStride, n, size);
}

void fvs_VectorLocalSumInt2Int(int32_t *out, const int32_t *in, int16_t outStride, int16_t inStride, int16_t n,
                               uint8_t size) {
  vectorLocalSum(out, in, outStride, inStride, n, size);
}

void fvs_VectorLocalSumFloat2Float(float *out, const float *in, int16_t outStride, int16_t inStride, int16_t n,
                                   uint8_t size) {
  vectorLocalSum(out, in, outStride, inStride, n, size);
}

int32_t fvs_ImageLocalSumChar2Char(uint8_t *out, const uint8_t *in, int16_t height, int16_t width, uint8_t sizeX,
                                   uint8_t sizeY) {
  return imageLocalSum(out, in, height, width, sizeX, sizeY);
}

int32_t fvs_ImageLocalSumChar2Uint16(uint16_t *out, const uint8_t *in, int16_t height, int16_t width, uint8_t sizeX,
                                     uint8_t sizeY) {
  return imageLocalSum(out, in, height, width, sizeX, sizeY);
}

int32_t fvs_ImageLocalSumUint162Uint16(uint16_t *out, const uint16_t *in, int16_t height, int16_t width, uint8_t sizeX,
                                       uint8_t sizeY) {
  return imageLocalSum(out, in, height, width, sizeX, sizeY);
}

int32_t fvs_ImageLocalSumInt2Int(int32_t *out, const int32_t *in, int16_t height, int16_t width, uint8_t sizeX,
                                 uint8_t sizeY) {
  return imageLocalSum(out, in, height, width, sizeX, sizeY);
}

int32_t fvs_ImageLocalSumFloat2Float(float *out, const float *in, int16_t height, int16_t width, uint8_t sizeX,
                                     uint8_t sizeY) {
  return imageLocalSum(out, in, height, width, sizeX, sizeY);
}

int32_t fvs_ImageMeanChar2Char(uint8_t *out, const uint8_t *in, int16_t height, int16_t width, uint8_t sizeX,
                               uint8_t sizeY) {
  return imageMean<std::uint16_t>(out, in, height, width, sizeX, sizeY);
}

int32_t fvs_ImageMeanInt2Int(int32_t *out, const int32_t *in, int16_t height, int16_t width, uint8_t sizeX,
                             uint8_t sizeY) {
  return imageMean<std::uint32_t>(reinterpret_cast<std::uint32_t *>(out), reinterpret_cast<const std::uint32_t *>(in),
                                  height, width, sizeX, sizeY);
}

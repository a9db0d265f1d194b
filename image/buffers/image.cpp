// SPDX-License-Identifier: Apache-2.0
// Elementary operations on grey images.
#include "kelmtrova/image.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "image/buffers/histogram.h"
#include "image/support/dispatch.h"
#include "image/support/memory.h"

#if KELM_MAX_LEVEL >= 2
#include <immintrin.h>
#endif

namespace kelm::image {
namespace {

// ---- Enlarging and reducing

KELM_INLINE void doubleRowBody(std::uint8_t *__restrict out, const std::uint8_t *__restrict in, std::size_t width) {
  for (std::size_t x = 0; x < width / 2; ++x) {
    out[2 * x] = in[x];
    out[2 * x + 1] = in[x];
  }
  if (width % 2 != 0) {
    out[width - 1] = in[width / 2];
  }
}

KELM_KERNEL(void, doubleRow, (std::uint8_t * out, const std::uint8_t *in, std::size_t width), (out, in, width),
            doubleRowBody)

constexpr float kCentre = 0.4015F;
constexpr float kNeighbour = 0.2992F;

// Columns that are computed together. Without a fixed number the compiler leaves up to 63 columns of a row to a loop of
// single ones, which takes more time than all the others.
constexpr std::size_t kBlock = 32;

// Two samples in one load.
KELM_INLINE int pairAt(const std::uint8_t *in) { return in[0] | in[1] << 8; }

// The row filter about the first sample of pair x + 1.
KELM_INLINE float filtered(const std::uint8_t *in, std::size_t x) {
  const int left = pairAt(in + 2 * x);
  const int right = pairAt(in + 2 * x + 2);
  const int neighbours = (left >> 8) + (right >> 8);
  return kCentre * static_cast<float>(right & 255) + kNeighbour * static_cast<float>(neighbours);
}

KELM_INLINE void filterRowBody(float *__restrict out, const std::uint8_t *__restrict in, std::size_t count) {
  for (std::size_t x = 0; x < count; ++x) {
    out[x] = filtered(in, x);
  }
}

KELM_KERNEL(void, filterRow, (float *out, const std::uint8_t *in, std::size_t count), (out, in, count), filterRowBody)

KELM_INLINE void reduceColumns(std::uint8_t *__restrict out, const float *__restrict filteredAbove,
                               float *__restrict filteredBelow, const std::uint8_t *__restrict centre,
                               const std::uint8_t *__restrict below, std::size_t count) {
  for (std::size_t x = 0; x < count; ++x) {
    filteredBelow[x] = filtered(below, x);
    const float value = kCentre * filtered(centre, x) + kNeighbour * (filteredAbove[x] + filteredBelow[x]);
    out[x] = static_cast<std::uint8_t>(static_cast<int>(value));
  }
}

// One output row from the filtered row above its centre; leaves the one below, which is above the next row's centre.
KELM_INLINE void reduceRowBody(std::uint8_t *out, const float *filteredAbove, float *filteredBelow,
                               const std::uint8_t *centre, const std::uint8_t *below, std::size_t count) {
  const auto columns = [&](std::size_t x, std::size_t n) __attribute__((always_inline)) {
    reduceColumns(out + x, filteredAbove + x, filteredBelow + x, centre + 2 * x, below + 2 * x, n);
  };
  if (count < kBlock) {
    columns(0, count);
    return;
  }
  std::size_t x = 0;
  for (; x + kBlock <= count; x += kBlock) {
    columns(x, kBlock);
  }
  columns(count - kBlock, kBlock);
}

KELM_KERNEL(void, reduceRow,
            (std::uint8_t * out, const float *filteredAbove, float *filteredBelow, const std::uint8_t *centre,
             const std::uint8_t *below, std::size_t count),
            (out, filteredAbove, filteredBelow, centre, below, count), reduceRowBody)

// The smoothed part of a reduced image (rows and columns from 1 on), in strips of columns whose filtered rows stay on
// the stack.
void reduceInterior(std::uint8_t *out, const std::uint8_t *source, std::size_t sourceWidth, std::size_t height,
                    std::size_t width) {
  constexpr std::size_t kStrip = 1024;
  float strips[2][kStrip];
  for (std::size_t x = 1; x < width; x += kStrip) {
    const std::size_t count = std::min(kStrip, width - x);
    float *above = strips[0];
    float *below = strips[1];
    const std::uint8_t *row = source + sourceWidth + 2 * (x - 1);  // row 2y - 1
    filterRow(above, row, count);
    for (std::size_t y = 1; y < height; ++y, row += 2 * sourceWidth) {
      reduceRow(out + y * width + x, above, below, row + sourceWidth, row + 2 * sourceWidth, count);
      std::swap(above, below);
    }
  }
}

// ---- Normalising

struct Sums {
  std::uint32_t values;
  std::uint32_t squares;
};

KELM_INLINE Sums sumPixelsBody(const std::uint8_t *pixels, std::size_t count) {
  Sums sums{};
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t p = pixels[i];
    sums.values += p;
    sums.squares += p * p;
  }
  return sums;
}

KELM_KERNEL(Sums, sumPixelsInLoop, (const std::uint8_t *pixels, std::size_t count), (pixels, count), sumPixelsBody)

// A grey level p becomes (p - mean) * gain + target, cut to 0 ... 255 and rounded.
struct Tone {
  int mean;
  float gain;
  float target;
};

KELM_INLINE void applyToneBody(std::uint8_t *pixels, std::size_t count, Tone tone) {
  for (std::size_t i = 0; i < count; ++i) {
    float value = static_cast<float>(pixels[i] - tone.mean) * tone.gain + tone.target;
    value = value < 0.0F ? 0.0F : value;
    value = value > 255.0F ? 255.0F : value;
    // value + 0.5 as double precision has it: the fraction is exact in single precision, the sum would not be.
    const int whole = static_cast<int>(value);
    const int up = value - static_cast<float>(whole) >= 0.5F ? 1 : 0;
    pixels[i] = static_cast<std::uint8_t>(whole + up);
  }
}

KELM_KERNEL(void, applyTone, (std::uint8_t * pixels, std::size_t count, Tone tone), (pixels, count, tone),
            applyToneBody)

#if KELM_MAX_LEVEL >= 2
#define KELM_TARGET_VBMI __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi")))

bool hasVbmi() { return instructionSet() == InstructionSet::kAvx512 && __builtin_cpu_supports("avx512vbmi"); }

// The first `left` of 64 pixels, or all of them.
KELM_TARGET_VBMI inline __mmask64 firstPixels(std::size_t left) {
  return left >= 64 ? ~__mmask64{0} : (__mmask64{1} << left) - 1;
}

// A quarter of the loop's time.
KELM_TARGET_VBMI Sums sumPixelsInVectors(const std::uint8_t *pixels, std::size_t count) {
  const __m512i zero = _mm512_setzero_si512();
  __m512i values = zero;
  __m512i squares = zero;
  for (std::size_t i = 0; i < count; i += 64) {
    const __m512i levels = _mm512_maskz_loadu_epi8(firstPixels(count - i), pixels + i);
    const __m512i low = _mm512_unpacklo_epi8(levels, zero);
    const __m512i high = _mm512_unpackhi_epi8(levels, zero);
    values = _mm512_add_epi32(values, _mm512_sad_epu8(levels, zero));
    squares = _mm512_add_epi32(squares, _mm512_madd_epi16(low, low));
    squares = _mm512_add_epi32(squares, _mm512_madd_epi16(high, high));
  }
  std::uint32_t lanes[2][16];
  _mm512_storeu_si512(lanes[0], values);
  _mm512_storeu_si512(lanes[1], squares);
  Sums sums{};
  for (int lane = 0; lane < 16; ++lane) {
    sums.values += lanes[0][lane];
    sums.squares += lanes[1][lane];
  }
  return sums;
}

// 64 look-ups at a time in a table of 256 bytes that stays in four registers.
KELM_TARGET_VBMI void mapPixels(std::uint8_t *pixels, std::size_t count, const std::uint8_t *table) {
  const __m512i first = _mm512_loadu_si512(table);
  const __m512i second = _mm512_loadu_si512(table + 64);
  const __m512i third = _mm512_loadu_si512(table + 128);
  const __m512i fourth = _mm512_loadu_si512(table + 192);
  for (std::size_t i = 0; i < count; i += 64) {
    const __mmask64 valid = firstPixels(count - i);
    const __m512i levels = _mm512_maskz_loadu_epi8(valid, pixels + i);
    const __m512i low = _mm512_permutex2var_epi8(first, levels, second);
    const __m512i high = _mm512_permutex2var_epi8(third, levels, fourth);
    _mm512_mask_storeu_epi8(pixels + i, valid, _mm512_mask_blend_epi8(_mm512_movepi8_mask(levels), low, high));
  }
}
#endif

Sums sumPixels(const std::uint8_t *pixels, std::size_t count) {
#if KELM_MAX_LEVEL >= 2
  if (hasVbmi()) {
    return sumPixelsInVectors(pixels, count);
  }
#endif
  return sumPixelsInLoop(pixels, count);
}

// Through a table where look-ups are fast; `table` is scratch memory for its 256 bytes.
void normalizePixels(std::uint8_t *pixels, std::size_t count, Tone tone, [[maybe_unused]] std::uint8_t *table) {
#if KELM_MAX_LEVEL >= 2
  if (hasVbmi()) {
    for (int level = 0; level < kGreyLevels; ++level) {
      table[level] = static_cast<std::uint8_t>(level);
    }
    applyTone(table, kGreyLevels, tone);
    mapPixels(pixels, count, table);
    return;
  }
#endif
  applyTone(pixels, count, tone);
}

float rootOf(std::uint32_t variance) {
  return static_cast<float>(std::sqrt(static_cast<double>(static_cast<float>(variance))));
}

}  // namespace
}  // namespace kelm::image

using namespace kelm::image;

int32_t ImageCopy(uint8_t *destination, const uint8_t *source, uint16_t height, uint16_t width) {
  if (destination == nullptr || source == nullptr) {
    return 1;
  }
  std::memmove(destination, source, std::size_t{height} * width);
  return 0;
}

static int32_t flood(uint8_t *image, uint8_t value, uint16_t height, uint16_t width) {
  if (image == nullptr) {
    return 1;
  }
  std::memset(image, value, std::size_t{height} * width);
  return 0;
}

int32_t ImageFlood(uint8_t *image, uint8_t value, uint16_t height, uint16_t width) {
  return flood(image, value, height, width);
}

int32_t ImageClear(uint8_t *image, uint16_t height, uint16_t width) { return flood(image, 0, height, width); }

uint8_t *ImageEnlarge(const uint8_t *source, uint16_t sourceHeight, uint16_t sourceWidth, uint16_t outHeight,
                      uint16_t outWidth) {
  const std::size_t height = outHeight;
  const std::size_t width = outWidth;
  const bool empty = height == 0 || width == 0;
  if (source == nullptr || (!empty && ((height + 1) / 2 > sourceHeight || (width + 1) / 2 > sourceWidth))) {
    return nullptr;
  }
  Block<std::uint8_t> out = allocate<std::uint8_t>(height * width);
  if (out == nullptr || empty) {
    return out.release();
  }
  for (std::size_t y = 0; y < height; ++y) {
    std::uint8_t *row = out.get() + y * width;
    if (y % 2 == 0) {
      doubleRow(row, source + y / 2 * sourceWidth, width);
    } else {
      std::memcpy(row, row - width, width);
    }
  }
  return out.release();
}

uint8_t *ImageReduce(const uint8_t *source, uint16_t sourceHeight, uint16_t sourceWidth, uint16_t outHeight,
                     uint16_t outWidth) {
  const std::size_t height = outHeight;
  const std::size_t width = outWidth;
  const bool empty = height == 0 || width == 0;
  // A single output row or column is sampled without neighbours, so its last source row or column is 2 * extent - 2.
  const std::size_t unread = height >= 2 && width >= 2 ? 0 : 1;
  if (source == nullptr || (!empty && (2 * height - unread > sourceHeight || 2 * width - unread > sourceWidth))) {
    return nullptr;
  }
  Block<std::uint8_t> out = allocate<std::uint8_t>(height * width);
  if (out == nullptr || empty) {
    return out.release();
  }
  for (std::size_t x = 0; x < width; ++x) {
    out[x] = source[2 * x];
  }
  for (std::size_t y = 1; y < height; ++y) {
    out[y * width] = source[2 * y * sourceWidth];
  }
  if (height >= 2) {
    reduceInterior(out.get(), source, sourceWidth, height, width);
  }
  return out.release();
}

int32_t ImageNormalize(uint8_t *image, uint16_t height, uint16_t width, uint8_t targetMean, uint32_t targetVariance) {
  if (image == nullptr) {
    return 1;
  }
  const std::size_t pixels = std::size_t{height} * width;
  const Block<std::uint8_t> table = allocate<std::uint8_t>(kGreyLevels);
  if (table == nullptr) {
    return 0;
  }
  const Sums sums = sumPixels(image, pixels);
  const auto count = static_cast<std::uint32_t>(pixels);
  const std::uint32_t mean = roundedMean(sums.values, count);
  // The sum of (p - mean)^2, which like the sums themselves wraps in 32 bits.
  const std::uint32_t squares = sums.squares - 2 * mean * sums.values + count * mean * mean;
  const float deviation = rootOf(roundedVariance(squares, count));
  const float gain = deviation > 0 ? rootOf(targetVariance) / deviation : 0.0F;
  normalizePixels(image, pixels, {static_cast<int>(mean), gain, static_cast<float>(targetMean)}, table.get());
  return 0;
}

// SPDX-License-Identifier: Apache-2.0
// Normalising an image to a target mean and variance.
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "image/buffers/histogram.h"
#include "image/buffers/histogram_statistics.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "kelmtrova/image.h"

#if KELM_MAX_LEVEL >= 2
#include <immintrin.h>
#endif

namespace kelm::image {
namespace {

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
constexpr auto sumPixelsInLoop = kernel<sumPixelsBody>;

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
constexpr auto applyTone = kernel<applyToneBody>;

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

int32_t ImageNormalize(uint8_t *image, uint16_t height, uint16_t width, uint8_t targetMean, uint32_t targetVariance) {
  if (image == nullptr) {
    return 1;  // of this function alone: a null image
  }
  const std::size_t pixels = std::size_t{height} * width;
  const Buffer<std::uint8_t> table = allocate<std::uint8_t>(kGreyLevels);
  if (table == nullptr) {
    return KELM_IMAGE_OK;
  }
  const Sums sums = sumPixels(image, pixels);
  const auto count = static_cast<std::uint32_t>(pixels);
  const std::uint32_t mean = roundedMean(sums.values, count);
  // The sum of (p - mean)^2, which like the sums themselves wraps in 32 bits.
  const std::uint32_t squares = sums.squares - 2 * mean * sums.values + count * mean * mean;
  const float deviation = rootOf(roundedVariance(squares, count));
  const float gain = deviation > 0 ? rootOf(targetVariance) / deviation : 0.0F;
  normalizePixels(image, pixels, {static_cast<int>(mean), gain, static_cast<float>(targetMean)}, table.get());
  return KELM_IMAGE_OK;
}

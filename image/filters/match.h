// SPDX-License-Identifier: Apache-2.0
// Which of 64 neighbouring samples lie in a range of grey levels, as the bits of a word: what run finding is made of.
#ifndef KELMTROVA_IMAGE_FILTERS_MATCH_H
#define KELMTROVA_IMAGE_FILTERS_MATCH_H

#include <bit>
#include <cstddef>
#include <cstdint>

#include "image/support/kernel.h"
#include "image/support/sse2.h"

namespace kelm::image {

// The grey levels low to low + span.
struct GreyRange {
  std::uint8_t low;
  std::uint8_t span;
};

// The samples of a picture, seen through a range of grey levels.
struct Matcher {
  const std::uint8_t *samples;
  std::size_t size;
  GreyRange range;
};

KELM_INLINE bool inRange(std::uint8_t sample, GreyRange range) {
  return static_cast<std::uint8_t>(sample - range.low) <= range.span;
}

KELM_INLINE std::uint64_t matchSome(const std::uint8_t *samples, std::size_t count, GreyRange range) {
  std::uint64_t bits = 0;
  for (std::size_t i = 0; i < count; ++i) {
    bits |= static_cast<std::uint64_t>(inRange(samples[i], range)) << i;
  }
  return bits;
}

// Bit i stands for samples[i].
KELM_INLINE std::uint64_t match64(const std::uint8_t *samples, GreyRange range) {
  const __m128i low = _mm_set1_epi8(static_cast<char>(range.low));
  const __m128i span = _mm_set1_epi8(static_cast<char>(range.span));
  std::uint64_t bits = 0;
  for (int i = 0; i < 64; i += 16) {
    const __m128i above = _mm_sub_epi8(load16(samples + i), low);
    const int mask = _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(above, span), above));
    bits |= static_cast<std::uint64_t>(static_cast<unsigned>(mask)) << i;
  }
  return bits;
}

// Bit i stands for sample at + i, the first of which exists; samples past the end do not match. Reads nothing outside
// the samples.
KELM_INLINE std::uint64_t matchFrom(const Matcher &matcher, std::size_t at) {
  if (at + 64 <= matcher.size) {
    return match64(matcher.samples + at, matcher.range);
  }
  const std::size_t left = matcher.size - at;
  if (matcher.size >= 64) {
    return match64(matcher.samples + matcher.size - 64, matcher.range) >> (64 - left);
  }
  return matchSome(matcher.samples + at, left, matcher.range);
}

// The same for the samples before `at`, which is not 0: bit 63 stands for sample at - 1, bit 62 for at - 2, and so on.
KELM_INLINE std::uint64_t matchBefore(const Matcher &matcher, std::size_t at) {
  if (at >= 64) {
    return match64(matcher.samples + at - 64, matcher.range);
  }
  return matchFrom(matcher, 0) << (64 - at);
}

// Of the `count` samples from `at` on, at most 64.
KELM_INLINE std::uint64_t matchFrom(const Matcher &matcher, std::size_t at, std::size_t count) {
  const std::uint64_t bits = matchFrom(matcher, at);
  return count >= 64 ? bits : bits & ((std::uint64_t{1} << count) - 1);
}

}  // namespace kelm::image

#endif
